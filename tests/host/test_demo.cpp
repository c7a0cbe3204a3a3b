// Promise: hosts. The demo as a user sees it: files written, results, speed lines, --help, one-line errors.
#include "support/reference.h"

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace {

namespace fs = std::filesystem;

const char *const kFilters[] = {"imdilate", "imerode", "imopen", "imclose", "imtophat", "imbothat"};

struct DemoRun {
    fs::path folder;
    int exit_code;  // -1 when ended by a signal
    std::string out, err;
};

std::string read_text(const fs::path &path) {
    std::stringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// Makes a fresh folder for the test holding the input files the rows name,
// runs the demo there with `arguments` ({dir} stands for the folder).
DemoRun run_demo(std::string arguments) {
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    const fs::path folder = fs::path(FLATMORPH_TEST_DIR) / (std::string(test->test_suite_name()) + "." + test->name());
    fs::remove_all(folder);
    fs::create_directories(folder);
    cv::RNG rng(7);
    cv::Mat grey8(30, 40, CV_8U), grey16(50, 70, CV_16U), colour8(24, 32, CV_8UC3), float32(8, 8, CV_32F);
    for (cv::Mat *m : {&grey16, &float32}) rng.fill(*m, cv::RNG::UNIFORM, 0, 65536);
    rng.fill(colour8, cv::RNG::UNIFORM, 0, 256);
    rng.fill(grey8, cv::RNG::UNIFORM, 0, 128);  // residuals that int16 holds without saturating
    cv::imwrite((folder / "grey8.pgm").string(), grey8);
    cv::imwrite((folder / "grey16.tif").string(), grey16);
    cv::imwrite((folder / "colour8.png").string(), colour8);
    cv::imwrite((folder / "float32.tif").string(), float32);
    std::ofstream(folder / "truncated.png") << read_text(folder / "colour8.png").substr(0, 80);
    std::ofstream(folder / "absurd.pgm") << "P5\n100000 100000\n255\n";

    for (size_t at; (at = arguments.find("{dir}")) != std::string::npos;) arguments.replace(at, 5, folder.string());
    const std::string command = std::string(FLATMORPH_DEMO) + " " + arguments + " >" + (folder / "stdout").string() +
                                " 2>" + (folder / "stderr").string();
    const int raw = std::system(command.c_str());
    return {folder, WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, read_text(folder / "stdout"), read_text(folder / "stderr")};
}

cv::Mat read_image(const fs::path &path) { return cv::imread(path.string(), cv::IMREAD_UNCHANGED); }

struct GoodRun {
    const char *name, *arguments;
    const char *input;       // file in the test's folder, or "" for the built-in image
    const char *type, *tag;  // tag "" : the widest this processor runs
    int width, height, depth;
    cv::Size rectangle;  // the mask if it is one, else empty
};

void PrintTo(const GoodRun &r, std::ostream *os) { *os << r.name; }

const GoodRun kGoodRuns[] = {
    {"BuiltInImage", "--width 160 --height 120 --repeat 1", "", "uint8", "", 160, 120, CV_8U, {}},
    {"SixteenBitTiffWithASquare", "--mask square --size 5", "grey16.tif", "uint16", "", 70, 50, CV_16U, {5, 5}},
    {"PgmAsInt16WithALineOnTagNone", "--type int16 --mask line --size 7 --tag none --repeat 2", "grey8.pgm", "int16",
     "none", 40, 30, CV_8U, {7, 1}},
    {"ColourPngAsFloat32OnTagAvx", "--type=float32 --mask=square --size=3 --tag avx", "colour8.png", "float32", "avx",
     32, 24, CV_8U, {3, 3}},
};

class DemoRuns : public testing::TestWithParam<GoodRun> {};

TEST_P(DemoRuns, WriteEveryFilterAndReportItsSpeed) {
    const GoodRun &r = GetParam();
    std::string why;
    if (*r.tag && !fmtest::cpu_supports(r.tag, &why)) GTEST_SKIP() << "this CPU lacks" << why << " for tag " << r.tag;
    const std::string widest = fmtest::cpu_supports("avx2") ? "avx2" : fmtest::cpu_supports("avx") ? "avx" : "none";
    const std::string tag = *r.tag ? r.tag : widest;
    const DemoRun run = run_demo(std::string(*r.input ? "--input {dir}/" : "") + r.input + " " + r.arguments +
                                 " --output {dir}/out");
    const fs::path out_folder = run.folder / "out";
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");

    const cv::Mat input = read_image(out_folder / "input.png");
    ASSERT_EQ(input.size(), cv::Size(r.width, r.height));
    EXPECT_EQ(input.type(), r.depth);
    if (*r.input) {
        const cv::Mat as_read = cv::imread((run.folder / r.input).string(), cv::IMREAD_GRAYSCALE | cv::IMREAD_ANYDEPTH);
        EXPECT_EQ(cv::norm(input, as_read, cv::NORM_INF), 0) << "input.png is not the input in grey";
    }
    std::map<std::string, cv::Mat> out;  // each filter's file, and its line with megapixels per second
    for (const char *filter : kFilters) {
        out[filter] = read_image(out_folder / (std::string(filter) + ".png"));
        ASSERT_TRUE(out[filter].size() == input.size() && out[filter].type() == input.type()) << filter;
        const std::regex row(std::string("\n") + filter + " +" + tag + " +" + r.type + " +([0-9.e+-]+)\n");
        std::smatch speed;
        ASSERT_TRUE(std::regex_search(run.out, speed, row)) << filter << " missing from\n" << run.out;
        EXPECT_GT(std::stod(speed[1]), 0) << filter;
    }
    // Dilation and closing lie above the image, erosion and opening below;
    // the residuals are exact differences; OpenCV's filters are the reference
    // for rectangles.
    EXPECT_GT(cv::countNonZero(out["imdilate"] > input), 0) << "nothing dilated";
    const cv::Mat layers[] = {out["imdilate"], out["imclose"], input, out["imopen"], out["imerode"]};
    for (int i = 0; i + 1 < 5; i++) EXPECT_EQ(cv::countNonZero(layers[i] < layers[i + 1]), 0) << "layer " << i;
    EXPECT_EQ(cv::norm(out["imtophat"], input - out["imopen"], cv::NORM_INF), 0);
    EXPECT_EQ(cv::norm(out["imbothat"], out["imclose"] - input, cv::NORM_INF), 0);
    if (!r.rectangle.empty()) {
        cv::Mat dilated, eroded;
        cv::dilate(input, dilated, cv::Mat::ones(r.rectangle, CV_8U));
        cv::erode(input, eroded, cv::Mat::ones(r.rectangle, CV_8U));
        EXPECT_EQ(cv::norm(out["imdilate"], dilated, cv::NORM_INF) + cv::norm(out["imerode"], eroded, cv::NORM_INF), 0);
    }

    const cv::Mat sheet = read_image(out_folder / "contact-sheet.png");
    EXPECT_GE(sheet.cols, 4 * 256);
    EXPECT_GE(sheet.rows, 2 * 256 * r.height / std::max(r.width, r.height));
}

INSTANTIATE_TEST_SUITE_P(Inputs, DemoRuns, testing::ValuesIn(kGoodRuns),
                         [](const testing::TestParamInfo<GoodRun> &info) { return info.param.name; });

TEST(DemoHelp, ListsEveryOption) {
    const DemoRun run = run_demo("--help");
    EXPECT_EQ(run.exit_code, 0);
    for (const char *word : {"--input", "--width", "--height", "--mask", "disk", "square", "line", "--size", "--type",
                             "float64", "--tag", "avx2", "--repeat", "--output", "--help"})
        EXPECT_NE(run.out.find(word), std::string::npos) << word << " missing from\n" << run.out;
}

// Bad input ends in a one-line error naming the problem, a non-zero status
// and no output folder.
TEST(DemoBadInput, EndsWithOneLineErrorAndNoOutput) {
    const std::pair<const char *, const char *> cases[] = {  // arguments, words of the error
        {"--input {dir}/missing.png", "cannot open"},
        {"--input {dir}/truncated.png", "not a readable PNG, PGM or TIFF image"},
        {"--input {dir}/absurd.pgm", "not a readable PNG, PGM or TIFF image"},
        {"--input {dir}/float32.tif", "neither 8 nor 16 bits"},
        {"--width 12 --height 10 --size 15", "larger than the 12x10 image"},
        {"--colour red", "--colour"},
        {"--repeat often", "often"},
        {"--width 64 --height 48 --output {dir}/grey8.pgm/out", "cannot create output folder"},
    };
    for (const auto &[arguments, words] : cases) {
        SCOPED_TRACE(arguments);
        const DemoRun run = run_demo(std::string("--repeat 1 --output {dir}/out ") + arguments);
        EXPECT_GT(run.exit_code, 0) << "a crash or a success";
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err.rfind("flatmorph_demo: error: ", 0), 0u) << run.err;
        EXPECT_NE(run.err.find(words), std::string::npos) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_FALSE(fs::exists(run.folder / "out"));
    }
}

}  // namespace
