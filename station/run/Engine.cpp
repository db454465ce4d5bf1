#include "run/Engine.h"

#include <chrono>
#include <cstdio>
#include <memory>
#include <utility>

#include "audio/LiveAudio.h"
#include "base/Board.h"
#include "base/Pipelines.h"
#include "camera/CallSource.h"
#include "camera/LiveCamera.h"
#include "camera/ReconnectingCamera.h"
#include "http/Server.h"
#include "record/Recording.h"
#include "rtsp/Server.h"
#include "run/Annotator.h"
#include "run/Service.h"
#include "serve/MainLoop.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;

std::unique_ptr<Camera> openCamera(const GstVideoBackend& backend, const CameraOptions& options) {
  return callSource(options.source, [&]() -> std::unique_ptr<Camera> {
    if (options.exitOnLoss || !options.loop) {  // a part of a file would be repeated
      return Camera::openFor(backend, options);
    }
    return std::make_unique<ReconnectingCamera>(backend, options);
  });
}

// Refuses what the first output does not use; the encoders of the others may use less.
void refuseUnusedSettings(const EngineOptions& options, const GstVideoBackend& backend) {
  if (options.record) {
    options.encoder.refuseUnused(backend, Use::Record, options.record->recorder);
  } else if (options.rtsp) {
    options.encoder.refuseUnused(backend, Use::Rtsp, {options.rtsp->encoder});
  } else if (options.http) {
    options.encoder.refuseUnused(backend, Use::Http, {options.http->encoder});
  }
}

LiveCamera::Annotate annotation(const EngineOptions& options) {
  const bool isWanted =
      (options.record && options.record->recorder.klv) || (options.rtsp && options.rtsp->klv);
  if (!isWanted) {
    return nullptr;
  }
  return [annotator = std::make_shared<Annotator>(options.metadata)](
             lumora::LumoraPicture& picture, std::chrono::system_clock::time_point time) {
    return annotator->annotate(picture, time);
  };
}

void announce(const char* scheme, const Listener& listener, const std::string& path,
              const ServeOptions& options, const GstVideoBackend& backend,
              const FrameFormat& frames) {
  std::printf("serving %s%s://%s%s  %s %u x %u, %.4g frames per second, %s\n", scheme,
              options.isEncrypted() ? "s" : "", listener.authority().c_str(), path.c_str(),
              GstVideoBackend::codecName(options.encoder.codec), frames.width, frames.height,
              frames.rate.perSecond(), backend.name());
  std::fflush(stdout);
  if (!listener.isLoopback() && !options.credentials) {
    std::fprintf(stderr,
                 "note: whoever reaches this address can watch; --auth asks for a password\n");
  }
}

// Over HTTP, some encoders run without any setting: the library leaves them theirs.
void noteUnusedBitRate(const EngineOptions& options, const GstVideoBackend& backend) {
  if (options.encoder.isBitRateUnused(backend, Use::Http, {options.http->encoder})) {
    std::fprintf(stderr,
                 "note: --bitrate has no effect: over HTTP, this board's encoder of %s keeps its "
                 "own bit rate\n",
                 GstVideoBackend::codecName(options.http->encoder.codec));
  }
}

bool isQuiet(const EngineOptions& options) {
  return (!options.rtsp || options.rtsp->quiet) && (!options.http || options.http->quiet);
}

// The outputs of a running engine.
class Outputs {
 public:
  Outputs(const EngineOptions& options, const GstVideoBackend& backend, LiveCamera& camera,
          AudioFeed& audio, MainLoop& loop) {
    if (options.audio.isWanted() && (options.rtsp || options.http)) {
      audio_.emplace(options.audio);
    }
    LiveAudio* const live = audio_ ? &*audio_ : nullptr;
    if (options.rtsp) {
      rtsp_.emplace(backend, camera, live, *options.rtsp);
      announce("rtsp", rtsp_->listener(), options.rtsp->path, *options.rtsp, backend,
               camera.format());
    }
    if (options.http) {
      http_.emplace(backend, camera, live, *options.http,
                    [&loop](const StationError& error) { loop.fail(error); });
      announce("http", http_->listener(), "/", *options.http, backend, camera.format());
      noteUnusedBitRate(options, backend);
    }
    if (options.record) {
      recording_.emplace(backend, camera, audio, *options.record, [&loop] { loop.end(); });
    }
  }

  void finish() {
    if (recording_) {
      recording_->finish();
    }
  }

  bool isComplete() const { return !recording_ || recording_->isComplete(); }

 private:
  std::optional<LiveAudio> audio_;  // of the servers
  std::optional<RtspServer> rtsp_;
  std::optional<HttpServer> http_;
  std::optional<Recording> recording_;
};

void run(const EngineOptions& options, const GstVideoBackend& backend, AudioFeed& audio,
         LiveCamera::Annotate annotate) {
  MainLoop loop;
  LiveCamera camera(
      openCamera(backend, options.camera), [&loop] { loop.cameraChanged(); }, std::move(annotate));
  loop.watchSignals();
  Outputs outputs(options, backend, camera, audio, loop);
  if (options.record || !isQuiet(options)) {
    std::fprintf(stderr, "%s\n", camera.format().feed.c_str());
  }
  camera.start();
  const Service service;
  try {
    loop.run(camera, isQuiet(options));
  } catch (const StationError& error) {
    if (error.code() == ExitCode::Source || !camera.failure()) {  // not the recording's own
      outputs.finish();
    }
    throw;
  }
  outputs.finish();
  if (!outputs.isComplete()) {
    throw StationError(ExitCode::Incomplete, "the recording is incomplete");
  }
}

}  // namespace

void runEngine(const EngineOptions& options) {
  const GstVideoBackend& backend = openUsableBoard(options.board);
  const AudioOptions noAudio;
  refuseUnusedSettings(options, backend);
  if (options.record) {  // before anything is opened or written
    requireDescription(backend, Use::Record, options.record->recorder);
  }
  AudioFeed audio(options.record ? options.audio : noAudio);
  run(options, backend, audio, annotation(options));
}

}  // namespace station
