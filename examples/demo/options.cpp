#include "options.h"

#include <charconv>
#include <functional>
#include <map>

namespace demo {

const char *const kUsage =
    "usage: flatmorph_demo [options]\n"
    "Applies the six flatmorph filters to an image, writes each result and a\n"
    "contact sheet as PNG files, and reports the speed of each filter.\n"
    "\n"
    "  --input FILE            PNG or binary PGM image, 8 or 16 bits (colour is read\n"
    "                          as luminance); default: a built-in synthetic micrograph\n"
    "  --width N, --height N   size of the built-in image (default 1024x768)\n"
    "  --mask disk|square|line structuring element (default disk)\n"
    "  --size N                the mask's diameter, side or length, 1 to 101 (default 15)\n"
    "  --type T                element type the filters run on: bool int8 uint8 int16\n"
    "                          uint16 int32 uint32 float32 float64 (default uint8 for\n"
    "                          8-bit images, uint16 for 16-bit ones)\n"
    "  --tag none|avx|avx2     instruction set (default: the widest this processor runs)\n"
    "  --repeat N              timed runs per filter, 1 to 1000 (default 5)\n"
    "  --output DIR            folder for the PNG files (default demo-output)\n"
    "  --help                  this text\n";

namespace {

bool parse_int(const std::string &name, const std::string &text, int lo, int hi, int *value, std::string *error) {
    int parsed = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), parsed);
    if (ec != std::errc() || end != text.data() + text.size() || parsed < lo || parsed > hi) {
        *error = name + " wants a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
                 ", not '" + text + "'";
        return false;
    }
    *value = parsed;
    return true;
}

}  // namespace

bool parse_options(int argc, const char *const *argv, Options *options, std::string *error) {
    using Setter = std::function<bool(const std::string &name, const std::string &value)>;
    const auto text = [](std::string *field) -> Setter {
        return [field](const std::string &, const std::string &value) {
            *field = value;
            return true;
        };
    };
    const auto number = [error](int *field, int lo, int hi) -> Setter {
        return [=](const std::string &name, const std::string &value) {
            return parse_int(name, value, lo, hi, field, error);
        };
    };
    const std::map<std::string, Setter> with_value = {
        {"--input", text(&options->input)},
        {"--width", number(&options->width, 1, 8192)},
        {"--height", number(&options->height, 1, 8192)},
        {"--mask",
         [options, error](const std::string &, const std::string &value) {
             if (parse_shape(value, &options->mask)) return true;
             *error = "unknown mask '" + value + "' (choose disk, square or line)";
             return false;
         }},
        {"--size", number(&options->size, 1, kLargestMask)},
        {"--type", text(&options->type)},
        {"--tag", text(&options->tag)},
        {"--repeat", number(&options->repeat, 1, 1000)},
        {"--output", text(&options->output)},
    };

    for (int i = 1; i < argc; i++) {
        std::string name = argv[i], value;
        const size_t equals = name.find('=');
        const bool inline_value = name.rfind("--", 0) == 0 && equals != std::string::npos;
        if (inline_value) {
            value = name.substr(equals + 1);
            name.resize(equals);
        }
        if (name == "--help" && !inline_value) {
            options->help = true;
            continue;
        }
        const auto option = with_value.find(name);
        if (option == with_value.end()) {
            *error = "unknown option '" + name + "' (see --help)";
            return false;
        }
        if (!inline_value) {
            if (i + 1 == argc) {
                *error = name + " needs a value";
                return false;
            }
            value = argv[++i];
        }
        if (value.empty()) {
            *error = name + " needs a value";
            return false;
        }
        if (!option->second(name, value)) return false;
    }
    return true;
}

}  // namespace demo
