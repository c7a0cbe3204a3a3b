#include "call_buffer.h"

#include <algorithm>
#include <cstring>

namespace fmfuzz {

namespace {
constexpr uint8_t kFill = 0xA5;
}

CallBuffer::CallBuffer()
    : raw_(std::make_unique<halide_buffer_t>()),
      dims_(2 * sizeof(halide_dimension_t), GuardedBlock::Flush::End, alignof(halide_dimension_t)) {
    raw_->dim = dim();
}

void CallBuffer::lay_out(int element_bytes, GuardedBlock::Flush flush, int guard_bytes) {
    const halide_type_t t = raw_->type;
    element_bytes_ = std::max(element_bytes, (t.bits + 7) / 8 * t.lanes);
    std::memcpy(layout_, dim(), sizeof layout_);
    const halide_dimension_t *d = layout_;
    int64_t lo = 0, hi = -1;  // element offsets of the region from its first element
    if (d[0].extent > 0 && d[1].extent > 0) {
        hi = 0;
        for (int k = 0; k < 2; k++) {
            const int64_t far = int64_t{d[k].extent - 1} * d[k].stride;
            lo += std::min<int64_t>(0, far);
            hi += std::max<int64_t>(0, far);
        }
    }
    const size_t bytes = static_cast<size_t>(hi - lo + 1) * element_bytes_ + 2 * guard_bytes;
    memory_ = std::make_unique<GuardedBlock>(bytes, flush);
    std::memset(memory_->data(), kFill, bytes);
    raw_->host = host_ = memory_->data() + guard_bytes - lo * element_bytes_;
}

uint8_t *CallBuffer::nth(int i, int j) const {
    const int64_t offset = int64_t{i} * layout_[0].stride + int64_t{j} * layout_[1].stride;
    return host_ + offset * element_bytes_;
}

bool CallBuffer::inside(int x, int y) const {
    const int64_t i = int64_t{x} - layout_[0].min, j = int64_t{y} - layout_[1].min;
    return i >= 0 && i < layout_[0].extent && j >= 0 && j < layout_[1].extent;
}

void CallBuffer::remember() {
    std::memcpy(&before_, raw_.get(), sizeof before_);
    std::memcpy(dims_before_, dim(), sizeof dims_before_);
    if (memory_) memory_before_.assign(memory_->data(), memory_->data() + memory_->size());
}

bool CallBuffer::memory_unchanged() const {
    return !memory_ || std::equal(memory_before_.begin(), memory_before_.end(), memory_->data());
}

bool CallBuffer::descriptor_unchanged() const {
    return std::memcmp(raw_.get(), &before_, sizeof before_) == 0 &&
           std::memcmp(dims_.data(), dims_before_, sizeof dims_before_) == 0;
}

bool CallBuffer::outside_unchanged() const {
    std::vector<bool> in(memory_->size(), false);
    for (int j = 0; j < layout_[1].extent; j++)
        for (int i = 0; i < layout_[0].extent; i++) {
            const size_t first = static_cast<size_t>(nth(i, j) - memory_->data());
            std::fill(in.begin() + first, in.begin() + first + element_bytes_, true);
        }
    for (size_t i = 0; i < in.size(); i++)
        if (!in[i] && memory_->data()[i] != memory_before_[i]) return false;
    return true;
}

bool CallBuffer::answers(const fmtest::Interval (&region)[2], halide_type_t type) const {
    const halide_buffer_t &b = *raw_;
    const halide_dimension_t *d = reinterpret_cast<const halide_dimension_t *>(dims_.data());
    return b.host == nullptr && b.device == 0 && b.device_interface == nullptr && b.flags == 0 && b.dimensions == 2 &&
           b.type == type && b.dim == d && d[0].min == region[0].min && d[0].extent == region[0].extent &&
           d[0].stride == 1 && d[0].flags == 0 && d[1].min == region[1].min && d[1].extent == region[1].extent &&
           d[1].stride == region[0].extent && d[1].flags == 0;
}

}  // namespace fmfuzz
