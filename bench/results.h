// The measurements as they come: one line each on standard output and, if
// asked, one CSV line each (scripts/bench renders the report from the CSV).
#pragma once

#include <cmath>
#include <fstream>
#include <string>

namespace bench {

struct Row {
    std::string study;  // allround, acceptance, growth
    std::string filter, type, mask, tag;
    int side = 0;       // the image is side x side
    int active = 0;     // active mask elements
    int threads = 0;
    double ours_ms = NAN, opencv_ms = NAN;  // medians; ours NAN where not timed
    int ours_samples = 0, opencv_samples = 0;
    double floor_ms = NAN;          // best parallel copy of the image
    std::string check;              // "ok", or how our output differs from OpenCV's away from the border
    long long rim_differences = 0;  // samples that differ within a mask size of the border
};

class Results {
public:
    explicit Results(const std::string &csv_path);  // empty: no CSV
    void add(const Row &row);
    int disagreements() const { return disagreements_; }

private:
    std::ofstream csv_;
    int disagreements_ = 0;
};

}  // namespace bench
