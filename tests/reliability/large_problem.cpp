#include "large_problem.h"

namespace fmrel {

using namespace fmtest;

Problem large_problem(const Variant &v, std::mt19937 &rng) {
    const ElemInfo &e = *v.elem;
    Problem p;
    p.elem = &e;
    p.filter = v.filter;
    const int x0 = static_cast<int>(rng() % 11) - 5, y0 = static_cast<int>(rng() % 11) - 5;
    p.image = {x0, y0, v.vw() + 1 + static_cast<int>(rng() % 120), 16 + static_cast<int>(rng() % 48)};
    for (int i = 0; i < p.image.w * p.image.h; i++) {
        const int r = static_cast<int>(rng() % 100);
        p.pixels.push_back(e.elem == Elem::Bool ? r % 2 : e.is_float() ? (r - 50) * 0.5 : r);
    }
    p.mask.sx = 1 + static_cast<int>(rng() % 5);
    p.mask.sy = 1 + static_cast<int>(rng() % 5);
    for (int i = 0; i < p.mask.sx * p.mask.sy; i++) p.mask.bytes.push_back(rng() % 5 ? 1 : 0);
    p.low_pad = e.lowest();
    p.high_pad = e.highest();
    p.output = p.image;
    return p;
}

}  // namespace fmrel
