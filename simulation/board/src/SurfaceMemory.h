#pragma once

#include <string>

#include <gst/video/video.h>

namespace simulated_board {

// The pixels behind a board memory buffer: a new buffer on the surface's descriptor, with video
// meta for its planes, that keeps `surfaceBuffer` until it is freed. No pixel is copied.
// `info` is what the caps announce. Returns null with a text in `error` if the buffer does not
// hold a surface of that size, or the surface's layout does not fit its memory.
GstBuffer* pixelsOf(GstBuffer* surfaceBuffer, const GstVideoInfo& info, std::string& error);

// A new board memory buffer for an NV12 picture of the size in `info`, with memory of its own that
// is freed with it. Null with a text in `error` if the memory cannot be had.
GstBuffer* makeSurfaceBuffer(const GstVideoInfo& info, std::string& error);

}  // namespace simulated_board
