// The demo program end to end: it runs as a separate process on its built-in
// image and on image files, its PNG results equal direct calls of the library
// on the same input, and bad input ends in a one-line error and a non-zero
// exit status, never a crash.
#include "support/buffers.h"
#include "support/elements.h"
#include "support/harness.h"
#include "image_files.h"
#include "masks.h"

#include <flatmorph_cpu.h>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using demo::GreyImage;

const char *const kFilters[] = {"imdilate", "imerode", "imopen", "imclose", "imtophat", "imbothat"};

std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

struct DemoRun {
    bool exited = false;  // ended by exit, not by a signal
    int exit_code = -1;
    std::string out, err;
};

// A folder of the test's own, emptied first (parameterised names nest).
fs::path test_folder() {
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    fs::path folder = fs::path(FLATMORPH_TEST_DIR) / (std::string(test->test_suite_name()) + "." + test->name());
    fs::remove_all(folder);
    fs::create_directories(folder);
    return folder;
}

DemoRun run_demo(const fs::path &folder, const std::string &arguments) {
    const std::string command = std::string(FLATMORPH_DEMO) + " " + arguments + " >" + (folder / "stdout").string() +
                                " 2>" + (folder / "stderr").string();
    const int raw = std::system(command.c_str());
    DemoRun run;
    run.exited = WIFEXITED(raw);
    run.exit_code = run.exited ? WEXITSTATUS(raw) : -1;
    run.out = read_file(folder / "stdout");
    run.err = read_file(folder / "stderr");
    return run;
}

GreyImage read_png(const fs::path &path) {
    GreyImage image;
    std::string error;
    EXPECT_TRUE(demo::read_grey_image(path.string(), &image, &error)) << error;
    return image;
}

// One row of the printed table: filter, tag, type, speed.
struct TableRow {
    std::string filter, tag, type;
    double megapixels_per_second = 0;
};

std::vector<TableRow> table_rows(const std::string &out) {
    std::vector<TableRow> rows;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        TableRow row;
        if (fields >> row.filter >> row.tag >> row.type >> row.megapixels_per_second && row.filter.rfind("im", 0) == 0)
            rows.push_back(row);
    }
    return rows;
}

// How the demo moves samples into an element type and back, restated here for
// the types these tests use: `to_type` maps a grey level, `to_grey` maps an
// output sample of an intensity filter, `residual_to_grey` one of a hat filter.
struct Mapping {
    std::function<double(double)> to_type, to_grey, residual_to_grey;
};

Mapping identity_mapping() {
    const auto same = [](double v) { return v; };
    return {same, same, same};
}

// 8-bit grey levels on int16: level v is v * 257 - 32768.
Mapping int16_from_8_bits() {
    return {[](double v) { return v * 257 - 32768; }, [](double t) { return std::round((t + 32768) / 257); },
            [](double t) { return std::clamp(std::round(t / 257), 0.0, 255.0); }};
}

// Runs `filter` directly on the library (tag none, neutral pads) over `input`
// and checks every sample of the demo's PNG against it.
void expect_matches_library(const std::string &filter, const std::string &type, const GreyImage &input,
                            const demo::MaskImage &mask, const Mapping &mapping, const GreyImage &written) {
    SCOPED_TRACE(filter + "_" + type);
    ASSERT_EQ(written.width, input.width);
    ASSERT_EQ(written.height, input.height);
    ASSERT_EQ(written.bits, input.bits);
    const fmtest::ElemInfo &e = fmtest::element(type);
    const int w = input.width, h = input.height;
    fmtest::TestBuffer image(e, 0, w, 0, h), output(e, 0, w, 0, h);
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) image.set(x, y, mapping.to_type(input.at(x, y)));
    fmtest::TestBuffer minmax(fmtest::element("float64"), 0, 2, 0, 1);
    minmax.set(0, 0, e.lowest());
    minmax.set(1, 0, e.highest());
    fmtest::TestBuffer strel(fmtest::element("uint8"), 0, mask.width, 0, mask.height);
    for (int j = 0; j < mask.height; j++)
        for (int k = 0; k < mask.width; k++) strel.set(k, j, mask.bytes[j * mask.width + k]);

    const auto entry = reinterpret_cast<fmtest::Entry>(fmtest::exported(filter + "_" + type + "_none"));
    ASSERT_EQ(entry(image.raw(), minmax.raw(), strel.raw(), output.raw()), 0);
    const bool residual = filter == "imtophat" || filter == "imbothat";
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            const double t = output.value(x, y);
            ASSERT_EQ(written.at(x, y), residual ? mapping.residual_to_grey(t) : mapping.to_grey(t))
                << "at (" << x << ", " << y << ")";
        }
}

