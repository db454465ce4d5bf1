#pragma once

#include <media_backend/GstVideoBackend.h>

// Profiles of complete boards, as instance() finds them.

inline media_backend::GstVideoBackend::Profile nvidiaProfile() {
  media_backend::GstVideoBackend::Profile profile;
  profile.platform = media_backend::GstVideoBackend::Platform::Nvidia;
  profile.name = "nvidia-nvmm";
  profile.inputConverter = "nvvidconv";
  profile.uploadConverter = "nvvideoconvert";
  profile.h264Encoder = "nvv4l2h264enc";
  profile.h265Encoder = "nvv4l2h265enc";
  profile.jpegEncoder = "nvjpegenc";
  profile.hasH264 = profile.hasH265 = profile.hasAv1 = profile.hasJpeg = true;
  return profile;
}

inline media_backend::GstVideoBackend::Profile imxProfile() {
  media_backend::GstVideoBackend::Profile profile;
  profile.platform = media_backend::GstVideoBackend::Platform::ImxVpu;
  profile.name = "dmabuf-nv12-vpu";
  profile.inputConverter = "identity";
  profile.uploadConverter = "imxvideoconvert_g2d";
  profile.h264Encoder = "vpuenc_h264";
  profile.h265Encoder = "vpuenc_hevc";
  profile.jpegEncoder = "jpegenc";
  profile.hasH264 = profile.hasH265 = profile.hasJpeg = true;
  return profile;
}
