#include "record/Recorder.h"

#include <algorithm>
#include <thread>
#include <utility>

#include <gst/video/video.h>

#include "base/Callback.h"
#include "base/Pipelines.h"
#include "base/StationError.h"
#include "base/WriteError.h"
#include "metadata/MisbSt0604.h"
#include "record/SegmentFiles.h"

namespace station {
namespace {

constexpr GstClockTime kFinishTimeout = 20 * GST_SECOND;
constexpr GstClockTime kErrorTimeout = 2 * GST_SECOND;
constexpr GstClockTime kEndTimeout = GST_SECOND;
constexpr auto kErrorOrEos = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS);

GstBuffer* copyOf(const std::vector<std::uint8_t>& bytes) {
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
  gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
  return buffer;
}

// A filesink buffers 64 KiB: seconds at a low bit rate, which are lost when the process is killed.
void setUnbuffered(GstElement* segmentSink) {
  GstElement* const file = gst_element_factory_make("filesink", nullptr);
  if (file != nullptr) {
    gst_util_set_object_arg(G_OBJECT(file), "buffer-mode", "unbuffered");
    g_object_set(segmentSink, "sink", file, nullptr);
  }
}

}  // namespace

Recorder::Recorder(const media_backend::GstVideoBackend& backend, const Settings& settings)
    : backend_(backend), settings_(settings) {
  prepareOutputFolder(settings.folder);
  const DescriptionSettings description = {settings.encoder, settings.segmentSeconds, settings.klv,
                                           settings.audio};
  pipeline_ = buildPipeline(requireDescription(backend, Use::Record, description), "the recorder");
  bus_.reset(gst_element_get_bus(pipeline_.get()));
  video_ = findElement(pipeline_.get(), "mysrc");
  segmentSink_ = findElement(pipeline_.get(), "sink");
  const GstPtr<GstPad> video(gst_element_get_static_pad(segmentSink_.get(), "video"));
  frames_.emplace(GstPtr<GstPad>(gst_pad_get_peer(video.get())).get());
  if (settings.klv) {
    klv_.emplace(pipeline_.get(), "klvsrc");
  }
  if (settings.audio) {
    audio_.emplace(pipeline_.get(), "audiosrc");
  }
  settings.frames.setCaps(backend, video_.get());
  watchEncoder();
  setUnbuffered(segmentSink_.get());
  gst_bus_set_sync_handler(bus_.get(), guarded<onMessage>, this, nullptr);
  g_signal_connect(segmentSink_.get(), "format-location-full", G_CALLBACK(guarded<onSegment>),
                   this);

  if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    waitForError();
  }
}

// Workaround for splitmuxsink of GStreamer 1.22: set to NULL before its first GOP is complete, it
// may leave SPLITMUX_OUTPUT_STATE_STOPPED when the muxer, which has stopped, refuses caps; the KLV
// stream then waits without end. EOS first avoids that; without a frame, it would make an empty
// segment.
Recorder::~Recorder() {
  if (GST_STATE(pipeline_.get()) == GST_STATE_NULL || pushed_ == 0) {
    return;
  }
  gst_app_src_end_of_stream(GST_APP_SRC(video_.get()));
  for (std::optional<PacketTrack>* const track : {&klv_, &audio_}) {
    if (*track) {
      (*track)->endNow();
    }
  }
  if (!waitForEos()) {  // an encoder that has failed does not forward EOS
    const GstPtr<GstPad> input(gst_element_get_static_pad(segmentSink_.get(), "video"));
    gst_pad_send_event(input.get(), gst_event_new_eos());
    waitForEos();
  }
}

bool Recorder::waitForEos() {
  g_autoptr(GstMessage) end = gst_bus_timed_pop_filtered(bus_.get(), kEndTimeout, GST_MESSAGE_EOS);
  return end != nullptr;
}

