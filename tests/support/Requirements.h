#pragma once

#include <gst/gst.h>

// Whether GStreamer is older than 1.20, which the boards' oldest systems are.
inline bool isBefore120() {
  guint minor = 0;
  guint other = 0;
  gst_version(&other, &minor, &other, &other);
  return minor < 20;
}

// Whether GStreamer has what the simulated board takes to encode AV1, which came with 1.20.
inline bool canEncodeAv1() {
  g_autoptr(GstElementFactory) parser = gst_element_factory_find("av1parse");
  g_autoptr(GstElementFactory) encoder = gst_element_factory_find("av1enc");
  return parser != nullptr && encoder != nullptr;
}
