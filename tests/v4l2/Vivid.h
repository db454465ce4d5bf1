#pragma once

#include <string>

// The first camera of the kernel's virtual video driver.
class Vivid {
 public:
  static bool isThere();

  static std::string device();  // such as /dev/video0; empty while it is unplugged

  static void unplug();
  static void plug();
};
