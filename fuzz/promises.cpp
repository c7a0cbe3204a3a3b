#include "promises.h"

#include "support/runtime_log.h"

#include <cstring>
#include <sstream>

namespace fmfuzz {

using namespace fmtest;

namespace {

const char *const kArgumentNames[4] = {"keyimForType", "minmax", "strel", "output"};

// The element of `e` stored at `p`, as a number.
double sample_at(const ElemInfo &e, const uint8_t *p) {
    uint64_t bits = 0;
    std::memcpy(&bits, p, e.bytes);
    return decode(e, bits);
}

Region region_of(const CallBuffer &b) {
    return {b.dim_before(0).min, b.dim_before(1).min, b.dim_before(0).extent, b.dim_before(1).extent};
}

// The problem the reference model needs, read back from the call's memory.
Problem read_problem(const FuzzedCall &c) {
    const CallBuffer &image = c.buffers[Image], &minmax = c.buffers[Minmax], &strel = c.buffers[Strel];
    Problem p;
    p.elem = c.v.elem;
    p.filter = c.v.filter;
    p.image = region_of(image);
    for (int j = 0; j < p.image.h; j++)
        for (int i = 0; i < p.image.w; i++) p.pixels.push_back(sample_at(*p.elem, image.nth(i, j)));
    // A pad the call does not need may lie outside minmax.
    const ElemInfo &f64 = element("float64");
    if (minmax.inside(0, 0)) p.low_pad = sample_at(f64, minmax.at(0, 0));
    if (minmax.inside(1, 0)) p.high_pad = sample_at(f64, minmax.at(1, 0));
    p.mask.sx = strel.dim_before(0).extent;
    p.mask.sy = strel.dim_before(1).extent;
    for (int j = 0; j < p.mask.sy; j++)
        for (int k = 0; k < p.mask.sx; k++) p.mask.bytes.push_back(*strel.nth(k, j));
    p.output = region_of(c.buffers[Output]);
    return p;
}

// Whether the reference model can judge the samples: output rows that do
// not alias one another, coordinates far from the 32-bit ends.
bool comparable(const FuzzedCall &c) {
    const CallBuffer &out = c.buffers[Output];
    if (out.dim_before(1).extent > 1 && std::abs(int64_t{out.dim_before(1).stride}) < out.dim_before(0).extent)
        return false;
    for (int i : {Image, Output})
        for (int d = 0; d < 2; d++)
            if (std::abs(int64_t{c.buffers[i].dim_before(d).min}) > (1 << 20)) return false;
    return true;
}

std::string compare_with_reference(const FuzzedCall &c) {
    const Problem p = read_problem(c);
    const std::vector<double> expected = reference_output(p);
    for (int y = 0; y < p.output.h; y++)
        for (int x = 0; x < p.output.w; x++) {
            const uint64_t want = encode(*p.elem, expected[static_cast<size_t>(y) * p.output.w + x]);
            uint64_t got = 0;
            std::memcpy(&got, c.buffers[Output].nth(x, y), p.elem->bytes);
            if (got != want) {
                std::ostringstream out;
                out << "sample (" << p.output.x0 + x << ", " << p.output.y0 + y << ") has bits " << std::hex << got
                    << ", the reference " << want;
                return out.str();
            }
        }
    return "";
}

// Whether every min and extent is far enough from the 32-bit ends that no
// coordinate the entry derives from them wraps around. Where one does, the
// documented formulas and the entries may part ways, and only the promises
// of safety are checked.
bool within_exact_range(const FuzzedCall &c) {
    const int64_t limit = 1 << 28;
    for (int i = 0; i < 4; i++)
        for (int d = 0; d < 2 && c.args[i]; d++) {
            const halide_dimension_t &dim = c.buffers[i].dim_before(d);
            if (std::abs(int64_t{dim.min}) > limit || std::abs(int64_t{dim.extent}) > limit) return false;
        }
    return true;
}

// What holds whatever the status: one error call exactly when the call
// fails, inputs never written, nothing written on failure, the output only
// inside its region, each block allocated freed once.
std::string broken_safety(const FuzzedCall &c, int status, const Allocations &alloc) {
    const std::vector<std::string> &log = runtime_log().calls;
    if (log.size() != (status != 0 ? 1u : 0u))
        return "status " + std::to_string(status) + " with " + std::to_string(log.size()) + " error calls";
    for (int i = 0; i < 4; i++) {
        if (!c.args[i]) continue;
        const CallBuffer &b = c.buffers[i];
        if ((status != 0 || !b.asked()) && !b.descriptor_unchanged())
            return std::string("descriptor of ") + kArgumentNames[i] + " changed";
        if (i != Output && !b.memory_unchanged()) return std::string("input ") + kArgumentNames[i] + " written";
    }
    const CallBuffer &out = c.buffers[Output];
    if (c.args[Output] && out.has_memory()) {
        if (status != 0 && !out.memory_unchanged()) return "output written by a failing call";
        if (status == 0 && !out.outside_unchanged()) return "write outside the output";
    }
    // Out of memory: the block was refused, by the allocator or before it was asked for.
    const bool balanced = status == -11 ? alloc.mallocs <= 1 && alloc.frees == 0 : alloc.frees == alloc.mallocs;
    if (!balanced || alloc.mallocs > (c.v.filter->two_stage() ? 1 : 0) || alloc.foreign_free || !alloc.live.empty())
        return std::to_string(alloc.mallocs) + " allocations and " + std::to_string(alloc.frees) + " frees";
    return "";
}

std::string wrong_answer(const char *name, const halide_dimension_t *got, const Interval (&want)[2]) {
    std::ostringstream out;
    out << "query answer for " << name << ": [" << got[0].min << ", " << got[0].extent << "] [" << got[1].min << ", "
        << got[1].extent << "], the model says [" << want[0].min << ", " << want[0].extent << "] [" << want[1].min
        << ", " << want[1].extent << "]";
    return out.str();
}

const Interval (&required_of(const Prediction &want, int argument))[2] {
    switch (argument) {
    case Image: return want.required.image;
    case Minmax: return want.required.minmax;
    case Strel: return want.required.strel;
    default: return want.required.output;
    }
}

}  // namespace

std::string broken_promise(const FuzzedCall &c, const Prediction &want, int status, const Allocations &alloc) {
    const std::string model_status = ", the model says " + std::to_string(want.status);
    if (!within_exact_range(c)) return broken_safety(c, status, alloc);

    const std::vector<std::string> &log = runtime_log().calls;
    if (status != want.status)
        return "status " + std::to_string(status) + model_status + (log.empty() ? "" : " (" + log[0] + ")");
    const std::vector<std::string> expected_log =
        want.outcome == Outcome::Refused ? std::vector<std::string>{want.error_call} : std::vector<std::string>{};
    if (log != expected_log)
        return "runtime calls " + (log.empty() ? std::string("none") : log[0]) + ", the model says " +
               (expected_log.empty() ? std::string("none") : expected_log[0]);

    for (int i = 0; i < 4; i++) {
        if (!c.args[i]) continue;
        const CallBuffer &b = c.buffers[i];
        if (i != Output && !b.memory_unchanged()) return std::string("input ") + kArgumentNames[i] + " written";
        if (want.outcome == Outcome::Query && b.asked()) {
            if (!b.answers(required_of(want, i), wanted_type(c.v, i)))
                return wrong_answer(kArgumentNames[i], c.args[i]->dim, required_of(want, i));
        } else if (!b.descriptor_unchanged()) {
            return std::string("descriptor of ") + kArgumentNames[i] + " changed";
        }
    }
    const CallBuffer &out = c.buffers[Output];
    if (c.args[Output] && out.has_memory()) {
        if (want.outcome != Outcome::Runs && !out.memory_unchanged()) return "output written";
        if (want.outcome == Outcome::Runs && !out.outside_unchanged()) return "write outside the output";
    }

    const int mallocs = want.allocates ? 1 : 0, frees = want.outcome == Outcome::Runs ? mallocs : 0;
    if (alloc.mallocs != mallocs || alloc.frees != frees || alloc.foreign_free || !alloc.live.empty())
        return std::to_string(alloc.mallocs) + " allocations and " + std::to_string(alloc.frees) +
               " frees, the model says " + std::to_string(mallocs) + " and " + std::to_string(frees);
    if (want.allocates && alloc.requested != want.request_bytes)
        return "asked for " + std::to_string(alloc.requested) + " bytes, the model says " +
               std::to_string(want.request_bytes);

    if (want.outcome == Outcome::Runs && comparable(c)) return compare_with_reference(c);
    return "";
}

std::string describe(const FuzzedCall &c) {
    std::ostringstream out;
    out << c.v.name() << "\n";
    for (int i = 0; i < 4; i++) {
        out << "  " << kArgumentNames[i] << ": ";
        if (!c.args[i]) {
            out << "null\n";
            continue;
        }
        const halide_buffer_t &b = c.buffers[i].before();
        out << "host " << (b.host ? "set" : "null") << ", device " << b.device << ", type (" << int(b.type.code)
            << ", " << int(b.type.bits) << ", " << b.type.lanes << "), dims";
        for (int d = 0; d < 2; d++) {
            const halide_dimension_t &dim = c.buffers[i].dim_before(d);
            out << " [" << dim.min << ", " << dim.extent << ", " << dim.stride << "]";
        }
        out << "\n";
    }
    return out.str();
}

}  // namespace fmfuzz
