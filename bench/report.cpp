#include "report.h"

#include <cstdio>
#include <stdexcept>

namespace bench {

namespace {

double ratio(const Row &r) { return r.ours_ms / r.opencv_ms; }
double megapixels_per_s(const Row &r) { return double(r.side) * r.side / 1e6 / (r.ours_ms / 1e3); }

// A number for the table: "-" if not measured, more decimals below 1.
std::string shown(double v, int decimals_below_one, int decimals) {
    if (std::isnan(v)) return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", v < 1 ? decimals_below_one : decimals, v);
    return text;
}

std::string csv_number(double v) {
    if (std::isnan(v)) return "";
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

}  // namespace

Report::Report(const std::string &csv_path) {
    if (csv_path.empty()) return;
    csv_.open(csv_path);
    if (!csv_) throw std::runtime_error("cannot write " + csv_path);
    csv_ << "study,operation,type,side,mask,active,tag,threads,ours_ms,opencv_ms,ratio,ours_mpix_s,floor_ms,"
            "ours_samples,opencv_samples,rim_differences,check\n";
}

void Report::begin_study(const std::string &title) {
    std::printf("\n%s\n%-17s %-7s %5s %-8s %4s %-4s %3s | %9s %9s %6s %7s %8s | %6s %s\n", title.c_str(),
                "operation", "type", "side", "mask", "act", "tag", "thr", "ours ms", "OpenCV ms", "ratio", "Mpix/s",
                "floor ms", "rim", "check");
    std::fflush(stdout);
}

void Report::add(const Row &r) {
    if (r.check != "ok") disagreements_++;
    std::printf("%-17s %-7s %5d %-8s %4d %-4s %3d | %9s %9s %6s %7s %8s | %6lld %s\n", r.operation.c_str(),
                r.type.c_str(), r.side, r.mask.c_str(), r.active, r.tag.c_str(), r.threads,
                shown(r.ours_ms, 4, 2).c_str(), shown(r.opencv_ms, 4, 2).c_str(), shown(ratio(r), 2, 2).c_str(),
                shown(megapixels_per_s(r), 0, 0).c_str(), shown(r.floor_ms, 4, 2).c_str(), r.rim_differences,
                r.check.c_str());
    std::fflush(stdout);
    if (!csv_.is_open()) return;
    csv_ << r.study << ',' << r.operation << ',' << r.type << ',' << r.side << ',' << r.mask << ',' << r.active << ','
         << r.tag << ',' << r.threads << ',' << csv_number(r.ours_ms) << ',' << csv_number(r.opencv_ms) << ','
         << csv_number(ratio(r)) << ',' << csv_number(megapixels_per_s(r)) << ',' << csv_number(r.floor_ms) << ','
         << r.ours_samples << ',' << r.opencv_samples << ',' << r.rim_differences << ',' << r.check << '\n';
    csv_.flush();
}

}  // namespace bench
