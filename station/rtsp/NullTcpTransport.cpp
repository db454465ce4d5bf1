#include "rtsp/NullTcpTransport.h"

namespace station {
namespace {

constexpr const char* kKey = "station-drain";

// Tells the stream at once that the packet has gone, which wakes its sending thread.
gboolean take(GstBuffer* /*packet*/, guint8 /*channel*/, gpointer drain) {
  gst_rtsp_stream_transport_message_sent(GST_RTSP_STREAM_TRANSPORT(drain));
  return TRUE;
}

gboolean takeList(GstBufferList* /*packets*/, guint8 channel, gpointer drain) {
  return take(nullptr, channel, drain);
}

// The stream refuses to end while it has a transport.
void onTargetState(GstRTSPMedia* media, int state, gpointer drain) {
  if (state == GST_STATE_NULL) {
    gst_rtsp_stream_remove_transport(gst_rtsp_media_get_stream(media, 0),
                                     GST_RTSP_STREAM_TRANSPORT(drain));
  }
}

struct Viewers {
  const GstRTSPStreamTransport* drain;
  bool open = false;     // the drain
  bool overUdp = false;  // any
};

GstRTSPFilterResult note(GstRTSPStream* /*stream*/, GstRTSPStreamTransport* transport,
                         gpointer data) {
  auto* const viewers = static_cast<Viewers*>(data);
  const GstRTSPLowerTrans lower =
      gst_rtsp_stream_transport_get_transport(transport)->lower_transport;
  viewers->open = viewers->open || transport == viewers->drain;
  viewers->overUdp = viewers->overUdp || lower == GST_RTSP_LOWER_TRANS_UDP;
  return GST_RTSP_FILTER_KEEP;
}

}  // namespace

void addDrain(GstRTSPMedia* media) {
  GstRTSPTransport* settings = nullptr;
  gst_rtsp_transport_new(&settings);
  settings->trans = GST_RTSP_TRANS_RTP;
  settings->lower_transport = GST_RTSP_LOWER_TRANS_TCP;
  settings->destination = g_strdup("");  // the stream compares it with where RTCP comes from
  GstRTSPStreamTransport* const drain =
      gst_rtsp_stream_transport_new(gst_rtsp_media_get_stream(media, 0), settings);
  gst_rtsp_stream_transport_set_callbacks(drain, take, take, drain, nullptr);
  gst_rtsp_stream_transport_set_list_callbacks(drain, takeList, takeList, drain, nullptr);
  g_signal_connect(media, "target-state", G_CALLBACK(onTargetState), drain);
  g_object_set_data_full(G_OBJECT(media), kKey, drain, g_object_unref);
}

void adjustDrain(GstRTSPSessionMedia* viewer) {
  GstRTSPMedia* const media = gst_rtsp_session_media_get_media(viewer);
  GstRTSPStream* const stream = gst_rtsp_media_get_stream(media, 0);
  auto* const drain =
      static_cast<GstRTSPStreamTransport*>(g_object_get_data(G_OBJECT(media), kKey));
  Viewers viewers{drain};
  // Gives a list of those that note() picks, which is none.
  g_list_free(gst_rtsp_stream_transport_filter(stream, note, &viewers));
  if (viewers.open && !viewers.overUdp) {
    gst_rtsp_stream_remove_transport(stream, drain);
  } else if (viewers.overUdp && !viewers.open) {
    gst_rtsp_stream_add_transport(stream, drain);
    gst_rtsp_stream_transport_message_sent(drain);  // the thread may be asleep already
  }
}

}  // namespace station
