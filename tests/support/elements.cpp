#include "elements.h"

#include <limits>
#include <stdexcept>

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
    std::string missing;
    const auto need = [&](bool present, const char *feature) { missing += present ? "" : std::string(" ") + feature; };
    if (tag != "none") {
        need(__builtin_cpu_supports("avx"), "avx");
        need(__builtin_cpu_supports("sse4.1"), "sse4.1");
    }
    if (tag == "avx2") {
        need(__builtin_cpu_supports("avx2"), "avx2");
        need(__builtin_cpu_supports("fma"), "fma");
        need(__builtin_cpu_supports("bmi"), "bmi1");
    }
    if (why) *why = missing;
    return missing.empty();
}

}  // namespace fmtest
