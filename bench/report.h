// The results, as they come: a human table on standard output and, if asked,
// one CSV line per measurement.
#pragma once

#include <cmath>
#include <fstream>
#include <string>

namespace bench {

struct Row {
    std::string study;      // cases, growth, small
    std::string operation;  // a filter, or imerode+imdilate
    std::string type, mask, tag;
    int side = 0;           // the image is side x side
    int active = 0;         // active mask elements
    int threads = 0;
    double ours_ms = NAN, opencv_ms = NAN;  // medians; NAN where not timed
    int ours_samples = 0, opencv_samples = 0;
    double floor_ms = NAN;  // best parallel memcpy of the image
    std::string check;      // "ok", or how our output differs from OpenCV's away from the border
    long long rim_differences = 0;  // samples that differ within a mask size of the border
};

class Report {
public:
    explicit Report(const std::string &csv_path);  // empty: no CSV
    void begin_study(const std::string &title);
    void add(const Row &row);
    int disagreements() const { return disagreements_; }

private:
    std::ofstream csv_;
    int disagreements_ = 0;
};

}  // namespace bench
