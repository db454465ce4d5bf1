#pragma once

#include <algorithm>
#include <chrono>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include "GstPtr.h"

namespace media_backend {

// The pipeline of a frame source, from a source element to an appsink: start, pull, bus report and
// teardown, as every GStreamer source does them. What differs between sources is in Traits.
// One thread at a time.
class SourcePipeline {
 public:
  struct Traits {
    const char* sourceName;                 // name of the source element in the description
    const char* sourceProperty;             // its property that takes the location
    const char* sinkName;                   // name of the appsink in the description
    GstMessageType watched;                 // what report() looks for on the bus
    void (*prepare)(GstElement* pipeline);  // called before it plays, unless null

    // error texts
    const char* createFailed;
    const char* sourceMissing;
    const char* sinkMissing;
    const char* playRefused;
    const char* stateChangeFailed;
  };

  explicit SourcePipeline(const Traits& traits) : traits_(traits) {}
  ~SourcePipeline() { teardown(); }
  SourcePipeline(const SourcePipeline&) = delete;
  SourcePipeline& operator=(const SourcePipeline&) = delete;

  // Builds and plays `description` on `location`; GStreamer is initialised by then. False with a
  // message in `error`; what was built by then stays until teardown().
  bool start(const std::string& description, const std::string& location, std::string& error);

  // The next sample within `timeout` (negative: at once), which the caller owns; null if none.
  GstSample* pull(std::chrono::nanoseconds timeout);

  // Takes one watched message from the bus, which may take up to `wait` to get there, and returns
  // its type, GST_MESSAGE_UNKNOWN if there is none. An error's or a warning's text goes into
  // `error`.
  GstMessageType report(std::string& error, GstClockTime wait = 0);

  // Whether the sink has handed out the last sample of the stream. The sink knows before the bus.
  bool isAtEnd() const { return gst_app_sink_is_eos(GST_APP_SINK(sink_.get())) != FALSE; }

  void teardown();

 private:
  static constexpr GstClockTime kStateChangeTimeout = 500 * GST_MSECOND;
  static constexpr GstClockTime kLateMessageTimeout = 100 * GST_MSECOND;

  bool build(const std::string& description, const std::string& location, std::string& error);
  bool play(std::string& error);
  bool failWithReport(const char* fallback, std::string& error);
  void emptyDecoders();
  static bool isDecoder(GstElement* element);
  static void shut(GstPad* pad, gint64 deadline);

  const Traits& traits_;
  GstPtr<GstElement> pipeline_;
  GstPtr<GstElement> source_;
  GstPtr<GstElement> sink_;
};

inline bool SourcePipeline::start(const std::string& description, const std::string& location,
                                  std::string& error) {
  return build(description, location, error) && play(error);
}

inline bool SourcePipeline::build(const std::string& description, const std::string& location,
                                  std::string& error) {
  g_autoptr(GError) parseError = nullptr;
  GstElement* const parsed = gst_parse_launch(description.c_str(), &parseError);
  if (parsed != nullptr) {
    pipeline_.reset(GST_ELEMENT(gst_object_ref_sink(parsed)));
  }
  if (parseError != nullptr) {
    error = parseError->message;
    return false;
  }
  if (pipeline_ == nullptr) {
    error = traits_.createFailed;
    return false;
  }
  source_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), traits_.sourceName));
  if (source_ == nullptr) {
    error = traits_.sourceMissing;
    return false;
  }
  g_object_set(source_.get(), traits_.sourceProperty, location.c_str(), nullptr);
  sink_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), traits_.sinkName));
  if (sink_ == nullptr) {
    error = traits_.sinkMissing;
    return false;
  }
  if (traits_.prepare != nullptr) {
    traits_.prepare(pipeline_.get());
  }
  return true;
}

inline bool SourcePipeline::play(std::string& error) {
  if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    return failWithReport(traits_.playRefused, error);
  }
  // Still changing after the wait is fine: a slow start shows as a pull that times out.
  if (gst_element_get_state(pipeline_.get(), nullptr, nullptr, kStateChangeTimeout) ==
      GST_STATE_CHANGE_FAILURE) {
    return failWithReport(traits_.stateChangeFailed, error);
  }
  return true;
}

inline bool SourcePipeline::failWithReport(const char* fallback, std::string& error) {
  report(error);
  if (error.empty()) {  // a streaming thread may post its error after the state change has failed
    report(error, kLateMessageTimeout);
  }
  if (error.empty()) {
    error = fallback;
  }
  return false;
}

