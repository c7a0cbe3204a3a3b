// Moving samples between the file's 8 or 16 bits and the element type the
// filters run on. Grey level 0 maps to the lowest value of an integer type and
// full scale to its highest; float types take 0 to 1; bool is the image
// thresholded at half scale. The mapping is linear, so a residual (a
// difference of two images) maps back by its scale alone.
#pragma once

#include "grey_image.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <type_traits>

namespace demo {

// Samples of one element type. (std::vector<bool> packs bits, so samples are
// held in an array instead.)
template <typename T>
struct Raster {
    int width = 0, height = 0;
    std::unique_ptr<T[]> samples;

    Raster(int width, int height)
        : width(width), height(height), samples(new T[static_cast<size_t>(width) * height]()) {}
    T *data() { return samples.get(); }
    const T *data() const { return samples.get(); }
    T at(int x, int y) const { return samples[static_cast<size_t>(y) * width + x]; }
};

template <typename T>
struct TypeScale {
    static constexpr double low() {
        return std::is_floating_point_v<T> ? 0.0 : static_cast<double>(std::numeric_limits<T>::lowest());
    }
    static constexpr double high() {
        return std::is_floating_point_v<T> ? 1.0 : static_cast<double>(std::numeric_limits<T>::max());
    }
};

template <typename T>
Raster<T> to_element_type(const GreyImage &image) {
    Raster<T> raster(image.width, image.height);
    const double full = image.max_value();
    const double step = (TypeScale<T>::high() - TypeScale<T>::low()) / full;
    for (size_t i = 0; i < image.samples.size(); i++) {
        const double v = image.samples[i];
        if constexpr (std::is_same_v<T, bool>)
            raster.samples[i] = 2 * v > full;
        else if constexpr (std::is_floating_point_v<T>)
            raster.samples[i] = static_cast<T>(v / full);
        else
            raster.samples[i] = static_cast<T>(TypeScale<T>::low() + std::round(v * step));
    }
    return raster;
}

// `residual` marks the output of a hat filter: a difference, which maps back
// without the offset of the type's lowest value.
template <typename T>
GreyImage to_grey(const Raster<T> &raster, int bits, bool residual) {
    GreyImage image(raster.width, raster.height, bits);
    const double full = image.max_value();
    const double offset = residual ? 0.0 : TypeScale<T>::low();
    const double scale = full / (TypeScale<T>::high() - TypeScale<T>::low());
    for (size_t i = 0; i < image.samples.size(); i++) {
        const double grey = std::round((static_cast<double>(raster.samples[i]) - offset) * scale);
        image.samples[i] = static_cast<uint16_t>(std::isnan(grey) ? 0.0 : std::clamp(grey, 0.0, full));
    }
    return image;
}

}  // namespace demo
