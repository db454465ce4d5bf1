#pragma once

#include <string>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include "GstPtr.h"

// A pipeline with an appsink "out" and perhaps an appsrc "in".
class Pipeline {
 public:
  explicit Pipeline(const std::string& description) {
    g_autoptr(GError) error = nullptr;
    pipeline_.reset(
        gst_parse_launch_full(description.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error));
    EXPECT_NE(pipeline_, nullptr) << error->message;
    out_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "out"));
    in_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), "in"));
    gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING);
  }
  ~Pipeline() { gst_element_set_state(pipeline_.get(), GST_STATE_NULL); }
  Pipeline(const Pipeline&) = delete;
  Pipeline& operator=(const Pipeline&) = delete;

  // Null at the end of the stream and on an error.
  GstSample* pull() { return gst_app_sink_try_pull_sample(GST_APP_SINK(out_.get()), kPatience); }
  void push(GstBuffer* buffer) { gst_app_src_push_buffer(GST_APP_SRC(in_.get()), buffer); }
  void finish() { gst_app_src_end_of_stream(GST_APP_SRC(in_.get())); }

  // The first message of a kind on the bus, which the caller frees; waits for it.
  GstMessage* message(GstMessageType type) {
    g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_.get());
    return gst_bus_timed_pop_filtered(bus, kPatience, type);
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