// The tag the demo picks when none is forced.
std::string widest_tag() { return flatmorph::tag_name(flatmorph::best_tag(flatmorph::this_cpu())); }

void expect_complete_run(const DemoRun &run, const std::string &tag, const std::string &type) {
    ASSERT_TRUE(run.exited);
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(run.err, "");
    const std::vector<TableRow> rows = table_rows(run.out);
    ASSERT_EQ(rows.size(), 6u) << run.out;
    for (size_t i = 0; i < rows.size(); i++) {
        EXPECT_EQ(rows[i].filter, kFilters[i]);
        EXPECT_EQ(rows[i].tag, tag);
        EXPECT_EQ(rows[i].type, type);
        EXPECT_GT(rows[i].megapixels_per_second, 0);
    }
}

void write_png(const fs::path &path, const GreyImage &image) {
    std::string error;
    ASSERT_TRUE(demo::write_png(path.string(), image, &error)) << error;
}

GreyImage random_image(int width, int height, int bits, unsigned seed) {
    GreyImage image(width, height, bits);
    std::mt19937 rng(seed);
    for (uint16_t &s : image.samples) s = static_cast<uint16_t>(rng() & image.max_value());
    return image;
}

TEST(Demo, BuiltInImageGivesEveryFilterAndAContactSheet) {
    const fs::path folder = test_folder(), out = folder / "out";
    const DemoRun run = run_demo(folder, "--width 160 --height 120 --repeat 1 --output " + out.string());
    expect_complete_run(run, widest_tag(), "uint8");

    const GreyImage input = read_png(out / "input.png");
    ASSERT_EQ(input.width, 160);
    ASSERT_EQ(input.height, 120);
    ASSERT_EQ(input.bits, 8);
    const demo::MaskImage disk = demo::make_mask(demo::MaskShape::disk, 15);
    for (const char *filter : kFilters)
        expect_matches_library(filter, "uint8", input, disk, identity_mapping(),
                               read_png(out / (std::string(filter) + ".png")));

    const GreyImage sheet = read_png(out / "contact-sheet.png");
    EXPECT_EQ(sheet.bits, 8);
    EXPECT_GE(sheet.width, 4 * input.width);
    EXPECT_GE(sheet.height, 2 * input.height);
}

TEST(Demo, SixteenBitPngRunsAsUint16WithASquare) {
    const fs::path folder = test_folder(), out = folder / "out";
    const GreyImage input = random_image(70, 50, 16, 3);
    write_png(folder / "input16.png", input);
    const DemoRun run = run_demo(folder, "--input " + (folder / "input16.png").string() +
                                             " --mask square --size 5 --repeat 1 --output " + out.string());
    expect_complete_run(run, widest_tag(), "uint16");

    EXPECT_EQ(read_png(out / "input.png").samples, input.samples);
    const demo::MaskImage square = demo::make_mask(demo::MaskShape::square, 5);
    for (const char *filter : kFilters)
        expect_matches_library(filter, "uint16", input, square, identity_mapping(),
                               read_png(out / (std::string(filter) + ".png")));
}

TEST(Demo, EightBitPgmRunsAsInt16WithALineOnTheForcedTag) {
    const fs::path folder = test_folder(), out = folder / "out";
    const GreyImage input = random_image(40, 30, 8, 4);
    {
        std::ofstream pgm(folder / "input.pgm", std::ios::binary);
        pgm << "P5\n" << input.width << " " << input.height << "\n255\n";
        for (uint16_t s : input.samples) pgm.put(static_cast<char>(s));
    }
    const DemoRun run = run_demo(folder, "--input " + (folder / "input.pgm").string() +
                                             " --type int16 --mask line --size 7 --tag none --repeat 2 --output " +
                                             out.string());
    expect_complete_run(run, "none", "int16");

    EXPECT_EQ(read_png(out / "input.png").samples, input.samples);
    const demo::MaskImage line = demo::make_mask(demo::MaskShape::line, 7);
    for (const char *filter : kFilters)
        expect_matches_library(filter, "int16", input, line, int16_from_8_bits(),
                               read_png(out / (std::string(filter) + ".png")));
}

