#include "reference.h"

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>
#include <unordered_map>

namespace fmtest {

namespace {

template <typename Row>
const Row &by_name(const std::vector<Row> &rows, const std::string &name) {
    for (const Row &r : rows)
        if (name == r.name) return r;
    throw std::invalid_argument(name);
}

}  // namespace

const std::vector<ElemInfo> &all_elements() {
    const double inf = std::numeric_limits<double>::infinity();
    static const std::vector<ElemInfo> table = {
        {Elem::Bool, "bool", 1, 1, 1, 0, 1},                 {Elem::Int8, "int8", 1, 0, 8, -128, 127},
        {Elem::UInt8, "uint8", 1, 1, 8, 0, 255},             {Elem::Int16, "int16", 2, 0, 16, -32768, 32767},
        {Elem::UInt16, "uint16", 2, 1, 16, 0, 65535},        {Elem::Int32, "int32", 4, 0, 32, -2147483648.0, 2147483647.0},
        {Elem::UInt32, "uint32", 4, 1, 32, 0, 4294967295.0}, {Elem::Float32, "float32", 4, 2, 32, -inf, inf},
        {Elem::Float64, "float64", 8, 2, 64, -inf, inf},
    };
    return table;
}

const ElemInfo &element(const std::string &name) { return by_name(all_elements(), name); }

const std::vector<FilterInfo> &all_filters() {
    static const std::vector<FilterInfo> table = {
        {Filter::Dilate, "imdilate", "dilate"}, {Filter::Erode, "imerode", "erode"},
        {Filter::Open, "imopen", "open"},       {Filter::Close, "imclose", "close"},
        {Filter::TopHat, "imtophat", "tophat"}, {Filter::BotHat, "imbothat", "bothat"},
    };
    return table;
}

const FilterInfo &filter(const std::string &name) { return by_name(all_filters(), name); }

const std::vector<std::string> &all_tags() {
    static const std::vector<std::string> tags = {"none", "avx", "avx2"};
    return tags;
}

int vector_width(const ElemInfo &e, const std::string &tag) {
    const int register_bytes = tag == "avx2" || (tag == "avx" && e.is_float()) ? 32 : 16;
    return register_bytes / e.bytes;
}

bool cpu_supports(const std::string &tag, std::string *why) {
    __builtin_cpu_init();
    // What tag avx needs, then what avx2 needs beside it.
    const std::pair<const char *, bool> features[] = {{"avx", __builtin_cpu_supports("avx")},
                                                      {"sse4.1", __builtin_cpu_supports("sse4.1")},
                                                      {"avx2", __builtin_cpu_supports("avx2")},
                                                      {"fma", __builtin_cpu_supports("fma")},
                                                      {"bmi1", __builtin_cpu_supports("bmi")}};
    std::string missing;
    for (int i = 0; i < (tag == "avx2" ? 5 : tag == "avx" ? 2 : 0); i++)
        if (!features[i].second) missing += std::string(" ") + features[i].first;
    if (why) *why = missing;
    return missing.empty();
}

int se_origin(int extent) {
    const float half = static_cast<float>(wrap32(int64_t{extent} + 1) >> 1);
    return static_cast<int>(std::floor(half) + -1.0f);
}

double convert_pad(const ElemInfo &e, double d) {
    if (e.is_float()) return e.elem == Elem::Float32 ? static_cast<float>(d) : d;
    // A wrapping conversion through int64 (uint32) or int32; out of range gives the lowest value.
    const double limit = e.elem == Elem::UInt32 ? 9223372036854775808.0 : 2147483648.0;
    const int64_t lowest = e.elem == Elem::UInt32 ? INT64_MIN : INT32_MIN;
    const int64_t whole = d >= -limit && d < limit ? static_cast<int64_t>(d) : lowest;
    if (e.elem == Elem::Bool) return static_cast<double>(whole & 1);
    return with_sample_type(e, [whole](auto sample) { return double(static_cast<decltype(sample)>(whole)); });
}

double saturating_difference(const ElemInfo &e, double a, double b) {
    double d = a - b;  // exact for every integer type
    const double hi = e.highest(), lo = e.lowest();
    d = d < hi ? d : hi;  // NaN goes to hi
    d = d > lo ? d : lo;
    return e.elem == Elem::Float32 ? static_cast<float>(d) : d;
}

namespace {

using Source = std::function<double(int a, int b)>;

// The fold of one sample: identity, then every active element in mask order
// (rows outer, columns inner). Dilation reflects the mask, erosion does not.
double morph(const Problem &p, bool dilation, int x, int y, const Source &source) {
    const int cx = se_origin(p.mask.sx), cy = se_origin(p.mask.sy);
    double acc = dilation ? p.elem->lowest() : p.elem->highest();
    for (int j = 0; j < p.mask.sy; j++) {
        for (int k = 0; k < p.mask.sx; k++) {
            if (!p.mask.active(k, j)) continue;
            const double s = dilation ? source(x + cx - k, y + cy - j) : source(x + k - cx, y + j - cy);
            acc = dilation ? (acc > s ? acc : s) : (acc < s ? acc : s);
        }
    }
    return acc;
}

double image_at(const Problem &p, int a, int b) {
    return p.pixels[static_cast<size_t>(b - p.image.y0) * p.image.w + (a - p.image.x0)];
}

Source padded_image(const Problem &p, double pad) {
    return [&p, pad](int a, int b) {
        const bool inside = a >= p.image.x0 && a < p.image.x1() && b >= p.image.y0 && b < p.image.y1();
        return inside ? image_at(p, a, b) : pad;
    };
}

// A first stage, evaluated on demand and remembered.
Source memoized(Source stage) {
    auto cache = std::make_shared<std::unordered_map<uint64_t, double>>();
    return [cache, stage](int a, int b) {
        const uint64_t key = uint64_t(uint32_t(a)) << 32 | uint32_t(b);
        auto found = cache->find(key);
        if (found != cache->end()) return found->second;
        return (*cache)[key] = stage(a, b);
    };
}

}  // namespace

std::vector<double> reference_output(const Problem &p) {
    const double low = convert_pad(*p.elem, p.low_pad), high = convert_pad(*p.elem, p.high_pad);
    std::function<double(int, int)> sample;
    switch (p.filter->filter) {
    case Filter::Dilate:
    case Filter::Erode: {
        const bool dilation = p.filter->filter == Filter::Dilate;
        sample = [&, dilation](int x, int y) { return morph(p, dilation, x, y, padded_image(p, dilation ? low : high)); };
        break;
    }
    case Filter::Open:
    case Filter::TopHat: {
        // Erosion in the image's rectangle, then dilation in the zero-based frame.
        Source eroded = memoized([&](int u, int v) { return morph(p, false, u, v, padded_image(p, high)); });
        Source framed = [&, eroded](int a, int b) {
            const bool inside = a >= 0 && a < p.image.w && b >= 0 && b < p.image.h;
            return inside ? eroded(a, b) : low;
        };
        sample = [&, framed](int x, int y) {
            const double opened = morph(p, true, x, y, framed);
            if (p.filter->filter == Filter::Open) return opened;
            return saturating_difference(*p.elem, image_at(p, x, y), opened);
        };
        break;
    }
    case Filter::Close:
    case Filter::BotHat: {
        // Dilation with the low pad, then an erosion of it with no boundary at all.
        Source dilated = memoized([&](int u, int v) { return morph(p, true, u, v, padded_image(p, low)); });
        sample = [&, dilated](int x, int y) {
            const double closed = morph(p, false, x, y, dilated);
            if (p.filter->filter == Filter::Close) return closed;
            return saturating_difference(*p.elem, closed, image_at(p, x, y));
        };
        break;
    }
    }
    std::vector<double> out;
    out.reserve(static_cast<size_t>(p.output.w) * p.output.h);
    for (int y = p.output.y0; y < p.output.y1(); y++)
        for (int x = p.output.x0; x < p.output.x1(); x++) out.push_back(sample(x, y));
    return out;
}

}  // namespace fmtest
