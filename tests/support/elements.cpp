#include "elements.h"

#include <cmath>
#include <limits>
#include <stdexcept>

namespace fmtest {

const std::vector<ElemInfo> &all_elements() {
    static const std::vector<ElemInfo> table = {
        {Elem::Bool, "bool", 1, 1, 1},        {Elem::Int8, "int8", 1, 0, 8},
        {Elem::UInt8, "uint8", 1, 1, 8},      {Elem::Int16, "int16", 2, 0, 16},
        {Elem::UInt16, "uint16", 2, 1, 16},   {Elem::Int32, "int32", 4, 0, 32},
        {Elem::UInt32, "uint32", 4, 1, 32},   {Elem::Float32, "float32", 4, 2, 32},
        {Elem::Float64, "float64", 8, 2, 64},
    };
    return table;
}

const ElemInfo &element(const std::string &name) {
    for (const ElemInfo &e : all_elements())
        if (name == e.name) return e;
    throw std::invalid_argument(name);
}

double ElemInfo::lowest() const {
    if (is_float()) return -std::numeric_limits<double>::infinity();
    if (elem == Elem::Bool) return 0;
    return is_signed() ? -std::ldexp(1.0, bits - 1) : 0.0;
}

double ElemInfo::highest() const {
    if (is_float()) return std::numeric_limits<double>::infinity();
    if (elem == Elem::Bool) return 1;
    return is_signed() ? std::ldexp(1.0, bits - 1) - 1 : std::ldexp(1.0, bits) - 1;
}

const std::vector<FilterInfo> &all_filters() {
    static const std::vector<FilterInfo> table = {
        {Filter::Dilate, "imdilate", "dilate"}, {Filter::Erode, "imerode", "erode"},
        {Filter::Open, "imopen", "open"},       {Filter::Close, "imclose", "close"},
        {Filter::TopHat, "imtophat", "tophat"}, {Filter::BotHat, "imbothat", "bothat"},
    };
    return table;
}

const FilterInfo &filter(const std::string &name) {
    for (const FilterInfo &f : all_filters())
        if (name == f.name) return f;
    throw std::invalid_argument(name);
}

const std::vector<std::string> &all_tags() {
    static const std::vector<std::string> tags = {"none", "avx", "avx2"};
    return tags;
}

std::string target_string(const std::string &tag) {
    if (tag == "none") return "x86-64-linux-large_buffers-no_runtime";
    if (tag == "avx") return "x86-64-linux-avx-large_buffers-no_runtime-sse41";
    return "x86-64-linux-avx-avx2-large_buffers-no_runtime-sse41";
}

int vector_width(const ElemInfo &e, const std::string &tag) {
    const int register_bytes = tag == "avx2" || (tag == "avx" && e.is_float()) ? 32 : 16;
    return register_bytes / e.bytes;
}

bool cpu_supports(const std::string &tag, std::string *why) {
    __builtin_cpu_init();
    std::string missing;
    if (tag == "avx" || tag == "avx2") {
        if (!__builtin_cpu_supports("avx")) missing += " avx";
        if (!__builtin_cpu_supports("sse4.1")) missing += " sse4.1";
    }
    if (tag == "avx2") {
        if (!__builtin_cpu_supports("avx2")) missing += " avx2";
        if (!__builtin_cpu_supports("fma")) missing += " fma";
        if (!__builtin_cpu_supports("bmi")) missing += " bmi1";
    }
    if (why) *why = missing;
    return missing.empty();
}

}  // namespace fmtest
