#include "PictureLimit.h"

#include <gst/allocators/gstdmabuf.h>

#include "gst/GstPtr.h"

namespace media_backend {
namespace {

// Whether `caps` declare pictures of more than kMaxPixels.
bool areHuge(const GstCaps* caps, int& width, int& height) {
  const GstStructure* const format = caps != nullptr ? gst_caps_get_structure(caps, 0) : nullptr;
  return format != nullptr && gst_structure_get_int(format, "width", &width) &&
         gst_structure_get_int(format, "height", &height) &&
         std::int64_t{width} * height > kMaxPixels;
}

void postTooLarge(GstElement* element, int width, int height) {
  g_autoptr(GError) error = g_error_new(GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT,
                                        "pictures of %d x %d are too large", width, height);
  gst_element_post_message(element, gst_message_new_error(GST_OBJECT(element), error, nullptr));
}

// Refuses before a decoder is plugged if the demuxer's caps give the size: some decoders allocate
// before they set their caps.
gboolean onContinue(GstElement* decodebin, GstPad* /*pad*/, GstCaps* caps, gpointer /*unused*/) {
  int width = 0;
  int height = 0;
  if (!areHuge(caps, width, height)) {
    return TRUE;
  }
  postTooLarge(decodebin, width, height);
  return FALSE;
}

// Drops the caps and answers the ALLOCATION query with an allocator that always fails: some
// decoders allocate even after their caps were refused, or before they are linked.
GstPadProbeReturn refuseHuge(GstPad* pad, GstPadProbeInfo* info, gpointer /*unused*/) {
  GstCaps* caps = nullptr;
  int width = 0;
  int height = 0;
  if ((GST_PAD_PROBE_INFO_TYPE(info) & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0) {
    GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
    if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
      gst_event_parse_caps(event, &caps);
    }
    if (!areHuge(caps, width, height)) {
      return GST_PAD_PROBE_OK;
    }
    const GstPtr<GstElement> decoder(gst_pad_get_parent_element(pad));
    postTooLarge(decoder.get(), width, height);
    return GST_PAD_PROBE_DROP;
  }
  GstQuery* const query = GST_PAD_PROBE_INFO_QUERY(info);
  if (GST_QUERY_TYPE(query) == GST_QUERY_ALLOCATION) {
    gst_query_parse_allocation(query, &caps, nullptr);
  }
  if (!areHuge(caps, width, height)) {
    return GST_PAD_PROBE_OK;
  }
  const GstPtr<GstAllocator> failing(gst_dmabuf_allocator_new());  // fails without a descriptor
  gst_query_add_allocation_param(query, failing.get(), nullptr);
  return GST_PAD_PROBE_HANDLED;
}

void onElement(GstBin* /*decodebin*/, GstElement* element, gpointer /*unused*/) {
  const GstPtr<GstPad> pad(gst_element_get_static_pad(element, "src"));
  if (pad != nullptr) {
    gst_pad_add_probe(pad.get(),
                      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM |
                                                   GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM),
                      refuseHuge, nullptr, nullptr);
  }
}

}  // namespace

void refuseHugePictures(GstElement* pipeline) {
  const GstPtr<GstElement> decodebin(gst_bin_get_by_name(GST_BIN(pipeline), "simu_file_decode"));
  if (decodebin != nullptr) {
    g_signal_connect(decodebin.get(), "autoplug-continue", G_CALLBACK(onContinue), nullptr);
    g_signal_connect(decodebin.get(), "element-added", G_CALLBACK(onElement), nullptr);
  }
}

}  // namespace media_backend
