#include "doctor/PluginOrigin.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <system_error>

#include <gst/gst.h>

#include "doctor/Child.h"

namespace station {
namespace {

// The public package that provides an element, or null.
const char* publicProviderOf(const std::string& element) {
  static const std::map<std::string, const char*> kProviders = {
      {"av1parse", "the GStreamer plugin videoparsersbad (Debian: gstreamer1.0-plugins-bad)"},
      {"h264parse", "the GStreamer plugin videoparsersbad (Debian: gstreamer1.0-plugins-bad)"},
      {"h265parse", "the GStreamer plugin videoparsersbad (Debian: gstreamer1.0-plugins-bad)"},
      {"mpegtsmux", "the GStreamer plugin mpegtsmux (Debian: gstreamer1.0-plugins-bad)"},
      {"opusparse", "the GStreamer plugin opusparse (Debian: gstreamer1.0-plugins-bad)"},
      {"jpegenc", "the GStreamer plugin jpeg (Debian: gstreamer1.0-plugins-good)"},
      {"splitmuxsink", "the GStreamer plugin multifile (Debian: gstreamer1.0-plugins-good)"},
      {"rtph264pay", "the GStreamer plugin rtp (Debian: gstreamer1.0-plugins-good)"},
      {"rtph265pay", "the GStreamer plugin rtp (Debian: gstreamer1.0-plugins-good)"},
      {"rtpav1pay", "GStreamer's plugins in Rust (plugin rsrtp)"},
      {"appsrc", "the GStreamer plugin app (Debian: gstreamer1.0-plugins-base)"},
      {"appsink", "the GStreamer plugin app (Debian: gstreamer1.0-plugins-base)"},
  };
  const auto row = kProviders.find(element);
  return row != kProviders.end() ? row->second : nullptr;
}

PluginOrigin originOf(const std::string& element) {
  PluginOrigin origin;
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(element.c_str());
  if (factory == nullptr) {
    return origin;
  }
  g_autoptr(GstPlugin) plugin = gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(factory));
  if (plugin == nullptr) {
    origin.plugin = "registered by this program";
    return origin;
  }
  const char* const file = gst_plugin_get_filename(plugin);
  origin.plugin = gst_plugin_get_name(plugin);
  origin.version = gst_plugin_get_version(plugin);
  origin.file = file != nullptr ? file : "";
  origin.package = gst_plugin_get_package(plugin);
  return origin;
}

// Without symbolic links: /lib may be one.
std::string realName(const std::string& file) {
  std::error_code error;
  return std::filesystem::weakly_canonical(file, error);
}

// Debian packages by real name of a file; empty without dpkg.
std::map<std::string, std::string> packagesOf(const std::vector<PluginOrigin>& origins) {
  std::set<std::string> files;
  for (const PluginOrigin& origin : origins) {
    if (!origin.file.empty()) {
      files.insert({origin.file, realName(origin.file)});
    }
  }
  if (files.empty()) {
    return {};
  }
  std::vector<std::string> command = {"dpkg-query", "-S"};
  command.insert(command.end(), files.begin(), files.end());
  std::istringstream lines(runTimed(command, std::chrono::seconds(10)).output);
  std::map<std::string, std::string> packages;
  for (std::string line; std::getline(lines, line);) {  // PACKAGE:ARCHITECTURE: FILE
    const std::size_t file = line.find(": /");
    if (file != std::string::npos) {
      packages[realName(line.substr(file + 2))] = line.substr(0, line.find(':'));
    }
  }
  return packages;
}

}  // namespace

std::vector<PluginOrigin> originsOf(const std::vector<std::string>& elements) {
  std::vector<PluginOrigin> origins(elements.size());
  std::transform(elements.begin(), elements.end(), origins.begin(), originOf);
  const std::map<std::string, std::string> packages = packagesOf(origins);
  for (PluginOrigin& origin : origins) {
    const auto package = packages.find(realName(origin.file));
    if (package != packages.end()) {
      origin.package = package->second;
    }
  }
  return origins;
}

std::string providerOf(const std::string& element) {
  const char* const provider = publicProviderOf(element);
  return provider != nullptr ? provider : kBoardMaker;
}

bool isBoardMakers(const std::string& element) {
  return publicProviderOf(element) == nullptr;
}

}  // namespace station
