// A typed C++ front end to the flatmorph pipelines.
//
// The library exports one C function per filter, element type and tag, each
// taking four halide_buffer_t descriptors. This header finds the function by
// name in the loaded libraries, builds the descriptors from plain pointers,
// sizes, strides and mins, refuses a tag this processor cannot run (the library
// would fault instead), and turns a failed call into a Status that carries the
// runtime's message.
//
// Errors: the pipelines report a failure to the runtime's error handler before
// they return its status, and the default handler aborts the process. The first
// call through this header installs a handler that keeps the message instead,
// per thread. The handler is process-wide: a host that installs its own later
// still gets statuses, but the messages go to its handler.
#pragma once

#include "flatmorph_cpu.h"

#include <flatmorph.h>

#include <dlfcn.h>

#include <cstdint>
#include <limits>
#include <string>
#include <type_traits>

namespace flatmorph {

enum class Filter { dilate, erode, open, close, tophat, bothat };

inline constexpr Filter all_filters[] = {Filter::dilate, Filter::erode,  Filter::open,
                                         Filter::close,  Filter::tophat, Filter::bothat};

// The exported name of the filter: imdilate, imerode, ...
inline const char *filter_name(Filter filter) {
    switch (filter) {
    case Filter::erode: return "imerode";
    case Filter::open: return "imopen";
    case Filter::close: return "imclose";
    case Filter::tophat: return "imtophat";
    case Filter::bothat: return "imbothat";
    default: return "imdilate";
    }
}

// The C++ sample type of each element type, with its exported name and the
// halide_type_t the pipelines demand of image and output.
template <typename T>
struct Element;

#define FLATMORPH_ELEMENT(T, NAME, CODE, BITS)                                                       \
    template <>                                                                                      \
    struct Element<T> {                                                                              \
        static constexpr const char *name = NAME;                                                    \
        static constexpr halide_type_t type() { return halide_type_t(CODE, BITS); }                  \
    };
FLATMORPH_ELEMENT(bool, "bool", halide_type_uint, 1)
FLATMORPH_ELEMENT(int8_t, "int8", halide_type_int, 8)
FLATMORPH_ELEMENT(uint8_t, "uint8", halide_type_uint, 8)
FLATMORPH_ELEMENT(int16_t, "int16", halide_type_int, 16)
FLATMORPH_ELEMENT(uint16_t, "uint16", halide_type_uint, 16)
FLATMORPH_ELEMENT(int32_t, "int32", halide_type_int, 32)
FLATMORPH_ELEMENT(uint32_t, "uint32", halide_type_uint, 32)
FLATMORPH_ELEMENT(float, "float32", halide_type_float, 32)
FLATMORPH_ELEMENT(double, "float64", halide_type_float, 64)
#undef FLATMORPH_ELEMENT

// The values a sample outside the image takes: `low` in dilations, `high` in
// erosions.
struct Pads {
    double low = 0, high = 0;
};

// Pads that never win a fold: the lowest and the highest value of the type
// (the infinities for the float types). With them the border behaves as if the
// mask were cut off at the image's edge.
template <typename T>
Pads neutral_pads() {
    if constexpr (std::is_floating_point_v<T>)
        return {-std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity()};
    else
        return {static_cast<double>(std::numeric_limits<T>::lowest()),
                static_cast<double>(std::numeric_limits<T>::max())};
}

// Samples in the caller's memory. `stride` counts elements from one row to the
// next (0 means `width`); `min_x` and `min_y` are the coordinates of the first
// sample, so image and output can sit at different places.
template <typename T>
struct Plane {
    T *data = nullptr;
    int width = 0, height = 0;
    int stride = 0;
    int min_x = 0, min_y = 0;

    Plane() = default;
    Plane(T *first, int w, int h, int s = 0, int x0 = 0, int y0 = 0)
        : data(first), width(w), height(h), stride(s), min_x(x0), min_y(y0) {}
    // A writable plane can be passed where a read-only one is wanted.
    template <typename U, typename = std::enable_if_t<std::is_same_v<const U, T>>>
    Plane(const Plane<U> &p)
        : data(p.data), width(p.width), height(p.height), stride(p.stride), min_x(p.min_x), min_y(p.min_y) {}
    int row_stride() const { return stride ? stride : width; }
};

// The structuring element: an element is active iff its byte is exactly 1.
struct Mask {
    const uint8_t *data = nullptr;
    int width = 0, height = 0;
    int stride = 0;  // 0 means `width`
};

// The outcome of a call: code 0, or the negative status of the check that
// failed with the runtime's message. A call this header refuses before
// reaching the library (no such pipeline, a tag this processor lacks, null
// data) has code halide_error_code_generic_error and a message of its own.
struct Status {
    int code = 0;
    std::string message;
    bool ok() const { return code == 0; }
};

// A rectangle in a buffer's own coordinates.
struct Region {
    int min_x = 0, width = 0, min_y = 0, height = 0;
};

// The answer of a bounds query: what a call with these extents reads and writes.
struct Requirements {
    Region image, minmax, mask, output;
};

using Pipeline = int (*)(halide_buffer_t *keyimForType, halide_buffer_t *minmax, halide_buffer_t *strel,
                         halide_buffer_t *output);

inline std::string variant_name(Filter filter, const char *element, Tag tag) {
    return std::string(filter_name(filter)) + "_" + element + "_" + tag_name(tag);
}

// The exported pipeline of that name in the loaded libraries, or null.
inline Pipeline find_pipeline(const std::string &name) {
    return reinterpret_cast<Pipeline>(dlsym(RTLD_DEFAULT, name.c_str()));
}

// A two-dimensional halide_buffer_t over the caller's memory, with stride 1
// along rows and `row_stride` elements from one row to the next (a null
// `host` makes it a bounds query). Not copyable: the buffer points at its own
// dimension array.
struct Descriptor {
    halide_dimension_t dims[2];
    halide_buffer_t buffer{};

