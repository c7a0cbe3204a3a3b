#include "image_files.h"

#include <opencv2/imgcodecs.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace demo {

namespace {

// The demo holds an image, its converted samples and six outputs at once, and
// the contact sheet draws each whole (cairo's images are at most 32767 a side).
constexpr size_t kMaxPixels = 64 << 20;
constexpr int kMaxSide = 32767;

// The codecs print their own diagnostics (libpng's among them) on stderr; the
// demo reports a failure in one line of its own, so their stderr goes to
// /dev/null while they run.
class CodecsQuiet {
public:
    CodecsQuiet() : saved_(dup(STDERR_FILENO)) {
        const int null = open("/dev/null", O_WRONLY);
        if (null < 0) return;
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~CodecsQuiet() {
        if (saved_ < 0) return;
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

cv::Mat samples_of(const GreyImage &image) {
    return cv::Mat(image.height, image.width, CV_16U, const_cast<uint16_t *>(image.samples.data()));
}

}  // namespace

bool read_grey_image(const std::string &path, GreyImage *image, std::string *error) {
    const auto fail = [&](const std::string &why) {
        *error = path + ": " + why;
        return false;
    };
    if (!std::ifstream(path)) return fail(std::string("cannot open: ") + std::strerror(errno));
    cv::Mat read;
    try {
        CodecsQuiet quiet;
        read = cv::imread(path, cv::IMREAD_GRAYSCALE | cv::IMREAD_ANYDEPTH);
    } catch (const cv::Exception &) {  // a header beyond the codecs' own size limit
    }
    if (read.empty()) return fail("not a readable PNG, PGM or TIFF image");
    if (read.depth() != CV_8U && read.depth() != CV_16U) return fail("samples are neither 8 nor 16 bits wide");
    if (read.total() > kMaxPixels || read.cols > kMaxSide || read.rows > kMaxSide)
        return fail("image of " + std::to_string(read.cols) + "x" + std::to_string(read.rows) +
                    " is larger than the demo takes (64 megapixels, 32767 a side)");
    *image = GreyImage(read.cols, read.rows, read.depth() == CV_8U ? 8 : 16);
    cv::Mat samples = samples_of(*image);
    read.convertTo(samples, CV_16U);
    return true;
}

bool write_png(const std::string &path, const GreyImage &image, std::string *error) {
    cv::Mat file_samples;
    samples_of(image).convertTo(file_samples, image.bits == 8 ? CV_8U : CV_16U);
    bool written = false;
    try {
        CodecsQuiet quiet;
        written = cv::imwrite(path, file_samples);
    } catch (const cv::Exception &) {
    }
    if (!written) *error = "cannot write " + path;
    return written;
}

}  // namespace demo
