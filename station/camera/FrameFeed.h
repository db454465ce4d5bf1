#pragma once

#include <memory>
#include <string>
#include <vector>

#include <lumora/FramePool.h>
#include <media_backend/GstVideoBackend.h>

#include "base/StationError.h"
#include "camera/CameraOptions.h"
#include "camera/FrameFormat.h"

namespace station {

// How a camera's frames get to the board's elements, decided before anything starts: no frame goes
// into an element that does not take it.
//
// Threads: one at a time; exportPicture() any.
class FrameFeed {
 public:
  // Throws StationError (Usage) for options that the board's elements do not allow, and for
  // elements that do not take each other's frames.
  FrameFeed(const media_backend::GstVideoBackend& backend, const CameraOptions& options);

  // Whether the elements take frames without a copy, such as buffers of a camera's driver.
  bool isZeroCopy() const { return reasonToCopy_.empty(); }

  // Sets how frames of this format are wrapped, and allocates memory for a first one, unless the
  // camera has its own. Copies frames if there is no memory that the elements take; throws
  // StationError (Pipeline) if that is not allowed.
  void begin(FrameFormat& format, bool hasOwnMemory = false);

  // Throws StationError (Pipeline) if there is no memory.
  std::shared_ptr<lumora::ExportedFrame> exportPicture(const lumora::LumoraPicture& picture);

 private:
  void choosePlaces(bool isDmaBufNeeded, bool isSimulated);
  void copyBecause(const std::string& reason, ExitCode otherwise);

  const CameraOptions options_;
  std::vector<std::string> places_;  // of memory that the elements take, best first
  std::string reasonToCopy_;         // empty: frames are not copied
  std::unique_ptr<lumora::FramePool> pool_;
  std::string place_;  // of the first frame
};

}  // namespace station
