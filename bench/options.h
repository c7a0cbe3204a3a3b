// The command line: which studies to run, and the cases of the all-round set.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace bench {

// The defaults are the full run's; --quick changes those not given.
struct Options {
    std::vector<std::string> studies{"allround", "acceptance", "growth"};
    // The all-round set.
    std::vector<std::string> filters{"imdilate", "imopen", "imclose", "imtophat"};
    std::vector<std::string> types{"uint8", "uint16", "float32"};
    std::vector<std::string> masks{"rect3", "rect7",  "rect15",  "rect31", "disk7",
                                   "disk15", "disk31", "line21h", "line21v"};
    std::vector<std::string> tags;  // weakest first; by default the best this processor runs
    std::vector<int> sizes{256, 512, 1024, 4096};
    std::vector<int> threads{1, 2};

    double budget_s = 0.25;  // seconds of repetitions per contender and case
    int large_side = 4096;   // the side of the acceptance and growth images
    std::string csv_path;
};

// Parses the command line into `options`. Returns an exit status when the
// program should stop at once: 0 after --help, non-zero after an error (both
// printed by then).
std::optional<int> parse_options(int argc, char **argv, Options &options);

}  // namespace bench
