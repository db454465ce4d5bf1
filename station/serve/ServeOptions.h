#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "audio/AudioOptions.h"
#include "base/Command.h"
#include "base/EncoderOptions.h"
#include "camera/CameraOptions.h"
#include "metadata/MetadataOptions.h"
#include "serve/Credentials.h"
#include "serve/Tls.h"

namespace station {

struct ServeOptions {
  CameraOptions camera;
  AudioOptions audio;
  media_backend::GstVideoBackend::EncoderConfig encoder;
  EncoderOptions encoderOptions;      // that set it
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
  MetadataOptions metadata;
  std::string path = "/camera";
  unsigned int mtu = 1400;  // bytes of an RTP packet

  // Whether clients connect by TLS.
  bool isEncrypted() const { return certificate != nullptr; }

  void addTo(CLI::App& command, const Codecs& codecs);
};

}  // namespace station
