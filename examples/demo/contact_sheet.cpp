#include "contact_sheet.h"

#include "bitmap_font.h"

#include <algorithm>

namespace demo {

namespace {

constexpr int kLargestPanel = 512, kSmallestPanel = 256;
constexpr int kGap = 12, kTextScale = 2, kLabelHeight = 28, kTitleHeight = 34;
constexpr uint16_t kBackground = 28, kLabelText = 225, kTitleText = 255;

// Scales `src` by a whole factor (averaging blocks to shrink, repeating
// pixels to grow) to fit inside `box_w` by `box_h`, centred on `out` at
// (left, top), converted to 8 bits.
void place_scaled(const GreyImage &src, GreyImage &out, int left, int top, int box_w, int box_h) {
    int shrink = 1;
    while (src.width / shrink > box_w || src.height / shrink > box_h) shrink++;
    const int grow = shrink > 1 ? 1 : std::max(1, std::min(box_w / src.width, box_h / src.height));
    const int w = src.width / shrink * grow, h = src.height / shrink * grow;
    const int to_8_bits = src.bits - 8;
    left += (box_w - w) / 2;
    top += (box_h - h) / 2;
    for (int y = 0; y < h; y++)
        for (int x = 0; x < w; x++) {
            const int sx = x / grow * shrink, sy = y / grow * shrink;
            long sum = 0;
            for (int j = 0; j < shrink; j++)
                for (int i = 0; i < shrink; i++) sum += src.at(sx + i, sy + j);
            out.at(left + x, top + y) = static_cast<uint16_t>((sum / (shrink * shrink)) >> to_8_bits);
        }
}

}  // namespace

GreyImage mask_picture(const MaskImage &mask) {
    GreyImage picture(mask.width, mask.height, 8);
    for (size_t i = 0; i < mask.bytes.size(); i++) picture.samples[i] = mask.bytes[i] == 1 ? 255 : 64;
    return picture;
}

GreyImage contact_sheet(const std::string &title, const std::vector<Panel> &panels, int columns) {
    const GreyImage &first = panels.front().image;
    const int longer = std::max(first.width, first.height);
    int panel_w = first.width, panel_h = first.height;
    if (longer > kLargestPanel) {
        const int shrink = (longer + kLargestPanel - 1) / kLargestPanel;
        panel_w /= shrink;
        panel_h /= shrink;
    } else if (longer < kSmallestPanel) {
        const int grow = (kSmallestPanel + longer - 1) / longer;
        panel_w *= grow;
        panel_h *= grow;
    }

    const int rows = (static_cast<int>(panels.size()) + columns - 1) / columns;
    const int cell_h = kLabelHeight + panel_h + kGap;
    const int width = std::max(columns * (panel_w + kGap) + kGap, text_width(title, kTextScale) + 2 * kGap);
    GreyImage sheet(width, kTitleHeight + rows * cell_h, 8, kBackground);
    draw_text(sheet, kGap, (kTitleHeight - kGlyphHeight * kTextScale) / 2, title, kTextScale, kTitleText);

    for (size_t i = 0; i < panels.size(); i++) {
        const int left = kGap + static_cast<int>(i % columns) * (panel_w + kGap);
        const int top = kTitleHeight + static_cast<int>(i / columns) * cell_h;
        draw_text(sheet, left, top + 4, panels[i].label, kTextScale, kLabelText);
        place_scaled(panels[i].image, sheet, left, top + kLabelHeight, panel_w, panel_h);
    }
    return sheet;
}

}  // namespace demo
