#pragma once

#include <filesystem>

#include "base/Command.h"
#include "camera/CameraOptions.h"

namespace station {

// The command "grab": writes frames of a camera to image files. NV12 files are packed rows, luma
// then chroma.
class Grab : public Command {
 public:
  CLI::App& addOptions(CLI::App& program) override;
  void run() override;

 private:
  void grab();

  CameraOptions camera_;
  std::filesystem::path file_ = "picture.png";
  unsigned int count_ = 1;  // more than one number the files
};

}  // namespace station
