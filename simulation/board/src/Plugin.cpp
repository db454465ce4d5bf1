#include <cstdlib>

#include <simulated_board/SimulatedBoard.h>

#include "Guarded.h"

namespace {

constexpr const char* kSelectionVariable = "SIMULATED_BOARD";

// TRUE even for an invalid selection: GStreamer would blacklist the plugin and not load it again
// after the variable is corrected.
gboolean initPlugin(GstPlugin* plugin) {
  gst_plugin_add_dependency_simple(plugin, kSelectionVariable, nullptr, nullptr,
                                   GST_PLUGIN_DEPENDENCY_FLAG_NONE);
  const char* const selection = std::getenv(kSelectionVariable);
  std::string error;
  if (selection != nullptr && *selection != '\0' &&
      !simulated_board::registerElements(plugin, selection, error)) {
    g_printerr("%s=%s: %s\n", kSelectionVariable, selection, error.c_str());
  }
  return TRUE;
}

}  // namespace

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, BOARD_PLUGIN,
                  "Video elements of camera boards, simulated in software",
                  simulated_board::guarded<initPlugin>, BOARD_VERSION, GST_LICENSE_UNKNOWN, PACKAGE,
                  "-")