void Recorder::watchEncoder() {
  const GstPtr<GstElement> encoder = findElement(pipeline_.get(), "enc");
  const GstPtr<GstPad> input(gst_element_get_static_pad(encoder.get(), "sink"));
  const GstPtr<GstPad> output(gst_element_get_static_pad(encoder.get(), "src"));
  const GstPtr<GstElement> parser = findElement(pipeline_.get(), "vparse");
  const GstPtr<GstPad> parsed(gst_element_get_static_pad(parser.get(), "src"));
  MisbSt0604::insertAt(parsed.get(), [this](GstClockTime elapsed) {
    return timeOf(settings_.frames.rate.frameAt(elapsed));
  });
  gst_pad_add_probe(input.get(), GST_PAD_PROBE_TYPE_BUFFER, guarded<onEncoderInput>, this, nullptr);
  gst_pad_add_probe(output.get(), GST_PAD_PROBE_TYPE_BUFFER, guarded<onEncoderOutput>, this,
                    nullptr);
}

GstPadProbeReturn Recorder::onEncoderInput(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) {
  auto* const recorder = static_cast<Recorder*>(self);
  const GstClockTime pts = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
  // Rounded, as the timestamp was truncated to nanoseconds.
  const std::uint64_t index = recorder->settings_.frames.rate.frameAt(pts);
  ++recorder->entered_;
  recorder->nextIndex_ = index + 1;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn Recorder::onEncoderOutput(GstPad* /*pad*/, GstPadProbeInfo* /*info*/,
                                            gpointer self) {
  static_cast<Recorder*>(self)->hasEncoded_ = true;
  return GST_PAD_PROBE_REMOVE;
}

GstBusSyncReply Recorder::onMessage(GstBus* /*bus*/, GstMessage* message, gpointer self) {
  SegmentStore* const segments = static_cast<Recorder*>(self)->settings_.segments;
  if (segments != nullptr && gst_message_has_name(message, "splitmuxsink-fragment-closed")) {
    segments->close(gst_structure_get_string(gst_message_get_structure(message), "location"));
  }
  return GST_BUS_PASS;
}

gchar* Recorder::onSegment(GstElement* /*sink*/, guint /*fragment*/, GstSample* first,
                           gpointer self) {
  auto* const recorder = static_cast<Recorder*>(self);
  GstBuffer* const buffer = first != nullptr ? gst_sample_get_buffer(first) : nullptr;
  // Encoders may shift timestamps; the running time starts with the first frame. A stream that ends
  // without a frame makes a segment, too.
  const GstClockTime elapsed =
      buffer != nullptr ? gst_segment_to_running_time(gst_sample_get_segment(first),
                                                      GST_FORMAT_TIME, GST_BUFFER_PTS(buffer))
                        : 0;
  const auto time =
      recorder->start_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                             std::chrono::nanoseconds(elapsed));
  const std::filesystem::path path = segmentPath(recorder->settings_.folder, time);
  if (recorder->settings_.segments != nullptr) {
    recorder->settings_.segments->begin(path, time);
  }
  const std::lock_guard lock(recorder->mutex_);
  recorder->segmentName_ = path.filename().string();
  ++recorder->segments_;
  return g_strdup(path.c_str());
}

std::chrono::system_clock::time_point Recorder::timeOf(std::uint64_t index) const {
  return start_ + std::chrono::duration_cast<std::chrono::system_clock::duration>(
                      std::chrono::nanoseconds(settings_.frames.rate.timeOf(index)));
}

void Recorder::push(const std::shared_ptr<lumora::ExportedFrame>& frame, std::uint64_t index,
                    const std::vector<std::uint8_t>& klv) {
  GstBuffer* const buffer = settings_.frames.wrap(backend_, frame);
  ++pushed_;
  end_ = index + 1;
  setTimestamps(buffer, index);
  if (gst_app_src_push_buffer(GST_APP_SRC(video_.get()), buffer) != GST_FLOW_OK) {
    waitForError();
  }
  if (klv_) {
    GstBuffer* const packet = copyOf(klv);
    setTimestamps(packet, index);
    klv_->push(packet);
  }
}

