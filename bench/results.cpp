#include "results.h"

#include <cstdio>
#include <stdexcept>

namespace bench {

namespace {

std::string number(double v) {
    if (std::isnan(v)) return "";
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

}  // namespace

Results::Results(const std::string &csv_path) {
    std::printf("%-10s %-8s %-7s %5s %-8s %-4s %3s | %9s %9s %6s | %s\n", "study", "filter", "type", "side", "mask",
                "tag", "thr", "ours ms", "OpenCV ms", "ratio", "check");
    if (csv_path.empty()) return;
    csv_.open(csv_path);
    if (!csv_) throw std::runtime_error("cannot write " + csv_path);
    csv_ << "study,filter,type,side,mask,active,tag,threads,ours_ms,opencv_ms,floor_ms,ours_samples,opencv_samples,"
            "rim_differences,check\n";
}

void Results::add(const Row &r) {
    if (r.check != "ok") disagreements_++;
    std::printf("%-10s %-8s %-7s %5d %-8s %-4s %3d | %9.3f %9.3f %6.2f | %s\n", r.study.c_str(), r.filter.c_str(),
                r.type.c_str(), r.side, r.mask.c_str(), r.tag.c_str(), r.threads, r.ours_ms, r.opencv_ms,
                r.ours_ms / r.opencv_ms, r.check.c_str());
    std::fflush(stdout);
    if (!csv_.is_open()) return;
    csv_ << r.study << ',' << r.filter << ',' << r.type << ',' << r.side << ',' << r.mask << ',' << r.active << ','
         << r.tag << ',' << r.threads << ',' << number(r.ours_ms) << ',' << number(r.opencv_ms) << ','
         << number(r.floor_ms) << ',' << r.ours_samples << ',' << r.opencv_samples << ',' << r.rim_differences
         << ',' << r.check << '\n';
    csv_.flush();
}

}  // namespace bench
