#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "base/Command.h"
#include "base/Options.h"
#include "serve/Credentials.h"
#include "serve/Tls.h"

namespace station {

struct ServeOptions {
  media_backend::GstVideoBackend::EncoderConfig encoder;
  std::string address = "127.0.0.1";  // numeric
  std::uint16_t port = 0;             // 0: any free one
  std::optional<Credentials> credentials;
  TlsCertificate certificate;  // null: no TLS
  unsigned int maxClients = 32;
  bool quiet = false;  // no log of clients and camera
  // HTTP only
  std::vector<std::string> hosts;  // further names and addresses that clients may ask for
  // RTSP only
  bool klv = false;  // a stream of metadata
  std::string path = "/camera";
  unsigned int mtu = 1400;  // bytes of an RTP packet

  // Whether clients connect by TLS.
  bool isEncrypted() const { return certificate != nullptr; }

  // What both servers take; then the options of one server, named with a prefix such as "rtsp-".
  void addTo(CLI::App& command);
  void addPortTo(CLI::App& command, const std::string& prefix);
  void addRtspTo(CLI::App& command, const std::string& prefix);
  void addHttpTo(CLI::App& command);
};

}  // namespace station
