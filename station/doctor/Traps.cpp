#include "doctor/Traps.h"

#include <regex>

#include <gst/gst.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace station {
namespace {

constexpr OtherEncoder kOtherEncoders[] = {
    {"v4l2h264enc", "boards whose kernel has a V4L2 memory-to-memory encoder"},
    {"imxvpuenc_h264", "i.MX boards with the community's plugins instead of NXP's"},
    {"omxh264enc", "boards with OpenMAX, among them NVIDIA's of old releases"},
};

bool isNull(const std::string& node) {
  struct stat status = {};
  return stat(node.c_str(), &status) == 0 && S_ISCHR(status.st_mode) &&
         status.st_rdev == makedev(1, 3);
}

}  // namespace

std::string remedyFor(const std::string& error) {
  static const std::regex kMissing("Cannot identify device '([^']+)'");
  static const std::regex kNoDriver("device '([^']+)': It isn't a v4l2 driver");
  std::smatch match;
  if (std::regex_search(error, match, kMissing)) {
    return match.str(1) +
           " is missing: this module has no encoder (some only decode), or its "
           "driver is not loaded; compare the module's data sheet with dmesg";
  }
  if (!std::regex_search(error, match, kNoDriver)) {
    return "";
  }
  const std::string node = match.str(1);
  const std::string look = " (ldconfig -p | grep libv4l2, and unset LD_LIBRARY_PATH)";
  // Where there is an encoder, such a node is a placeholder for the board maker's libv4l2.
  return isNull(node) ? node +
                            " has the numbers of /dev/null: this module has no encoder, though the "
                            "elements are installed (see its data sheet), or another libv4l2 than "
                            "the board maker's was loaded" +
                            look
                      : node +
                            " is no V4L2 driver for the libv4l2 that was loaded: the board "
                            "maker's own, with its plugins, has to come first" +
                            look;
}

std::vector<OtherEncoder> findOtherEncoders() {
  std::vector<OtherEncoder> found;
  for (const OtherEncoder& encoder : kOtherEncoders) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(encoder.name);
    if (factory != nullptr) {
      found.push_back(encoder);
    }
  }
  return found;
}

}  // namespace station
