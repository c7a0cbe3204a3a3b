// One overview picture of a run: the input and each filter's output side by
// side in a grid, scaled to a common panel size, each labelled above.
#pragma once

#include "grey_image.h"
#include "masks.h"

#include <string>
#include <vector>

namespace demo {

struct Panel {
    std::string label;
    GreyImage image;  // 8 or 16 bits; shown at 8
};

// The mask as a picture: active elements white on dark grey.
GreyImage mask_picture(const MaskImage &mask);

// An 8-bit sheet with `title` across the top and the panels in rows of
// `columns`. Panels are scaled by a whole factor so that the first one's
// longer side comes to between 256 and 512 pixels; the others are fitted into
// the same box and centred.
GreyImage contact_sheet(const std::string &title, const std::vector<Panel> &panels, int columns);

}  // namespace demo
