#include "record/PacketTrack.h"

#include <string>

#include <gst/app/gstappsrc.h>

#include "base/Callback.h"
#include "base/Pipelines.h"

namespace station {
namespace {

constexpr std::size_t kMostWaiting = 4 << 20;  // bytes
constexpr std::size_t kPacketOverhead = 512;   // bytes, of a GstBuffer and its memory

std::size_t memoryOf(GstBuffer* packet) {
  return gst_buffer_get_size(packet) + kPacketOverhead;
}

bool isQueue(GstPad* pad) {
  const GstPtr<GstElement> element(gst_pad_get_parent_element(pad));
  return g_strcmp0(GST_OBJECT_NAME(gst_element_get_factory(element.get())), "queue") == 0;
}

// Of the first queue downstream of `element`.
GstPtr<GstPad> outputOfQueueBehind(GstElement* element) {
  GstPtr<GstPad> output(gst_element_get_static_pad(element, "src"));
  while (output != nullptr && !isQueue(output.get())) {
    const GstPtr<GstPad> input(gst_pad_get_peer(output.get()));
    const GstPtr<GstElement> next(input != nullptr ? gst_pad_get_parent_element(input.get())
                                                   : nullptr);
    output.reset(next != nullptr ? gst_element_get_static_pad(next.get(), "src") : nullptr);
  }
  if (output == nullptr) {
    throw StationError(ExitCode::Pipeline,
                       std::string("no queue behind ") + GST_OBJECT_NAME(element));
  }
  return output;
}

}  // namespace

PacketTrack::PacketTrack(GstElement* pipeline, const char* source)
    : source_(findElement(pipeline, source)),
      output_(outputOfQueueBehind(source_.get())),
      muxer_(output_.get()) {
  const GstPtr<GstElement> queue(gst_pad_get_parent_element(output_.get()));
  g_object_get(queue.get(), "max-size-buffers", &queueBuffers_, "max-size-time", &queueTime_,
               nullptr);
  gst_pad_add_probe(output_.get(), GST_PAD_PROBE_TYPE_BUFFER, guarded<onLeft>, this, nullptr);
}

void PacketTrack::push(GstBuffer* packet) {
  std::unique_ptr<GstBuffer, BufferUnref> owned(packet);
  const std::lock_guard lock(mutex_);
  ++pushed_;
  if (waitingBytes_ + memoryOf(packet) > kMostWaiting) {
    return;
  }
  waitingBytes_ += memoryOf(packet);
  waiting_.push_back(std::move(owned));
  feedLocked();
}

void PacketTrack::end() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  feedLocked();
}

void PacketTrack::endNow() {
  const std::lock_guard lock(mutex_);
  ended_ = true;
  waiting_.clear();
  feedLocked();
}

PacketTrack::Counts PacketTrack::counts() const {
  const std::lock_guard lock(mutex_);
  return {pushed_, muxer_.buffers()};
}

// Whether the queue is below half of its limits. Its max-size-time counts from the packet that left
// it last, gaps included.
bool PacketTrack::hasRoomLocked() const {
  return queued_.empty() ||
         (queued_.size() < queueBuffers_ / 2 && queued_.back() - left_ < queueTime_ / 2);
}

// The flow return is ignored: an appsrc that fails posts an error on the bus.
void PacketTrack::feedLocked() {
  while (!waiting_.empty() && hasRoomLocked()) {
    GstBuffer* const packet = waiting_.front().release();
    waiting_.pop_front();
    waitingBytes_ -= memoryOf(packet);
    queued_.push_back(GST_BUFFER_PTS(packet));
    gst_app_src_push_buffer(GST_APP_SRC(source_.get()), packet);
  }
  if (ended_ && waiting_.empty()) {
    gst_app_src_end_of_stream(GST_APP_SRC(source_.get()));
  }
}

GstPadProbeReturn PacketTrack::onLeft(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) {
  auto* const track = static_cast<PacketTrack*>(self);
  const std::lock_guard lock(track->mutex_);
  track->left_ = GST_BUFFER_PTS(GST_PAD_PROBE_INFO_BUFFER(info));
  while (!track->queued_.empty() && track->queued_.front() <= track->left_) {
    track->queued_.pop_front();
  }
  track->feedLocked();
  return GST_PAD_PROBE_OK;
}

}  // namespace station
