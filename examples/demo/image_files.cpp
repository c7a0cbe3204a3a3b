#include "image_files.h"

// halide_image_io.h expects these before it.
#include <HalideBuffer.h>
#include <cassert>

#include <halide_image_io.h>
#include <png.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <memory>

namespace demo {

namespace {

// The demo holds an image, its converted samples and six outputs at once.
constexpr int64_t kMaxPixels = 64 << 20;

bool sensible_size(int64_t width, int64_t height, std::string *error) {
    if (width < 1 || height < 1) {
        *error = "image has no samples";
        return false;
    }
    if (width * height > kMaxPixels) {
        *error = "image of " + std::to_string(width) + "x" + std::to_string(height) +
                 " is larger than the demo takes (64 megapixels)";
        return false;
    }
    return true;
}

struct FileCloser {
    void operator()(FILE *f) const { fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

File open_file(const std::string &path, const char *mode, std::string *error) {
    File file(fopen(path.c_str(), mode));
    if (!file) *error = "cannot open " + path + ": " + std::strerror(errno);
    return file;
}

// libpng reports errors through these: the message is kept and control
// returns to the setjmp of the decoding or encoding function.
void on_png_error(png_structp png, png_const_charp message) {
    *static_cast<std::string *>(png_get_error_ptr(png)) = message;
    png_longjmp(png, 1);
}

void on_png_warning(png_structp, png_const_charp) {}

// Everything a PNG read touches lives here, outside the frame that calls
// setjmp, so nothing in that frame is left behind by a longjmp.
struct PngRead {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::string error;
    std::vector<uint8_t> pixels;
    std::vector<png_bytep> rows;
    int width = 0, height = 0, bits = 0;
    ~PngRead() { png_destroy_read_struct(&png, &info, nullptr); }
};

bool decode_png(FILE *file, PngRead &r) {
    if (setjmp(png_jmpbuf(r.png))) return false;
    png_init_io(r.png, file);
    png_read_info(r.png, r.info);
    const int color = png_get_color_type(r.png, r.info);
    png_set_expand(r.png);  // palette to RGB, grey below 8 bits to 8 bits
    png_set_strip_alpha(r.png);
    if (color & PNG_COLOR_MASK_COLOR) png_set_rgb_to_gray_fixed(r.png, 1, -1, -1);
    png_set_swap(r.png);  // 16-bit samples in host order
    png_set_interlace_handling(r.png);
    png_read_update_info(r.png, r.info);

    r.width = static_cast<int>(png_get_image_width(r.png, r.info));
    r.height = static_cast<int>(png_get_image_height(r.png, r.info));
    r.bits = png_get_bit_depth(r.png, r.info);
    if (!sensible_size(r.width, r.height, &r.error)) return false;
    r.pixels.resize(static_cast<size_t>(r.width) * r.height * (r.bits / 8));
    r.rows.resize(r.height);
    for (int y = 0; y < r.height; y++) r.rows[y] = &r.pixels[static_cast<size_t>(y) * r.width * (r.bits / 8)];
    png_read_image(r.png, r.rows.data());
    png_read_end(r.png, nullptr);
    return true;
}

bool read_png(FILE *file, GreyImage *image, std::string *error) {
    PngRead r;
    r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &r.error, on_png_error, on_png_warning);
    if (r.png) r.info = png_create_info_struct(r.png);
    if (!r.info) {
        *error = "out of memory";
        return false;
    }
    if (!decode_png(file, r)) {
        *error = "unreadable PNG: " + r.error;
        return false;
    }
    *image = GreyImage(r.width, r.height, r.bits);
    if (r.bits == 8)
        std::copy(r.pixels.begin(), r.pixels.end(), image->samples.begin());
    else
        std::memcpy(image->samples.data(), r.pixels.data(), r.pixels.size());
    return true;
}

// Halide's image I/O reports a failure by calling its check function with the
// condition false; this one keeps the message.
std::string pgm_error;
bool keep_pgm_error(bool condition, const char *message) {
    if (!condition) pgm_error = message;
    return condition;
}

bool read_pgm(const std::string &path, GreyImage *image, std::string *error) {
    // The format is known from the file's first bytes, not from its name, so
    // the PGM reader is called directly rather than through load().
    using Buffer = Halide::Runtime::Buffer<void>;
    Buffer loaded;
    pgm_error.clear();
    if (!Halide::Tools::Internal::load_pgm<Buffer, keep_pgm_error>(path, &loaded)) {
        *error = "unreadable PGM: " + pgm_error;
        return false;
    }
    const int bits = loaded.type().bits;
    *image = GreyImage(loaded.dim(0).extent(), loaded.dim(1).extent(), bits);
    for (int y = 0; y < image->height; y++)
        for (int x = 0; x < image->width; x++)
            image->at(x, y) = bits == 8 ? loaded.as<uint8_t>()(x, y) : loaded.as<uint16_t>()(x, y);
    return true;
}

// Halide's PGM reader allocates whatever size the header states, so the size
// is checked first. Lines starting with '#' are comments, as for that reader.
bool pgm_size_is_sensible(FILE *file, std::string *error) {
    char magic[3] = {};
    long width = 0, height = 0;
    if (fscanf(file, "%2s", magic) != 1) return true;  // the reader reports it
    int c;
    while ((c = fgetc(file)) != EOF && (c == '#' || std::isspace(c)))
        if (c == '#')
            while ((c = fgetc(file)) != EOF && c != '\n') continue;
    ungetc(c, file);
    if (fscanf(file, "%ld %ld", &width, &height) != 2) return true;
    return sensible_size(width, height, error);
}

enum class Format { png, pgm, unknown };

Format sniff_format(FILE *file) {
    png_byte start[8] = {};
    const size_t got = fread(start, 1, sizeof start, file);
    rewind(file);
    if (got == sizeof start && png_sig_cmp(start, 0, sizeof start) == 0) return Format::png;
    if (got >= 2 && start[0] == 'P' && start[1] == '5') return Format::pgm;
    return Format::unknown;
}

}  // namespace

bool read_grey_image(const std::string &path, GreyImage *image, std::string *error) {
    File file = open_file(path, "rb", error);
    if (!file) return false;
    bool read = false;
    switch (sniff_format(file.get())) {
    case Format::png: read = read_png(file.get(), image, error); break;
    case Format::pgm: read = pgm_size_is_sensible(file.get(), error) && read_pgm(path, image, error); break;
    case Format::unknown: *error = "not a PNG or binary PGM (P5) image"; break;
    }
    if (!read) *error = path + ": " + *error;
    return read;
}

namespace {

struct PngWrite {
    png_structp png = nullptr;
    png_infop info = nullptr;
    std::string error;
    std::vector<uint8_t> pixels;
    std::vector<png_bytep> rows;
    ~PngWrite() { png_destroy_write_struct(&png, &info); }
};

bool encode_png(FILE *file, const GreyImage &image, PngWrite &w) {
    if (setjmp(png_jmpbuf(w.png))) return false;
    png_init_io(w.png, file);
    png_set_IHDR(w.png, w.info, image.width, image.height, image.bits, PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(w.png, w.info);
    png_set_swap(w.png);  // 16-bit samples are given in host order
    png_write_image(w.png, w.rows.data());
    png_write_end(w.png, nullptr);
    return true;
}

}  // namespace

bool write_png(const std::string &path, const GreyImage &image, std::string *error) {
    File file = open_file(path, "wb", error);
    if (!file) return false;
    PngWrite w;
    const int bytes = image.bits / 8;
    w.pixels.resize(image.samples.size() * bytes);
    if (bytes == 1)
        std::copy(image.samples.begin(), image.samples.end(), w.pixels.begin());
    else
        std::memcpy(w.pixels.data(), image.samples.data(), w.pixels.size());
    for (int y = 0; y < image.height; y++) w.rows.push_back(&w.pixels[static_cast<size_t>(y) * image.width * bytes]);

    w.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &w.error, on_png_error, on_png_warning);
    if (w.png) w.info = png_create_info_struct(w.png);
    if (!w.info) {
        *error = "out of memory";
        return false;
    }
    if (!encode_png(file.get(), image, w)) {
        *error = "cannot write " + path + ": " + w.error;
        return false;
    }
    if (fflush(file.get()) != 0) {
        *error = "cannot write " + path + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace demo
