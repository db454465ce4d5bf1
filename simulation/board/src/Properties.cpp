#include "Properties.h"

namespace simulated_board {
namespace {

constexpr auto kFlags =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

GType enumOnce(const char* name, const GEnumValue* values) {
  const GType known = g_type_from_name(name);
  return known != 0 ? known : g_enum_register_static(name, values);
}

}  // namespace

GParamSpec* maxperfEnable() {
  return g_param_spec_boolean("maxperf-enable", "Full clock",
                              "Run the encoder at its full clock "
                              "(no effect here)",
                              FALSE, kFlags);
}

GParamSpec* iframeInterval() {
  return g_param_spec_uint("iframeinterval", "I frame interval",
                           "Frames between I frames; every "
                           "I frame here is an IDR frame, so the smaller of this and idrinterval "
                           "that is not 0 counts (both 0: only the first frame)",
                           0, G_MAXUINT, 30, kFlags);
}

GParamSpec* idrInterval() {
  return g_param_spec_uint("idrinterval", "IDR frame interval",
                           "Frames between IDR frames; every "
                           "I frame here is an IDR frame, so the smaller of this and "
                           "iframeinterval that is not 0 counts (both 0: only the first frame)",
                           0, G_MAXUINT, 256, kFlags);
}

GParamSpec* controlRate() {
  static const GEnumValue values[] = {{0, "variable_bitrate", "variable_bitrate"},
                                      {1, "constant_bitrate", "constant_bitrate"},
                                      {0, nullptr, nullptr}};
  return g_param_spec_enum("control-rate", "Rate control", "Kind of rate control",
                           enumOnce("SimulatedBoardControlRate", values), 1, kFlags);
}

GParamSpec* bitrate() {
  return g_param_spec_uint("bitrate", "Bit rate", "Bits per second (0: 4000000)", 0, G_MAXUINT,
                           4000000, kFlags);
}

GParamSpec* presetLevel() {
  static const GEnumValue values[] = {{0, "DisablePreset", "As UltraFastPreset"},
                                      {1, "UltraFastPreset", "UltraFastPreset"},
                                      {2, "FastPreset", "FastPreset"},
                                      {3, "MediumPreset", "MediumPreset"},
                                      {4, "SlowPreset", "SlowPreset"},
                                      {0, nullptr, nullptr}};
  return g_param_spec_enum("preset-level", "Preset", "Speed against quality",
                           enumOnce("SimulatedBoardPresetLevel", values), 1, kFlags);
}

GParamSpec* insertSpsPps() {
  return g_param_spec_boolean("insert-sps-pps", "Repeat parameter sets",
                              "Send the parameter sets "
                              "with every IDR frame and not just with the first",
                              FALSE, kFlags);
}

GParamSpec* outputIoMode() {
  static const GEnumValue values[] = {
      {0, "auto", "auto"},       {1, "rw", "rw"},         {2, "mmap", "mmap"},
      {3, "userptr", "userptr"}, {4, "dmabuf", "dmabuf"}, {5, "dmabuf-import", "dmabuf-import"},
      {0, nullptr, nullptr}};
  return g_param_spec_enum("output-io-mode", "Input memory mode",
                           "How the driver takes raw frames "
                           "(no effect here)",
                           enumOnce("SimulatedBoardIoMode", values), 0, kFlags);
}

GParamSpec* nvbufMemoryType() {
  static const GEnumValue values[] = {{0, "nvbuf-mem-default", "default"},
                                      {1, "nvbuf-mem-cuda-pinned", "cuda-pinned"},
                                      {2, "nvbuf-mem-cuda-device", "cuda-device"},
                                      {3, "nvbuf-mem-cuda-unified", "cuda-unified"},
                                      {4, "nvbuf-mem-surface-array", "surface-array"},
                                      {0, nullptr, nullptr}};
  return g_param_spec_enum("nvbuf-memory-type", "Memory type",
                           "Kind of board memory that buffers "
                           "are made in (no effect here)",
                           enumOnce("SimulatedBoardMemoryType", values), 0, kFlags);
}

GParamSpec* quality() {
  return g_param_spec_int("quality", "Quality", "JPEG quality", 0, 100, 85, kFlags);
}

GParamSpec* gopSize() {
  return g_param_spec_uint("gop-size", "GOP size",
                           "Frames from one IDR frame to the next (0: only "
                           "the first frame)",
                           0, 32767, 30, kFlags);
}

GParamSpec* vpuBitrate() {
  return g_param_spec_uint("bitrate", "Bit rate", "Kilobits per second (0: constant quality)", 0,
                           G_MAXINT, 0, kFlags);
}

}  // namespace simulated_board