TEST(Demo, HelpPrintsTheUsage) {
    const DemoRun run = run_demo(test_folder(), "--help");
    EXPECT_EQ(run.exit_code, 0);
    EXPECT_NE(run.out.find("usage: flatmorph_demo"), std::string::npos);
    EXPECT_NE(run.out.find("--mask disk|square|line"), std::string::npos);
}

TEST(DemoMasks, HaveTheirShapes) {
    const demo::MaskImage disk = demo::make_mask(demo::MaskShape::disk, 5);
    EXPECT_EQ(disk.bytes, (std::vector<uint8_t>{0, 1, 1, 1, 0, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 0}));
    const demo::MaskImage square = demo::make_mask(demo::MaskShape::square, 3);
    EXPECT_EQ(square.bytes, std::vector<uint8_t>(9, 1));
    const demo::MaskImage line = demo::make_mask(demo::MaskShape::line, 4);
    EXPECT_EQ(line.width, 4);
    EXPECT_EQ(line.height, 1);
    EXPECT_EQ(line.bytes, std::vector<uint8_t>(4, 1));
}

// Bad input: the arguments (with {dir} standing for the test's folder, which
// holds the files made below) and words the one-line error must contain.
struct BadInput {
    const char *name;
    const char *arguments;
    const char *error_words;
};

void PrintTo(const BadInput &b, std::ostream *os) { *os << b.name; }

const BadInput kBadInputs[] = {
    {"MissingFile", "--input {dir}/missing.png", "cannot open"},
    {"TextFile", "--input {dir}/notes.png", "not a PNG or binary PGM"},
    {"TruncatedPng", "--input {dir}/truncated.png", "unreadable PNG"},
    {"PgmWithBadMaximum", "--input {dir}/bad-maximum.pgm", "unreadable PGM"},
    {"PgmOfAbsurdSize", "--input {dir}/absurd.pgm", "larger than the demo takes"},
    {"MaskSizeOutOfRange", "--size 500", "--size wants a whole number from 1 to 101"},
    {"MaskLargerThanImage", "--width 12 --height 10 --size 15", "larger than the 12x10 image"},
    {"UnsupportedType", "--type complex128", "unsupported type 'complex128'"},
    {"UnknownOption", "--colour red", "unknown option '--colour'"},
    {"UnknownMask", "--mask star", "unknown mask 'star'"},
    {"UnknownTag", "--tag sse9", "unknown tag 'sse9'"},
    {"MissingValue", "--width 64 --output", "--output needs a value"},
    {"OutputIsAFile", "--width 64 --height 48 --output {dir}/notes.png/out", "cannot create output folder"},
};

class DemoBadInput : public testing::TestWithParam<BadInput> {};

TEST_P(DemoBadInput, EndsWithOneLineErrorAndNonZeroStatus) {
    const fs::path folder = test_folder();
    std::ofstream(folder / "notes.png") << "not an image\n";
    std::ofstream(folder / "bad-maximum.pgm") << "P5\n4 4\n1000\n";
    std::ofstream(folder / "absurd.pgm") << "P5\n100000 100000\n255\n";
    write_png(folder / "whole.png", random_image(32, 32, 8, 5));
    std::ofstream(folder / "truncated.png") << read_file(folder / "whole.png").substr(0, 80);

    // Defaults first, so that the case's own arguments (or lack of a value) come last.
    std::string arguments = std::string("--repeat 1 --output {dir}/out ") + GetParam().arguments;
    for (size_t at; (at = arguments.find("{dir}")) != std::string::npos;) arguments.replace(at, 5, folder.string());
    const DemoRun run = run_demo(folder, arguments);

    ASSERT_TRUE(run.exited) << "ended by a signal";
    EXPECT_NE(run.exit_code, 0);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.rfind("flatmorph_demo: error: ", 0), 0u) << run.err;
    EXPECT_NE(run.err.find(GetParam().error_words), std::string::npos) << run.err;
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
}

INSTANTIATE_TEST_SUITE_P(Cases, DemoBadInput, testing::ValuesIn(kBadInputs),
                         [](const testing::TestParamInfo<BadInput> &info) { return info.param.name; });

}  // namespace
