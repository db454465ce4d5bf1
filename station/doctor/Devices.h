#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace station {

// A device node that video takes: V4L2, a board maker's own, DMA heap or DRM render node. Unknown
// texts are empty.
struct Device {
  std::string node;
  std::string driver;
  std::string card;
  std::string bus;
  std::string kind;                  // "capture", "output", "memory-to-memory", "dma heap", ...
  std::vector<std::string> formats;  // V4L2: four characters each, of its capture queue
  std::vector<std::string> inputs;   // V4L2: of its output queue
  std::string error;                 // why this user cannot open it
  std::string remedy;                // command that would let them
};

// The machine's nodes, sorted.
std::vector<std::string> listDeviceNodes();

// The report's object of a device.
nlohmann::ordered_json toJson(const Device& device);

// Opens the node. A broken driver can block the calling thread indefinitely.
Device describeDevice(const std::string& node);

}  // namespace station
