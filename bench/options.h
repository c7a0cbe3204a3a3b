// The command line: which studies, and which cases within them, to run.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct Options {
    std::vector<std::string> studies;  // cases, growth, small
    std::vector<std::string> filters, types, masks;
    std::vector<std::string> tags;     // a subset of the tags this processor runs, weakest first
    std::vector<int> sizes, threads;
    double budget_s = 0.4;             // time budget of one measurement
    bool quick = false;
    bool help = false;
    std::string csv_path;

    const std::string &best_tag() const { return tags.back(); }
    int most_threads() const;
};

// Throws std::invalid_argument on an unknown option or value.
Options parse_options(int argc, char **argv);
const char *usage();

}  // namespace bench
