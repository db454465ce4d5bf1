#include "camera/Playlists.h"

#include <gst/gst.h>

#include "base/StationError.h"

namespace station {
namespace {

// Demuxers that fetch what a file names: HLS, DASH and Smooth Streaming, SDP, edit lists.
bool fetches(GstElementFactory* demuxer) {
  const std::string classes = gst_element_factory_get_metadata(demuxer, GST_ELEMENT_METADATA_KLASS);
  for (const char* const name : {"Adaptive", "Network", "Editing"}) {
    if (classes.find(name) != std::string::npos) {
      return true;
    }
  }
  return false;
}

}  // namespace

void refusePlaylists(const std::string& path, const std::string& type) {
  g_autoptr(GstCaps) caps = type.empty() ? nullptr : gst_caps_new_empty_simple(type.c_str());
  bool isPlaylist = false;
  GList* const demuxers =
      gst_element_factory_list_get_elements(GST_ELEMENT_FACTORY_TYPE_DEMUXER, GST_RANK_NONE);
  for (const GList* item = demuxers; item != nullptr; item = item->next) {
    GstElementFactory* const demuxer = GST_ELEMENT_FACTORY(item->data);
    if (fetches(demuxer)) {
      // Never selected, even for a playlist inside of another format.
      gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(demuxer), GST_RANK_NONE);
      isPlaylist =
          isPlaylist || (caps != nullptr && gst_element_factory_can_sink_any_caps(demuxer, caps));
    }
  }
  gst_plugin_feature_list_free(demuxers);
  if (isPlaylist) {
    throw StationError(ExitCode::Source,
                       "source failed: a playlist reads the files and addresses that it names; "
                       "--allow-playlists plays it: " +
                           path);
  }
}

}  // namespace station
