#include "regions.h"

#include <algorithm>

namespace fmtest {

namespace {

using std::max;
using std::min;

Interval from_to(int first, int last) { return {first, last - first + 1}; }

// A footprint [a, b) clamped to the image [i0, i1), at least one sample wide.
Interval clamped(int a, int b, int i0, int i1) {
    const int lo = max(i0, min(a, i1 - 1));
    const int end = max(i0 + 1, min(b, i1));
    return {lo, end - lo};
}

// The image columns (or rows) a filter reads for outputs o0 .. o1 - 1, given
// mask extent s, origin c, and the image at i0 of extent n.
Interval image_reach(const FilterInfo &f, int o0, int o1, int s, int c, int i0, int n) {
    const int i1 = i0 + n;
    switch (f.filter) {
    case Filter::Dilate: return clamped(o0 + c + 1 - s, o1 + c, i0, i1);
    case Filter::Erode: return clamped(o0 - c, o1 + s - 1 - c, i0, i1);
    case Filter::Open:
    case Filter::TopHat: {
        const int first = max(min(o0 + c + 1 - s, n - 1), 0), last = max(min(o1 + c, n) - 1, 0);
        return from_to(max(min(first - c, i1 - 1), i0), max(min(i1, last + s - c), i0 + 1) - 1);
    }
    case Filter::Close:
    case Filter::BotHat:
        return from_to(max(min(o0 - s + 1, i1 - 1), i0), max(min(o1 + s - 2, i1 - 1), i0));
    }
    return {};
}

Interval merged(Interval a, int first, int last) { return from_to(min(a.min, first), max(a.last(), last)); }

}  // namespace

Required required_regions(const FilterInfo &f, int vw, const Region &image, int sx, int sy, const Region &out) {
    const bool wide = image.w > vw;
    const int cx = se_origin(sx), cy = se_origin(sy);
    Required r;
    const int tile_min = wide ? min(out.x1() - vw, out.x0) : out.x0;
    r.output[0] = from_to(tile_min, out.x1() - 1);
    r.output[1] = {out.y0, out.h};
    r.image[0] = image_reach(f, out.x0, out.x1(), sx, cx, image.x0, image.w);
    r.image[1] = image_reach(f, out.y0, out.y1(), sy, cy, image.y0, image.h);
    if (f.residual()) {
        r.image[0] = merged(r.image[0], tile_min, out.x1() - 1);
        r.image[1] = merged(r.image[1], out.y0, out.y1() - 1);
    }
    const bool both_pads = f.erosion_first();
    r.minmax[0] = f.filter == Filter::Erode ? Interval{1, 1} : Interval{0, both_pads ? 2 : 1};
    r.minmax[1] = {0, 1};
    r.strel[0] = {0, sx};
    r.strel[1] = {0, sy};
    return r;
}

unsigned __int128 Intermediate::bytes() const {
    return static_cast<unsigned __int128>(static_cast<uint32_t>(stride)) * static_cast<uint32_t>(rows) * element_bytes;
}

Intermediate intermediate(const FilterInfo &f, const ElemInfo &e, int vw, const Region &image, int sx, int sy,
                          const Region &out) {
    const int cx = se_origin(sx), cy = se_origin(sy);
    // Every sum wraps around at 32 bits, as the entries' arithmetic does.
    auto sum = [](int64_t v) { return wrap32(v); };
    int l0, r0, t0, b0;
    if (f.erosion_first()) {
        l0 = max(min(sum(int64_t{out.x0} + cx + 1 - sx), image.w - 1), 0);
        r0 = max(min(sum(int64_t{out.x1()} + cx), image.w) - 1, 0);
        t0 = max(min(sum(int64_t{out.y0} + cy + 1 - sy), image.h - 1), 0);
        b0 = max(min(sum(int64_t{out.y1()} + cy), image.h) - 1, 0);
    } else {
        l0 = sum(int64_t{out.x0} - cx);
        r0 = sum(int64_t{out.x1()} + sx - cx - 2);
        t0 = sum(int64_t{out.y0} - cy);
        b0 = sum(int64_t{out.y1()} + sy - cy - 2);
    }
    const int ls = image.w > vw ? min(l0, sum(int64_t{r0} - vw + 1)) : l0;
    Intermediate m;
    m.first_col = ls;
    m.first_row = t0;
    m.stride = static_cast<int64_t>(r0) - ls + 1;
    m.rows = static_cast<int64_t>(b0) - t0 + 1;
    m.element_bytes = e.bytes;
    return m;
}

}  // namespace fmtest
