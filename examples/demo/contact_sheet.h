// One overview picture of a run: the input and each filter's output side by
// side in a grid, scaled to a common panel size, each labelled above, drawn
// and written as PNG by cairo.
#pragma once

#include "grey_image.h"
#include "masks.h"

#include <string>
#include <vector>

namespace demo {

struct Panel {
    std::string label;
    GreyImage image;         // 8 or 16 bits; shown at 8
    bool stretched = false;  // a residual, shown with its contrast stretched
};

// The mask as a picture: active elements white on dark grey.
GreyImage mask_picture(const MaskImage &mask);

// Writes a sheet with `title` across the top and the panels in rows of
// `columns`, each scaled so that the first panel's longer side comes to
// between 256 and 512 pixels, the others fitted into the same box. A
// stretched panel is multiplied by a whole gain that brings all but its
// brightest 0.5 % of samples into range, and its label says by how much
// ("imtophat (x3)").
bool write_contact_sheet(const std::string &path, const std::string &title, const std::vector<Panel> &panels,
                         int columns, std::string *error);

}  // namespace demo
