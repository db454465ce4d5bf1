#include "record/Recorder.h"

#include <thread>
#include <utility>

#include <gst/video/video.h>

#include "base/Pipelines.h"
#include "base/StationError.h"
#include "record/SegmentFiles.h"

namespace station {
namespace {

constexpr GstClockTime kFinishTimeout = 20 * GST_SECOND;
constexpr std::chrono::seconds kDrainTimeout{5};
constexpr GstClockTime kErrorTimeout = 2 * GST_SECOND;
constexpr GstClockTime kEndTimeout = GST_SECOND;
constexpr auto kErrorOrEos = static_cast<GstMessageType>(GST_MESSAGE_ERROR | GST_MESSAGE_EOS);

GstBuffer* copyOf(const std::vector<std::uint8_t>& bytes) {
  GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, bytes.size(), nullptr);
  gst_buffer_fill(buffer, 0, bytes.data(), bytes.size());
  return buffer;
}

// Does nothing without a source.
void endStream(const GstPtr<GstElement>& source) {
  if (source != nullptr) {
    gst_app_src_end_of_stream(GST_APP_SRC(source.get()));
  }
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
  if (settings.klv) {
    klv_ = findElement(pipeline_.get(), "klvsrc");
    const GstPtr<GstPad> source(gst_element_get_static_pad(klv_.get(), "src"));
    const GstPtr<GstPad> queue(gst_pad_get_peer(source.get()));
    klvQueue_.reset(gst_pad_get_parent_element(queue.get()));
  }
  if (settings.audio) {
    audio_ = findElement(pipeline_.get(), "audiosrc");
  }
  backend.setInputCaps(GST_APP_SRC(video_.get()), static_cast<int>(settings.width),
                       static_cast<int>(settings.height), static_cast<int>(settings.fps),
                       /*squarePixels=*/true, settings.colorimetry);
  watchEncoder();
  segmentSink_ = findElement(pipeline_.get(), "sink");
  setUnbuffered(segmentSink_.get());
  g_signal_connect(segmentSink_.get(), "format-location-full", G_CALLBACK(onSegment), this);

  if (gst_element_set_state(pipeline_.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    waitForError();
  }
}

// Workaround for splitmuxsink of GStreamer 1.22: set to NULL before its first GOP is complete, it
// may leave its stopping state when the muxer, which has stopped, refuses caps; the metadata stream
// then never ends its wait. EOS first avoids that.
Recorder::~Recorder() {
  if (GST_STATE(pipeline_.get()) == GST_STATE_NULL) {
    return;
  }
  endStream(video_);
  endStream(audio_);
  endStream(klv_);
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
  gst_pad_add_probe(input.get(), GST_PAD_PROBE_TYPE_BUFFER, onEncoderInput, this, nullptr);
  gst_pad_add_probe(output.get(), GST_PAD_PROBE_TYPE_BUFFER, onEncoderOutput, this, nullptr);
}

GstPadProbeReturn Recorder::onEncoderInput(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) {
  auto* const recorder = static_cast<Recorder*>(self);
  const GstClockTime pts = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
  // Rounded, as the timestamp was truncated to nanoseconds.
  const std::uint64_t index = gst_util_uint64_scale_round(pts, recorder->settings_.fps, GST_SECOND);
  ++recorder->entered_;
  recorder->nextIndex_ = index + 1;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn Recorder::onEncoderOutput(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) {
  auto* const recorder = static_cast<Recorder*>(self);
  recorder->bytes_ += gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info));
  ++recorder->encoded_;
  return GST_PAD_PROBE_OK;
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
  const std::lock_guard lock(recorder->mutex_);
  recorder->segmentName_ = path.filename().string();
  ++recorder->segments_;
  return g_strdup(path.c_str());
}

void Recorder::push(std::shared_ptr<lumora::ExportedFrame> frame, std::uint64_t index,
                    const std::vector<std::uint8_t>& klv) {
  const lumora::FrameExportHandle& handle = frame->handle();
  GstBuffer* const buffer = backend_.wrapFrame(handle, std::move(frame));
  if (buffer == nullptr) {
    throw StationError(ExitCode::Pipeline, "a frame could not be wrapped");
  }
  ++pushed_;
  end_ = index + 1;
  setTimestamps(buffer, index);
  pushTo(video_.get(), buffer);
  if (klv_ != nullptr) {
    waitingKlv_.push_back({index, klv});
    pushKlvBefore(nextIndex_);
  }
}

// The muxer blocks metadata that is ahead of the video, and the queue upstream of it leaks: while
// the encoder lags, packets wait here.
void Recorder::pushKlvBefore(std::uint64_t index) {
  while (!waitingKlv_.empty() && waitingKlv_.front().index < index && hasRoomForKlv()) {
    const KlvPacket& packet = waitingKlv_.front();
    GstBuffer* const buffer = copyOf(packet.bytes);
    setTimestamps(buffer, packet.index);
    pushTo(klv_.get(), buffer);
    waitingKlv_.pop_front();
  }
}

bool Recorder::hasRoomForKlv() const {
  guint64 inSource = 0;
  guint inQueue = 0;
  guint most = 0;
  g_object_get(klv_.get(), "current-level-buffers", &inSource, nullptr);
  g_object_get(klvQueue_.get(), "current-level-buffers", &inQueue, "max-size-buffers", &most,
               nullptr);
  return inSource + inQueue + 2 < most;  // one may be between the two
}

// Pushes the remaining metadata, after the end of the video.
void Recorder::drainKlv() {
  const auto deadline = std::chrono::steady_clock::now() + kDrainTimeout;
  pushKlvBefore(end_);
  while (!waitingKlv_.empty() && std::chrono::steady_clock::now() < deadline) {
    throwOnError();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    pushKlvBefore(end_);
  }
}

void Recorder::pushAudio(const media_backend::EncodedAudioFrame& packet) {
  GstBuffer* const buffer = copyOf(packet.payload);
  GST_BUFFER_PTS(buffer) = packet.ptsNs;
  GST_BUFFER_DURATION(buffer) = packet.durationNs;
  pushTo(audio_.get(), buffer);
}

void Recorder::setTimestamps(GstBuffer* buffer, std::uint64_t index) const {
  const GstClockTime begin = gst_util_uint64_scale(index, GST_SECOND, settings_.fps);
  const GstClockTime end = gst_util_uint64_scale(index + 1, GST_SECOND, settings_.fps);
  GST_BUFFER_PTS(buffer) = begin;
  GST_BUFFER_DURATION(buffer) = end - begin;
}

// Takes the buffer.
void Recorder::pushTo(GstElement* source, GstBuffer* buffer) {
  if (gst_app_src_push_buffer(GST_APP_SRC(source), buffer) != GST_FLOW_OK) {
    waitForError();
  }
}

void Recorder::waitForFirstFrame(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (encoded_ == 0 && std::chrono::steady_clock::now() < deadline) {
    throwOnError();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

void Recorder::throwOnError() {
  if (const std::optional<BusError> error = BusError::take(bus_.get())) {
    throwError(*error);
  }
}

// The error message may reach the bus after push_buffer() has failed.
void Recorder::waitForError() {
  if (const std::optional<BusError> error = BusError::take(bus_.get(), kErrorTimeout)) {
    throwError(*error);
  }
  throw StationError(ExitCode::Pipeline, "the recorder stopped without saying why");
}

void Recorder::throwError(const BusError& error) const {
  if (error.is(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_NO_SPACE_LEFT)) {
    throw StationError(ExitCode::DiskFull, "the disk of " + settings_.folder.string() + " is full");
  }
  const bool isOutput = error.is(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_OPEN_WRITE) ||
                        error.is(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_WRITE);
  throw error.as(isOutput ? ExitCode::Output : ExitCode::Pipeline);
}

void Recorder::finish() {
  endStream(video_);
  endStream(audio_);
  if (klv_ != nullptr) {
    drainKlv();
    endStream(klv_);
  }
  g_autoptr(GstMessage) message =
      gst_bus_timed_pop_filtered(bus_.get(), kFinishTimeout, kErrorOrEos);
  if (message == nullptr) {
    throw StationError(ExitCode::Pipeline, "the recorder did not finish its last segment in time");
  }
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    throwError(BusError::parse(message));
  }
  gst_element_set_state(pipeline_.get(), GST_STATE_NULL);
  nextIndex_ = end_;  // frames that have not reached the encoder by now were dropped
}

std::string Recorder::segmentName() const {
  const std::lock_guard lock(mutex_);
  return segmentName_;
}

Recorder::Statistics Recorder::statistics() const {
  const std::uint64_t entered = entered_;
  const std::uint64_t next = nextIndex_;
  const std::lock_guard lock(mutex_);
  const std::uint64_t given = entered + (end_ - pushed_);  // or dropped by the camera
  return {pushed_, next > given ? next - given : 0, bytes_, segments_};
}

}  // namespace station
