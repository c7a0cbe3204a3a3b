// Structuring elements for the demo: a disk, a square and a horizontal line,
// as masks of bytes where 1 marks an active element.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace demo {

enum class MaskShape { disk, square, line };

struct MaskImage {
    MaskShape shape = MaskShape::disk;
    int width = 0, height = 0;
    std::vector<uint8_t> bytes;  // row-major, 1 = active, 0 = absent
    // "disk 15x15", for labels
    std::string describe() const;
};

// A mask whose longest side is `size` elements: the disk has diameter `size`,
// the square side `size`, the line is `size` by 1.
MaskImage make_mask(MaskShape shape, int size);

}  // namespace demo
