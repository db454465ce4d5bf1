#include "Vivid.h"

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

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
