#pragma once

#include <memory>

#include <gst/gst.h>

namespace media_backend {

struct GstObjectUnref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};

// Owns one reference to a GStreamer object, for members; locals use g_autoptr.
template <typename Object>
using GstPtr = std::unique_ptr<Object, GstObjectUnref>;

}  // namespace media_backend
