#include "harness.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <sstream>

namespace fmtest {

uint64_t encode(const ElemInfo &e, double v) {
    return with_sample_type(e, [v](auto sample) {
        sample = static_cast<decltype(sample)>(v);
        uint64_t b = 0;
        std::memcpy(&b, &sample, sizeof sample);
        return b;
    });
}

double decode(const ElemInfo &e, uint64_t b) {
    if (e.elem == Elem::Bool) return static_cast<double>(b & 1);
    return with_sample_type(e, [b](auto sample) {
        std::memcpy(&sample, &b, sizeof sample);
        return static_cast<double>(sample);
    });
}

TestBuffer::TestBuffer(const ElemInfo &e, int min0, int ext0, int min1, int ext1, int stride1) : elem_(e) {
    if (stride1 < 0) stride1 = ext0;
    const long elements = ext0 > 0 && ext1 > 0 ? static_cast<long>(stride1) * (ext1 - 1) + ext0 : 0;
    storage_.assign(static_cast<size_t>(elements) * e.bytes + 2 * kGuard, kFill);
    dims_[0] = {min0, ext0, 1, 0};
    dims_[1] = {min1, ext1, stride1, 0};
    buf_.host = storage_.data() + kGuard;
    buf_.type = e.type();
    buf_.dimensions = 2;
    buf_.dim = dims_;
}

size_t TestBuffer::offset(int x, int y) const {
    return kGuard + (static_cast<long>(y - dims_[1].min) * dims_[1].stride + (x - dims_[0].min)) * elem_.bytes;
}

void TestBuffer::set_bits(int x, int y, uint64_t bits) { std::memcpy(&storage_[offset(x, y)], &bits, elem_.bytes); }

uint64_t TestBuffer::bits(int x, int y) const {
    uint64_t b = 0;
    std::memcpy(&b, &storage_[offset(x, y)], elem_.bytes);
    return b;
}

bool TestBuffer::outside_untouched() const {
    std::vector<uint8_t> outside = storage_;
    for (int y = dims_[1].min; y < dims_[1].min + dims_[1].extent; y++)
        std::fill_n(outside.begin() + offset(dims_[0].min, y), static_cast<size_t>(dims_[0].extent) * elem_.bytes, kFill);
    return std::all_of(outside.begin(), outside.end(), [](uint8_t b) { return b == kFill; });
}

std::vector<Variant> all_variants() {
    std::vector<Variant> out;
    for (const FilterInfo &f : all_filters())
        for (const ElemInfo &e : all_elements())
            for (const std::string &tag : all_tags()) out.push_back({&f, &e, tag});
    return out;
}

std::vector<Variant> runnable_variants() {
    std::vector<Variant> out;
    for (const Variant &v : all_variants())
        if (cpu_supports(v.tag)) out.push_back(v);
    return out;
}

void *exported(const std::string &name) { return dlsym(RTLD_DEFAULT, name.c_str()); }

Entry entry(const Variant &v) { return reinterpret_cast<Entry>(exported(v.name())); }

Call::Call(const Problem &p) {
    const ElemInfo &e = *p.elem;
    image = std::make_unique<TestBuffer>(e, p.image.x0, p.image.w, p.image.y0, p.image.h,
                                         p.image.w + p.image_row_gap);
    for (int y = 0; y < p.image.h; y++)
        for (int x = 0; x < p.image.w; x++) {
            const double v = p.pixels[static_cast<size_t>(y) * p.image.w + x];
            image->set_bits(p.image.x0 + x, p.image.y0 + y, encode(e, v));
            // A bool is bit 0 of its byte: half of them carry other bits too.
            if (e.elem == Elem::Bool && (x + y) % 2) image->set_bits(p.image.x0 + x, p.image.y0 + y, v ? 0xFF : 0x02);
        }
    minmax = std::make_unique<TestBuffer>(element("float64"), 0, 2, 0, 1);
    minmax->set_bits(0, 0, encode(element("float64"), p.low_pad));
    minmax->set_bits(1, 0, encode(element("float64"), p.high_pad));
    // The mask's row gap holds bytes of 1, which would count as active if the stride were misread.
    strel = std::make_unique<TestBuffer>(element("uint8"), 0, p.mask.sx, 0, p.mask.sy, p.mask.sx + 1);
    for (int j = 0; j < p.mask.sy; j++) {
        for (int k = 0; k < p.mask.sx; k++) strel->set_bits(k, j, p.mask.bytes[static_cast<size_t>(j) * p.mask.sx + k]);
        if (p.mask.sx > 0 && j + 1 < p.mask.sy) strel->set_bits(p.mask.sx, j, 1);
    }
    output = std::make_unique<TestBuffer>(e, p.output.x0, p.output.w, p.output.y0, p.output.h, p.output.w + 3);
}

std::string differences_from_reference(const Problem &p, const TestBuffer &output) {
    const std::vector<double> expected = reference_output(p);
    std::ostringstream why;
    int shown = 0;
    for (int y = 0; y < p.output.h; y++)
        for (int x = 0; x < p.output.w; x++) {
            const double want = expected[static_cast<size_t>(y) * p.output.w + x];
            const uint64_t got = output.bits(p.output.x0 + x, p.output.y0 + y);
            if (got != encode(*p.elem, want) && shown++ < 4)
                why << "at (" << p.output.x0 + x << ", " << p.output.y0 + y << "): got " << decode(*p.elem, got)
                    << " (bits " << std::hex << got << std::dec << "), want " << want << "\n";
        }
    if (!output.outside_untouched()) why << "wrote outside the output region\n";
    return why.str();
}

std::string check_against_reference(const Variant &v, const Problem &p) {
    Call call(p);
    const int status = call.run(entry(v));
    const std::string why = status ? "returned " + std::to_string(status) : differences_from_reference(p, *call.output);
    if (why.empty()) return why;
    std::ostringstream s;
    s << v.name() << ": " << why << " on image " << p.image.w << "x" << p.image.h << " at (" << p.image.x0 << ", "
      << p.image.y0 << "), mask " << p.mask.sx << "x" << p.mask.sy << ", output " << p.output.w << "x" << p.output.h
      << " at (" << p.output.x0 << ", " << p.output.y0 << "), pads " << p.low_pad << " / " << p.high_pad;
    return s.str();
}

}  // namespace fmtest