inline GstSample* SourcePipeline::pull(std::chrono::nanoseconds timeout) {
  const auto wait = std::max(timeout, std::chrono::nanoseconds::zero());
  return gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()),
                                      static_cast<GstClockTime>(wait.count()));
}

inline GstMessageType SourcePipeline::report(std::string& error, GstClockTime wait) {
  if (pipeline_ == nullptr) {
    return GST_MESSAGE_UNKNOWN;
  }
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_.get());
  g_autoptr(GstMessage) message =
      bus == nullptr ? nullptr : gst_bus_timed_pop_filtered(bus, wait, traits_.watched);
  if (message == nullptr) {
    return GST_MESSAGE_UNKNOWN;
  }
  const GstMessageType type = GST_MESSAGE_TYPE(message);
  g_autoptr(GError) gerror = nullptr;
  g_autofree gchar* debug = nullptr;
  if (type == GST_MESSAGE_ERROR) {
    gst_message_parse_error(message, &gerror, &debug);
  } else if (type == GST_MESSAGE_WARNING) {
    gst_message_parse_warning(message, &gerror, &debug);
  }
  if (gerror != nullptr) {
    error = gerror->message;
  }
  if (debug != nullptr) {
    error = error.empty() ? debug : error + " (" + debug + ")";
  }
  return type;
}

inline bool SourcePipeline::isDecoder(GstElement* element) {
  GstElementFactory* const factory = gst_element_get_factory(element);
  return factory != nullptr && !GST_IS_BIN(element) &&
         gst_element_factory_list_is_type(factory, GST_ELEMENT_FACTORY_TYPE_DECODER) != FALSE;
}

// Drops what comes from now on, and waits until the element has worked off what came before: it
// holds the pad's stream lock for that. `deadline`, of the monotonic clock in microseconds, ends
// the wait for an element that waits for the pipeline to stop, as for its sink's clock.
inline void SourcePipeline::shut(GstPad* pad, gint64 deadline) {
  const auto drop = [](GstPad*, GstPadProbeInfo*, gpointer) { return GST_PAD_PROBE_DROP; };
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, drop, nullptr, nullptr);
  bool isIdle = false;
  while (!isIdle && g_get_monotonic_time() < deadline) {
    isIdle = GST_PAD_STREAM_TRYLOCK(pad) != FALSE;
    if (isIdle) {
      GST_PAD_STREAM_UNLOCK(pad);
    } else {
      g_usleep(1000);
    }
  }
}

// Lets nothing more into the pipeline's decoders and waits for what is inside, while the sink still
// takes what comes out.
//
// GStreamer's libav video decoder crashes if it gets no output buffer while it drains at the end of
// the stream, as it does once going to NULL flushes downstream: it clears a flag of the current
// frame, which is null then (gst_ffmpegviddec_video_frame(), label no_output; seen with 1.22, and
// still in later sources).
inline void SourcePipeline::emptyDecoders() {
  const gint64 deadline =
      g_get_monotonic_time() + gint64{GST_TIME_AS_USECONDS(kStateChangeTimeout)};
  g_autoptr(GstIterator) elements = gst_bin_iterate_recurse(GST_BIN(pipeline_.get()));
  g_auto(GValue) item = G_VALUE_INIT;
  while (gst_iterator_next(elements, &item) == GST_ITERATOR_OK) {
    auto* const element = GST_ELEMENT(g_value_get_object(&item));
    g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "sink");
    if (pad != nullptr && isDecoder(element)) {
      shut(pad, deadline);
    }
    g_value_reset(&item);
  }
}

inline void SourcePipeline::teardown() {
  if (sink_ != nullptr) {
    // A full sink holds the lock that a start which still goes on waits for, and that start the one
    // that the change of state below needs.
    gst_app_sink_set_drop(GST_APP_SINK(sink_.get()), TRUE);
    // So does the end of a stream, which waits for the samples before it to be taken; taking one
    // makes it look again.
    g_object_set(sink_.get(), "wait-on-eos", FALSE, nullptr);
    [[maybe_unused]] g_autoptr(GstSample) taken = pull(std::chrono::nanoseconds::zero());
  }
  if (pipeline_ != nullptr) {
    emptyDecoders();
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    gst_element_get_state(pipeline_.get(), nullptr, nullptr, kStateChangeTimeout);
  }
  source_.reset();
  sink_.reset();
  pipeline_.reset();
}

}  // namespace media_backend
