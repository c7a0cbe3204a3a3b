#include "contact_sheet.h"

#include <cairo.h>
#include <fontconfig/fontconfig.h>

#include <algorithm>
#include <cmath>
#include <memory>

namespace demo {

namespace {

constexpr double kLargestPanel = 512, kSmallestPanel = 256;
constexpr double kGap = 12, kLabelHeight = 26, kTitleHeight = 36, kLabelSize = 15, kTitleSize = 19;

using Surface = std::unique_ptr<cairo_surface_t, decltype(&cairo_surface_destroy)>;
using Context = std::unique_ptr<cairo_t, decltype(&cairo_destroy)>;

// The gain that brings the panel's 99.5th percentile to full scale: a residual
// is mostly near zero, and its few brightest samples would otherwise set the
// scale and leave the rest black.
int stretch_gain(const Panel &panel) {
    if (!panel.stretched) return 1;
    std::vector<uint16_t> samples = panel.image.samples;
    const auto rank = samples.begin() + static_cast<long>(samples.size() * 995 / 1000);
    std::nth_element(samples.begin(), rank, samples.end());
    return std::max(1, panel.image.max_value() / std::max<int>(1, *rank));
}

// The panel's samples at 8 bits, grey in cairo's 32-bit RGB layout.
Surface panel_surface(const Panel &panel, int gain) {
    const GreyImage &image = panel.image;
    Surface surface(cairo_image_surface_create(CAIRO_FORMAT_RGB24, image.width, image.height), cairo_surface_destroy);
    const int stride = cairo_image_surface_get_stride(surface.get()) / 4;
    uint32_t *pixels = reinterpret_cast<uint32_t *>(cairo_image_surface_get_data(surface.get()));
    if (!pixels) return surface;  // not created: drawing it puts the context in error
    for (int y = 0; y < image.height; y++)
        for (int x = 0; x < image.width; x++) {
            const uint32_t grey = std::min<uint32_t>(image.at(x, y) * gain, image.max_value()) >> (image.bits - 8);
            pixels[y * stride + x] = grey << 16 | grey << 8 | grey;
        }
    cairo_surface_mark_dirty(surface.get());
    return surface;
}

void draw_text(cairo_t *cr, double x, double y, double size, double grey, const std::string &text) {
    cairo_set_font_size(cr, size);
    cairo_set_source_rgb(cr, grey, grey, grey);
    cairo_move_to(cr, x, y);
    cairo_show_text(cr, text.c_str());
}

// Draws `panel` scaled to fit `box_w` by `box_h` at (left, top), centred;
// enlarged panels keep sharp pixels, shrunk ones are averaged.
void draw_panel(cairo_t *cr, const Panel &panel, double left, double top, double box_w, double box_h) {
    const int gain = stretch_gain(panel);
    const Surface surface = panel_surface(panel, gain);
    const double scale = std::min(box_w / panel.image.width, box_h / panel.image.height);
    cairo_save(cr);
    cairo_translate(cr, left + (box_w - scale * panel.image.width) / 2, top + (box_h - scale * panel.image.height) / 2);
    cairo_scale(cr, scale, scale);
    cairo_set_source_surface(cr, surface.get(), 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), scale >= 1 ? CAIRO_FILTER_NEAREST : CAIRO_FILTER_GOOD);
    cairo_paint(cr);
    cairo_restore(cr);
    draw_text(cr, left, top - 8, kLabelSize, 0.88,
              gain > 1 ? panel.label + " (x" + std::to_string(gain) + ")" : panel.label);
}

}  // namespace

GreyImage mask_picture(const MaskImage &mask) {
    GreyImage picture(mask.width, mask.height, 8);
    for (size_t i = 0; i < mask.bytes.size(); i++) picture.samples[i] = mask.bytes[i] == 1 ? 255 : 64;
    return picture;
}

namespace {

bool draw_and_write(const std::string &path, const std::string &title, const std::vector<Panel> &panels, int columns,
                    std::string *error) {
    const GreyImage &first = panels.front().image;
    const double longer = std::max(first.width, first.height);
    const double scale = std::clamp(longer, kSmallestPanel, kLargestPanel) / longer;
    const double panel_w = std::max(kSmallestPanel / 2, std::round(first.width * scale));  // room for the label
    const double panel_h = std::max(1.0, std::round(first.height * scale));
    const int rows = (static_cast<int>(panels.size()) + columns - 1) / columns;
    const double cell_w = panel_w + kGap, cell_h = kLabelHeight + panel_h + kGap;

    Surface sheet(cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(columns * cell_w + kGap),
                                             static_cast<int>(kTitleHeight + rows * cell_h)),
                  cairo_surface_destroy);
    const Context cr(cairo_create(sheet.get()), cairo_destroy);
    cairo_set_source_rgb(cr.get(), 0.11, 0.11, 0.11);
    cairo_paint(cr.get());
    cairo_select_font_face(cr.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_BOLD);
    draw_text(cr.get(), kGap, kTitleHeight - 10, kTitleSize, 1.0, title);
    cairo_select_font_face(cr.get(), "sans-serif", CAIRO_FONT_SLANT_NORMAL, CAIRO_FONT_WEIGHT_NORMAL);
    for (size_t i = 0; i < panels.size(); i++)
        draw_panel(cr.get(), panels[i], kGap + static_cast<double>(i % columns) * cell_w,
                   kTitleHeight + static_cast<double>(i / columns) * cell_h + kLabelHeight, panel_w, panel_h);

    cairo_status_t status = cairo_status(cr.get());
    if (status == CAIRO_STATUS_SUCCESS) status = cairo_surface_write_to_png(sheet.get(), path.c_str());
    if (status != CAIRO_STATUS_SUCCESS) *error = "cannot write " + path + ": " + cairo_status_to_string(status);
    return status == CAIRO_STATUS_SUCCESS;
}

}  // namespace

bool write_contact_sheet(const std::string &path, const std::string &title, const std::vector<Panel> &panels,
                         int columns, std::string *error) {
    const bool written = draw_and_write(path, title, panels, columns, error);
    // The font caches of cairo and fontconfig live to the end of the process
    // otherwise, which leak checkers report.
    cairo_debug_reset_static_data();
    FcFini();
    return written;
}

}  // namespace demo
