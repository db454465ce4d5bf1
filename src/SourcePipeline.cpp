#include "SourcePipeline.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include <gst/app/gstappsink.h>
#include <media_backend/GstNv12Sample.h>

namespace media_backend {
namespace {

constexpr GstClockTime kStateChangeTimeout = 500 * GST_MSECOND;
constexpr GstClockTime kLateMessageTimeout = GST_SECOND;

SourcePipeline::Config normalised(SourcePipeline::Config config) {
  config.width = gst_source::even_dimension(config.width);
  config.height = gst_source::even_dimension(config.height);
  config.fps = std::clamp(config.fps, 0.1, 240.0);
  return config;
}

bool isSame(const SourcePipeline::Config& a, const SourcePipeline::Config& b) {
  return a.location == b.location && a.width == b.width && a.height == b.height &&
         std::abs(a.fps - b.fps) < 1e-6 && a.loop == b.loop;
}

bool isDecoder(GstElement* element) {
  GstElementFactory* const factory = gst_element_get_factory(element);
  return factory != nullptr && !GST_IS_BIN(element) &&
         gst_element_factory_list_is_type(factory, GST_ELEMENT_FACTORY_TYPE_DECODER) != FALSE;
}

// Drops messages that report() would skip: it takes them only after the frames, and a camera that
// loses frames posts one for each loss.
GstBusSyncReply keepWatched(GstBus* /*bus*/, GstMessage* message, gpointer watched) {
  if ((GST_MESSAGE_TYPE(message) & GPOINTER_TO_INT(watched)) != 0) {
    return GST_BUS_PASS;
  }
  gst_message_unref(message);
  return GST_BUS_DROP;
}

// Drops further data at `pad` and waits until the element has processed earlier data, for which it
// holds the pad's stream lock. `deadline` (monotonic clock, microseconds) ends the wait for an
// element that blocks until the pipeline stops, as on a sink's clock.
void dropInput(GstPad* pad, gint64 deadline) {
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

void stopDecoder(const GValue* item, gpointer deadline) {
  auto* const element = GST_ELEMENT(g_value_get_object(item));
  g_autoptr(GstPad) pad = gst_element_get_static_pad(element, "sink");
  if (pad != nullptr && isDecoder(element)) {
    dropInput(pad, *static_cast<gint64*>(deadline));
  }
}

}  // namespace

bool SourcePipeline::run(Config config, std::string& error) {
  config = normalised(std::move(config));
  return (active_ && isSame(config, *active_)) || start(config, error);
}

bool SourcePipeline::restart(std::string& error) {
  return start(Config(*active_), error);
}

bool SourcePipeline::start(const Config& config, std::string& error) {
  teardown();
  gst_source::ensure_initialized();
  if (!build(config, error) || !play(error)) {
    teardown();
    return false;
  }
  active_ = config;
  return true;
}

bool SourcePipeline::build(const Config& config, std::string& error) {
  g_autoptr(GError) parseError = nullptr;
  GstElement* const parsed = gst_parse_launch(traits_.describe(config).c_str(), &parseError);
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
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline_.get());
  gst_bus_set_sync_handler(bus, keepWatched, GINT_TO_POINTER(traits_.watched), nullptr);
  source_.reset(gst_bin_get_by_name(GST_BIN(pipeline_.get()), traits_.sourceName));
  if (source_ == nullptr) {
    error = traits_.sourceMissing;
    return false;
  }
  g_object_set(source_.get(), traits_.sourceProperty, config.location.c_str(), nullptr);
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

bool SourcePipeline::play(std::string& error) {
  if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    return failWithReport(traits_.playRefused, error);
  }
  // A state change still in progress is no failure: pull() times out until the start is complete.
  if (gst_element_get_state(pipeline_.get(), nullptr, nullptr, kStateChangeTimeout) ==
      GST_STATE_CHANGE_FAILURE) {
    return failWithReport(traits_.stateChangeFailed, error);
  }
  return true;
}

bool SourcePipeline::failWithReport(const char* fallback, std::string& error) {
  report(error);
  if (error.empty()) {  // a streaming thread may post its error after the state change has failed
    report(error, kLateMessageTimeout);
  }
  if (error.empty()) {
    error = fallback;
  }
  return false;
}

GstSample* SourcePipeline::pull(std::chrono::nanoseconds timeout) {
  const auto wait = std::max(timeout, std::chrono::nanoseconds::zero());
  return gst_app_sink_try_pull_sample(GST_APP_SINK(sink_.get()),
                                      static_cast<GstClockTime>(wait.count()));
}

GstMessageType SourcePipeline::report(std::string& error, GstClockTime wait) {
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

bool SourcePipeline::isAtEnd() const {
  return gst_app_sink_is_eos(GST_APP_SINK(sink_.get())) != FALSE;
}

// Stops the input of all decoders and waits until they are idle, while the sink still takes their
// output.
//
// Workaround for gst-libav 1.22 and later; no fixed version is known. A video decoder that drains
// at EOS dereferences a null frame if it gets no output buffer, as happens once going to NULL
// flushes downstream (gst_ffmpegviddec_video_frame(), label no_output).
void SourcePipeline::emptyDecoders() {
  gint64 deadline = g_get_monotonic_time() + gint64{GST_TIME_AS_USECONDS(kStateChangeTimeout)};
  g_autoptr(GstIterator) elements = gst_bin_iterate_recurse(GST_BIN(pipeline_.get()));
  // A decodebin that still adds elements restarts the iteration.
  while (gst_iterator_foreach(elements, stopDecoder, &deadline) == GST_ITERATOR_RESYNC) {
    gst_iterator_resync(elements);
  }
}

void SourcePipeline::teardown() {
  if (sink_ != nullptr) {
    // A full appsink blocks its streaming thread with a lock that an unfinished start waits for,
    // and that start holds the lock that the state change below needs. An appsink that drops does
    // not block.
    gst_app_sink_set_drop(GST_APP_SINK(sink_.get()), TRUE);
    // At EOS, appsink blocks until its samples are pulled, unless it does not wait on EOS.
    g_object_set(sink_.get(), "wait-on-eos", FALSE, nullptr);
  }
  if (pipeline_ != nullptr) {
    emptyDecoders();
    gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
    gst_element_get_state(pipeline_.get(), nullptr, nullptr, kStateChangeTimeout);
  }
  source_.reset();
  sink_.reset();
  pipeline_.reset();
  active_.reset();
}

}  // namespace media_backend
