#include "rtsp/ReceiverReports.h"

#include <string>

#include <gst/net/gstnetaddressmeta.h>

#include "base/Callback.h"
#include "base/Handles.h"

namespace station {
namespace {

struct PacketSender {
  std::string host;
  int port;
};

GstRTSPFilterResult keepSession(GstRTSPStream* /*stream*/, GstRTSPStreamTransport* transport,
                                gpointer data) {
  const auto& sender = *static_cast<const PacketSender*>(data);
  const GstRTSPTransport* const settings = gst_rtsp_stream_transport_get_transport(transport);
  if (sender.host == settings->destination && sender.port >= settings->client_port.min &&
      sender.port <= settings->client_port.max) {
    gst_rtsp_stream_transport_keep_alive(transport);
  }
  return GST_RTSP_FILTER_KEEP;
}

GstPadProbeReturn onPacket(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer stream) {
  GstBuffer* const packet = gst_pad_probe_info_get_buffer(info);
  const GstNetAddressMeta* const meta =
      packet != nullptr ? gst_buffer_get_net_address_meta(packet) : nullptr;
  if (meta != nullptr && G_IS_INET_SOCKET_ADDRESS(meta->addr)) {
    GInetSocketAddress* const address = G_INET_SOCKET_ADDRESS(meta->addr);
    g_autofree gchar* host = g_inet_address_to_string(g_inet_socket_address_get_address(address));
    PacketSender sender = {host, g_inet_socket_address_get_port(address)};
    // Returns a list of those that keepSession() picks: none.
    g_list_free(gst_rtsp_stream_transport_filter(GST_RTSP_STREAM(stream), keepSession, &sender));
  }
  return GST_PAD_PROBE_DROP;
}

// By then its streams are linked to the pipeline's rtpbin.
void onMediaPrepared(GstRTSPMedia* media, gpointer /*unused*/) {
  const GstPtr<GstElement> element(gst_rtsp_media_get_element(media));
  const GstPtr<GstObject> pipeline(gst_object_get_parent(GST_OBJECT(element.get())));
  g_autoptr(GstIterator) bins =
      gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline.get()), "rtpbin");
  g_auto(GValue) bin = G_VALUE_INIT;
  if (gst_iterator_next(bins, &bin) != GST_ITERATOR_OK) {
    return;
  }
  constexpr auto kRtcpPackets =
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
  for (guint i = 0; i < gst_rtsp_media_n_streams(media); ++i) {
    g_autoptr(GstPad) pad = gst_element_get_static_pad(
        GST_ELEMENT(g_value_get_object(&bin)), ("recv_rtcp_sink_" + std::to_string(i)).c_str());
    if (pad != nullptr) {
      gst_pad_add_probe(pad, kRtcpPackets, guarded<onPacket>,
                        g_object_ref(gst_rtsp_media_get_stream(media, i)), g_object_unref);
    }
  }
}

}  // namespace

void dropReceiverReports(GstRTSPMedia* media) {
  g_signal_connect(media, "prepared", G_CALLBACK(guarded<onMediaPrepared>), nullptr);
}

}  // namespace station
