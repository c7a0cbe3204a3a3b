// The extension module `flatmorph._flatmorph`: numpy arrays in, the library's
// pipelines through the host front end, failures out as Python exceptions.
//
// The Python layer (flatmorph/_filters.py) validates what a user passes and
// hands this module arrays that already meet the buffer contract: two
// dimensions, native byte order, the last axis contiguous, row strides in
// whole elements. The checks here only keep a direct caller of this private
// module from handing the library memory it would misread.
#include <flatmorph_host.h>

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <climits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace py = pybind11;
namespace fm = flatmorph;

namespace {

using RegionTuple = std::tuple<int, int, int, int>;  // min_x, width, min_y, height

fm::Filter parse_filter(const std::string &name) {
    for (fm::Filter filter : fm::all_filters)
        if (name == fm::filter_name(filter)) return filter;
    throw py::value_error("unknown filter " + name);
}

fm::Tag parse_tag(const std::string &name) {
    for (fm::Tag tag : {fm::Tag::none, fm::Tag::avx, fm::Tag::avx2})
        if (name == fm::tag_name(tag)) return tag;
    throw py::value_error("unknown tag " + name + " (none, avx, avx2)");
}

template <typename T>
struct Type {
    using type = T;
};

// Calls `visit` with the Type<T> of numpy type character `code`.
template <typename Visit>
auto visit_element(char code, Visit &&visit) {
    switch (code) {
    case '?': return visit(Type<bool>{});
    case 'b': return visit(Type<int8_t>{});
    case 'B': return visit(Type<uint8_t>{});
    case 'h': return visit(Type<int16_t>{});
    case 'H': return visit(Type<uint16_t>{});
    case 'i': return visit(Type<int32_t>{});
    case 'I': return visit(Type<uint32_t>{});
    case 'f': return visit(Type<float>{});
    case 'd': return visit(Type<double>{});
    default: throw py::type_error(std::string("no pipeline for numpy type '") + code + "'");
    }
}

int checked_int(py::ssize_t value, const char *what) {
    if (value < INT_MIN || value > INT_MAX) throw py::value_error(std::string(what) + " does not fit 32 bits");
    return static_cast<int>(value);
}

// The plane of a 2-D array whose rows are contiguous: width, height and the
// row stride in elements.
template <typename T, typename Data>
fm::Plane<T> plane_of(const py::array &array, Data *data, int min_x, int min_y) {
    if (array.ndim() != 2) throw py::value_error("array must be 2-D");
    const py::ssize_t item = array.itemsize();
    if (array.shape(1) > 1 && array.strides(1) != item) throw py::value_error("rows must be contiguous");
    if (array.strides(0) % item) throw py::value_error("row stride must be whole elements");
    if (!array.dtype().attr("isnative").cast<bool>()) throw py::value_error("byte order must be native");
    return fm::Plane<T>(static_cast<T *>(data), checked_int(array.shape(1), "width"),
                        checked_int(array.shape(0), "height"), checked_int(array.strides(0) / item, "row stride"),
                        min_x, min_y);
}

py::exception<fm::Status> *library_error = nullptr;

// Raises the exception a failed call maps to: MemoryError when the library
// could not get (or would not ask for) its intermediate block, LibraryError
// otherwise, with the runtime's message as its text. Some refusals come
// without one (a region check judged in 64 bits whose reported 32-bit
// coordinates look in range): those name the variant and the status.
void raise_failure(const fm::Status &status, const std::string &variant) {
    const std::string text = status.message.empty()
                                 ? variant + " refused the call with status " + std::to_string(status.code) +
                                       " and no message (coordinates beyond 32 bits?)"
                                 : status.message;
    const bool memory = status.code == halide_error_code_out_of_memory ||
                        status.code == halide_error_code_buffer_allocation_too_large;
    if (memory)
        PyErr_SetString(PyExc_MemoryError, text.c_str());
    else
        (*library_error)(text.c_str());
    throw py::error_already_set();
}

// Filters `image` (placed at (0, 0)) into `out`, whose first sample is the
// output coordinate (out_x, out_y). Pads left as None are the type's neutral
// ones. The GIL is released while the pipeline runs.
void run(const std::string &filter_name, const std::string &tag_name, const py::array &image,
         const py::array &mask, py::array &out, int out_x, int out_y, std::optional<double> low,
         std::optional<double> high) {
    const fm::Filter filter = parse_filter(filter_name);
    const fm::Tag tag = parse_tag(tag_name);
    if (image.dtype().char_() != out.dtype().char_()) throw py::type_error("image and output types differ");
    if (mask.ndim() != 2 || mask.itemsize() != 1 || !(mask.flags() & py::array::c_style))
        throw py::value_error("mask must be a C-contiguous 2-D uint8 array");
    const fm::Mask strel{static_cast<const uint8_t *>(mask.data()), checked_int(mask.shape(1), "mask width"),
                         checked_int(mask.shape(0), "mask height"), 0};

    std::string variant;
    const fm::Status status = visit_element(image.dtype().char_(), [&](auto type) {
        using T = typename decltype(type)::type;
        variant = fm::variant_name(filter, fm::Element<T>::name, tag);
        const auto in = plane_of<const T>(image, image.data(), 0, 0);
        const auto output = plane_of<T>(out, out.mutable_data(), out_x, out_y);
        fm::Pads pads = fm::neutral_pads<T>();
        if (low) pads.low = *low;
        if (high) pads.high = *high;
        py::gil_scoped_release unlocked;
        return fm::run<T>(filter, tag, in, strel, output, pads);
    });
    if (!status.ok()) raise_failure(status, variant);
}

// What a call with these extents needs: the image region it reads and the
// output region it must be able to write, each as (min_x, width, min_y, height).
std::pair<RegionTuple, RegionTuple> query(const std::string &filter_name, const py::dtype &type,
                                          const std::string &tag_name, RegionTuple image, int mask_width,
                                          int mask_height, RegionTuple output) {
    const fm::Filter filter = parse_filter(filter_name);
    const fm::Tag tag = parse_tag(tag_name);
    auto region = [](const RegionTuple &r) {
        return fm::Region{std::get<0>(r), std::get<1>(r), std::get<2>(r), std::get<3>(r)};
    };
    auto tuple = [](const fm::Region &r) { return RegionTuple{r.min_x, r.width, r.min_y, r.height}; };
    fm::Requirements answer;
    std::string variant;
    const fm::Status status = visit_element(type.char_(), [&](auto element) {
        using T = typename decltype(element)::type;
        variant = fm::variant_name(filter, fm::Element<T>::name, tag);
        return fm::query<T>(filter, tag, region(image), mask_width, mask_height, region(output), &answer);
    });
    if (!status.ok()) raise_failure(status, variant);
    return {tuple(answer.image), tuple(answer.output)};
}

}  // namespace

PYBIND11_MODULE(_flatmorph, m) {
    m.doc() = "The flatmorph pipelines on numpy arrays (private: use the flatmorph package).";
    static py::exception<fm::Status> error(m, "LibraryError", PyExc_ValueError);
    library_error = &error;

    m.def("run", &run, py::arg("filter"), py::arg("tag"), py::arg("image"), py::arg("mask"), py::arg("out"),
          py::arg("out_x"), py::arg("out_y"), py::arg("low"), py::arg("high"));
    m.def("query", &query, py::arg("filter"), py::arg("dtype"), py::arg("tag"), py::arg("image"),
          py::arg("mask_width"), py::arg("mask_height"), py::arg("output"));
    m.def("missing_features", [](const std::string &tag) {
        return fm::missing_features(parse_tag(tag), fm::this_cpu());
    });
    m.def("best_tag", [] { return std::string(fm::tag_name(fm::best_tag(fm::this_cpu()))); });
}