    Descriptor(halide_type_t type, const void *host, Region region, int row_stride)
        : dims{halide_dimension_t(region.min_x, region.width, 1),
               halide_dimension_t(region.min_y, region.height, row_stride)} {
        buffer.host = static_cast<uint8_t *>(const_cast<void *>(host));
        buffer.type = type;
        buffer.dimensions = 2;
        buffer.dim = dims;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    halide_buffer_t *raw() { return &buffer; }
    Region region() const { return {dims[0].min, dims[0].extent, dims[1].min, dims[1].extent}; }
};

namespace detail {

template <typename T>
struct Identity {
    using type = T;
};
// Keeps a parameter out of template argument deduction, so conversions apply.
template <typename T>
using NonDeduced = typename Identity<T>::type;

inline thread_local std::string last_message;

inline void keep_message(void *, const char *message) { last_message = message ? message : ""; }

inline void install_error_handler() {
    static const bool installed = (halide_set_error_handler(keep_message), true);
    (void)installed;
}

inline Status front_end_error(std::string message) {
    return {halide_error_code_generic_error, std::move(message)};
}

// The variant's pipeline, or a refusal if it is missing or the processor
// cannot run its instructions.
template <typename T>
Status resolve(Filter filter, Tag tag, Pipeline *pipeline) {
    const std::string name = variant_name(filter, Element<T>::name, tag);
    const std::string missing = missing_features(tag, this_cpu());
    if (!missing.empty()) return front_end_error(name + ": this processor lacks " + missing);
    *pipeline = find_pipeline(name);
    if (!*pipeline) return front_end_error(name + ": no such pipeline in the loaded libraries");
    return {};
}

inline Status call(Pipeline pipeline, Descriptor &image, Descriptor &minmax, Descriptor &mask, Descriptor &output) {
    install_error_handler();
    last_message.clear();
    const int code = pipeline(image.raw(), minmax.raw(), mask.raw(), output.raw());
    std::string message = code ? last_message : std::string();
    while (!message.empty() && message.back() == '\n') message.pop_back();
    return {code, message};
}

}  // namespace detail

// Runs `filter` on `image` into `output` with the variant of `tag`. The output's
// region chooses what is computed; samples outside the image take the pads.
template <typename T>
Status run(Filter filter, Tag tag, Plane<const detail::NonDeduced<T>> image, Mask mask, Plane<T> output,
           Pads pads = neutral_pads<T>()) {
    if (!image.data || !mask.data || !output.data)
        return detail::front_end_error("null data pointer (use query() for a bounds query)");
    Pipeline pipeline = nullptr;
    if (Status refused = detail::resolve<T>(filter, tag, &pipeline); !refused.ok()) return refused;

    const double pad_values[2] = {pads.low, pads.high};
    const halide_type_t type = Element<T>::type();
    Descriptor in(type, image.data, {image.min_x, image.width, image.min_y, image.height},
                          image.row_stride());
    Descriptor minmax(halide_type_t(halide_type_float, 64), pad_values, {0, 2, 0, 1}, 2);
    Descriptor strel(halide_type_t(halide_type_uint, 8), mask.data, {0, mask.width, 0, mask.height},
                             mask.stride ? mask.stride : mask.width);
    Descriptor out(type, output.data, {output.min_x, output.width, output.min_y, output.height},
                           output.row_stride());
    return detail::call(pipeline, in, minmax, strel, out);
}

// Asks the variant what a call with these regions and mask extents needs: the
// part of `image` it reads (never more than `image` itself, so give the whole
// image's region), the pads it reads, and the output region it must be able
// to write (wider than `output` where a wide image meets a narrow output).
template <typename T>
Status query(Filter filter, Tag tag, Region image, int mask_width, int mask_height, Region output,
             Requirements *answer) {
    Pipeline pipeline = nullptr;
    if (Status refused = detail::resolve<T>(filter, tag, &pipeline); !refused.ok()) return refused;

    const halide_type_t type = Element<T>::type();
    Descriptor in(type, nullptr, image, image.width);
    Descriptor minmax(halide_type_t(halide_type_float, 64), nullptr, {0, 2, 0, 1}, 2);
    Descriptor strel(halide_type_t(halide_type_uint, 8), nullptr, {0, mask_width, 0, mask_height},
                             mask_width);
    Descriptor out(type, nullptr, output, output.width);
    Status status = detail::call(pipeline, in, minmax, strel, out);
    if (status.ok()) *answer = {in.region(), minmax.region(), strel.region(), out.region()};
    return status;
}

}  // namespace flatmorph
