#include "rtsp/NullTcpTransport.h"

#include <mutex>
#include <string>

namespace station {
namespace {

constexpr const char* kTransportKey = "station-null-transport";

// Acknowledges at once, which wakes the stream's sending thread.
gboolean acknowledge(GstBuffer* /*packet*/, guint8 /*channel*/, gpointer transport) {
  gst_rtsp_stream_transport_message_sent(GST_RTSP_STREAM_TRANSPORT(transport));
  return TRUE;
}

gboolean acknowledgeList(GstBufferList* /*packets*/, guint8 channel, gpointer transport) {
  return acknowledge(nullptr, channel, transport);
}

GstRTSPStreamTransport* nullOf(GstRTSPStream* stream) {
  return static_cast<GstRTSPStreamTransport*>(g_object_get_data(G_OBJECT(stream), kTransportKey));
}

// A stream with a transport cannot be unprepared.
void onTargetState(GstRTSPMedia* media, int state, gpointer /*unused*/) {
  for (guint i = 0; state == GST_STATE_NULL && i < gst_rtsp_media_n_streams(media); ++i) {
    GstRTSPStream* const stream = gst_rtsp_media_get_stream(media, i);
    gst_rtsp_stream_remove_transport(stream, nullOf(stream));
  }
}

struct Transports {
  const GstRTSPStreamTransport* null;
  bool hasNull = false;
  bool hasUdp = false;
};

GstRTSPFilterResult note(GstRTSPStream* /*stream*/, GstRTSPStreamTransport* transport,
                         gpointer data) {
  auto* const transports = static_cast<Transports*>(data);
  const GstRTSPLowerTrans lower =
      gst_rtsp_stream_transport_get_transport(transport)->lower_transport;
  transports->hasNull = transports->hasNull || transport == transports->null;
  transports->hasUdp = transports->hasUdp || lower == GST_RTSP_LOWER_TRANS_UDP;
  return GST_RTSP_FILTER_KEEP;
}

void addNullTransport(GstRTSPStream* stream) {
  GstRTSPTransport* settings = nullptr;
  gst_rtsp_transport_new(&settings);
  settings->trans = GST_RTSP_TRANS_RTP;
  settings->lower_transport = GST_RTSP_LOWER_TRANS_TCP;
  settings->destination = g_strdup("");  // the stream compares it with RTCP's source address
  GstRTSPStreamTransport* const null = gst_rtsp_stream_transport_new(stream, settings);
  gst_rtsp_stream_transport_set_callbacks(null, acknowledge, acknowledge, null, nullptr);
  gst_rtsp_stream_transport_set_list_callbacks(null, acknowledgeList, acknowledgeList, null,
                                               nullptr);
  g_object_set_data(G_OBJECT(stream), kTransportKey, null);
}

// The library would attach a transport twice, for two threads that see none.
void updateNullTransport(GstRTSPStream* stream) {
  static std::mutex updating;
  const std::lock_guard lock(updating);
  GstRTSPStreamTransport* const null = nullOf(stream);
  Transports transports{null};
  // Returns a list of those that note() picks: none.
  g_list_free(gst_rtsp_stream_transport_filter(stream, note, &transports));
  if (transports.hasNull && !transports.hasUdp) {
    gst_rtsp_stream_remove_transport(stream, null);
  } else if (transports.hasUdp && !transports.hasNull) {
    gst_rtsp_stream_add_transport(stream, null);
    gst_rtsp_stream_transport_message_sent(null);  // the thread may be asleep already
  }
}

}  // namespace

void addNullTransports(GstRTSPMedia* media) {
  for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
    GstRTSPStream* const stream = gst_rtsp_media_get_stream(media, i);
    addNullTransport(stream);
    // A transport holds its stream, so the media owns it.
    g_object_set_data_full(G_OBJECT(media),
                           (std::string(kTransportKey) + std::to_string(i)).c_str(), nullOf(stream),
                           g_object_unref);
  }
  g_signal_connect(media, "target-state", G_CALLBACK(onTargetState), nullptr);
}

void updateNullTransports(GstRTSPMedia* media) {
  for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
    updateNullTransport(gst_rtsp_media_get_stream(media, i));
  }
}

}  // namespace station
