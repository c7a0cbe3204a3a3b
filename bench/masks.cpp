#include "masks.h"

#include <regex>
#include <stdexcept>

namespace bench {

namespace {

cv::Mat disk(int n) {
    // Integer points within radius r + 1/2 of the centre: rounder than r alone,
    // which leaves single-pixel tips on the axes.
    const int r = n / 2;
    cv::Mat m(n, n, CV_8U);
    for (int j = 0; j < n; j++)
        for (int k = 0; k < n; k++) m.at<uint8_t>(j, k) = (k - r) * (k - r) + (j - r) * (j - r) <= r * r + r;
    return m;
}

bool point_symmetric(const cv::Mat &m) {
    cv::Mat turned;
    cv::flip(m, turned, -1);
    return cv::countNonZero(m != turned) == 0;
}

}  // namespace

Mask mask_by_name(const std::string &name) {
    static const std::regex square_form("(rect|disk)([0-9]{1,4})"), line_form("line([0-9]{1,4})([hv])");
    auto odd_side = [&](const std::string &digits) {
        const int n = std::stoi(digits);
        if (n < 1 || n % 2 == 0) throw std::invalid_argument("mask '" + name + "': the side must be odd");
        return n;
    };
    std::smatch part;
    cv::Mat bytes;
    if (std::regex_match(name, part, square_form)) {
        const int n = odd_side(part[2]);
        bytes = part[1] == "rect" ? cv::Mat(cv::Mat::ones(n, n, CV_8U)) : disk(n);
    } else if (std::regex_match(name, part, line_form)) {
        const int n = odd_side(part[1]);
        bytes = part[2] == "h" ? cv::Mat::ones(1, n, CV_8U) : cv::Mat::ones(n, 1, CV_8U);
    } else {
        throw std::invalid_argument("unknown mask '" + name + "' (rect<N>, disk<N>, line<N>h, line<N>v)");
    }
    if (!point_symmetric(bytes)) throw std::logic_error("mask '" + name + "' is not point-symmetric");
    return {name, bytes};
}

}  // namespace bench
