#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <lumora/FrameExport.h>
#include <media_backend/AudioContinuityGuard.h>
#include <media_backend/GstVideoBackend.h>

#include "base/Pipelines.h"
#include "camera/FrameFormat.h"
#include "record/MuxerInput.h"
#include "record/PacketTrack.h"
#include "record/SegmentStore.h"

namespace station {

// Records camera frames into MPEG-TS segments: runs the library's recorder description unchanged
// and pushes into its appsrcs.
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
    FrameFormat frames;
    std::filesystem::path folder;
    SegmentStore* segments = nullptr;  // outlives the recorder; null for none
  };

  // Counts of what has reached the muxer, and so the files.
  struct Statistics {
    std::uint64_t frames;
    // Frames that were pushed and will not be in the files: until finish(), those that the encoder
    // was too slow for.
    std::uint64_t dropped;
    std::uint64_t bytes;     // of video
    std::uint64_t segments;  // files begun
    PacketTrack::Counts klv;
    PacketTrack::Counts audio;

    bool isComplete() const {
      return dropped == 0 && klv.written == klv.pushed && audio.written == audio.pushed;
    }
    Statistics& operator+=(const Statistics& other);
  };

  // Creates the folder, builds the pipeline and sets it playing.
  Recorder(const media_backend::GstVideoBackend& backend, const Settings& settings);
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Time of the first frame by the wall clock; segment names count from it. Before the first push.
  void setStart(std::chrono::system_clock::time_point start) { start_ = start; }

  // Wall clock time of frame number `index`, as written into the video.
  std::chrono::system_clock::time_point timeOf(std::uint64_t index) const;

  // Pushes frame number `index`, from 0 and growing, and its KLV packet, which is ignored when
  // recording without KLV.
  void push(const std::shared_ptr<lumora::ExportedFrame>& frame, std::uint64_t index,
            const std::vector<std::uint8_t>& klv);

  // Pushes an Opus packet; only when recording with audio.
  void pushAudio(const media_backend::EncodedAudioFrame& packet);

  // Waits up to `timeout` for the encoder's first output: the queue in front of an encoder that is
  // still starting drops frames.
  void waitForFirstFrame(std::chrono::milliseconds timeout);

  // Throws if the bus has an error.
  void throwOnError();

  // Completes the last segment and stops the pipeline.
  void finish();

  // File name of the segment being written, empty before the first. Any thread, as the next.
  std::string segmentName() const;
  Statistics statistics() const;

 private:
  void watchEncoder();
  void setTimestamps(GstBuffer* buffer, std::uint64_t index) const;
  bool waitForEos();
  [[noreturn]] void waitForError();
  [[noreturn]] void throwError(const BusError& error) const;

  static GstPadProbeReturn onEncoderInput(GstPad* pad, GstPadProbeInfo* info, gpointer self);
  static GstPadProbeReturn onEncoderOutput(GstPad* pad, GstPadProbeInfo* info, gpointer self);
  static GstBusSyncReply onMessage(GstBus* bus, GstMessage* message, gpointer self);
  static gchar* onSegment(GstElement* sink, guint fragment, GstSample* first, gpointer self);

  const media_backend::GstVideoBackend& backend_;
  const Settings settings_;
  std::chrono::system_clock::time_point start_{};

  std::atomic<std::uint64_t> pushed_{0};
  std::atomic<std::uint64_t> end_{0};        // one past the number of the last frame pushed
  std::atomic<std::uint64_t> entered_{0};    // frames that reached the encoder
  std::atomic<std::uint64_t> nextIndex_{0};  // one past the number of the last of them
  std::atomic<bool> hasEncoded_{false};
  std::atomic<bool> isFinished_{false};
  mutable std::mutex mutex_;
  std::string segmentName_;  // of the newest
  std::uint64_t segments_ = 0;

  std::optional<MuxerInput> frames_;
  std::optional<PacketTrack> klv_;
  std::optional<PacketTrack> audio_;
  PipelinePtr pipeline_;  // after what its threads use
  GstPtr<GstElement> video_;
  GstPtr<GstElement> segmentSink_;
  GstPtr<GstBus> bus_;
};

}  // namespace station
