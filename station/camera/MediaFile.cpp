#include "camera/MediaFile.h"

#include <chrono>
#include <string>

#include "PictureLimit.h"
#include "camera/MediaFormat.h"

namespace station {

using std::chrono::steady_clock;
namespace {

using Picture = std::shared_ptr<lumora::LumoraPicture>;

constexpr GstClockTime kRounding = GST_MSECOND;  // of times in a file

}  // namespace

// Without a format, next() reports why the file cannot be decoded.
MediaFile::MediaFile(const CameraOptions& options) : Camera(options) {
  const MediaFormat file = readMediaFormat(options.source).value_or(MediaFormat{});
  quarters_ = file.quarters;
  const bool isLying = quarters_ % 2 != 0;
  const Size own = isLying ? Size{file.height, file.width} : Size{file.width, file.height};
  const Size frame = frameSize(own, {options.width, options.height});
  // A file can declare pixels of any shape.
  if (static_cast<std::int64_t>(frame.width) * frame.height > media_backend::kMaxPixels) {
    failSource("pictures of " + std::to_string(frame.width) + " x " + std::to_string(frame.height) +
               " are too large: " + options.source);
  }
  const bool fills = options.stretch || options.width == 0 || options.height == 0;
  const Size picture = fills ? frame : sizeWithin(frame, own);
  config_.path = options.source;
  config_.width = isLying ? picture.height : picture.width;
  config_.height = isLying ? picture.width : picture.height;
  config_.fps = file.rate.perSecond();
  config_.loop = options.loop;
  format_.width = frame.width;
  format_.height = frame.height;
  format_.rate = options.rate.value_or(
      options.fps != 0 ? FrameRate{static_cast<int>(options.fps), 1} : file.rate);
  format_.colorimetry = file.colorimetryAt(config_.width, config_.height);
  fileRate_ = file.rate;
  times_.emplace(options.source);
  if (times_->agreeWith(file.rate)) {
    times_.reset();
  } else {
    times_->next();  // of the first frame
  }
  if (picture != frame) {
    borders_.emplace(frame, file.fullRange);
  }
}

// At another rate than the file's, frames are repeated or left out.
Picture MediaFile::next() {
  const GstClockTime now = format_.rate.timeOf(given_++) + kRounding;
  for (; fileTime_ <= now; fileTime_ = nextFileTime()) {
    picture_ = capture();
    if (picture_ == nullptr) {
      return nullptr;
    }
  }
  return borders_ ? borders_->add(*picture_) : picture_;
}

// After the end, the time of the first frame of the next round.
GstClockTime MediaFile::nextFileTime() {
  ++captured_;
  if (!times_) {
    return fileRate_.timeOf(captured_);
  }
  if (const std::optional<GstClockTime> time = times_->next()) {
    return loopBegin_ + *time;
  }
  loopBegin_ = fileTime_ + fileRate_.timeOf(1);
  times_->restart();
  times_->next();
  return loopBegin_;
}

Picture MediaFile::capture() {
  const auto begin = steady_clock::now();
  std::string error;
  Picture picture = source_.capture(config_, kTimeout, error);
  if (picture == nullptr && !error.empty()) {
    fail(error);
  }
  // capture() returns at once at the end of the file, and otherwise only after kTimeout.
  const bool timedOut = steady_clock::now() - begin >= kTimeout;
  if (picture == nullptr && (config_.loop || timedOut)) {
    fail("");
  }
  return picture != nullptr && quarters_ != 0 ? turned(*picture, quarters_) : picture;
}

void MediaFile::fail(const std::string& error) const {
  // A file without video leaves its other tracks unlinked, or plays nothing.
  if (error.find("not-linked") != std::string::npos ||
      mediaType(config_.path).rfind("audio/", 0) == 0) {
    failSource("no video in it: " + config_.path);
  }
  if (error.empty()) {
    failSilentSource(config_.path);
  }
  failSource(error);
}

}  // namespace station
