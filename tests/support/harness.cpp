#include "harness.h"

#include <dlfcn.h>

#include <sstream>

namespace fmtest {

std::vector<Variant> all_variants() {
    std::vector<Variant> out;
    for (const FilterInfo &f : all_filters())
        for (const ElemInfo &e : all_elements())
            for (const std::string &tag : all_tags()) out.push_back({&f, &e, tag});
    return out;
}

void *exported(const std::string &name) { return dlsym(RTLD_DEFAULT, name.c_str()); }

Entry entry(const Variant &v) { return reinterpret_cast<Entry>(exported(v.name())); }

Call::Call(const Problem &p) {
    const ElemInfo &e = *p.elem;
    image = std::make_unique<TestBuffer>(e, p.image.x0, p.image.w, p.image.y0, p.image.h);
    for (int y = 0; y < p.image.h; y++)
        for (int x = 0; x < p.image.w; x++) {
            const double v = p.pixels[static_cast<size_t>(y) * p.image.w + x];
            image->set(p.image.x0 + x, p.image.y0 + y, v);
            // A bool is bit 0 of its byte: half of them carry other bits too.
            if (e.elem == Elem::Bool && (x + y) % 2) image->set_bits(p.image.x0 + x, p.image.y0 + y, v ? 0xFF : 0x02);
        }
    minmax = std::make_unique<TestBuffer>(element("float64"), 0, 2, 0, 1);
    minmax->set(0, 0, p.low_pad);
    minmax->set(1, 0, p.high_pad);
    strel = std::make_unique<TestBuffer>(element("uint8"), 0, p.mask.sx, 0, p.mask.sy);
    for (int j = 0; j < p.mask.sy; j++)
        for (int k = 0; k < p.mask.sx; k++) strel->set_bits(k, j, p.mask.bytes[static_cast<size_t>(j) * p.mask.sx + k]);
    output = std::make_unique<TestBuffer>(e, p.output.x0, p.output.w, p.output.y0, p.output.h, p.output.w + 3);
}

std::string check_against_reference(const Variant &v, const Problem &p, int *status) {
    Call call(p);
    const int result = call.run(entry(v));
    if (status) *status = result;
    std::ostringstream why;
    if (result != 0) {
        why << v.name() << " returned " << result;
        return why.str();
    }
    const std::vector<double> expected = reference_output(p);
    int shown = 0;
    for (int y = 0; y < p.output.h; y++) {
        for (int x = 0; x < p.output.w; x++) {
            const double want = expected[static_cast<size_t>(y) * p.output.w + x];
            const uint64_t got = call.output->bits(p.output.x0 + x, p.output.y0 + y);
            if (got != encode(*p.elem, want) && shown++ < 4) {
                why << v.name() << " at (" << p.output.x0 + x << ", " << p.output.y0 + y << "): got "
                    << call.output->value(p.output.x0 + x, p.output.y0 + y) << " (bits " << std::hex << got
                    << std::dec << "), want " << want << "\n";
            }
        }
    }
    if (!call.output->outside_untouched()) why << v.name() << " wrote outside the output region\n";
    return why.str();
}

}  // namespace fmtest
