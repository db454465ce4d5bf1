#include "doctor/Trial.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#include <lumora/LumoraPicture.h>

#include "base/Callback.h"
#include "base/StationError.h"
#include "camera/FrameFeed.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

// Small enough for any encoder, large enough for those with a minimum size.
constexpr unsigned int kWidth = 640;
constexpr unsigned int kHeight = 480;
constexpr int kFramesPerSecond = 30;
constexpr GstClockTime kInterval = GST_SECOND / kFramesPerSecond;
constexpr std::size_t kLumaSize = std::size_t{kWidth} * kHeight;
constexpr double kMostDifference = 12;                          // of 255, on average
constexpr GstClockTime kTrialEndTimeout = GST_CLOCK_TIME_NONE;  // the check's own limit ends it
constexpr std::chrono::seconds kEntryTimeout{1};

constexpr struct {
  Codec codec;
  const char* names[3];
} kDecoders[] = {
    {Codec::H264, {"avdec_h264", "openh264dec", nullptr}},
    {Codec::H265, {"avdec_h265", "libde265dec", nullptr}},
    {Codec::Av1, {"dav1ddec", "av1dec", "avdec_av1"}},
    {Codec::Mjpeg, {"jpegdec", "avdec_mjpeg", nullptr}},
};

std::string decoderOf(Codec codec) {
  for (const auto& row : kDecoders) {
    for (const char* const name : row.names) {
      g_autoptr(GstElementFactory) factory =
          row.codec == codec && name != nullptr ? gst_element_factory_find(name) : nullptr;
      if (factory != nullptr) {
        return name;
      }
    }
  }
  return "";
}

// Soft ramps in every colour plane, each in a direction of its own.
std::vector<std::uint8_t> testPicture() {
  std::vector<std::uint8_t> nv12(kLumaSize * 3 / 2);
  for (std::size_t y = 0; y < kHeight; ++y) {
    for (std::size_t x = 0; x < kWidth; ++x) {
      nv12[y * kWidth + x] = static_cast<std::uint8_t>(40 + 170 * x / kWidth);
      if (y % 2 == 0) {
        nv12[kLumaSize + y / 2 * kWidth + x] =
            static_cast<std::uint8_t>(x % 2 == 0 ? 60 + 130 * y / kHeight : 190 - 130 * x / kWidth);
      }
    }
  }
  return nv12;
}

// What an encoder has given, and how many frames it has taken.
struct Tap {
  std::mutex mutex;
  std::vector<std::shared_ptr<GstBuffer>> units;
  GstCaps* caps = nullptr;
  std::atomic<unsigned int> entered{0};

  Tap() = default;
  ~Tap() { gst_clear_caps(&caps); }
  Tap(const Tap&) = delete;
  Tap& operator=(const Tap&) = delete;
};

GstPadProbeReturn countEntry(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer tap) {
  ++static_cast<Tap*>(tap)->entered;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn keepUnit(GstPad* pad, GstPadProbeInfo* info, gpointer data) {
  auto* const tap = static_cast<Tap*>(data);
  const std::lock_guard lock(tap->mutex);
  tap->units.emplace_back(gst_buffer_ref(GST_PAD_PROBE_INFO_BUFFER(info)), gst_buffer_unref);
  if (tap->caps == nullptr) {
    tap->caps = gst_pad_get_current_caps(pad);
  }
  return GST_PAD_PROBE_OK;
}

void watch(GstElement* pipeline, const char* element, const char* pad, GstPadProbeCallback call,
           Tap& tap) {
  const GstPtr<GstElement> owner = findElement(pipeline, element);
  const GstPtr<GstPad> watched(gst_element_get_static_pad(owner.get(), pad));
  gst_pad_add_probe(watched.get(), GST_PAD_PROBE_TYPE_BUFFER, call, &tap, nullptr);
}

void throwOnError(GstElement* pipeline, GstClockTime timeout) {
  throwKeptException();
  const GstPtr<GstBus> bus(gst_element_get_bus(pipeline));
  g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
      bus.get(), timeout, static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS));
  if (message != nullptr && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    throw BusError::parse(message).as();
  }
}

