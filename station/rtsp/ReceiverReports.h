#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace station {

// Drops RTCP over UDP before the media's RTP session: a packet from any address with the server's
// SSRC counts as a collision, which ends the stream for all clients, and each new SSRC takes
// memory. As in the library, a packet from a client's address keeps its session alive. Call it in
// media-configure.
//
// Threads: any; packets on the library's threads.
void dropReceiverReports(GstRTSPMedia* media);

}  // namespace station
