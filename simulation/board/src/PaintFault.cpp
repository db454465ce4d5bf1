#include "PaintFault.h"

#include <gst/video/video.h>

#include "Guarded.h"

namespace simulated_board {
namespace {

GstPadProbeReturn paint(GstPad* pad, GstPadProbeInfo* info, gpointer black) {
  GstBuffer* const frame = GST_PAD_PROBE_INFO_BUFFER(info);
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(pad);
  GstVideoInfo video;
  if (caps == nullptr || !gst_video_info_from_caps(&video, caps) ||
      (GST_VIDEO_INFO_FORMAT(&video) != GST_VIDEO_FORMAT_NV12 &&
       GST_VIDEO_INFO_FORMAT(&video) != GST_VIDEO_FORMAT_I420)) {
    return GST_PAD_PROBE_OK;
  }
  const gsize luma = GST_VIDEO_INFO_PLANE_OFFSET(&video, 1);
  const gsize size = GST_VIDEO_INFO_SIZE(&video);
  GstBuffer* const painted = gst_buffer_new_allocate(nullptr, size, nullptr);
  gst_buffer_memset(painted, 0, black != nullptr ? 16 : 0, luma);
  gst_buffer_memset(painted, luma, black != nullptr ? 128 : 0, size - luma);
  gst_buffer_copy_into(painted, frame, GST_BUFFER_COPY_METADATA, 0, size);
  if (GstVideoMeta* const meta = gst_buffer_get_video_meta(painted)) {
    gst_buffer_remove_meta(painted, reinterpret_cast<GstMeta*>(meta));
  }
  GST_PAD_PROBE_INFO_DATA(info) = painted;
  gst_buffer_unref(frame);
  return GST_PAD_PROBE_OK;
}

}  // namespace

void paintOver(GstPad* pad, bool black) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, guarded<paint>, GINT_TO_POINTER(black),
                    nullptr);
}

}  // namespace simulated_board
