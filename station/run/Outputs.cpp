#include "run/Outputs.h"

#include <cstdio>
#include <string>

namespace station {
namespace {

using media_backend::GstVideoBackend;

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

// Over HTTP, the library sets no bit rate on some encoders.
void noteUnusedBitRate(const EngineOptions& options, const GstVideoBackend& backend) {
  if (options.encoder.isBitRateUnused(backend, Use::Http, {options.http->encoder})) {
    std::fprintf(stderr,
                 "note: --bitrate has no effect: over HTTP, this board's encoder of %s keeps its "
                 "own bit rate\n",
                 GstVideoBackend::codecName(options.http->encoder.codec));
  }
}

}  // namespace

Outputs::Outputs(const Options& options, const GstVideoBackend& backend, LiveCamera& camera,
                 MainLoop& loop, SegmentHook& hook)
    : backend_(backend),
      camera_(camera),
      loop_(loop),
      hook_(hook),
      options_(options),
      microphone_(options->audio.microphone) {
  start();
}

// Starts the outputs that are wanted and do not run.
void Outputs::start() {
  if (options_->record && !recording_) {
    recordedAudio_.emplace(options_->audio, microphone_);
  }
  if (options_->audio.isWanted() && (options_->rtsp || options_->http) && !audio_) {
    audio_.emplace(options_->audio, microphone_);
  }
  if (options_->rtsp && !rtsp_) {
    startRtsp();
  }
  if (options_->http && !http_) {
    startHttp();
  }
  if (options_->record && !recording_) {
    recording_.emplace(backend_, camera_, *recordedAudio_, hook_, *options_->record,
                       [this] { loop_.end(); });
  }
}

void Outputs::startRtsp() {
  const ServeOptions& options = *options_->rtsp;
  rtsp_.emplace(backend_, camera_, audio_ ? &*audio_ : nullptr, options);
  announce("rtsp", rtsp_->listener(), options.path, options, backend_, camera_.format());
}

void Outputs::startHttp() {
  const ServeOptions& options = *options_->http;
  http_.emplace(backend_, camera_, audio_ ? &*audio_ : nullptr, options,
                [this](const StationError& error) { loop_.fail(error); });
  announce("http", http_->listener(), "/", options, backend_, camera_.format());
  noteUnusedBitRate(*options_, backend_);
}

// Ends outputs before it starts any: one may take over the address of another.
std::optional<StationError> Outputs::change(const Options& options) {
  const Options before = options_;
  adopt(options);
  try {
    start();
  } catch (const StationError& error) {
    adopt(before);
    start();
    return error;
  }
  return std::nullopt;
}

// Ends the outputs whose options change.
void Outputs::adopt(const Options& options) {
  const EngineOptions::Texts& before = options_->texts;
  const EngineOptions::Texts& now = options->texts;
  if (before.record != now.record) {
    finish();
  }
  if (before.rtsp != now.rtsp) {
    rtsp_.reset();
  }
  if (before.http != now.http) {
    http_.reset();
  }
  options_ = options;
}

void Outputs::finish() {
  if (recording_) {
    recording_->finish();
    isComplete_ = isComplete_ && recording_->isComplete();
    recording_.reset();
  }
  recordedAudio_.reset();
}

}  // namespace station
