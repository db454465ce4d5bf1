#include "PaintFault.h"

#include <cstring>
#include <string>

#include <gst/video/video.h>

#include "Guarded.h"
#include "SurfaceMemory.h"

namespace simulated_board {
namespace {

void fill(GstBuffer* pixels, GstVideoInfo info, bool black) {
  GstVideoFrame frame;
  if (!gst_video_frame_map(&frame, &info, pixels, GST_MAP_WRITE)) {
    return;
  }
  for (guint plane = 0; plane < GST_VIDEO_FRAME_N_PLANES(&frame); ++plane) {
    const auto rows = static_cast<std::size_t>(GST_VIDEO_FRAME_COMP_HEIGHT(&frame, plane));
    const auto stride = static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane));
    std::memset(GST_VIDEO_FRAME_PLANE_DATA(&frame, plane),
                !black       ? 0
                : plane == 0 ? 16
                             : 128,
                rows * stride);
  }
  gst_video_frame_unmap(&frame);
}

GstPadProbeReturn paint(GstPad* pad, GstPadProbeInfo* info, gpointer black) {
  GstBuffer* const frame = GST_PAD_PROBE_INFO_BUFFER(info);
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(pad);
  GstVideoInfo video;
  if (caps == nullptr || !gst_video_info_from_caps(&video, caps) ||
      (GST_VIDEO_INFO_FORMAT(&video) != GST_VIDEO_FORMAT_NV12 &&
       GST_VIDEO_INFO_FORMAT(&video) != GST_VIDEO_FORMAT_I420)) {
    return GST_PAD_PROBE_OK;
  }
  const bool isSurface =
      gst_caps_features_contains(gst_caps_get_features(caps, 0), "memory:NVMM") != FALSE;
  GstBuffer* painted = nullptr;
  if (isSurface) {
    std::string error;
    painted = makeSurfaceBuffer(video, error);
    g_autoptr(GstBuffer) pixels = pixelsOf(painted, video, error);
    fill(pixels, video, black != nullptr);
  } else {
    painted = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&video), nullptr);
    fill(painted, video, black != nullptr);
  }
  gst_buffer_copy_into(
      painted, frame,
      static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS), 0,
      static_cast<gsize>(-1));
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
