// Promise: hosts. The installed package serves a consumer through find_package and pkg-config.
// (One test, left out of the sanitizer run: the consumer is not instrumented.)
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

namespace fs = std::filesystem;

const fs::path kFolder = FLATMORPH_TEST_DIR;

// Runs `command` in a shell: its exit status and output (both streams).
std::pair<int, std::string> shell(const std::string &command) {
    const fs::path log = kFolder / "command.log";
    const int raw = std::system((command + " >" + log.string() + " 2>&1").c_str());
    std::stringstream text;
    text << std::ifstream(log).rdbuf();
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, text.str()};
}

testing::AssertionResult runs(const std::string &command) {
    const auto [status, output] = shell(command);
    if (status == 0) return testing::AssertionSuccess();
    return testing::AssertionFailure() << command << "\n" << output;
}

TEST(InstalledPackage, ConsumerBuildsWithFindPackageAndPkgConfig) {
    const fs::path prefix = kFolder / "prefix", build = kFolder / "consumer-build", program = kFolder / "consumer";
    fs::remove_all(kFolder);
    fs::create_directories(kFolder);
    ASSERT_TRUE(
        runs(std::string(FLATMORPH_CMAKE) + " --install " + FLATMORPH_BUILD_DIR + " --prefix " + prefix.string()));
    // The consumer builds below use the rest of the package.
    EXPECT_TRUE(fs::is_regular_file(prefix / "share/doc/flatmorph/HalideRuntime-LICENSE.txt"));

    ASSERT_TRUE(runs(std::string(FLATMORPH_CMAKE) + " -S " + FLATMORPH_CONSUMER_SOURCE + " -B " + build.string() +
                " -G \"" FLATMORPH_GENERATOR "\" -DCMAKE_BUILD_TYPE=Release -DCMAKE_PREFIX_PATH=" + prefix.string()));
    ASSERT_TRUE(runs(std::string(FLATMORPH_CMAKE) + " --build " + build.string()));
    std::vector<fs::path> consumers = {build / "flatmorph_consumer"};
    const std::string pkg_config = FLATMORPH_PKG_CONFIG;
    if (pkg_config.empty()) {
        std::printf("[ SKIPPED  ] pkg-config: it was not found when this build was configured\n");
    } else {
        const std::string query = "PKG_CONFIG_PATH=" + (prefix / "lib/pkgconfig").string() + " " + pkg_config;
        ASSERT_TRUE(runs(std::string(FLATMORPH_CXX) + " -std=c++17 " + FLATMORPH_CONSUMER_SOURCE "/main.cpp -o " +
                    program.string() + " $(" + query + " --cflags --libs flatmorph) -Wl,-rpath,$(" + query +
                    " --variable=libdir flatmorph)"));
        consumers.push_back(program);
    }
    for (const fs::path &consumer : consumers) {
        const auto [status, output] = shell(consumer.string());
        EXPECT_EQ(status, 0) << consumer;
        EXPECT_EQ(output.rfind("flatmorph consumer: ok", 0), 0u) << consumer << ": " << output;
    }
}

}  // namespace
