#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "audio/LiveAudio.h"
#include "base/Handles.h"
#include "camera/CameraFeed.h"
#include "camera/LiveCamera.h"
#include "http/AccessUnitBuffer.h"
#include "http/Mp4Muxer.h"
#include "serve/Timer.h"

namespace station {

// A camera's video in one codec, encoded while it has readers.
//
// Threads: the main context's.
class HttpStream {
 public:
  using Codec = media_backend::GstVideoBackend::Codec;

  using OnFailure = std::function<void(const StationError& error)>;

  struct Counts {
    std::uint64_t accessUnits;
    std::uint64_t bytes;
    std::uint64_t oversized;  // access units too large for the buffer
    std::uint64_t skipped;    // access units that readers were too slow for
  };
  struct Rates {
    double perSecond;  // access units
    double bitsPerSecond;
  };

  // `audio`, null for none, goes into the MP4. `onAccessUnit` is called on the encoder's thread
  // after the buffer has got one, `onFailure` after the encoder has failed (Pipeline). Throws
  // StationError (CodecNotUsable).
  HttpStream(const media_backend::GstVideoBackend& backend, LiveCamera& camera, LiveAudio* audio,
             const media_backend::GstVideoBackend::EncoderConfig& config,
             std::function<void()> onAccessUnit, OnFailure onFailure);
  ~HttpStream() { stop(); }
  HttpStream(const HttpStream&) = delete;
  HttpStream& operator=(const HttpStream&) = delete;

  Codec codec() const { return codec_; }
  // "/stream.h264"
  std::string path() const;
  const char* contentType() const;
  const AccessUnitBuffer& buffer() const { return buffer_; }

  // "/stream.mp4", or empty for a codec that MP4 does not hold.
  std::string mp4Path() const;
  // The muxer of this stream while it runs, which begins with the first call. Throws StationError
  // (Pipeline).
  std::shared_ptr<const Mp4Muxer> mp4();
  // Seconds on the MP4's timeline, now; none while nobody watches it.
  std::optional<double> mp4Time() const;

  // The encoder runs from the first reader to three seconds after the last. Throws StationError
  // (Pipeline) if it does not start.
  void addReader();
  void removeReader();
  unsigned int readers() const { return readers_; }
  void addSkipped(std::uint64_t accessUnits) { skipped_ += accessUnits; }
  bool isRunning() const { return pipeline_ != nullptr; }

  Counts counts() const { return {accessUnits_, bytes_, oversized_, skipped_}; }
  // Of the last two seconds.
  Rates rates() const { return rates_; }

 private:
  using Clock = std::chrono::steady_clock;

  void start();
  void stop();
  void measure();
  std::shared_ptr<Mp4Muxer> muxer() const;
  static gboolean onMessage(GstBus* bus, GstMessage* message, gpointer self);
  static GstFlowReturn onSample(GstElement* sink, gpointer self);

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  LiveAudio* const audio_;
  const Codec codec_;
  const std::string description_;
  const std::function<void()> onAccessUnit_;
  const OnFailure onFailure_;

  AccessUnitBuffer buffer_;
  mutable std::mutex muxerMutex_;
  std::shared_ptr<Mp4Muxer> muxer_;
  std::atomic<std::uint64_t> accessUnits_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> oversized_{0};

  std::uint64_t skipped_ = 0;
  unsigned int readers_ = 0;
  std::optional<Timer> lingering_;  // without readers
  std::optional<Timer> measuring_;  // while it runs
  Clock::time_point measuredAt_{};
  Counts measured_{};
  Rates rates_{};

  PipelinePtr pipeline_;  // after what its threads use
  std::unique_ptr<CameraFeed> feed_;
};

}  // namespace station
