#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace station {

// Keeps RTCP that arrives over UDP away from the media's RTP session: a packet from anywhere with
// the server's SSRC would count as a collision, which ends the stream for all, and each new SSRC
// takes memory. A packet from a client's address keeps its session, as the library would. Call it
// in media-configure.
//
// Threads: any; packets on the library's threads.
void dropReceiverReports(GstRTSPMedia* media);

}  // namespace station
