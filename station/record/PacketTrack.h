#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>

#include <gst/gst.h>

#include "base/Handles.h"
#include "record/MuxerInput.h"

namespace station {

// A track of packets beside the video of a recording, from its appsrc to the muxer. Outlives the
// pipeline.
//
// The muxer takes no packet that is ahead of the video, and the queue between appsrc and muxer
// drops packets when it is full. So packets wait here until the queue has room, up to 4 MiB of
// them: minutes.
//
// Threads: any.
class PacketTrack {
 public:
  struct Counts {
    std::uint64_t pushed;
    std::uint64_t written;  // to the files
  };

  // `source` is an appsrc, followed by a queue in front of the segment sink.
  PacketTrack(GstElement* pipeline, const char* source);
  ~PacketTrack() = default;
  PacketTrack(const PacketTrack&) = delete;
  PacketTrack& operator=(const PacketTrack&) = delete;

  // Takes a packet with timestamp and duration.
  void push(GstBuffer* packet);
  // Sends EOS after the last packet that was pushed.
  void end();
  // Sends EOS at once; packets that wait are lost.
  void endNow();

  Counts counts() const;

 private:
  struct BufferUnref {
    void operator()(GstBuffer* buffer) const { gst_buffer_unref(buffer); }
  };

  bool hasRoomLocked() const;
  void feedLocked();
  static GstPadProbeReturn onLeft(GstPad* pad, GstPadProbeInfo* info, gpointer self);

  const GstPtr<GstElement> source_;
  const GstPtr<GstPad> output_;  // of the queue
  MuxerInput muxer_;
  unsigned int queueBuffers_ = 0;  // limits of the queue
  guint64 queueTime_ = 0;

  mutable std::mutex mutex_;
  std::deque<std::unique_ptr<GstBuffer, BufferUnref>> waiting_;
  std::size_t waitingBytes_ = 0;
  std::deque<GstClockTime> queued_;  // timestamps of the packets between source and queue's end
  GstClockTime left_ = 0;            // of the last packet that left the queue
  bool ended_ = false;
  std::uint64_t pushed_ = 0;
};

}  // namespace station
