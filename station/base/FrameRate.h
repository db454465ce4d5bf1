#pragma once

#include <cstdint>

#include <gst/gst.h>

namespace station {

// Frames per second, as a fraction of two positive numbers. Frame 0 is at time 0.
struct FrameRate {
  int numerator = 30;
  int denominator = 1;

  GstClockTime timeOf(std::uint64_t frame) const {
    return gst_util_uint64_scale(frame, product(denominator, GST_SECOND), product(numerator));
  }
  // Frames that end by `time`.
  std::uint64_t framesUntil(GstClockTime time) const {
    return gst_util_uint64_scale(time, product(numerator), product(denominator, GST_SECOND));
  }
  // The frame whose timeOf() is nearest to `time`.
  std::uint64_t frameAt(GstClockTime time) const {
    return gst_util_uint64_scale_round(time, product(numerator), product(denominator, GST_SECOND));
  }
  double perSecond() const { return static_cast<double>(numerator) / denominator; }

 private:
  static guint64 product(int a, guint64 b = 1) { return static_cast<guint64>(a) * b; }
};

}  // namespace station
