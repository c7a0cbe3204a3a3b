// flatmorph_bench: times our filters against OpenCV's on the same inputs.
// Exit status: 0 if all outputs agreed, 1 if any differed, 2 on an error.
#include "options.h"
#include "our_pipelines.h"
#include "results.h"
#include "studies.h"

#include <opencv2/core.hpp>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <string>

namespace {

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
    if (const std::optional<int> status = bench::parse_options(argc, argv, options)) return *status == 0 ? 0 : 2;

    std::string tags;
    for (const std::string &tag : bench::cpu_tags()) tags += " " + tag;
    std::printf("flatmorph_bench: this processor runs tags%s; OpenCV %s, parallel framework %s\n", tags.c_str(),
                CV_VERSION, opencv_parallel_framework().c_str());
    auto wanted = [&](const char *study) {
        return std::find(options.studies.begin(), options.studies.end(), study) != options.studies.end();
    };
    try {
        bench::Results results(options.csv_path);
        if (wanted("allround")) bench::run_allround(options, results);
        if (wanted("acceptance")) bench::run_acceptance(options, results);
        if (wanted("growth")) bench::run_growth(options, results);
        if (results.disagreements() > 0) {
            std::printf("\n%d measurements skipped: our output differed from OpenCV's\n", results.disagreements());
            return 1;
        }
    } catch (const std::exception &e) {
        std::fprintf(stderr, "flatmorph_bench: %s\n", e.what());
        return 2;
    }
    return 0;
}
