#include "rtsp/Feeds.h"

#include <utility>

#include "base/Callback.h"

namespace station {
namespace {

constexpr const char* kFeedKey = "camera-feed";

GstFlowReturn orDropped(GstFlowReturn result) {
  return result == GST_FLOW_NOT_LINKED ? GST_FLOW_OK : result;
}

GstFlowReturn pushOrDrop(GstPad* pad, GstObject* parent, GstBuffer* packet) {
  return orDropped(gst_proxy_pad_chain_default(pad, parent, packet));
}

GstFlowReturn pushListOrDrop(GstPad* pad, GstObject* parent, GstBufferList* packets) {
  return orDropped(gst_proxy_pad_chain_list_default(pad, parent, packets));
}

// Makes streams that are not linked drop their packets. The library links a stream at its first
// SETUP; without this, its source gets NOT_LINKED and posts an error, which ends the media for all
// clients.
void dropUnlinkedStreams(GstRTSPMedia* media) {
  for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
    const GstPtr<GstPad> pad(gst_rtsp_stream_get_srcpad(gst_rtsp_media_get_stream(media, i)));
    const GstPtr<GstProxyPad> inside(gst_proxy_pad_get_internal(GST_PROXY_PAD(pad.get())));
    gst_pad_set_chain_function(GST_PAD(inside.get()), pushOrDrop);
    gst_pad_set_chain_list_function(GST_PAD(inside.get()), pushListOrDrop);
  }
}

}  // namespace

// Ends the feed of a media, whose data it is.
class RtspFeeds::Key {
 public:
  Key(std::shared_ptr<RtspFeeds> feeds, GstRTSPMedia* media)
      : feeds_(std::move(feeds)), media_(media) {}
  ~Key() {
    if (isEnding_) {
      --feeds_->ending_;
    }
    const std::lock_guard lock(feeds_->mutex_);
    feeds_->feeds_.erase(media_);
  }
  Key(const Key&) = delete;
  Key& operator=(const Key&) = delete;

  void noteEnding() {
    if (!isEnding_.exchange(true)) {
      ++feeds_->ending_;
    }
  }

 private:
  const std::shared_ptr<RtspFeeds> feeds_;
  GstRTSPMedia* const media_;
  std::atomic<bool> isEnding_{false};
};

RtspFeeds::Feed::Feed(RtspFeeds& feeds, GstElement* bin)
    : camera(feeds.backend_, feeds.camera_, bin, "pay0") {
  if (feeds.audio_ != nullptr) {
    audio.emplace(*feeds.audio_, bin);
  }
}

void RtspFeeds::add(GstRTSPMedia* media) {
  const GstPtr<GstElement> bin(gst_rtsp_media_get_element(media));
  {
    const std::lock_guard lock(mutex_);
    if (closed_) {
      return;
    }
    feeds_[media] = std::make_unique<Feed>(*this, bin.get());
  }
  dropUnlinkedStreams(media);
  g_object_set_data_full(G_OBJECT(media), kFeedKey, new Key(shared_from_this(), media),
                         [](gpointer key) { delete static_cast<Key*>(key); });
  g_signal_connect(media, "target-state", G_CALLBACK(onTargetState), nullptr);
  // After the factory's own handler, which forgets the media.
  g_signal_connect_after(media, "unprepared", G_CALLBACK(guarded<onUnprepared>), nullptr);
}

void RtspFeeds::onTargetState(GstRTSPMedia* media, int state, gpointer /*unused*/) {
  auto* const key = static_cast<Key*>(g_object_get_data(G_OBJECT(media), kFeedKey));
  if (state == GST_STATE_NULL && key != nullptr) {
    key->noteEnding();
  }
}

void RtspFeeds::requestKeyPicture(GstRTSPMedia* media) {
  const std::lock_guard lock(mutex_);
  const auto feed = feeds_.find(media);
  if (feed != feeds_.end()) {
    feed->second->camera.requestKeyPicture();
  }
}

void RtspFeeds::close() {
  const std::lock_guard lock(mutex_);
  closed_ = true;
  feeds_.clear();
}

void RtspFeeds::onUnprepared(GstRTSPMedia* media, gpointer /*unused*/) {
  g_object_set_data(G_OBJECT(media), kFeedKey, nullptr);
}

}  // namespace station
