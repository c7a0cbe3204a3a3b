// The test suite's own table of element types, tags and filters: what a host
// knows from the library's documentation, written independently of the
// pipeline code.
#pragma once

#include <HalideRuntime.h>

#include <ostream>
#include <string>
#include <vector>

namespace fmtest {

enum class Elem { Bool, Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

struct ElemInfo {
    Elem elem;
    const char *name;
    int bytes;      // bytes a sample occupies in memory
    int code, bits; // halide_type_t of image and output
    bool is_float() const { return code == halide_type_float; }
    bool is_signed() const { return code == halide_type_int; }
    double lowest() const;   // identity of dilation
    double highest() const;  // identity of erosion
};

const std::vector<ElemInfo> &all_elements();
const ElemInfo &element(const std::string &name);

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
std::string target_string(const std::string &tag);
int vector_width(const ElemInfo &e, const std::string &tag);
// Whether this processor runs code of the tag; `why` names what is missing.
bool cpu_supports(const std::string &tag, std::string *why = nullptr);

}  // namespace fmtest
