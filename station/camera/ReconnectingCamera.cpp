#include "camera/ReconnectingCamera.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "base/StationError.h"
#include "camera/CallSource.h"
#include "camera/NoSignal.h"

namespace station {
namespace {

using std::chrono::seconds;

constexpr seconds kDelays[] = {seconds{1}, seconds{2}, seconds{5}};

}  // namespace

ReconnectingCamera::ReconnectingCamera(const media_backend::GstVideoBackend& backend,
                                       const CameraOptions& options)
    : Camera(options), backend_(backend), camera_(openFor(backend, options)) {
  format_ = camera_->format();
}

ReconnectingCamera::Picture ReconnectingCamera::next() {
  if (camera_ == nullptr) {
    Picture picture = tryAgain();
    return picture != nullptr ? picture : still_;
  }
  try {
    Picture picture = callSource(options_.source, [this] { return camera_->next(); });
    if (picture != nullptr) {
      hasBegun_ = true;
      return picture;
    }
    failSource("it has ended: " + options_.source);
  } catch (const StationError& error) {
    if (!hasBegun_ || error.code() != ExitCode::Source) {
      throw;
    }
    lose(error.what());
  }
  return still_;
}

void ReconnectingCamera::lose(const std::string& reason) {
  camera_.reset();
  ++losses_;
  reason_ = reason;
  std::fprintf(stderr, "camera lost: %s; waiting for it to come back\n", reason.c_str());
  still_ = noSignalPicture(format_.width, format_.height, std::chrono::system_clock::now());
  FrameFormat format = format_;
  FrameFeed feed(backend_, options_);
  feed.begin(format);
  if (format.isPlain != format_.isPlain) {
    throw StationError(ExitCode::Pipeline, "no memory for the picture of a lost camera");
  }
  stillFrame_ = feed.exportPicture(*still_);
  attempts_ = 0;
  retryAt_ = Clock::now() + kDelays[0];
}

// Null while the source does not come back.
ReconnectingCamera::Picture ReconnectingCamera::tryAgain() {
  if (!attempt_.valid() && Clock::now() >= retryAt_) {
    attempt_ = std::async(std::launch::async, [this] { return open(); });
  }
  if (!attempt_.valid() || attempt_.wait_for(seconds{0}) != std::future_status::ready) {
    return nullptr;
  }
  Opened opened;
  try {
    opened = attempt_.get();
  } catch (const StationError& error) {
    if (error.code() != ExitCode::Source) {
      throw;
    }
    if (error.what() != reason_) {
      reason_ = error.what();
      std::fprintf(stderr, "camera still lost: %s\n", reason_.c_str());
    }
    attempts_ = std::min(attempts_ + 1, std::size(kDelays) - 1);
    retryAt_ = Clock::now() + kDelays[attempts_];
    return nullptr;
  }
  return accept(std::move(opened));
}

// In the format that the outputs have been set to.
ReconnectingCamera::Opened ReconnectingCamera::open() const {
  CameraOptions options = options_;
  options.width = format_.width;
  options.height = format_.height;
  options.rate = format_.rate;
  return callSource(options.source, [&] {
    Opened opened{openFor(backend_, options), nullptr};
    opened.second = opened.first->next();
    if (opened.second == nullptr) {
      failSource("it has ended: " + options.source);
    }
    return opened;
  });
}

ReconnectingCamera::Picture ReconnectingCamera::accept(Opened opened) {
  const FrameFormat& format = opened.first->format();
  if (format.colorimetry != format_.colorimetry || format.isPlain != format_.isPlain) {
    throw StationError(ExitCode::Source, "the camera came back with other pictures (" +
                                             format.colorimetry + ", " + format.feed +
                                             "), for which its outputs have to start again");
  }
  camera_ = std::move(opened.first);
  std::fprintf(stderr, "camera is back\n");
  return std::move(opened.second);
}

std::shared_ptr<lumora::ExportedFrame> ReconnectingCamera::exportPicture(
    const lumora::LumoraPicture& picture) {
  return &picture == still_.get() ? stillFrame_ : camera_->exportPicture(picture);
}

void ReconnectingCamera::suspend() {
  if (camera_ != nullptr) {
    camera_->suspend();
  }
}

}  // namespace station
