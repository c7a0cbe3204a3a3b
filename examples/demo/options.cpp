#include "options.h"

#include <map>

namespace demo {

void declare_options(CLI::App &app, Options &o, const std::vector<std::string> &types) {
    app.description("Applies the six flatmorph filters to an image, writes each result and a contact sheet as PNG "
                    "files, and reports the speed of each filter.");
    app.get_formatter()->column_width(30);
    app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);  // a repeated option: the last wins

    app.add_option("--input", o.input,
                   "PNG, PGM or TIFF image, 8 or 16 bits (colour is read as luminance); "
                   "default: a built-in synthetic micrograph")
        ->type_name("FILE");
    app.add_option("--width", o.width, "width of the built-in image")
        ->check(CLI::Range(1, 8192))
        ->capture_default_str();
    app.add_option("--height", o.height, "height of the built-in image")
        ->check(CLI::Range(1, 8192))
        ->capture_default_str();

    const std::map<std::string, MaskShape> shapes = {
        {"disk", MaskShape::disk}, {"square", MaskShape::square}, {"line", MaskShape::line}};
    app.add_option_function<std::string>(
           "--mask", [&o, shapes](const std::string &name) { o.mask = shapes.at(name); }, "structuring element")
        ->check(CLI::IsMember(shapes))
        ->default_str("disk");
    app.add_option("--size", o.size, "the mask's diameter, side or length")
        ->check(CLI::Range(1, 101))
        ->capture_default_str();
    app.add_option("--type", o.type,
                   "element type the filters run on (default uint8 for 8-bit images, uint16 for 16-bit ones)")
        ->check(CLI::IsMember(types));

    std::map<std::string, flatmorph::Tag> tags;
    for (flatmorph::Tag t : {flatmorph::Tag::none, flatmorph::Tag::avx, flatmorph::Tag::avx2})
        tags[flatmorph::tag_name(t)] = t;
    app.add_option_function<std::string>(
           "--tag",
           [&o, tags](const std::string &name) {
               o.tag = tags.at(name);
               o.tag_forced = true;
           },
           "instruction set (default: the widest this processor runs)")
        ->check(CLI::IsMember(tags));
    app.add_option("--repeat", o.repeat, "timed runs per filter")->check(CLI::Range(1, 1000))->capture_default_str();
    app.add_option("--output", o.output, "folder for the PNG files")->type_name("DIR")->capture_default_str();
}

}  // namespace demo
