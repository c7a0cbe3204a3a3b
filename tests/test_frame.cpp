// Promise: frame. Which call is refused, in which order, by which error call and message; nothing written.
#include "support/harness.h"
#include "support/runtime_log.h"

#include <gtest/gtest.h>

#include <functional>

using namespace fmtest;

namespace {

// A valid narrow call of uint8_none: an 8 by 6 image, a 3 by 3 mask of ones,
// the output equal to the image, both pads present.
struct FrameCall : Call {
    Variant v;
    halide_buffer_t *args[4] = {image->raw(), minmax->raw(), strel->raw(), output->raw()};
    explicit FrameCall(const FilterInfo &f)
        : Call({&element("uint8"), &f, {0, 0, 8, 6}, std::vector<double>(48, 7), 0, 0, {3, 3, std::vector<uint8_t>(9, 1)},
                {0, 0, 8, 6}}),
          v{&f, &element("uint8"), "none"} {}
    int run() { return entry(v)(args[0], args[1], args[2], args[3]); }
};

// The expected error call, "" for a call that runs; {out} stands for the
// output's name. Types are packed code | bits << 8 |
// lanes << 16: uint8 67585, uint16 69633, int8 67584, float32 73730, float64 81922.
struct BadCall {
    const char *what;
    std::function<void(FrameCall &)> spoil;
    int status;
    std::function<std::string(const FilterInfo &)> expected;
};

// Filters whose output's name sorts before keyimForType check it first.
bool output_first(const FilterInfo &f) { return std::string(f.output) < "keyimForType"; }

const halide_type_t kUInt16(halide_type_uint, 16), kInt8(halide_type_int, 8), kFloat32(halide_type_float, 32);

const BadCall kBadCalls[] = {
    {"strel null", [](FrameCall &c) { c.args[2] = nullptr; }, -12,
     [](const FilterInfo &) { return "halide_error_buffer_argument_is_null(strel)"; }},
    {"all null: the last buffer in order first", [](FrameCall &c) { c.args[0] = c.args[1] = c.args[2] = c.args[3] = nullptr; },
     -12, [](const FilterInfo &f) { return std::string(f.output) > "strel" ? "halide_error_buffer_argument_is_null({out})" : "halide_error_buffer_argument_is_null(strel)"; }},
    {"image and output null", [](FrameCall &c) { c.args[0] = c.args[3] = nullptr; }, -12,
     [](const FilterInfo &f) { return output_first(f) ? "halide_error_buffer_argument_is_null(keyimForType)" : "halide_error_buffer_argument_is_null({out})"; }},
    {"image and output types wrong: buffer order", [](FrameCall &c) { c.output->raw()->type = kUInt16; c.image->raw()->type = kInt8; },
     -3, [](const FilterInfo &f) { return output_first(f) ? "halide_error_bad_type(Output buffer {out}, 69633, 67585)" : "halide_error_bad_type(Input buffer keyimForType, 67584, 67585)"; }},
    {"minmax float32", [](FrameCall &c) { c.minmax->raw()->type = kFloat32; }, -3,
     [](const FilterInfo &) { return "halide_error_bad_type(Input buffer minmax, 73730, 81922)"; }},
    {"a type before a region", [](FrameCall &c) { c.strel->raw()->type = kInt8; c.image->dim(1).extent = -3; }, -3,
     [](const FilterInfo &) { return "halide_error_bad_type(Input buffer strel, 67584, 67585)"; }},
    {"output extent 1 negative", [](FrameCall &c) { c.output->dim(1).extent = -2; }, -28,
     [](const FilterInfo &) { return "halide_error_buffer_extents_negative(Output buffer {out}, 1, -2)"; }},
    // The residual filters also require the output's own columns and rows of the image.
    {"image extent 0 of 0 at -5: a region error", [](FrameCall &c) { c.image->dim(0).min = -5; c.image->dim(0).extent = 0; }, -4,
     [](const FilterInfo &f) { return f.residual() ? "halide_error_access_out_of_bounds(Input buffer keyimForType, 0, -5, 7, -5, -6)" : "halide_error_access_out_of_bounds(Input buffer keyimForType, 0, -5, -5, -5, -6)"; }},
    {"image extent 1 negative", [](FrameCall &c) { c.image->dim(1).extent = -3; }, -4,
     [](const FilterInfo &f) { return f.residual() ? "halide_error_access_out_of_bounds(Input buffer keyimForType, 1, 0, 5, 0, -4)" : "halide_error_access_out_of_bounds(Input buffer keyimForType, 1, 0, 0, 0, -4)"; }},
    {"output beyond the image: only the residual filters refuse it", [](FrameCall &c) { c.output->dim(0).min = 1; }, -4,
     [](const FilterInfo &f) { return f.residual() ? "halide_error_access_out_of_bounds(Input buffer keyimForType, 0, 0, 8, 0, 7)" : ""; }},
    // A wide image (more columns than a uint8 vector of 16) needs a whole tile of output.
    {"a wide image and a narrower output", [](FrameCall &c) { c.image->dim(0).extent = 17; }, -4, [](const FilterInfo &f) {
         return f.filter == Filter::TopHat ? "halide_error_access_out_of_bounds(Input buffer keyimForType, 0, -8, 9, 0, 16)"
                                           : "halide_error_access_out_of_bounds(Output buffer {out}, 0, -8, 7, 0, 7)";
     }},
    {"minmax holds column 0 only", [](FrameCall &c) { c.minmax->dim(0).extent = 1; }, -4, [](const FilterInfo &f) {
         return f.filter == Filter::Erode ? "halide_error_access_out_of_bounds(Input buffer minmax, 0, 1, 1, 0, 0)"
                : f.erosion_first()       ? "halide_error_access_out_of_bounds(Input buffer minmax, 0, 0, 1, 0, 0)" : "";
     }},
    {"minmax of min -1 and extent 3", [](FrameCall &c) { c.minmax->dim(0).min = -1; c.minmax->dim(0).extent = 3; }, 0,
     [](const FilterInfo &) { return ""; }},
    {"minmax extent 1 of 0", [](FrameCall &c) { c.minmax->dim(1).extent = 0; }, -4,
     [](const FilterInfo &) { return "halide_error_access_out_of_bounds(Input buffer minmax, 1, 0, 0, 0, -1)"; }},
    {"strel min 1", [](FrameCall &c) { c.strel->dim(0).min = 1; }, -4,
     [](const FilterInfo &) { return "halide_error_access_out_of_bounds(Input buffer strel, 0, 0, 2, 1, 3)"; }},
    {"a region before a stride", [](FrameCall &c) { c.output->dim(0).stride = 2; c.strel->dim(1).min = -1; }, -4,
     [](const FilterInfo &) { return "halide_error_access_out_of_bounds(Input buffer strel, 1, 0, 2, -1, 1)"; }},
    {"output stride 2", [](FrameCall &c) { c.output->dim(0).stride = 2; }, -8,
     [](const FilterInfo &) { return "halide_error_constraint_violated({out}.stride.0, 2, 1, 1)"; }},
    {"strel stride 2 and image stride 3: buffer order", [](FrameCall &c) { c.strel->dim(0).stride = 2; c.image->dim(0).stride = 3; },
     -8, [](const FilterInfo &) { return "halide_error_constraint_violated(keyimForType.stride.0, 3, 1, 1)"; }},
    {"null output host with a device handle", [](FrameCall &c) { c.output->raw()->host = nullptr; c.output->raw()->device = 1; },
     -34, [](const FilterInfo &) { return "halide_error_host_is_null(Output buffer {out})"; }},
    {"dimensions 1 and 5, device dirty: not read", [](FrameCall &c) {
         c.image->raw()->dimensions = 1;
         c.output->raw()->dimensions = 5;
         c.image->raw()->flags = halide_buffer_flag_device_dirty;
     }, 0, [](const FilterInfo &) { return ""; }},
    {"strel extents of 0", [](FrameCall &c) { c.strel->dim(0).extent = 0; c.strel->dim(1).extent = 0; }, 0,
     [](const FilterInfo &) { return ""; }},
};

std::string with_names(std::string s, const FilterInfo &f) {
    for (size_t at; (at = s.find("{out}")) != std::string::npos;) s.replace(at, 5, f.output);
    return s;
}

class FrameTable : public testing::TestWithParam<FilterInfo> {};

TEST_P(FrameTable, RefusesInOrderAndWritesNothing) {
    const FilterInfo &f = GetParam();
    for (const BadCall &row : kBadCalls) {
        SCOPED_TRACE(row.what);
        FrameCall call(f);
        row.spoil(call);
        const auto output = call.output->snapshot(), image = call.image->snapshot();
        clear_runtime_log();
        const int status = call.run();
        const std::string expected = with_names(row.expected(f), f);
        if (expected.empty()) {
            EXPECT_EQ(status, 0);
            EXPECT_TRUE(runtime_log().calls.empty()) << runtime_log().calls.front();
            continue;
        }
        EXPECT_EQ(status, row.status);
        ASSERT_EQ(runtime_log().calls, std::vector<std::string>{expected});
        // The message names the buffer or constraint the call names first.
        const std::string named = expected.substr(expected.find('(') + 1, expected.find_first_of(",)") - expected.find('(') - 1);
        EXPECT_NE(runtime_log().last_message.find(named), std::string::npos) << runtime_log().last_message;
        EXPECT_TRUE(call.output->snapshot() == output && call.image->snapshot() == image);
    }
}

INSTANTIATE_TEST_SUITE_P(AllFilters, FrameTable, testing::ValuesIn(all_filters()), testing::PrintToStringParamName());

}  // namespace
