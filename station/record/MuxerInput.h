#pragma once

#include <atomic>
#include <cstdint>

#include <gst/gst.h>

namespace station {

// Counts the buffers of one stream that reach the segment sink's muxer, and so the files. Outlives
// the pipeline.
//
// Threads: any.
class MuxerInput {
 public:
  // `upstream` is the pad that is linked to the segment sink's.
  explicit MuxerInput(GstPad* upstream);
  ~MuxerInput() = default;
  MuxerInput(const MuxerInput&) = delete;
  MuxerInput& operator=(const MuxerInput&) = delete;

  std::uint64_t buffers() const { return buffers_; }
  std::uint64_t bytes() const { return bytes_; }

 private:
  static GstPadProbeReturn onBuffer(GstPad* pad, GstPadProbeInfo* info, gpointer self);

  std::atomic<std::uint64_t> buffers_{0};
  std::atomic<std::uint64_t> bytes_{0};
};

}  // namespace station
