#pragma once

#include <string>

#include <gst/video/video.h>

namespace simulated_board {

// Returns the pixels of a board memory buffer: a new buffer over the surface's descriptor, with
// video meta for its planes, that holds a reference to `surfaceBuffer`. No pixel is copied. `info`
// is that of the caps. Null with a text in `error` if the buffer holds no surface of that size, or
// if the surface's layout does not fit its memory.
GstBuffer* pixelsOf(GstBuffer* surfaceBuffer, const GstVideoInfo& info, std::string& error);

// Returns a new board memory buffer for an NV12 picture of the size in `info`, which owns its
// memory. Null with a text in `error` if the allocation fails.
GstBuffer* makeSurfaceBuffer(const GstVideoInfo& info, std::string& error);

}  // namespace simulated_board
