#include "doctor/Devices.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <system_error>

#include <fcntl.h>
#include <glib.h>
#include <grp.h>
#include <linux/videodev2.h>
#include <simulated_board/Faults.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include "base/Handles.h"

namespace station {
namespace {

namespace fs = std::filesystem;

struct NodeKind {
  const char* folder;
  const char* prefix;
  const char* kind;  // null: see askV4l2()
};

constexpr NodeKind kNodeKinds[] = {
    {"/dev", "video", nullptr},
    {"/dev", "udmabuf", "dma-bufs of memory files"},
    {"/dev", "v4l2-nv", "NVIDIA codec"},
    {"/dev", "nvhost-msenc", "NVIDIA encoder"},
    {"/dev", "nvmap", "NVIDIA memory"},
    {"/dev", "mxc_", "i.MX codec"},
    {"/dev", "galcore", "i.MX converter"},
    {"/dev/dma_heap", "", "dma heap"},
    {"/dev/dri", "renderD", "drm render"},
};

constexpr const char* kRootOnly = "/dev/dma_heap/root-only";  // simulated

std::string groupOf(const struct stat& status) {
  const struct group* const group = getgrgid(status.st_gid);
  return group != nullptr ? group->gr_name : std::to_string(status.st_gid);
}

void explainRefusal(Device& device, int number) {
  device.error = std::strerror(number);
  struct stat status = {};
  const bool isKnown = device.node == kRootOnly || stat(device.node.c_str(), &status) == 0;
  if (number != EACCES || !isKnown) {
    return;
  }
  const std::string group = groupOf(status);
  device.error += "; it takes the group " + group;
  device.remedy =
      group != "root"
          ? "sudo usermod -aG " + group + " " + g_get_user_name() +
                "  (and log in again), to open " + device.node
          : "only root may open " + device.node + ": a udev rule gives it to a group, KERNEL==\"" +
                fs::path(device.node).filename().string() + "\", GROUP=\"video\", MODE=\"0660\"";
}

std::string fourcc(std::uint32_t code) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const char c = static_cast<char>(code >> (8 * i) & 0x7f);
    text += g_ascii_isprint(c) ? c : '?';
  }
  text.erase(text.find_last_not_of(' ') + 1);
  return (code & 1U << 31) != 0 ? text + "-BE" : text;  // big endian, as v4l2_fourcc_be() marks it
}

std::vector<std::string> formatsOf(int fd, std::uint32_t queue) {
  std::vector<std::string> formats;
  v4l2_fmtdesc description = {};
  description.type = queue;
  for (; ioctl(fd, VIDIOC_ENUM_FMT, &description) == 0; ++description.index) {
    formats.push_back(fourcc(description.pixelformat));
  }
  return formats;
}

// By the formats of its two queues.
std::string transcoderKind(const Device& device) {
  static constexpr std::array<const char*, 7> kCoded = {"H264", "HEVC", "VP80", "VP90",
                                                        "MJPG", "JPEG", "AV01"};
  const auto isCoded = [](const std::string& format) {
    return std::find(kCoded.begin(), kCoded.end(), format) != kCoded.end();
  };
  if (std::any_of(device.formats.begin(), device.formats.end(), isCoded)) {
    return "memory-to-memory encoder";
  }
  return std::any_of(device.inputs.begin(), device.inputs.end(), isCoded)
             ? "memory-to-memory decoder"
             : "memory-to-memory";
}

void askV4l2(Device& device, int fd) {
  v4l2_capability capability = {};
  if (ioctl(fd, VIDIOC_QUERYCAP, &capability) != 0) {
    device.kind = "no V4L2 device";
    return;
  }
  device.driver = reinterpret_cast<const char*>(capability.driver);
  device.card = reinterpret_cast<const char*>(capability.card);
  device.bus = reinterpret_cast<const char*>(capability.bus_info);
  const std::uint32_t can = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                                ? capability.device_caps
                                : capability.capabilities;
  const bool planes = (can & (V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_OUTPUT_MPLANE |
                              V4L2_CAP_VIDEO_M2M_MPLANE)) != 0;
  device.formats =
      formatsOf(fd, planes ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE);
  device.inputs =
      formatsOf(fd, planes ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE : V4L2_BUF_TYPE_VIDEO_OUTPUT);
  if ((can & (V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE)) != 0) {
    device.kind = transcoderKind(device);
  } else if ((can & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0) {
    device.kind = "capture";
  } else if ((can & (V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE)) != 0) {
    device.kind = "output";
  } else {
    device.kind = (can & V4L2_CAP_META_CAPTURE) != 0 ? "metadata" : "other";
  }
}

std::string drmDriver(const fs::path& node) {
  std::error_code error;
  const fs::path driver =
      fs::read_symlink("/sys/class/drm" / node.filename() / "device/driver", error);
  return driver.filename();
}

NodeKind kindOf(const fs::path& node) {
  return *std::find_if(std::begin(kNodeKinds), std::end(kNodeKinds) - 1,
                       [&node](const NodeKind& kind) {
                         return node.parent_path() == kind.folder &&
                                node.filename().string().rfind(kind.prefix, 0) == 0;
                       });
}

}  // namespace

std::vector<std::string> listDeviceNodes() {
  std::vector<std::string> nodes;
  for (const NodeKind& kind : kNodeKinds) {
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(kind.folder, error)) {
      if (entry.path().filename().string().rfind(kind.prefix, 0) == 0) {
        nodes.push_back(entry.path());
      }
    }
  }
  if (simulated_board::hasFault("board", "root-only")) {
    nodes.emplace_back(kRootOnly);
  }
  std::sort(nodes.begin(), nodes.end());
  return nodes;
}

nlohmann::ordered_json toJson(const Device& device) {
  return {{"node", device.node},     {"kind", device.kind},   {"driver", device.driver},
          {"card", device.card},     {"bus", device.bus},     {"takes", device.inputs},
          {"gives", device.formats}, {"error", device.error}, {"remedy", device.remedy}};
}

Device describeDevice(const std::string& node) {
  Device device;
  device.node = node;
  const NodeKind kind = kindOf(node);
  device.kind = kind.kind != nullptr ? kind.kind : "";
  if (device.kind == "drm render") {
    device.driver = drmDriver(node);
  }
  if (node == kRootOnly && simulated_board::hasFault("board", "root-only")) {
    explainRefusal(device, EACCES);
    return device;
  }
  const UniqueFd descriptor(open(node.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
  if (descriptor.get() < 0) {
    explainRefusal(device, errno);
  } else if (kind.kind == nullptr) {
    askV4l2(device, descriptor.get());
  }
  return device;
}

}  // namespace station
