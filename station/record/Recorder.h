#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <lumora/FrameExport.h>
#include <media_backend/AudioContinuityGuard.h>
#include <media_backend/GstVideoBackend.h>

#include "base/Pipelines.h"

namespace station {

// Records camera frames into MPEG-TS segments: runs the library's recorder description as it is
// and feeds its application sources.
//
// Failures throw StationError (Pipeline, DiskFull, Output).
// Threads: one thread at a time.
class Recorder {
 public:
  struct Settings {
    media_backend::GstVideoBackend::EncoderConfig encoder;
    unsigned int segmentSeconds;
    bool klv;
    bool audio;
    unsigned int width;   // pixels, even
    unsigned int height;  // pixels, even
    unsigned int fps;
    const char* colorimetry;  // of the frames; null for the library's default
    std::filesystem::path folder;
  };

  struct Statistics {
    std::uint64_t pushed;    // frames
    std::uint64_t dropped;   // frames that the encoder was too slow for
    std::uint64_t bytes;     // of encoded video
    std::uint64_t segments;  // files begun
  };

  // Creates the folder, builds the pipeline and sets it playing.
  Recorder(const media_backend::GstVideoBackend& backend, const Settings& settings);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Time of the first frame by the wall clock; segment names count from it. Before the first push.
  void setStart(std::chrono::system_clock::time_point start) { start_ = start; }

  // Pushes frame number `index`, from 0 and growing, and its KLV packet, which is ignored when
  // recording without KLV.
  void push(std::shared_ptr<lumora::ExportedFrame> frame, std::uint64_t index,
            const std::vector<std::uint8_t>& klv);

  // Pushes an Opus packet; only when recording with audio.
  void pushAudio(const media_backend::EncodedAudioFrame& packet);

  // Waits up to `timeout` for the encoder's first frame: an encoder that is still starting would
  // drop the next ones.
  void waitForFirstFrame(std::chrono::milliseconds timeout);

  // Throws if the bus has an error.
  void throwOnError();

  // Completes the last segment and stops the pipeline.
  void finish();

  // File name of the segment being written, empty before the first.
  std::string segmentName() const;
  Statistics statistics() const;

 private:
  void watchEncoder();
  void setTimestamps(GstBuffer* buffer, std::uint64_t index) const;
  void pushTo(GstElement* source, GstBuffer* buffer);
  void pushKlvBefore(std::uint64_t index);
  bool hasRoomForKlv() const;
  void drainKlv();
  bool waitForEos();
  [[noreturn]] void waitForError();
  [[noreturn]] void throwError(const BusError& error) const;

  static GstPadProbeReturn onEncoderInput(GstPad* pad, GstPadProbeInfo* info, gpointer self);
  static GstPadProbeReturn onEncoderOutput(GstPad* pad, GstPadProbeInfo* info, gpointer self);
  static gchar* onSegment(GstElement* sink, guint fragment, GstSample* first, gpointer self);

  const media_backend::GstVideoBackend& backend_;
  const Settings settings_;
  std::chrono::system_clock::time_point start_{};

  struct KlvPacket {
    std::uint64_t index;  // of its frame
    std::vector<std::uint8_t> bytes;
  };
  std::deque<KlvPacket> waitingKlv_;  // until their frames reach the encoder

  std::uint64_t pushed_ = 0;
  std::uint64_t end_ = 0;                    // one past the number of the last frame pushed
  std::atomic<std::uint64_t> entered_{0};    // frames that reached the encoder
  std::atomic<std::uint64_t> nextIndex_{0};  // one past the number of the last of them
  std::atomic<std::uint64_t> encoded_{0};
  std::atomic<std::uint64_t> bytes_{0};
  mutable std::mutex mutex_;
  std::string segmentName_;  // of the newest
  std::uint64_t segments_ = 0;

  PipelinePtr pipeline_;  // after what its threads use
  GstPtr<GstElement> video_;
  GstPtr<GstElement> klv_;
  GstPtr<GstElement> klvQueue_;  // downstream of klv_
  GstPtr<GstElement> audio_;
  GstPtr<GstElement> segmentSink_;
  GstPtr<GstBus> bus_;
};

}  // namespace station
