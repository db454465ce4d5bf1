#include "camera/FrameFormat.h"

namespace station {

// The library's caps have a whole number of frames per second.
void FrameFormat::setCaps(const media_backend::GstVideoBackend& backend, GstElement* source) const {
  g_autoptr(GstCaps) caps =
      backend.makeInputCaps(static_cast<int>(width), static_cast<int>(height), /*fps=*/0,
                            /*squarePixels=*/true, colorimetry.c_str());
  gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION, rate.numerator, rate.denominator,
                      nullptr);
  gst_app_src_set_caps(GST_APP_SRC(source), caps);
}

}  // namespace station
