#include "harness.h"
#include "regions.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace fmtest {

namespace {

int pick(std::mt19937 &rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }

template <typename T>
T one_of(std::mt19937 &rng, const std::vector<T> &values) {
    return values[static_cast<size_t>(pick(rng, 0, static_cast<int>(values.size()) - 1))];
}

const double inf = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();

// A sample value the element type holds, biased to the interesting ones.
double random_sample(const ElemInfo &e, std::mt19937 &rng) {
    if (e.elem == Elem::Bool) return pick(rng, 0, 1);
    if (e.is_float()) {
        if (pick(rng, 0, 3) == 0) return one_of<double>(rng, {nan, 0.0, -0.0, inf, -inf, 1.5, -1.5, 3e38, -3e38});
        return pick(rng, -20, 20) * 0.5;
    }
    if (pick(rng, 0, 4) == 0) return one_of<double>(rng, {e.lowest(), e.highest(), 0.0, e.lowest() + 1, e.highest() - 1});
    return std::floor(std::uniform_real_distribution<double>(e.lowest(), e.highest() + 1)(rng));
}

// A float64 pad element: in range, out of range, wrapping, infinite or NaN.
double random_pad(const ElemInfo &e, std::mt19937 &rng) {
    switch (pick(rng, 0, 3)) {
    case 0: return random_sample(e, rng);
    case 1: return one_of<double>(rng, {nan, inf, -inf, 1e300, -1e300, 3e9, -3e9, 1e19, -1e19, 4294967296.0});
    case 2: return one_of<double>(rng, {-1.0, 255.9, 256.0, 300.7, 65535.9, 70000.0, 40000.0, -129.0, 200.0, 2.9, -2.9,
                                        0.5, 1.9, 2.0, 3.0, -0.5});
    default: return e.lowest() == -inf ? pick(rng, -3, 3) : (pick(rng, 0, 1) ? e.lowest() : e.highest());
    }
}

}  // namespace

