#pragma once

#include <memory>

#include <gst/gst.h>

namespace station {

struct GstUnref {
  void operator()(gpointer object) const { gst_object_unref(object); }
};

// Owns one reference to a GStreamer object.
template <typename Object>
using GstPtr = std::unique_ptr<Object, GstUnref>;

struct GstStopAndUnref {
  void operator()(GstElement* pipeline) const {
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }
};

// Owns a pipeline, which stops before it goes.
using PipelinePtr = std::unique_ptr<GstElement, GstStopAndUnref>;

}  // namespace station
