// The demo's command line.
#pragma once

#include "masks.h"

#include <string>

namespace demo {

struct Options {
    std::string input;  // empty: the built-in micrograph
    int width = 1024, height = 768;  // of the built-in micrograph
    MaskShape mask = MaskShape::disk;
    int size = 15;                   // the mask's longer side
    std::string type;                // empty: uint8 or uint16, after the image's bit depth
    std::string tag;                 // empty: the widest tag this processor runs
    int repeat = 5;                  // timed runs per filter
    std::string output = "demo-output";
    bool help = false;
};

constexpr int kLargestMask = 101;
extern const char *const kUsage;

// On failure returns false and a one-line reason in `error`.
bool parse_options(int argc, const char *const *argv, Options *options, std::string *error);

}  // namespace demo
