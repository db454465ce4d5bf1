#pragma once

#include <gio/gio.h>

namespace station {

// A client's connection for the HTTP library, without the requests whose body has a transfer coding
// or a length that is no number. Of many of those, version 3.2 of the library keeps the target for
// ever, up to 100 KiB, before it has told us of the request. They are refused before their header
// is whole, and the connection ends; no request that is answered has a body.
//
// Returns a stream that keeps the connection open as long as it lives. The caller owns it.
// Threads: that of the main context.
GIOStream* filterHttpRequests(GSocketConnection* connection);

}  // namespace station
