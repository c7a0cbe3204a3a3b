// flatmorph_bench: times our filters against OpenCV's on the same inputs.
// Exit status: 0 if all outputs agreed, 1 if any differed, 2 on an error.
#include "options.h"
#include "our_pipelines.h"
#include "report.h"
#include "studies.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

namespace {

bool wanted(const bench::Options &o, const char *study) {
    return std::find(o.studies.begin(), o.studies.end(), study) != o.studies.end();
}

// What OpenCV's build information says after "Parallel framework:".
std::string opencv_parallel_framework() {
    const std::string info = cv::getBuildInformation(), label = "Parallel framework:";
    const size_t at = info.find(label);
    if (at == std::string::npos) return "unknown";
    const size_t start = info.find_first_not_of(' ', at + label.size()), end = info.find('\n', at);
    return info.substr(start, end - start);
}

}  // namespace

int main(int argc, char **argv) {
    bench::Options options;
    try {
        options = bench::parse_options(argc, argv);
    } catch (const std::exception &e) {
        std::fprintf(stderr, "flatmorph_bench: %s\n\n%s", e.what(), bench::usage());
        return 2;
    }
    if (options.help) {
        std::fputs(bench::usage(), stdout);
        return 0;
    }

    std::string tags;
    for (const std::string &tag : bench::cpu_tags()) tags += " " + tag;
    std::printf("flatmorph_bench: this processor runs tags%s; OpenCV %s, parallel framework %s\n", tags.c_str(),
                CV_VERSION, opencv_parallel_framework().c_str());

    try {
        bench::Report report(options.csv_path);
        if (wanted(options, "cases")) bench::run_cases(options, report);
        if (wanted(options, "growth")) bench::run_growth(options, report);
        if (wanted(options, "small")) bench::run_small(options, report);
        if (report.disagreements() > 0) {
            std::printf("\n%d measurements skipped: our output differed from OpenCV's\n", report.disagreements());
            return 1;
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "flatmorph_bench: %s\n", e.what());
        return 2;
    }
    return 0;
}
