#include "frame_case.h"

#include "promises.h"
#include "support/runtime_log.h"

#include <climits>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

namespace fmfuzz {

using namespace fmtest;

namespace {

// Above this a two-stage intermediate is refused by our allocator.
constexpr uint64_t kAllocationLimit = uint64_t{16} << 20;
constexpr int kOutputGuard = 64;

// Reads the input front to back; past its end every byte is 0.
class Bytes {
public:
    Bytes(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
    int32_t word() {
        uint32_t w = 0;
        for (int i = 0; i < 4; i++) w |= static_cast<uint32_t>(byte()) << (8 * i);
        return static_cast<int32_t>(w);
    }
    // 0 for a zero byte, small steps either way, now and then the ends of the
    // 32-bit range or an arbitrary word.
    int32_t offset() {
        static const int32_t wild[12] = {INT_MIN,    INT_MIN + 1, INT_MAX, INT_MAX - 1, -(1 << 30), 1 << 30,
                                         -(1 << 24), 1 << 24,     -65536,  65536,       -1000003,   1000003};
        const uint8_t b = byte();
        if (b < 240) return b % 2 ? -(b + 1) / 2 : b / 2;
        if (b < 252) return wild[b - 240];
        return word();
    }

private:
    const uint8_t *data_;
    size_t size_, at_ = 0;
};

int32_t wrapping_add(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

// Brings v into [lo, hi] by wrapping around the range.
int32_t fold(int32_t v, int32_t lo, int32_t hi) {
    const int64_t span = int64_t{hi} - lo + 1;
    return static_cast<int32_t>(lo + ((int64_t{v} - lo) % span + span) % span);
}

// Each element type with one of the three tags; a tag this processor lacks
// falls back to none.
Variant choose_variant(uint8_t b) {
    const int type = b / 6 % 9;
    std::string tag = all_tags()[type % 3];
    if (!cpu_supports(tag)) tag = "none";
    return {&all_filters()[b % 6], &all_elements()[type], tag};
}

double pad_value(uint8_t b) {
    const double inf = std::numeric_limits<double>::infinity();
    static const double pads[16] = {0,    1,   -1,    255,          127.5, std::nan(""), inf,  -inf,
                                    1e300, -129, 65535.9, 4294967296.0, -0.0, 2.9,          3e38, -1e19};
    return pads[b % 16];
}

double sample_value(const ElemInfo &e, std::mt19937 &rng) {
    switch (rng() % 16) {
    case 0: return e.lowest();
    case 1: return e.highest();
    case 2: return e.is_float() ? std::nan("") : 0.0;
    default: {
        const int v = static_cast<int>(rng() % 17) - 8;
        return e.is_signed() || e.is_float() ? v : std::abs(v);
    }
    }
}

// Spoils one descriptor as the next byte says; false if its host is null.
bool spoil(Bytes &in, FuzzedCall &c, int i) {
    halide_buffer_t &b = *c.buffers[i].raw();
    halide_dimension_t *d = c.buffers[i].dim();
    const uint8_t what = in.byte();
    if (what & 0x80) c.args[i] = nullptr;
    if (what & 0x02) b.device = static_cast<uint32_t>(in.word()) | 1u;
    if (what & 0x04) {
        static const uint8_t bits[8] = {1, 8, 16, 32, 64, 0, 7, 128};
        static const uint16_t lanes[4] = {1, 2, 4, 0};
        b.type = halide_type_t(static_cast<halide_type_code_t>(in.byte() % 5), bits[in.byte() % 8], lanes[in.byte() % 4]);
    }
    if (what & 0x08) {
        // None of these is read; the interface pointer would fault if it were.
        b.dimensions = in.word();
        b.flags = static_cast<uint32_t>(in.word());
        b.device_interface = reinterpret_cast<const halide_device_interface_t *>(uintptr_t{16});
        d[0].flags = static_cast<uint32_t>(in.word());
        d[1].flags = static_cast<uint32_t>(in.word());
    }
    for (int k = 0; k < 2; k++) {
        if (what & 0x10) d[k].min = wrapping_add(d[k].min, in.offset());
        if (what & 0x20) d[k].extent = wrapping_add(d[k].extent, in.offset());
        if (what & 0x40) d[k].stride = wrapping_add(d[k].stride, in.offset());
    }
    return !(what & 0x01);
}

// Small enough to be held in memory.
void make_holdable(halide_dimension_t *d) {
    d[0].extent = fold(d[0].extent, -2, 125);
    d[1].extent = fold(d[1].extent, -2, 13);
    d[0].stride = fold(d[0].stride, -3, 3);
    d[1].stride = fold(d[1].stride, -140, 140);
}

// Image samples of the element type (any byte for bool: only bit 0 counts),
// the two pads, a mask of mostly ones.
void fill(FuzzedCall &c, uint8_t seed, double low_pad, double high_pad) {
    std::mt19937 rng(seed);
    const ElemInfo &e = *c.v.elem;
    CallBuffer &image = c.buffers[Image], &minmax = c.buffers[Minmax], &strel = c.buffers[Strel];
    const halide_dimension_t *id = image.dim(), *sd = strel.dim();
    if (image.has_memory())
        for (int j = 0; j < id[1].extent; j++)
            for (int i = 0; i < id[0].extent; i++) {
                const uint64_t bits = e.elem == Elem::Bool ? rng() & 0xff : encode(e, sample_value(e, rng));
                std::memcpy(image.nth(i, j), &bits, e.bytes);
            }
    for (int x = 0; x < 2 && minmax.has_memory(); x++)
        if (minmax.inside(x, 0)) {
            const uint64_t bits = encode(element("float64"), x == 0 ? low_pad : high_pad);
            std::memcpy(minmax.at(x, 0), &bits, 8);
        }
    if (strel.has_memory())
        for (int j = 0; j < sd[1].extent; j++)
            for (int k = 0; k < sd[0].extent; k++) *strel.nth(k, j) = rng() % 4 ? 1 : static_cast<uint8_t>(rng());
}

}  // namespace

std::string run_frame_case(const uint8_t *data, size_t size) {
    Bytes in(data, size);
    FuzzedCall c;
    c.v = choose_variant(in.byte());
    const int vw = c.v.vw();

    // The valid call everything starts from.
    const int w = 1 + in.byte() % (3 * vw + 4), h = 1 + in.byte() % 8;
    const int ix0 = in.offset(), iy0 = in.offset();
    const int sx = (in.byte() + 3) % 9, sy = (in.byte() + 3) % 7;
    const uint8_t contents = in.byte();
    const double low_pad = pad_value(in.byte()), high_pad = pad_value(in.byte());
    const int row_gap = in.byte() % 4;
    const halide_dimension_t valid[4][2] = {{{ix0, w, 1, 0}, {iy0, h, w, 0}},
                                            {{0, 2, 1, 0}, {0, 1, 2, 0}},
                                            {{0, sx, 1, 0}, {0, sy, sx, 0}},
                                            {{ix0, w, 1, 0}, {iy0, h, w + row_gap, 0}}};

    for (int i = 0; i < 4; i++) {
        CallBuffer &b = c.buffers[i];
        std::memcpy(b.dim(), valid[i], sizeof valid[i]);
        b.raw()->type = wanted_type(c.v, i);
        b.raw()->dimensions = 2;
        c.args[i] = b.raw();
        if (!spoil(in, c, i)) continue;  // a null host: the descriptor may say anything
        make_holdable(b.dim());
        const int element_bytes = i == Minmax ? 8 : i == Strel ? 1 : c.v.elem->bytes;
        const auto flush = contents & 1 && i != Output ? GuardedBlock::Flush::Start : GuardedBlock::Flush::End;
        b.lay_out(element_bytes, flush, i == Output ? kOutputGuard : 0);
    }
    fill(c, contents, low_pad, high_pad);

    for (CallBuffer &b : c.buffers) b.remember();
    const Prediction want = predict_call(c.v, c.args, kAllocationLimit);
    Allocations alloc;
    int status;
    {
        GuardedAllocator allocator(alloc, kAllocationLimit);
        clear_runtime_log();
        status = entry(c.v)(c.args[Image], c.args[Minmax], c.args[Strel], c.args[Output]);
    }
    const std::string broken = broken_promise(c, want, status, alloc);
    return broken.empty() ? broken : broken + "\n" + describe(c);
}

}  // namespace fmfuzz
