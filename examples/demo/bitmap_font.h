// A tiny 5x7 bitmap font (with a row below for descenders) for labelling the contact sheet: lower-case letters,
// digits and a little punctuation (upper case is drawn as lower case, other
// characters as blanks).
#pragma once

#include "grey_image.h"

#include <string>

namespace demo {

constexpr int kGlyphWidth = 5, kGlyphHeight = 8, kGlyphAdvance = 6;

// Draws `text` with its top-left corner at (x, y), each font pixel as a
// `scale` by `scale` block of `value`; pixels outside the image are skipped.
void draw_text(GreyImage &image, int x, int y, const std::string &text, int scale, uint16_t value);

inline int text_width(const std::string &text, int scale) {
    return static_cast<int>(text.size()) * kGlyphAdvance * scale;
}

}  // namespace demo
