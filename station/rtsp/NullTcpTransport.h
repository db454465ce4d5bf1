#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace station {

// Workaround for rtsp-stream.c of gst-rtsp-server, still needed with 1.28.8: with shared media, TCP
// backpressure of one client stalls UDP clients.
//
// - While no TCP transport is ready for more, the stream takes no packet from its appsinks, and the
//   whole pipeline waits.
// - send_func() serves one of RTP and RTCP, then sleeps until a TCP transport reports message-sent
//   or another packet comes. Without a TCP transport nothing reports, and a transport that is
//   removed does not wake it.
//
// A TCP transport that discards and acknowledges every packet keeps the stream running. It is
// attached only while a UDP client plays: TCP clients alone are better off with fewer frames than
// with a growing delay.
//
// Threads: any.

// Makes a null transport for each stream of a media, detached. Call it in media-configure.
void addNullTransports(GstRTSPMedia* media);

// Attaches the null transport of each stream that a UDP client plays, and detaches the others. Call
// it when a client begins to play; the caller holds a reference to `media`.
void updateNullTransports(GstRTSPMedia* media);

}  // namespace station
