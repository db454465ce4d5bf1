#pragma once

#include <gio/gio.h>

namespace station {

// A client's connection for the HTTP library, without the requests that have a transfer coding. Of
// those whose coding it does not know, version 3.2 of the library keeps the target for ever, up to
// 100 KiB, before it has told us of the request; and no request that is answered has a body. They
// are refused as soon as that header field begins, and the connection ends.
//
// Returns a stream that keeps the connection open as long as it lives. The caller owns it.
// Threads: that of the main context.
GIOStream* filterHttpRequests(GSocketConnection* connection);

}  // namespace station