// Pushes a frame and waits until it is in the encoder: the queue in front of it drops frames.
void push(GstElement* pipeline, GstElement* source, GstBuffer* frame, unsigned int number,
          const Tap& tap) {
  GST_BUFFER_PTS(frame) = number * kInterval;
  GST_BUFFER_DURATION(frame) = kInterval;
  gst_app_src_push_buffer(GST_APP_SRC(source), frame);
  const auto deadline = std::chrono::steady_clock::now() + kEntryTimeout;
  while (tap.entered <= number && std::chrono::steady_clock::now() < deadline) {
    throwOnError(pipeline, 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

PipelinePtr buildTrial(const std::string& description, Use use) {
  PipelinePtr pipeline = buildPipeline(
      use == Use::Rtsp ? description + " ! fakesink sync=false" : description, "the trial");
  if (use == Use::Record) {
    g_object_set(findElement(pipeline.get(), "sink").get(), "location", "/dev/null", nullptr);
  } else {
    const GstPtr<GstElement> source = findElement(pipeline.get(), "camera");
    gst_util_set_object_arg(G_OBJECT(source.get()), "leaky-type", "none");
    g_object_set(source.get(), "do-timestamp", FALSE, nullptr);
  }
  return pipeline;
}

void encode(const GstVideoBackend& backend, Use use, const FrameFormat& format,
            const std::string& description, FrameFeed& feed, unsigned int frames, Tap& tap) {
  const PipelinePtr pipeline = buildTrial(description, use);
  const bool records = use == Use::Record;
  watch(pipeline.get(), records ? "enc" : "encoder", "sink", guarded<countEntry>, tap);
  watch(pipeline.get(),
        records            ? "vparse"
        : use == Use::Rtsp ? "pay0"
                           : "sink",
        records ? "src" : "sink", guarded<keepUnit>, tap);
  const GstPtr<GstElement> source = findElement(pipeline.get(), records ? "mysrc" : "camera");
  if (use == Use::Http) {  // nobody takes samples out
    g_object_set(findElement(pipeline.get(), "sink").get(), "wait-on-eos", FALSE, nullptr);
  }
  format.setCaps(backend, source.get());
  const auto picture =
      lumora::LumoraPicture::fromNv12Host(testPicture().data(), kWidth, kHeight, kWidth);
  if (gst_element_set_state(pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    throwOnError(pipeline.get(), GST_SECOND);
    throw StationError(ExitCode::Pipeline, "the pipeline does not start, and gives no reason");
  }
  for (unsigned int i = 0; i < frames; ++i) {
    push(pipeline.get(), source.get(), format.wrap(backend, feed.exportPicture(*picture)), i, tap);
  }
  gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
  throwOnError(pipeline.get(), kTrialEndTimeout);
}

double mean(const std::uint8_t* samples, std::size_t count, std::size_t step) {
  double sum = 0;
  for (std::size_t i = 0; i < count; ++i) {
    sum += samples[i * step];
  }
  return sum / static_cast<double>(count);
}

// What is wrong with a decoded picture in packed NV12; empty: nothing.
std::string faultOf(const std::uint8_t* nv12, const std::vector<std::uint8_t>& sent) {
  double difference = 0;
  for (std::size_t i = 0; i < sent.size(); ++i) {
    difference += std::abs(nv12[i] - sent[i]);
  }
  if (difference / static_cast<double>(sent.size()) <= kMostDifference) {
    return "";
  }
  const double luma = mean(nv12, kLumaSize, 1);
  const double blue = mean(nv12 + kLumaSize, kLumaSize / 4, 2);
  const double red = mean(nv12 + kLumaSize + 1, kLumaSize / 4, 2);
  const bool isGreen = blue < 90 && red < 90;
  const bool isBlack = luma < 32 && std::abs(blue - 128) < 16 && std::abs(red - 128) < 16;
  return isGreen   ? "the pictures come back green"
         : isBlack ? "the pictures come back black"
                   : "the pictures do not come back as they were sent";
}

// Decodes what the encoder gave, and compares every picture.
std::string compare(const std::string& decoder, const Tap& tap, unsigned int sent) {
  const PipelinePtr pipeline =
      buildPipeline("appsrc name=in format=time ! " + decoder +
                        " ! videoconvert ! video/x-raw,format=NV12 ! appsink name=out sync=false",
                    "the decoder");
  const GstPtr<GstElement> in = findElement(pipeline.get(), "in");
  const GstPtr<GstElement> out = findElement(pipeline.get(), "out");
  gst_app_src_set_caps(GST_APP_SRC(in.get()), tap.caps);
  gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  for (const auto& unit : tap.units) {
    gst_app_src_push_buffer(GST_APP_SRC(in.get()), gst_buffer_ref(unit.get()));
  }
  gst_app_src_end_of_stream(GST_APP_SRC(in.get()));
  const std::vector<std::uint8_t> picture = testPicture();
  unsigned int back = 0;
  while (GstSample* const pulled = gst_app_sink_pull_sample(GST_APP_SINK(out.get()))) {
    const std::unique_ptr<GstSample, decltype(&gst_sample_unref)> sample(pulled, gst_sample_unref);
    std::vector<std::uint8_t> nv12(picture.size());
    gst_buffer_extract(gst_sample_get_buffer(pulled), 0, nv12.data(), nv12.size());
    std::string fault = faultOf(nv12.data(), picture);
    if (!fault.empty()) {
      return fault;
    }
    ++back;
  }
  throwOnError(pipeline.get(), 0);
  return back == sent ? ""
                      : "only " + std::to_string(back) + " of " + std::to_string(sent) +
                            " pictures come back";
}

}  // namespace

Trial tryOut(const GstVideoBackend& backend, Use use, Codec codec, unsigned int frames) {
  FrameFormat format;
  format.width = kWidth;
  format.height = kHeight;
  format.rate = {kFramesPerSecond, 1};
  format.colorimetry = codec == Codec::Mjpeg ? kJpegColorimetry : "bt709";
  FrameFeed feed(backend, {});
  feed.begin(format);
  DescriptionSettings settings;
  settings.encoder.codec = codec;
  settings.colorimetry = format.colorimetry;

  Tap tap;
  encode(backend, use, format, requireDescription(backend, use, settings), feed, frames, tap);
  Trial trial;
  trial.feed = format.feed;
  trial.isZeroCopy = feed.isZeroCopy();
  trial.sent = frames;
  trial.encoded = static_cast<unsigned int>(tap.units.size());
  trial.decoder = decoderOf(codec);
  if (tap.units.empty()) {
    trial.fault = "the encoder takes pictures and gives none";
  } else if (!trial.decoder.empty()) {
    trial.fault = compare(trial.decoder, tap, frames);
  }
  return trial;
}

}  // namespace station
