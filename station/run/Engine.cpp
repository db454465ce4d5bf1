#include "run/Engine.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include "base/Board.h"
#include "base/Pipelines.h"
#include "base/StopSignal.h"
#include "camera/CallSource.h"
#include "camera/LiveCamera.h"
#include "camera/ReconnectingCamera.h"
#include "record/SegmentHook.h"
#include "run/Annotator.h"
#include "run/Outputs.h"
#include "run/Service.h"
#include "serve/MainLoop.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Options = std::shared_ptr<const EngineOptions>;

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

// Throws for options that cannot work, before anything is opened or written.
void check(const EngineOptions& options, const GstVideoBackend& backend) {
  refuseUnusedSettings(options, backend);
  if (options.record) {
    requireDescription(backend, Use::Record, options.record->recorder);
  }
}

LiveCamera::Annotate annotation(const EngineOptions& options) {
  if (!options.isKlvWanted()) {
    return nullptr;
  }
  return [annotator = std::make_shared<Annotator>(options.metadata)](
             lumora::LumoraPicture& picture, std::chrono::system_clock::time_point time) {
    return annotator->annotate(picture, time);
  };
}

void sayThatOldOptionsApply(const StationError& problem) {
  std::fprintf(stderr, "cannot carry out the new options, the old ones apply again: %s\n",
               problem.what());
}

bool isQuiet(const EngineOptions& options) {
  return (!options.rtsp || options.rtsp->quiet) && (!options.http || options.http->quiet);
}

class Engine {
 public:
  Engine(Options options, const ReadOptions& readAgain)
      : options_(std::move(options)),
        backend_(openUsableBoard(options_->board)),
        readAgain_(readAgain) {
    check(*options_, backend_);
  }

  // Runs a camera and its outputs. Returns whether to run again: with the options that were read,
  // or with those of before if they do not start.
  bool run() {
    try {
      return runCamera();
    } catch (const StationError& error) {
      if (before_ == nullptr) {
        throw;
      }
      sayThatOldOptionsApply(error);
      options_ = std::exchange(before_, nullptr);
      return true;
    }
  }

  bool isComplete() const { return isComplete_; }

 private:
  bool runCamera() {
    next_.reset();
    LiveCamera camera(
        openCamera(backend_, options_->camera), [this] { loop_.cameraChanged(); },
        annotation(*options_));
    watchSignals();
    Outputs outputs(options_, backend_, camera, loop_, hook_);
    outputs_ = &outputs;
    if (options_->record || !isQuiet(*options_)) {
      std::fprintf(stderr, "%s\n", camera.format().feed.c_str());
    }
    before_.reset();
    camera.start();
    startService();
    try {
      loop_.run(camera, isQuiet(*options_));
    } catch (const StationError& error) {
      if (error.code() == ExitCode::Source ||
          !camera.failure()) {  // not a failure of the recording itself
        outputs.finish();
      }
      throw;
    }
    outputs.finish();
    isComplete_ = isComplete_ && outputs.isComplete();
    if (next_ == nullptr || isStopRequested()) {
      return false;
    }
    before_ = std::exchange(options_, next_);
    return true;
  }

  void watchSignals() {
    if (!isWatching_) {
      isWatching_ = true;
      loop_.watchSignals(readAgain_ ? [this] { reload(); } : std::function<void()>());
    }
  }

  void startService() {
    if (service_) {
      service_->endReload();
    } else {
      service_.emplace();
    }
  }

  void reload() {
    service_->beginReload();
    Options options;
    try {
      options = readAgain_();
      if (options->texts.board != options_->texts.board) {
        throw StationError(ExitCode::Usage, "another --board takes a new start");
      }
      check(*options, backend_);
    } catch (const StationError& error) {
      std::fprintf(stderr, "the options stay as they were: %s\n", error.what());
      service_->endReload();
      return;
    }
    std::fprintf(stderr, "options read again\n");
    carryOut(options);
  }

  void carryOut(const Options& options) {
    if (options->texts.camera != options_->texts.camera ||
        options->isKlvWanted() != options_->isKlvWanted()) {
      next_ = options;
      loop_.end();
      return;
    }
    if (const std::optional<StationError> problem = outputs_->change(options)) {
      sayThatOldOptionsApply(*problem);
    } else {
      options_ = options;
    }
    service_->endReload();
  }

  Options options_;
  Options next_;    // null, unless the camera has to begin again
  Options before_;  // null, unless it begins again with others
  const GstVideoBackend& backend_;
  const ReadOptions readAgain_;
  MainLoop loop_;
  SegmentHook hook_;  // the end of the program waits for it, and nothing else
  bool isWatching_ = false;
  bool isComplete_ = true;
  Outputs* outputs_ = nullptr;  // of the running camera
  std::optional<Service> service_;
};

}  // namespace

void runEngine(Options options, const ReadOptions& readAgain) {
  Engine engine(std::move(options), readAgain);
  while (engine.run()) {
  }
  if (!engine.isComplete()) {
    throw StationError(ExitCode::Incomplete, "the recording is incomplete");
  }
}

}  // namespace station
