#pragma once

#include <string>
#include <vector>

namespace station {

// Where an element comes from. Unknown texts are empty.
struct PluginOrigin {
  std::string plugin;
  std::string version;
  std::string file;
  std::string package;  // Debian's for the file, else the plugin's own text
};

// For each of these elements; empty for those that there are not.
std::vector<PluginOrigin> originsOf(const std::vector<std::string>& elements);

// What to install for a missing element. The board maker's own are those of no public package.
std::string providerOf(const std::string& element);
bool isBoardMakers(const std::string& element);
constexpr const char* kBoardMaker = "the board maker's GStreamer plugins";

}  // namespace station
