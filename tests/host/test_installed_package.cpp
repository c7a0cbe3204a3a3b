// Promise: hosts. The installed package: `cmake --install` into a fresh
// prefix gives the library, its headers and the package files, and a project
// outside this build compiles, links and runs against it through
// find_package and through pkg-config.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

class InstalledPackage : public testing::Test {
protected:
    // Each test installs into its own prefix, so tests may run in parallel.
    void SetUp() override {
        folder_ = fs::path(FLATMORPH_TEST_DIR) / testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::remove_all(folder_);
        fs::create_directories(folder_);
        prefix_ = folder_ / "prefix";
        ASSERT_EQ(shell(std::string(FLATMORPH_CMAKE) + " --install " + FLATMORPH_BUILD_DIR + " --prefix " +
                        prefix_.string()),
                  0)
            << output_;
    }

    // Runs `command` in a shell; its output (both streams) is kept in output_.
    int shell(const std::string &command) {
        const fs::path log = folder_ / "command.log";
        const int raw = std::system((command + " >" + log.string() + " 2>&1").c_str());
        std::ifstream in(log);
        std::stringstream text;
        text << in.rdbuf();
        output_ = text.str();
        return WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    }

    void expect_consumer_ran(const fs::path &program) {
        ASSERT_EQ(shell(program.string()), 0) << output_;
        EXPECT_EQ(output_.rfind("flatmorph consumer: ok", 0), 0u) << output_;
    }

    fs::path folder_, prefix_;
    std::string output_;
};

TEST_F(InstalledPackage, HoldsTheLibraryHeadersAndPackageFiles) {
    for (const char *file : {"lib/libflatmorph.so", "include/flatmorph/flatmorph.h",
                             "include/flatmorph/HalideRuntime.h", "include/flatmorph/flatmorph_host.h",
                             "include/flatmorph/flatmorph_cpu.h", "lib/cmake/flatmorph/flatmorphConfig.cmake",
                             "lib/cmake/flatmorph/flatmorphConfigVersion.cmake", "lib/pkgconfig/flatmorph.pc",
                             "share/doc/flatmorph/HalideRuntime-LICENSE.txt"})
        EXPECT_TRUE(fs::is_regular_file(prefix_ / file)) << file;
}

TEST_F(InstalledPackage, ConsumerBuildsWithFindPackage) {
    const fs::path build = folder_ / "consumer-build";
    ASSERT_EQ(shell(std::string(FLATMORPH_CMAKE) + " -S " + FLATMORPH_CONSUMER_SOURCE + " -B " + build.string() +
                    " -G \"" FLATMORPH_GENERATOR "\" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=" +
                    prefix_.string()),
              0)
        << output_;
    ASSERT_EQ(shell(std::string(FLATMORPH_CMAKE) + " --build " + build.string()), 0) << output_;
    expect_consumer_ran(build / "flatmorph_consumer");
}

TEST_F(InstalledPackage, ConsumerBuildsWithPkgConfig) {
    const std::string pkg_config = FLATMORPH_PKG_CONFIG;
    if (pkg_config.empty()) GTEST_SKIP() << "pkg-config was not found when this build was configured";
    const std::string query = "PKG_CONFIG_PATH=" + (prefix_ / "lib/pkgconfig").string() + " " + pkg_config;
    const fs::path program = folder_ / "flatmorph_consumer";
    ASSERT_EQ(shell(std::string(FLATMORPH_CXX) + " -std=c++17 " + FLATMORPH_CONSUMER_SOURCE "/main.cpp -o " +
                    program.string() + " $(" + query + " --cflags --libs flatmorph) -Wl,-rpath,$(" + query +
                    " --variable=libdir flatmorph)"),
              0)
        << output_;
    expect_consumer_ran(program);
}

}  // namespace
