#pragma once

#include <string>

#include <gst/rtsp-server/rtsp-server.h>

namespace station {

// A session pool whose ids begin with ownerOf() the client that created the session. The caller
// owns it.
GstRTSPSessionPool* newSessionPool(unsigned int maxSessions);

// Restarts the timeout of this owner's sessions.
//
// Threads: any.
void touchSessions(GstRTSPSessionPool* pool, const std::string& owner);

// Whether the client has a session that has not ended.
//
// Threads: any.
bool hasSession(GstRTSPClient* client);

}  // namespace station
