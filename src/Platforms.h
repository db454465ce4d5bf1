#pragma once

#include <memory>
#include <string_view>

#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "Description.h"

namespace media_backend {

// H.264 and H.265, after the media type.
constexpr std::string_view kByteStreamAu = ",stream-format=byte-stream,alignment=au ";

// What differs between platforms, beside their profiles. Writers append to a description.
struct PlatformTraits {
  using EncoderConfig = GstVideoBackend::EncoderConfig;
  using Profile = GstVideoBackend::Profile;

  GstVideoBackend::Platform platform;
  bool (*probe)(Profile& profile);  // fills the profile if the board has the platform
  GstBuffer* (*wrap)(const lumora::FrameExportHandle& handle, std::shared_ptr<void> keepAlive);
  const char* memory;  // caps feature of frames; null for system memory

  // From raw video to the caps of the encoder's input.
  void (*writeInput)(Description& text, const Profile& profile);
  void (*writeUpload)(Description& text, const Profile& profile);

  // Properties of an H.264 or H.265 encoder; over HTTP also what follows it, up to its caps.
  void (*writeTransport)(Description& text, const EncoderConfig& config);
  void (*writeHttp)(Description& text, const EncoderConfig& config, const char* parser,
                    const char* caps);
  void (*writeRecorder)(Description& text, const EncoderConfig& config);
};

// Null for a platform that has none.
const PlatformTraits* traitsOf(GstVideoBackend::Platform platform);

// The profile of the board, by GStreamer's registry.
GstVideoBackend::Profile probePlatform();

}  // namespace media_backend
