#pragma once

#include <memory>
#include <string>

#include <lumora/LumoraPicture.h>

#include <media_backend/Export.h>

namespace media_backend {

// Which image to load.
struct StillImageFrameSourceConfig {
  std::string path;  // of an image in any format that OpenCV reads
};

// Loads an image file as a simulated camera that shows one picture.
//
// Threads: any number at once; the object has no state.
class MEDIA_BACKEND_API StillImageFrameSource {
 public:
  // Reads and decodes the file on every call, and converts it to NV12: full-range BT.601
  // (GStreamer's colorimetry "1:4:0:0"), no scaling, dimensions rounded down to even. Alpha is
  // dropped, 16 bits become 8.
  //
  // Returns a picture that the caller owns; empty with a message in `error` if there is no such
  // file, it cannot be decoded or is too large for the memory, it has less than 2 rows or columns,
  // or the picture library makes no picture of it. `error` is cleared otherwise.
  // Throws std::filesystem::filesystem_error if the path's status cannot be read, std::bad_alloc if
  // memory runs out outside of the decoder.
  std::shared_ptr<lumora::LumoraPicture> load(const StillImageFrameSourceConfig& config,
                                              std::string& error) const;
};

}  // namespace media_backend
