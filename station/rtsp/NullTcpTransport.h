#pragma once

#include <gst/rtsp-server/rtsp-server.h>

namespace station {

// A drain is a viewer over TCP that takes everything and throws it away, so that no other one over
// TCP holds up those over UDP. It makes up for two things in the server library (1.22):
//
// - While no viewer over TCP is ready for more, the library lets the pipeline wait, and with it
//   everybody.
// - Its sending thread serves one of the two kinds of packets that wait for it, RTP or RTCP, and
//   then sleeps until something was sent over TCP or another packet comes. Without a viewer over
//   TCP nothing is ever sent; and what comes next is RTCP, as RTP is held up. Nor does a viewer
//   that goes wake it.
//
// While all viewers are over TCP, the drain is closed: a single one that is slow is better off with
// fewer pictures than with pictures that are ever later.
//
// Threads: any.

// Gives a pipeline a drain, which is closed. Call it when the pipeline is configured.
void addDrain(GstRTSPMedia* media);

// Opens a pipeline's drain if somebody watches over UDP, and closes it otherwise. Call it with a
// viewer of that pipeline, of which the caller has a reference, when one begins to play and every
// now and then.
void adjustDrain(GstRTSPSessionMedia* viewer);

}  // namespace station
