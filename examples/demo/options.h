// The demo's command line.
#pragma once

#include "masks.h"

#include <flatmorph_cpu.h>

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace demo {

struct Options {
    std::string input;                  // empty: the built-in micrograph
    int width = 1024, height = 768;     // of the built-in micrograph
    MaskShape mask = MaskShape::disk;
    int size = 15;                      // the mask's longer side
    std::string type;                   // empty: uint8 or uint16, after the image's bit depth
    flatmorph::Tag tag = flatmorph::Tag::none;
    bool tag_forced = false;            // false: the widest tag this processor runs
    int repeat = 5;                     // timed runs per filter
    std::string output = "demo-output";
};

// Declares every option on `app`, each writing into `options`; `types` are the
// element type names --type accepts.
void declare_options(CLI::App &app, Options &options, const std::vector<std::string> &types);

}  // namespace demo
