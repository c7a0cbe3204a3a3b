#include "masks.h"

namespace demo {

namespace {

const char *shape_name(MaskShape shape) {
    switch (shape) {
    case MaskShape::square: return "square";
    case MaskShape::line: return "line";
    default: return "disk";
    }
}

}  // namespace

std::string MaskImage::describe() const {
    return std::string(shape_name(shape)) + " " + std::to_string(width) + "x" + std::to_string(height);
}

MaskImage make_mask(MaskShape shape, int size) {
    MaskImage mask;
    mask.shape = shape;
    mask.width = size;
    mask.height = shape == MaskShape::line ? 1 : size;
    mask.bytes.assign(static_cast<size_t>(mask.width) * mask.height, 1);
    if (shape == MaskShape::disk) {
        // Elements whose centre lies within size / 2 of the mask's centre.
        const double centre = (size - 1) / 2.0, radius = size / 2.0;
        for (int j = 0; j < size; j++)
            for (int k = 0; k < size; k++) {
                const double dx = k - centre, dy = j - centre;
                mask.bytes[static_cast<size_t>(j) * size + k] = dx * dx + dy * dy <= radius * radius;
            }
    }
    return mask;
}

}  // namespace demo
