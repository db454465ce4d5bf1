#include "Vivid.h"

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

const fs::path kDriver = "/sys/bus/platform/drivers/vivid";
const char* const kCamera = "vivid.0";

void tellDriver(const char* file) {
  std::ofstream out(kDriver / file);
  out << kCamera << std::flush;
  if (!out) {
    throw std::runtime_error("cannot write " + (kDriver / file).string());
  }
}

}  // namespace

bool Vivid::isThere() {
  return !device().empty();
}

std::string Vivid::device() {
  std::error_code unplugged;
  for (const auto& entry : fs::directory_iterator(kDriver / kCamera / "video4linux", unplugged)) {
    return "/dev/" + entry.path().filename().string();
  }
  return "";
}

void Vivid::unplug() {
  tellDriver("unbind");
}

void Vivid::plug() {
  tellDriver("bind");
}

void Vivid::setControl(const std::string& name, int value) {
  const int fd = open(device().c_str(), O_RDWR | O_CLOEXEC);
  v4l2_queryctrl query = {};
  query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
  while (ioctl(fd, VIDIOC_QUERYCTRL, &query) == 0 &&
         name != reinterpret_cast<const char*>(query.name)) {
    query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
  }
  v4l2_control control = {query.id, value};
  const int result = ioctl(fd, VIDIOC_S_CTRL, &control);
  const int cause = errno;
  close(fd);
  if (result != 0) {
    throw std::system_error(cause, std::generic_category(), name);
  }
}
