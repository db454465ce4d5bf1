#include "ExactColours.h"

#include <gst/video/video.h>

namespace simulated_board {
namespace {

// False without a colorimetry.
bool readColorimetry(const GstCaps* caps, GstVideoColorimetry& colorimetry) {
  if (caps == nullptr || gst_caps_is_any(caps) || gst_caps_is_empty(caps)) {
    return false;
  }
  const char* const text = gst_structure_get_string(gst_caps_get_structure(caps, 0), "colorimetry");
  return text != nullptr && gst_video_colorimetry_from_string(&colorimetry, text);
}

// Whether downstream of `src` asks for another colorimetry than that of `input`.
bool changesColours(GstCaps* input, GstPad* src) {
  GstVideoInfo info;
  GstVideoColorimetry wanted;
  g_autoptr(GstCaps) output = gst_pad_peer_query_caps(src, nullptr);
  return gst_video_info_from_caps(&info, input) && GST_VIDEO_INFO_IS_YUV(&info) &&
         readColorimetry(output, wanted) &&
         (wanted.matrix != info.colorimetry.matrix || wanted.range != info.colorimetry.range);
}

GstPadProbeReturn chooseCaps(GstPad* /*sink*/, GstPadProbeInfo* info, gpointer element) {
  GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
    GstCaps* input = nullptr;
    gst_event_parse_caps(event, &input);
    g_autoptr(GstPad) src = gst_element_get_static_pad(GST_ELEMENT(element), "src");
    g_autoptr(GstCaps) between = changesColours(input, src)
                                     ? gst_caps_from_string("video/x-raw,format=ARGB64")
                                     : gst_caps_new_any();
    g_autoptr(GstElement) filter = gst_bin_get_by_name(GST_BIN(element), "between");
    g_object_set(filter, "caps", between, nullptr);
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

void convertColoursExactly(GstElement* element, GstElement* first) {
  g_autoptr(GstPad) sink = gst_element_get_static_pad(first, "sink");
  gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, chooseCaps, element, nullptr);
}

}  // namespace simulated_board
