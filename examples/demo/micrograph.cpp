#include "micrograph.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace demo {

namespace {

// splitmix64: small, fast, and the same sequence on every platform (the
// distributions of <random> are not).
class Rng {
public:
    explicit Rng(uint64_t seed) : state_(seed) {}
    uint64_t next() {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
    double normal() {  // Box-Muller
        const double u = 1.0 - uniform(), v = uniform();
        return std::sqrt(-2.0 * std::log(u)) * std::cos(2.0 * M_PI * v);
    }

private:
    uint64_t state_;
};

// Illumination that falls off towards the corners, with a slow diagonal
// gradient and a soft wave across it, in 8-bit grey levels.
double background(double u, double v) {
    const double vignette = 1.0 - 1.6 * ((u - 0.5) * (u - 0.5) + (v - 0.5) * (v - 0.5));
    const double wave = 14.0 * std::sin(2.0 * M_PI * (0.7 * u + 0.35 * v));
    return 30.0 + 55.0 * vignette + 25.0 * (u - v) + wave;
}

// Adds a round spot of `radius` with an anti-aliased rim and a slight dome.
void add_spot(std::vector<double> &image, int width, int height, double cx, double cy, double radius,
              double amplitude) {
    const int x0 = std::max(0, static_cast<int>(cx - radius - 1)), x1 = std::min(width - 1, static_cast<int>(cx + radius + 1));
    const int y0 = std::max(0, static_cast<int>(cy - radius - 1)), y1 = std::min(height - 1, static_cast<int>(cy + radius + 1));
    for (int y = y0; y <= y1; y++)
        for (int x = x0; x <= x1; x++) {
            const double d = std::hypot(x - cx, y - cy);
            const double coverage = std::clamp(radius + 0.5 - d, 0.0, 1.0);
            const double dome = 1.0 - 0.25 * (d / radius) * (d / radius);
            image[static_cast<size_t>(y) * width + x] += amplitude * coverage * std::max(dome, 0.0);
        }
}

}  // namespace

GreyImage synthetic_micrograph(int width, int height, uint64_t seed) {
    Rng rng(seed);
    std::vector<double> image(static_cast<size_t>(width) * height);
    for (int y = 0; y < height; y++)
        for (int x = 0; x < width; x++)
            image[static_cast<size_t>(y) * width + x] =
                background((x + 0.5) / width, (y + 0.5) / height);

    // Per 2500 pixels one cell: most fit inside the default 15x15 disk, one in
    // six is larger, so the top-hat keeps the small ones and flattens the rest.
    const int cells = std::max(1, width * height / 2500);
    for (int i = 0; i < cells; i++) {
        const bool large = rng.uniform() < 1.0 / 6.0;
        const double radius = large ? rng.uniform(9.0, 16.0) : rng.uniform(1.5, 5.0);
        add_spot(image, width, height, rng.uniform(0, width), rng.uniform(0, height), radius,
                 rng.uniform(55.0, 120.0));
    }
    const int specks = std::max(1, width * height / 16000);
    for (int i = 0; i < specks; i++)
        add_spot(image, width, height, rng.uniform(0, width), rng.uniform(0, height), rng.uniform(1.0, 3.0),
                 -rng.uniform(35.0, 60.0));

    GreyImage result(width, height, 8);
    for (size_t i = 0; i < image.size(); i++)
        result.samples[i] = static_cast<uint16_t>(std::clamp(std::lround(image[i] + 3.0 * rng.normal()), 0L, 255L));
    return result;
}

}  // namespace demo
