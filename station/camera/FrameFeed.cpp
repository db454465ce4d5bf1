#include "camera/FrameFeed.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/Board.h"

namespace station {
namespace {

using Kind = lumora::FrameMemoryKind;
using Platform = media_backend::GstVideoBackend::Platform;

// GStreamer's own for NV12, so that no meta is needed to read a frame.
constexpr lumora::FramePool::Layout kPlainLayout = {4, 2};

std::string optionFor(Kind kind) {
  return std::string("--memory ") + (kind == Kind::Heap      ? "heap"
                                     : kind == Kind::Udmabuf ? "udmabuf"
                                                             : "memfd");
}

void append(std::vector<std::string>& places, Kind kind) {
  const std::vector<std::string> more = lumora::frameMemoryPlaces(kind);
  places.insert(places.end(), more.begin(), more.end());
}

void reportFallback(const std::string& place, const std::string& reason, const std::string& next) {
  std::fprintf(stderr, "no frame memory from %s (%s): %s from here on\n", place.c_str(),
               reason.c_str(), next.c_str());
}

}  // namespace

FrameFeed::FrameFeed(const media_backend::GstVideoBackend& backend, const CameraOptions& options)
    : options_(options) {
  const Platform platform = platformOf(backend);
  const Simulation simulation = simulationOf(platform);
  const bool isNvidia = platform == Platform::Nvidia;
  if (isNvidia && simulation == Simulation::Some) {
    throw StationError(ExitCode::Usage,
                       "some of the board's elements are simulated and some are not: neither take "
                       "the other's frames (media-station doctor lists where they come from)");
  }
  const bool isSimulated = simulation == Simulation::All;
  choosePlaces(!isNvidia, isSimulated);
  if (options_.feed == Feed::Copy) {
    copyBecause("--feed copy asks for it", ExitCode::Usage);
  } else if (isNvidia && !isSimulated) {
    copyBecause("zero copy needs the host's picture library", ExitCode::Usage);
  } else if (places_.empty()) {
    copyBecause("this machine has neither a DMA heap nor udmabuf", ExitCode::Usage);
  }
}

void FrameFeed::choosePlaces(bool isDmaBufNeeded, bool isSimulated) {
  if (options_.memory) {
    const std::string option = optionFor(*options_.memory);
    if (*options_.memory == Kind::Memfd && !isSimulated) {
      throw StationError(ExitCode::Usage, option + ": only simulated elements take memory files");
    }
    append(places_, *options_.memory);
    if (places_.empty()) {
      throw StationError(ExitCode::Usage, option + ": this machine has none");
    }
    return;
  }
  if (isDmaBufNeeded) {
    append(places_, Kind::Heap);
    append(places_, Kind::Udmabuf);
  }
  if (isSimulated) {
    append(places_, Kind::Memfd);
  }
}

// Unless an option excludes a copy.
void FrameFeed::copyBecause(const std::string& reason, ExitCode otherwise) {
  if (options_.feed == Feed::ZeroCopy) {
    throw StationError(otherwise, "no zero copy: " + reason);
  }
  if (options_.memory) {
    throw StationError(otherwise,
                       optionFor(*options_.memory) + " does not go with a copying feed: " + reason);
  }
  reasonToCopy_ = reason;
}

void FrameFeed::begin(FrameFormat& format, bool hasOwnMemory) {
  if (isZeroCopy()) {
    pool_ =
        std::make_unique<lumora::FramePool>(places_, lumora::FramePool::Layout(), reportFallback);
    place_ = hasOwnMemory ? "the camera" : pool_->reserve(format.width, format.height);
    if (place_.empty()) {
      const std::string reason = places_.back() + ": " + std::strerror(errno);
      if (options_.memory) {
        throw StationError(ExitCode::Pipeline, optionFor(*options_.memory) + ": " + reason);
      }
      copyBecause(reason, ExitCode::Pipeline);
    }
  }
  format.isPlain = !isZeroCopy();
  format.feed = isZeroCopy() ? "zero copy: memory of " + place_ : "copying feed: " + reasonToCopy_;
  if (format.isPlain) {
    pool_ = std::make_unique<lumora::FramePool>(lumora::frameMemoryPlaces(Kind::Memfd),
                                                kPlainLayout, reportFallback);
  }
}

std::shared_ptr<lumora::ExportedFrame> FrameFeed::exportPicture(
    const lumora::LumoraPicture& picture) {
  auto frame = pool_->exportPicture(picture);
  if (frame == nullptr) {
    throw StationError(ExitCode::Pipeline,
                       std::string("no memory for a frame: ") + std::strerror(errno));
  }
  return frame;
}

}  // namespace station
