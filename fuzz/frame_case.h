// One fuzz input as one call of a variant. The bytes choose the variant, a
// valid call (image, mask, pads, output equal to the image) and then, buffer
// by buffer, what to spoil: a null descriptor, a null host, a device handle,
// the type, `dimensions` and `flags`, mins, extents, strides. Every non-null
// host points at memory that holds exactly the region its descriptor
// describes, flush against an inaccessible page; the output's memory has
// guard bytes around it. All-zero bytes give a valid call of imdilate_bool_none.
//
// The call must then keep these promises:
//  - status and runtime error call are those of the frame model;
//  - a refused call or a bounds query writes no buffer memory, a query
//    answers exactly the asked buffers with their required regions;
//  - inputs are never written, the output never outside its region;
//  - a call that runs matches the reference model (when its output rows do
//    not alias one another and no coordinate comes near the 32-bit ends);
//  - a two-stage call allocates once, exactly the predicted size, and frees
//    that block once; a single-stage call allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fmfuzz {

// Runs the call the bytes describe; returns a description of the first
// promise broken, or an empty string.
std::string run_frame_case(const uint8_t *data, size_t size);

}  // namespace fmfuzz
