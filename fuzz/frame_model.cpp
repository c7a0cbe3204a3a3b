#include "frame_model.h"

#include <algorithm>
#include <optional>
#include <sstream>
#include <vector>

namespace fmfuzz {

using namespace fmtest;

namespace {

enum Argument { Image = 0, Minmax = 1, Strel = 2, Output = 3 };

// Coordinates wrap around at 32 bits, as the entries compute them.
int32_t add(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
int32_t sub(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }
int32_t last(int32_t min, int32_t extent) { return sub(add(min, extent), 1); }

struct Slot {
    Argument argument;
    std::string name, label;
};

// Every phase visits the buffers in alphabetical order of their names.
std::vector<Slot> buffer_order(const FilterInfo &f) {
    std::vector<Slot> slots = {{Image, "keyimForType", "Input buffer keyimForType"},
                               {Minmax, "minmax", "Input buffer minmax"},
                               {Strel, "strel", "Input buffer strel"},
                               {Output, f.output, std::string("Output buffer ") + f.output}};
    std::sort(slots.begin(), slots.end(), [](const Slot &a, const Slot &b) { return a.name < b.name; });
    return slots;
}

// The runtime log's spelling of a call.
template <typename... Args>
std::string call(const char *function, Args... args) {
    std::ostringstream out;
    out << function << "(";
    [[maybe_unused]] const char *sep = "";
    ((out << sep << args, sep = ", "), ...);
    out << ")";
    return out.str();
}

uint32_t packed(halide_type_t t) { return t.code | t.bits << 8 | static_cast<uint32_t>(t.lanes) << 16; }

struct Refusal {
    int status;
    std::string call;
};

Refusal out_of_bounds(const Slot &s, int dim, int32_t req_min, int32_t req_max, int32_t min, int32_t extent) {
    return {-4, call("halide_error_access_out_of_bounds", s.label, dim, req_min, req_max, min, last(min, extent))};
}

Refusal negative_extent(const Slot &s, int dim, int32_t extent) {
    return {-28, call("halide_error_buffer_extents_negative", s.label, dim, extent)};
}

// The region and extent tests of one buffer: per dimension the region first.
std::optional<Refusal> region_checks(const Variant &v, const Slot &s, const halide_buffer_t &b, const Required &r) {
    const halide_dimension_t *d = b.dim;
    switch (s.argument) {
    case Output: {
        // Fires only when a wide tile needs columns left of the output.
        const Interval &req = r.output[0];
        const int32_t req_max = last(req.min, req.extent);
        if (req.min < d[0].min || sub(req_max, d[0].extent) >= d[0].min)
            return out_of_bounds(s, 0, req.min, req_max, d[0].min, d[0].extent);
        if (d[0].extent < 0) return negative_extent(s, 0, d[0].extent);
        if (d[1].extent < 0) return negative_extent(s, 1, d[1].extent);
        return std::nullopt;
    }
    case Image:
        for (int i = 0; i < 2; i++) {
            // The required min is clamped to the image, except for the output
            // tile region that the residual filters add.
            const Interval &req = r.image[i];
            const bool below = v.filter->residual() && req.min < d[i].min;
            const bool above = sub(add(req.min, req.extent), d[i].extent) > d[i].min;
            if (below || above) return out_of_bounds(s, i, req.min, last(req.min, req.extent), d[i].min, d[i].extent);
            if (d[i].extent < 0) return negative_extent(s, i, d[i].extent);
        }
        return std::nullopt;
    case Minmax:
        for (int i = 0; i < 2; i++) {
            const Interval &req = r.minmax[i];
            const int32_t req_max = last(req.min, req.extent);
            if (d[i].min > req.min || last(d[i].min, d[i].extent) < req_max)
                return out_of_bounds(s, i, req.min, req_max, d[i].min, d[i].extent);
            if (d[i].extent < 0) return negative_extent(s, i, d[i].extent);
        }
        return std::nullopt;
    case Strel:
        // Required and actual extent are the same number, so only a min of 0 passes.
        for (int i = 0; i < 2; i++) {
            if (d[i].min != 0) return out_of_bounds(s, i, 0, sub(d[i].extent, 1), d[i].min, d[i].extent);
            if (d[i].extent < 0) return negative_extent(s, i, d[i].extent);
        }
        return std::nullopt;
    }
    return std::nullopt;
}

Region region_of(const halide_buffer_t &b) { return {b.dim[0].min, b.dim[1].min, b.dim[0].extent, b.dim[1].extent}; }

Prediction refused(const Refusal &r) {
    Prediction p;
    p.outcome = Outcome::Refused;
    p.status = r.status;
    p.error_call = r.call;
    return p;
}

}  // namespace

halide_type_t wanted_type(const Variant &v, int index) {
    switch (index) {
    case Minmax: return halide_type_t(halide_type_float, 64);
    case Strel: return halide_type_t(halide_type_uint, 8);
    default: return halide_type_t(static_cast<halide_type_code_t>(v.elem->code), v.elem->bits);
    }
}

Prediction predict_call(const Variant &v, halide_buffer_t *const args[4], uint64_t allocation_limit) {
    const std::vector<Slot> order = buffer_order(*v.filter);

    for (auto s = order.rbegin(); s != order.rend(); ++s)
        if (!args[s->argument]) return refused({-12, call("halide_error_buffer_argument_is_null", s->name)});

    const halide_buffer_t &image = *args[Image], &strel = *args[Strel], &output = *args[Output];
    const int sx = strel.dim[0].extent, sy = strel.dim[1].extent;
    Prediction p;
    p.required = required_regions(*v.filter, v.vw(), region_of(image), sx, sy, region_of(output));

    for (const Slot &s : order)
        if (!args[s.argument]->host && args[s.argument]->device == 0) p.outcome = Outcome::Query;
    if (p.outcome == Outcome::Query) return p;

    for (const Slot &s : order) {
        const halide_type_t given = args[s.argument]->type, wanted = wanted_type(v, s.argument);
        if (!(given == wanted))
            return refused({-3, call("halide_error_bad_type", s.label, packed(given), packed(wanted))});
    }
    for (const Slot &s : order)
        if (auto r = region_checks(v, s, *args[s.argument], p.required)) return refused(*r);
    for (const Slot &s : order) {
        const int32_t stride = args[s.argument]->dim[0].stride;
        if (stride != 1)
            return refused({-8, call("halide_error_constraint_violated", s.name + ".stride.0", stride, "1", 1)});
    }
    // The size test (|extent 1 * stride 1| against 2^63 - 1) cannot fail with
    // 32-bit factors, so it has no step here.
    for (const Slot &s : order)
        if (!args[s.argument]->host) return refused({-34, call("halide_error_host_is_null", s.label)});

    if (!v.filter->two_stage()) return p;
    const Intermediate m = intermediate(*v.filter, *v.elem, v.vw(), region_of(image), sx, sy, region_of(output));
    const uint64_t low_bits = static_cast<uint64_t>(m.bytes());
    const uint64_t limit = 0x7fffffffffffffffULL;
    if (m.too_large()) {
        const char *first_stage = v.filter->erosion_first() ? "imerode" : "imdilate";
        return refused({-5, call("halide_error_buffer_allocation_too_large", first_stage, low_bits, limit)});
    }
    // Coordinates that would pass 2^31 (the mask around the output, or the
    // span from image to output with it, and a margin for the lanes of a wide
    // path) are refused before the block is asked for.
    const Region out = region_of(output), in = region_of(image);
    auto fits = [](int64_t i0, int64_t iw, int64_t o0, int64_t ow, int64_t mask) {
        const int64_t margin = mask + 256, o1 = o0 + ow, i1 = i0 + iw;
        return o0 - margin >= INT32_MIN && o1 + margin <= INT32_MAX &&
               std::max(i1, o1) - std::min(i0, o0) + margin <= INT32_MAX;
    };
    if (!fits(in.x0, in.w, out.x0, out.w, sx) || !fits(in.y0, in.h, out.y0, out.h, sy))
        return refused({-11, call("halide_error_out_of_memory")});
    p.allocates = true;
    p.request_bytes = low_bits + v.elem->bytes;
    if (p.request_bytes > allocation_limit) {
        Prediction oom = refused({-11, call("halide_error_out_of_memory")});
        oom.allocates = true;
        oom.request_bytes = p.request_bytes;
        return oom;
    }
    return p;
}

}  // namespace fmfuzz
