#pragma once

#include <memory>

#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>  // finds the picture library's handle

namespace media_backend {

// The two ways of GstVideoBackend::wrapFrame(), whose rules apply: a dma-buf memory with video
// meta, and the block from prepareStreamingFrameMemory().
GstBuffer* wrapDmaBuf(const lumora::FrameExportHandle& handle, std::shared_ptr<void> keepAlive);
GstBuffer* wrapStreamingMemory(const lumora::FrameExportHandle& handle,
                               std::shared_ptr<void> keepAlive);

}  // namespace media_backend
