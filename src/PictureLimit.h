#pragma once

#include <cstdint>

#include <gst/gst.h>

namespace media_backend {

// Of a picture of a file. A small file can declare any number of pixels, and GLib aborts the
// process if allocating them fails.
constexpr std::int64_t kMaxPixels = std::int64_t{8192} * 8192;

// Makes the pipeline's decodebin "simu_file_decode" refuse pictures of more than kMaxPixels with an
// error on the bus, before a decoder allocates them.
void refuseHugePictures(GstElement* pipeline);

}  // namespace media_backend
