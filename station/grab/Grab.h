#pragma once

#include <filesystem>

#include "camera/Camera.h"

namespace station {

struct GrabOptions {
  CameraOptions camera;
  std::filesystem::path file;  // .png, .jpg or .nv12
  unsigned int count = 1;      // pictures; more than one number the files
};

// The command "grab": pictures of a camera as files. NV12 files are packed rows, luma then chroma.
// Throws StationError (Usage, Source, Output, Pipeline).
void grab(const GrabOptions& options);

}  // namespace station
