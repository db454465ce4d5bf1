#pragma once

#include <memory>
#include <string>

#include <gio/gio.h>

namespace station {

using TlsCertificate = std::shared_ptr<GTlsCertificate>;

// Of "CERT:KEY", the names of two PEM files. Throws StationError (Usage) if they are not usable or
// GLib has no TLS.
TlsCertificate certificateFromOption(const std::string& files);

// The server's side of TLS over `stream`; the caller owns it. A client may leave without a goodbye.
GIOStream* newTlsStream(GIOStream* stream, GTlsCertificate* certificate);

}  // namespace station
