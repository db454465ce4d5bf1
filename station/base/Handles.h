#pragma once

#include <memory>

#include <gst/gst.h>

#include "gst/GstPtr.h"
#include "gst/MappedBuffer.h"
#include "gst/UniqueFd.h"

namespace station {

// The library's owners: of a reference to a GObject, for members (locals use g_autoptr), of a
// buffer's mapping, and of a file descriptor.
using media_backend::GstPtr;
using media_backend::MappedBuffer;
using media_backend::UniqueFd;

struct GstStopAndUnref {
  void operator()(GstElement* pipeline) const {
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
  }
};

// Owns a pipeline and stops it before releasing it.
using PipelinePtr = std::unique_ptr<GstElement, GstStopAndUnref>;

}  // namespace station
