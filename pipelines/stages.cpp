#include "stages.h"

#include <functional>
#include <map>
#include <stdexcept>

using namespace Halide;

namespace flatmorph {

const Var x("x"), y("y");

Inputs::Inputs(Type element)
    : image(element, 2, "keyimForType"), minmax(Float(64), 2, "minmax"), strel(UInt(8), 2, "strel") {}

namespace {

// Where a stage reads the sample at (a, b) from.
using Sampler = std::function<Expr(Expr a, Expr b)>;
// What a stage stores, given the folded accumulator at (x, y).
using Finish = std::function<Expr(Expr folded)>;

// SE origin from a mask extent, in float32 as the contract states: exact up to
// 2^25, and rounded like float32 above that.
Expr se_origin(Expr extent) {
    Expr half = cast<float>((extent + 1) >> 1);
    return cast<int>(floor(half) + -1.0f);
}

// The image sample at (a, b), or `pad` outside the image's own rectangle. The
// clamped load never leaves the image; its value is discarded outside.
Sampler padded_image(const Inputs &in, Expr pad) {
    return [&in, pad](Expr a, Expr b) {
        Expr ix0 = in.image.dim(0).min(), ix1 = ix0 + in.image.dim(0).extent();
        Expr iy0 = in.image.dim(1).min(), iy1 = iy0 + in.image.dim(1).extent();
        // Row and column tests are separate so that the mask loops can be
        // partitioned on each: the middle rows and interior columns test nothing.
        Expr load = in.image(clamp(a, ix0, ix1 - 1), clamp(b, iy0, iy1 - 1));
        return select(likely(b >= iy0 && b < iy1), select(likely(a >= ix0 && a < ix1), load, pad), pad);
    };
}

// A sample of an earlier stage inside the zero-based frame of the image's
// extents, or `pad` outside it (the output stage of the opening).
Sampler framed_stage(const Inputs &in, Func earlier, Expr pad) {
    return [&in, earlier, pad](Expr a, Expr b) {
        Expr iw = in.image.dim(0).extent(), ih = in.image.dim(1).extent();
        Expr load = earlier(clamp(a, 0, iw - 1), clamp(b, 0, ih - 1));
        return select(likely(b >= 0 && b < ih), select(likely(a >= 0 && a < iw), load, pad), pad);
    };
}

// A sample of an earlier stage, read as it is (the output stage of the closing,
// whose intermediate already covers the whole reach of the mask).
Sampler unframed_stage(Func earlier) {
    return [earlier](Expr a, Expr b) { return earlier(a, b); };
}

// Mask extents and the SE origin derived from them.
struct MaskGeometry {
    Expr sx, sy, cx, cy;
    explicit MaskGeometry(const Inputs &in)
        : sx(in.strel.dim(0).extent()), sy(in.strel.dim(1).extent()), cx(se_origin(sx)), cy(se_origin(sy)) {}
};

Stage fold_stage(const std::string &name, Fold fold, const Inputs &in, const MaskGeometry &m,
                 const Sampler &sample, const Finish &finish = [](Expr folded) { return folded; }) {
    RDom mask({{0, m.sx}, {0, m.sy}}, name + "_mask");  // mask.x = k (inner), mask.y = j (outer)
    mask.where(in.strel(mask.x, mask.y) == 1);
    // Dilation looks through the point reflection of the mask, erosion through
    // the mask as it stands.
    Expr a = fold == Fold::Max ? x + m.cx - mask.x : x + mask.x - m.cx;
    Expr b = fold == Fold::Max ? y + m.cy - mask.y : y + mask.y - m.cy;

    Type t = in.image.type();
    Func accumulator(name + "_fold");
    accumulator(x, y) = fold_identity(fold, t);
    accumulator(x, y) = fold_step(fold, accumulator(x, y), sample(a, b));

    Func result(name);
    result(x, y) = finish(accumulator(x, y));
    return {accumulator, result, mask, result.output_buffer().dim(1).min()};
}

}  // namespace

std::string output_name(const std::string &filter) {
    static const std::map<std::string, std::string> outputs = {
        {"imdilate", "dilate"}, {"imerode", "erode"},   {"imopen", "open"},
        {"imclose", "close"},   {"imtophat", "tophat"}, {"imbothat", "bothat"},
    };
    auto found = outputs.find(filter);
    if (found == outputs.end()) throw std::invalid_argument("unknown filter " + filter);
    return found->second;
}

FilterDefinition define_filter(const std::string &filter, const Inputs &in) {
    const std::string out = output_name(filter);
    const MaskGeometry m(in);
    Type t = in.image.type();
    Expr low_pad = convert_pad(in.minmax(0, 0), t);
    Expr high_pad = convert_pad(in.minmax(1, 0), t);

    if (filter == "imdilate") return {{fold_stage(out, Fold::Max, in, m, padded_image(in, low_pad))}};
    if (filter == "imerode") return {{fold_stage(out, Fold::Min, in, m, padded_image(in, high_pad))}};

    // The residual filters read the image at the output's own coordinates, unclamped.
    const bool residual = filter == "imtophat" || filter == "imbothat";
    Expr image_here = in.image(x, y);
    if (filter == "imopen" || filter == "imtophat") {
        Stage first = fold_stage("imerode", Fold::Min, in, m, padded_image(in, high_pad));
        Finish finish = [](Expr opened) { return opened; };
        if (residual) finish = [=](Expr opened) { return saturating_difference(image_here, opened); };
        Stage second = fold_stage(out, Fold::Max, in, m, framed_stage(in, first.result, low_pad), finish);
        // The dilation reaches up to sy - 1 - cy rows above its output, inside the frame.
        first.first_row = clamp(second.first_row + m.cy + 1 - m.sy, 0, in.image.dim(1).extent() - 1);
        return {{first, second}, residual};
    }
    Stage first = fold_stage("imdilate", Fold::Max, in, m, padded_image(in, low_pad));
    Finish finish = [](Expr closed) { return closed; };
    if (residual) finish = [=](Expr closed) { return saturating_difference(closed, image_here); };
    Stage second = fold_stage(out, Fold::Min, in, m, unframed_stage(first.result), finish);
    // The erosion reaches cy rows above its output, unclamped.
    first.first_row = second.first_row - m.cy;
    return {{first, second}, residual};
}

}  // namespace flatmorph
