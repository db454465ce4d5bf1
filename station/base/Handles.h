#pragma once

#include <memory>

#include <gst/gst.h>

#include "GstPtr.h"

namespace station {

// Owns one reference to a GObject, for members; locals use g_autoptr.
using media_backend::GstPtr;

struct GstStopAndUnref {
  void operator()(GstElement* pipeline) const {
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }
};

// Owns a pipeline and stops it before releasing it.
using PipelinePtr = std::unique_ptr<GstElement, GstStopAndUnref>;

}  // namespace station
