#pragma once

#include <memory>

#include <gst/allocators/gstdmabuf.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <lumora/FrameExport.h>
#include <unistd.h>

// The GStreamer calls that wrapping a frame takes, without a look at the handle and without any
// failure that is handled.

inline void freeReference(gpointer reference) {
  delete static_cast<std::shared_ptr<void>*>(reference);
}

inline GstBuffer* wrapDmaBufByHand(const std::shared_ptr<lumora::ExportedFrame>& frame) {
  static const GQuark kQuark = g_quark_from_static_string("by.hand");
  const lumora::FrameExportHandle& handle = frame->handle();
  GstBuffer* const buffer = gst_buffer_new();
  GstAllocator* const allocator = gst_dmabuf_allocator_new();
  gst_buffer_append_memory(buffer,
                           gst_dmabuf_allocator_alloc(allocator, dup(handle.fd), handle.size));
  gst_object_unref(allocator);
  gsize offsets[GST_VIDEO_MAX_PLANES] = {handle.planes[0].offset, handle.planes[1].offset};
  gint strides[GST_VIDEO_MAX_PLANES] = {static_cast<gint>(handle.planes[0].stride),
                                        static_cast<gint>(handle.planes[1].stride)};
  gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_FORMAT_NV12,
                                 handle.width, handle.height, 2, offsets, strides);
  gst_mini_object_set_qdata(GST_MINI_OBJECT_CAST(buffer), kQuark, new std::shared_ptr<void>(frame),
                            freeReference);
  return buffer;
}

inline GstBuffer* wrapSurfaceByHand(const std::shared_ptr<lumora::ExportedFrame>& frame) {
  lumora::StreamingFrameMemory memory;
  lumora::prepareStreamingFrameMemory(frame->handle(), memory);
  GstBuffer* const buffer = gst_buffer_new();
  gst_buffer_append_memory(
      buffer, gst_memory_new_wrapped(static_cast<GstMemoryFlags>(0), memory.data, memory.size, 0,
                                     memory.size, new std::shared_ptr<void>(frame), freeReference));
  return buffer;
}
