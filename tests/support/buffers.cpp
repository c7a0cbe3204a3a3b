#include "buffers.h"

#include <algorithm>
#include <cstring>

namespace fmtest {

uint64_t encode(const ElemInfo &e, double v) {
    switch (e.elem) {
    case Elem::Bool: return static_cast<uint8_t>(v);
    case Elem::Int8: return static_cast<uint8_t>(static_cast<int8_t>(v));
    case Elem::UInt8: return static_cast<uint8_t>(v);
    case Elem::Int16: return static_cast<uint16_t>(static_cast<int16_t>(v));
    case Elem::UInt16: return static_cast<uint16_t>(v);
    case Elem::Int32: return static_cast<uint32_t>(static_cast<int32_t>(v));
    case Elem::UInt32: return static_cast<uint32_t>(v);
    case Elem::Float32: {
        float f = static_cast<float>(v);
        uint32_t b;
        std::memcpy(&b, &f, 4);
        return b;
    }
    case Elem::Float64: {
        uint64_t b;
        std::memcpy(&b, &v, 8);
        return b;
    }
    }
    return 0;
}

double decode(const ElemInfo &e, uint64_t b) {
    switch (e.elem) {
    case Elem::Bool: return static_cast<double>(b & 1);
    case Elem::Int8: return static_cast<int8_t>(b);
    case Elem::UInt8: return static_cast<uint8_t>(b);
    case Elem::Int16: return static_cast<int16_t>(b);
    case Elem::UInt16: return static_cast<uint16_t>(b);
    case Elem::Int32: return static_cast<int32_t>(b);
    case Elem::UInt32: return static_cast<uint32_t>(b);
    case Elem::Float32: {
        uint32_t u = static_cast<uint32_t>(b);
        float f;
        std::memcpy(&f, &u, 4);
        return f;
    }
    case Elem::Float64: {
        double d;
        std::memcpy(&d, &b, 8);
        return d;
    }
    }
    return 0;
}

static const ElemInfo &info_of(halide_type_t t) {
    for (const ElemInfo &e : all_elements())
        if (e.code == t.code && e.bits == t.bits) return e;
    return element("uint8");  // odd types in frame tests are only stored, never read back
}

TestBuffer::TestBuffer(halide_type_t type, int bytes, int min0, int ext0, int min1, int ext1, int stride1)
    : bytes_(bytes) {
    if (stride1 < 0) stride1 = ext0;
    const long elements = ext0 > 0 && ext1 > 0 ? static_cast<long>(stride1) * (ext1 - 1) + ext0 : 0;
    storage_.assign(static_cast<size_t>(elements) * bytes + 2 * kGuard, kFill);
    dims_[0] = {min0, ext0, 1, 0};
    dims_[1] = {min1, ext1, stride1, 0};
    std::memset(&buf_, 0, sizeof buf_);
    buf_.host = storage_.data() + kGuard;
    buf_.type = type;
    buf_.dimensions = 2;
    buf_.dim = dims_;
}

TestBuffer::TestBuffer(const ElemInfo &e, int min0, int ext0, int min1, int ext1, int stride1)
    : TestBuffer(halide_type_t(static_cast<halide_type_code_t>(e.code), e.bits), e.bytes, min0, ext0, min1, ext1,
                 stride1) {}

uint8_t *TestBuffer::at(int x, int y) {
    return storage_.data() + kGuard +
           (static_cast<long>(y - dims_[1].min) * dims_[1].stride + (x - dims_[0].min)) * bytes_;
}

const uint8_t *TestBuffer::at(int x, int y) const { return const_cast<TestBuffer *>(this)->at(x, y); }

void TestBuffer::set(int x, int y, double value) { set_bits(x, y, encode(info_of(buf_.type), value)); }

void TestBuffer::set_bits(int x, int y, uint64_t bits) { std::memcpy(at(x, y), &bits, bytes_); }

uint64_t TestBuffer::bits(int x, int y) const {
    uint64_t b = 0;
    std::memcpy(&b, at(x, y), bytes_);
    return b;
}

double TestBuffer::value(int x, int y) const { return decode(info_of(buf_.type), bits(x, y)); }

bool TestBuffer::outside_untouched() const {
    std::vector<bool> inside(storage_.size(), false);
    for (int y = dims_[1].min; y < dims_[1].min + dims_[1].extent; y++) {
        const size_t row = at(dims_[0].min, y) - storage_.data();
        std::fill(inside.begin() + row, inside.begin() + row + static_cast<size_t>(dims_[0].extent) * bytes_, true);
    }
    for (size_t i = 0; i < storage_.size(); i++)
        if (!inside[i] && storage_[i] != kFill) return false;
    return true;
}

}  // namespace fmtest
