#include "element_types.h"

#include <opencv2/core.hpp>

#include <limits>
#include <stdexcept>

namespace bench {

const std::vector<ElemType> &all_elem_types() {
    static const std::vector<ElemType> types = {
        {"uint8", CV_8U, {halide_type_uint, 8, 1}, 0, 255},
        {"uint16", CV_16U, {halide_type_uint, 16, 1}, 0, 65535},
        {"float32", CV_32F, {halide_type_float, 32, 1}, std::numeric_limits<float>::lowest(),
         std::numeric_limits<float>::max()},
        {"bool", CV_8U, {halide_type_uint, 1, 1}, 0, 1},
    };
    return types;
}

const ElemType &elem_type(const std::string &name) {
    for (const ElemType &t : all_elem_types())
        if (name == t.name) return t;
    throw std::invalid_argument("unknown element type '" + name + "' (uint8, uint16, float32, bool)");
}

}  // namespace bench
