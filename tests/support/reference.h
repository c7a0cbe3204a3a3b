// The suite's own tables of element types, tags and filters (as a host knows
// them from the documentation) and an independent scalar model of every output
// sample of every filter: slow, direct, written from the definitions alone.
#pragma once

#include <HalideRuntime.h>

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

namespace fmtest {

enum class Elem { Bool, Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

struct ElemInfo {
    Elem elem;
    const char *name;
    int bytes;                // bytes a sample occupies in memory
    int code, bits;           // halide_type_t of image and output
    double low, high;         // the lowest and highest value (the infinities for floats)
    bool is_float() const { return code == halide_type_float; }
    bool is_signed() const { return code == halide_type_int; }
    double lowest() const { return low; }    // identity of dilation
    double highest() const { return high; }  // identity of erosion
    halide_type_t type() const { return halide_type_t(static_cast<halide_type_code_t>(code), bits); }
};

const std::vector<ElemInfo> &all_elements();
const ElemInfo &element(const std::string &name);

// Calls `f` with a value of the C++ type that stores an element of `e` (bool: uint8_t).
template <typename F>
auto with_sample_type(const ElemInfo &e, F f) {
    switch (e.elem) {
    case Elem::Int8: return f(int8_t{});
    case Elem::Int16: return f(int16_t{});
    case Elem::UInt16: return f(uint16_t{});
    case Elem::Int32: return f(int32_t{});
    case Elem::UInt32: return f(uint32_t{});
    case Elem::Float32: return f(float{});
    case Elem::Float64: return f(double{});
    default: return f(uint8_t{});
    }
}

enum class Filter { Dilate, Erode, Open, Close, TopHat, BotHat };

struct FilterInfo {
    Filter filter;
    const char *name;    // imdilate, ...
    const char *output;  // dilate, ...
    bool two_stage() const { return filter != Filter::Dilate && filter != Filter::Erode; }
    bool residual() const { return filter == Filter::TopHat || filter == Filter::BotHat; }
    bool erosion_first() const { return filter == Filter::Open || filter == Filter::TopHat; }
};

inline void PrintTo(const FilterInfo &f, std::ostream *os) { *os << f.name; }

const std::vector<FilterInfo> &all_filters();
const FilterInfo &filter(const std::string &name);

const std::vector<std::string> &all_tags();
int vector_width(const ElemInfo &e, const std::string &tag);
// Whether this processor runs code of the tag; `why` names what is missing.
bool cpu_supports(const std::string &tag, std::string *why = nullptr);

struct Mask {
    int sx = 0, sy = 0;
    std::vector<uint8_t> bytes;  // row-major, sx by sy
    bool active(int k, int j) const { return bytes[static_cast<size_t>(j) * sx + k] == 1; }
};

// The low 32 bits of v as a signed number: coordinates wrap around at 32 bits.
inline int32_t wrap32(int64_t v) { return static_cast<int32_t>(static_cast<uint32_t>(v)); }

struct Region {
    int x0 = 0, y0 = 0, w = 0, h = 0;
    int x1() const { return wrap32(int64_t{x0} + w); }
    int y1() const { return wrap32(int64_t{y0} + h); }
};

struct Problem {
    const ElemInfo *elem = nullptr;
    const FilterInfo *filter = nullptr;
    Region image;                // the image's own rectangle (min and extent)
    std::vector<double> pixels;  // image samples as numbers, row-major (bool: 0 or 1)
    double low_pad = 0, high_pad = 0;  // the float64 elements (0, 0) and (1, 0) of minmax
    Mask mask;
    Region output;
    int image_row_gap = 1;  // elements between the end of an image row and the next row
};

// SE origin of a mask extent, by the float32 steps.
int se_origin(int extent);

// The float64 pad element converted to the element type, as a number.
double convert_pad(const ElemInfo &e, double pad);

// Saturating difference a - b stored in the element type, as a number.
double saturating_difference(const ElemInfo &e, double a, double b);

// Every output sample of the problem, row-major over the output region.
std::vector<double> reference_output(const Problem &p);

}  // namespace fmtest
