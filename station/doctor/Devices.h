#pragma once

#include <string>
#include <vector>

namespace station {

// A device node that video hardware is reached by: V4L2, DMA heap or DRM render node. Texts that
// cannot be found out are empty.
struct Device {
  std::string node;
  std::string driver;
  std::string card;
  std::string bus;
  std::string kind;                  // "capture", "output", "memory-to-memory", "dma heap", ...
  std::vector<std::string> formats;  // V4L2: four characters each, what it gives
  std::vector<std::string> inputs;   // V4L2 memory-to-memory and output: what it takes
  std::string error;                 // why this user cannot open it
  std::string remedy;                // command that would let them
};

// The machine's nodes, sorted.
std::vector<std::string> listDeviceNodes();

// Opens the node to look at it. A broken driver can hold the calling thread in here for ever.
Device describeDevice(const std::string& node);

}  // namespace station
