#include "serve/Tls.h"

#include "base/StationError.h"

namespace station {

TlsCertificate certificateFromOption(const std::string& files) {
  const std::size_t colon = files.find(':');
  if (colon == std::string::npos) {
    throw StationError(ExitCode::Usage, "--tls takes CERT:KEY, not \"" + files + "\"");
  }
  g_autoptr(GError) error = nullptr;
  GTlsCertificate* const certificate = g_tls_certificate_new_from_files(
      files.substr(0, colon).c_str(), files.substr(colon + 1).c_str(), &error);
  if (certificate == nullptr) {
    throw StationError(ExitCode::Usage, "cannot use " + files + " for TLS: " + error->message);
  }
  return {certificate, g_object_unref};
}

GIOStream* newTlsStream(GIOStream* stream, GTlsCertificate* certificate) {
  GIOStream* const tls = g_tls_server_connection_new(stream, certificate, nullptr);
  g_tls_connection_set_require_close_notify(G_TLS_CONNECTION(tls), FALSE);
  return tls;
}

}  // namespace station