void Recorder::pushAudio(const media_backend::EncodedAudioFrame& packet) {
  GstBuffer* const buffer = copyOf(packet.payload);
  GST_BUFFER_PTS(buffer) = packet.ptsNs;
  GST_BUFFER_DURATION(buffer) = packet.durationNs;
  audio_->push(buffer);
}

void Recorder::setTimestamps(GstBuffer* buffer, std::uint64_t index) const {
  const GstClockTime begin = settings_.frames.rate.timeOf(index);
  const GstClockTime end = settings_.frames.rate.timeOf(index + 1);
  GST_BUFFER_PTS(buffer) = begin;
  GST_BUFFER_DURATION(buffer) = end - begin;
}

void Recorder::waitForFirstFrame(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!hasEncoded_ && std::chrono::steady_clock::now() < deadline) {
    throwOnError();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void Recorder::throwOnError() {
  throwKeptException();
  if (const std::optional<BusError> error = BusError::take(bus_.get())) {
    throwError(*error);
  }
}

// The error message may reach the bus after push_buffer() has failed.
void Recorder::waitForError() {
  throwKeptException();
  if (const std::optional<BusError> error = BusError::take(bus_.get(), kErrorTimeout)) {
    throwError(*error);
  }
  throw StationError(ExitCode::Pipeline, "the recorder stopped without saying why");
}

void Recorder::throwError(const BusError& error) const {
  const bool isOutput = error.is(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_WRITE) ||
                        error.is(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE);
  if (error.is(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT) ||
      (isOutput && isDiskFull(error.detail))) {
    throw StationError(ExitCode::DiskFull,
                       "the disk of " + settings_.folder.string() + " is full: " + error.message);
  }
  throw error.as(isOutput ? ExitCode::Output : ExitCode::Pipeline);
}

void Recorder::finish() {
  gst_app_src_end_of_stream(GST_APP_SRC(video_.get()));
  for (std::optional<PacketTrack>* const track : {&klv_, &audio_}) {
    if (*track) {
      (*track)->end();
    }
  }
  g_autoptr(GstMessage) message =
      gst_bus_timed_pop_filtered(bus_.get(), kFinishTimeout, kErrorOrEos);
  throwKeptException();
  if (message == nullptr) {
    throw StationError(ExitCode::Pipeline, "the recorder did not finish its last segment in time");
  }
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    throwError(BusError::parse(message));
  }
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  isFinished_ = true;
}

std::string Recorder::segmentName() const {
  const std::lock_guard lock(mutex_);
  return segmentName_;
}

Recorder::Statistics& Recorder::Statistics::operator+=(const Statistics& other) {
  frames += other.frames;
  dropped += other.dropped;
  bytes += other.bytes;
  segments += other.segments;
  for (const auto track : {&Statistics::klv, &Statistics::audio}) {
    (this->*track).pushed += (other.*track).pushed;
    (this->*track).written += (other.*track).written;
  }
  return *this;
}

Recorder::Statistics Recorder::statistics() const {
  const std::uint64_t frames = frames_->buffers();
  const std::uint64_t entered = entered_;
  const std::uint64_t next = nextIndex_;
  const std::uint64_t pushed = pushed_;
  const std::uint64_t given = entered + (end_ - pushed);  // or dropped by the camera
  const std::uint64_t late = next > given ? next - given : 0;
  const std::lock_guard lock(mutex_);
  return {frames,
          isFinished_ ? pushed - std::min(pushed, frames) : late,
          frames_->bytes(),
          segments_,
          klv_ ? klv_->counts() : PacketTrack::Counts{},
          audio_ ? audio_->counts() : PacketTrack::Counts{}};
}

}  // namespace station