// A two-stage call whose intermediate has no rows or columns (an empty mask
// with an empty output) asks for an impossible block and fails: the two-stage
// tests cover that; the sweep wants calls that run, so it draws again.
Problem random_problem(const Variant &v, std::mt19937 &rng) {
    const int vw = v.vw();
    Problem p;
    p.elem = v.elem;
    p.filter = v.filter;
    // Widths around one vector, and rows long enough for the interior tiles to
    // be folded several at a time (up to 256 lanes), with every remainder.
    p.image.w = one_of<int>(rng, {1, 2, 3, vw - 1, vw, vw + 1, vw + 2, 2 * vw + 3, pick(rng, 1, 2 * vw + 5),
                                  pick(rng, 4 * vw, 320 + 4 * vw)});
    p.image.w = std::max(p.image.w, 1);
    // Now and then a mask with every element active on an image and an output
    // of about 256 columns and more, which the integer filters fold column first
    // (float and 8-bit stages 512 columns wide and more walk wider chunks).
    const bool full_mask = pick(rng, 0, 5) == 0;
    if (full_mask) p.image.w = pick(rng, 0, 1) ? pick(rng, 256, 520) : pick(rng, 500, 1040);
    // Or an image narrower than the blocks that path folds its columns in,
    // under an output that runs past it (filters that read the image at the
    // output's own positions keep it inside).
    if (full_mask && !v.filter->residual() && pick(rng, 0, 4) == 0) p.image.w = pick(rng, vw + 1, 200);
    // Now and then rows of exactly one group of tiles folded together, or of
    // a few more tiles, under masks 4 to 20 columns wide: the border tiles
    // fold in the groups at each end (rows by the image's ends included).
    const int group = std::min(8 * vw, 256);
    const bool grouped = !full_mask && pick(rng, 0, 7) == 0;
    if (grouped) p.image.w = pick(rng, 0, 1) ? group : group + pick(rng, 1, 3 * vw);
    p.image.h = pick(rng, 1, 9);
    if (pick(rng, 0, 2) > 0) {
        p.image.x0 = pick(rng, -6, 6);
        p.image.y0 = pick(rng, -4, 4);
    }
    // The model reads the samples as the image holds them (3e38 is not a float32).
    for (int i = 0; i < p.image.w * p.image.h; i++) {
        const double sample = random_sample(*v.elem, rng);
        p.pixels.push_back(v.elem->elem == Elem::Float32 ? static_cast<float>(sample) : sample);
    }

    p.mask.sx = one_of<int>(rng, {0, 1, 2, 3, 3, 4, 5, 7, pick(rng, 1, p.image.w + 3)});
    p.mask.sy = one_of<int>(rng, {0, 1, 2, 3, 3, 4, 5, pick(rng, 1, p.image.h + 3)});
    // Now and then a mask taller than the border tiles' stack windows hold
    // (from 28 rows for float64 to 128 for 8-bit samples), so those tiles fold as before.
    // (Narrow: the reference model's time grows with the mask's area.)
    if (pick(rng, 0, 15) == 0) {
        p.mask.sx = pick(rng, 2, 5);
        p.mask.sy = one_of<int>(rng, {pick(rng, 20, 40), pick(rng, 120, 140)});
    }
    if (grouped) p.mask.sx = pick(rng, 4, 20);
    const bool sparse = pick(rng, 0, 3) == 0;
    for (int i = 0; i < p.mask.sx * p.mask.sy; i++)
        p.mask.bytes.push_back(sparse ? one_of<int>(rng, {0, 1, 2, 255}) : one_of<int>(rng, {1, 1, 1, 1, 0, 2}));
    if (full_mask) {
        // Squares, rectangles and lines, up to just past the widest mask the
        // column-first path takes (65 columns).
        // (Windows of 8 columns and more fold spans: floats each count of
        // levels, integers 4 columns a step, the last step at each remainder.)
        p.mask.sx = one_of<int>(rng, {1, 3, 5, 8, 9, 14, 15, 16, 21, 31, 32, 64, 65, 66, pick(rng, 1, 70)});
        p.mask.sy = one_of<int>(rng, {1, 2, 3, 3, 5, 7, pick(rng, 1, p.image.h + 3)});
        p.mask.bytes.assign(static_cast<size_t>(p.mask.sx * p.mask.sy), 1);
        // Image rows 4 KB apart and more, which the column-first path folds in another order.
        if (pick(rng, 0, 1)) p.image_row_gap = 4096 / v.elem->bytes;
        // Floats with a NaN or -0.0 or two, so that most windows hold none
        // (they fold fast) and some hold one, at any place in the window.
        if (v.elem->is_float() && pick(rng, 0, 1)) {
            for (double &sample : p.pixels) sample = pick(rng, -20, 20) * 0.5;
            for (int planted = pick(rng, 0, 2); planted > 0; planted--)
                p.pixels[static_cast<size_t>(pick(rng, 0, static_cast<int>(p.pixels.size()) - 1))] =
                    one_of<double>(rng, {nan, -0.0});
        }
    }

    p.low_pad = random_pad(*v.elem, rng);
    p.high_pad = random_pad(*v.elem, rng);

    // The wide path needs an output at least one vector wide; the residual
    // filters read the image at the output's own positions.
    const bool wide = p.image.w > vw;
    if (v.filter->residual()) {
        const int w_min = wide ? vw : 0;
        p.output.w = pick(rng, full_mask ? 250 : w_min, p.image.w);
        p.output.h = pick(rng, 0, p.image.h);
        p.output.x0 = p.image.x0 + pick(rng, 0, p.image.w - p.output.w);
        p.output.y0 = p.image.y0 + pick(rng, 0, p.image.h - p.output.h);
    } else {
        p.output.w = wide ? pick(rng, vw, std::max(2 * vw + 5, p.image.w + 6)) : pick(rng, 0, p.image.w + 6);
        if (full_mask) p.output.w = pick(rng, 250, std::max(p.image.w + 6, 400));
        p.output.h = pick(rng, 0, p.image.h + 4);
        p.output.x0 = p.image.x0 + pick(rng, -6, p.image.w + 2);
        p.output.y0 = p.image.y0 + pick(rng, -4, p.image.h + 2);
        if (pick(rng, 0, 2) == 0) {
            p.output.x0 = p.image.x0;
            p.output.y0 = p.image.y0;
        }
    }
    if (grouped && !v.filter->residual()) {
        p.output.w = pick(rng, 0, 1) ? group : pick(rng, group, p.image.w + 6);
        p.output.x0 = p.image.x0 + pick(rng, -3, 3);
    }
    const Intermediate m = intermediate(*v.filter, *v.elem, vw, p.image, p.mask.sx, p.mask.sy, p.output);
    return v.filter->two_stage() && !m.valid() ? random_problem(v, rng) : p;
}

}  // namespace fmtest
