#pragma once

#include <string>

#include <gst/rtsp-server/rtsp-server.h>

namespace station {

// A pool whose sessions have ids that begin with the owner of the connection that began them
// (ClientLink). The caller owns it.
GstRTSPSessionPool* newSessionPool(unsigned int maxSessions);

// Keeps the sessions of this owner.
//
// Threads: any.
void touchSessions(GstRTSPSessionPool* pool, const std::string& owner);

}  // namespace station
