#pragma once

#include <cstring>
#include <string>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include "gst/GstPtr.h"
#include "support/Bytes.h"
#include "support/Requirements.h"

// A pipeline that plays, perhaps with an appsrc and an appsink of these names.
class Pipeline {
 public:
  explicit Pipeline(const std::string& description, const char* in = "in",
                    const char* out = "out") {
    g_autoptr(GError) error = nullptr;
    pipeline_.reset(gst_parse_launch(description.c_str(), &error));
    // Before GStreamer 1.20, appsrc has no "max-buffers"; nothing else is lost with it.
    EXPECT_TRUE(error == nullptr ||
                (isBefore120() && std::strstr(error->message, "\"max-buffers\"") != nullptr))
        << error->message;
    out_ = element(out);
    in_ = element(in);
    gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  }
  ~Pipeline() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  media_backend::GstPtr<GstElement> element(const char* name) const {
    return media_backend::GstPtr<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline_.get()), name));
  }
  GstAppSrc* source() const { return GST_APP_SRC(in_.get()); }

  // Null at the end of the stream and on an error.
  GstSample* pull() { return gst_app_sink_try_pull_sample(GST_APP_SINK(out_.get()), kPatience); }
  // The bytes of each buffer up to the end of the stream.
  std::vector<std::string> pullAll() {
    std::vector<std::string> buffers;
    while (GstSample* const sample = pull()) {
      buffers.push_back(bytesOf(gst_sample_get_buffer(sample)));
      gst_sample_unref(sample);
    }
    return buffers;
  }
  void push(GstBuffer* buffer) { gst_app_src_push_buffer(source(), buffer); }
  void finish() { gst_app_src_end_of_stream(source()); }

  // The first message of these kinds on the bus, which the caller frees; waits for it.
  GstMessage* message(int types, GstClockTime patience = kPatience) {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_.get());
    return gst_bus_timed_pop_filtered(bus, patience, static_cast<GstMessageType>(types));
  }

  // The first error on the bus, which the caller frees; waits for it.
  GError* error() {
    g_autoptr(GstMessage) message = this->message(GST_MESSAGE_ERROR);
    GError* error = nullptr;
    if (message != nullptr) {
      gst_message_parse_error(message, &error, nullptr);
    }
    return error;
  }

 private:
  static constexpr GstClockTime kPatience = 30 * GST_SECOND;

  media_backend::GstPtr<GstElement> pipeline_, out_, in_;
};
