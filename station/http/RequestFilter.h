#pragma once

#include <gio/gio.h>

namespace station {

// Workaround for libsoup before 3.4.3: parse_headers() of soup-server-message-io-http1.c leaks the
// request's URI, up to 100 KiB, for a Transfer-Encoding or Content-Length that it rejects, before
// any signal. Answers such requests, which have no use here, with 501 before libsoup reads them.
// Later versions read chunked bodies, and refuse without a line in the log, so it stays active.
//
// Reads and writes through TLS if there is a certificate. Returns a stream that keeps the
// connection open while it lives; the caller owns it. Threads: the main context's.
GIOStream* filterHttpRequests(GSocketConnection* connection, GTlsCertificate* certificate);

}  // namespace station
