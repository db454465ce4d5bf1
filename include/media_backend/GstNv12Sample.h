#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <lumora/LumoraPicture.h>

#include <media_backend/Export.h>

// Helpers of the frame sources that run a GStreamer pipeline. Stateless except for
// ensure_initialized(); any thread may call them.
namespace media_backend::gst_source {

// Initialises GStreamer once per process; concurrent callers wait for the first.
// Throws std::system_error if std::call_once() fails.
MEDIA_BACKEND_API void ensure_initialized();

// A width or height in pixels, rounded down to even, at least 2.
MEDIA_BACKEND_API unsigned int even_dimension(unsigned int value);

// Frames per second as numerator and denominator, exact to a thousandth and reduced; the rate is
// clamped to 0.1 to 240.
MEDIA_BACKEND_API std::pair<int, int> fps_fraction(double fps);

// Copies one NV12 sample of an appsink into a host picture.
//
// `sample` is borrowed. The caller owns `scratch` and keeps it from frame to frame: a sample whose
// planes are not contiguous with one stride is repacked there, and it grows once to
// width * height * 3 / 2 bytes. The height is rounded down to even.
// Errors: empty, with one message in `error`; on success `error` is unchanged.
// Threads: calls with different `scratch` and `error` may run at once.
MEDIA_BACKEND_API std::shared_ptr<lumora::LumoraPicture> picture_from_nv12_sample(
    GstSample* sample, std::vector<std::uint8_t>& scratch, std::string& error);

}  // namespace media_backend::gst_source
