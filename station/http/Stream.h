#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "base/GstPtr.h"
#include "camera/CameraFeed.h"
#include "camera/LiveCamera.h"
#include "http/AccessUnitBuffer.h"

namespace station {

// A camera's video in one codec, encoded while somebody watches.
//
// Threads: one.
class HttpStream {
 public:
  using Codec = media_backend::GstVideoBackend::Codec;

  struct Counts {
    std::uint64_t pictures;
    std::uint64_t bytes;
    std::uint64_t oversized;  // pictures too large to be kept
    std::uint64_t skipped;    // pictures that viewers were too slow for
  };
  struct Rates {
    double picturesPerSecond;
    double bitsPerSecond;
  };

  // `onPicture` is called, on a thread of the encoder's, when the ring has a new picture. Throws
  // StationError (CodecNotUsable).
  HttpStream(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
             const media_backend::GstVideoBackend::EncoderConfig& config,
             std::function<void()> onPicture);
  ~HttpStream() = default;
  HttpStream(const HttpStream&) = delete;
  HttpStream& operator=(const HttpStream&) = delete;

  Codec codec() const { return codec_; }
  // Path that it is served under, "/stream.h264".
  std::string path() const;
  const char* contentType() const;
  const PictureRing& ring() const { return ring_; }

  // Somebody watches, or has stopped to. Throws StationError (Pipeline) if the encoder does not
  // start.
  void addViewer();
  void removeViewer();
  unsigned int viewers() const { return viewers_; }
  void addSkipped(std::uint64_t pictures) { skipped_ += pictures; }
  bool isRunning() const { return pipeline_ != nullptr; }

  // To be called a few times a second: keeps the rates, and stops the encoder when nobody has
  // watched for a while. Throws StationError (Pipeline) if the encoder has failed.
  void tick();
  Counts counts() const { return {pictures_, bytes_, oversized_, skipped_}; }
  // Of about the last two seconds.
  Rates rates() const { return rates_; }

 private:
  using Clock = std::chrono::steady_clock;

  void start();
  void stop();
  void checkBus();
  void measure();
  static GstFlowReturn onSample(GstElement* sink, gpointer self);

  const media_backend::GstVideoBackend& backend_;
  LiveCamera& camera_;
  const Codec codec_;
  const std::string description_;
  const std::function<void()> onPicture_;

  PictureRing ring_;
  std::atomic<std::uint64_t> pictures_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> oversized_{0};

  std::uint64_t skipped_ = 0;
  unsigned int viewers_ = 0;
  Clock::time_point lastWatched_{};
  Clock::time_point measuredAt_{};
  Counts measured_{};
  Rates rates_{};

  PipelinePtr pipeline_;  // behind what its threads use
  std::unique_ptr<CameraFeed> feed_;
};

}  // namespace station
