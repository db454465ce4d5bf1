#include "Model.h"

#include <algorithm>
#include <locale>
#include <sstream>

#include "Av1encColourFix.h"
#include "Av1encTimestampFix.h"
#include "ExactColours.h"
#include "ParameterSets.h"
#include "TypeRegistration.h"

namespace simulated_board {
namespace {

// Caps

constexpr const char* kBoardNv12 = "video/x-raw(memory:NVMM),format=NV12";
constexpr const char* kRaw = "video/x-raw";
constexpr const char* kRawOrBoardNv12 = "video/x-raw;video/x-raw(memory:NVMM),format=NV12";
constexpr const char* kJpegInput =
    "video/x-raw(memory:NVMM),format=NV12;video/x-raw,format={NV12,I420}";
constexpr const char* kVpuInput = "video/x-raw,format={NV12,I420,YUY2,UYVY}";
constexpr const char* kH264 = "video/x-h264,stream-format=byte-stream,alignment=au";
constexpr const char* kH265 = "video/x-h265,stream-format=byte-stream,alignment=au";
constexpr const char* kAv1 = "video/x-av1,stream-format=obu-stream,alignment=tu";
constexpr const char* kJpeg = "image/jpeg";

constexpr const char* kEncoder = "Codec/Encoder/Video";
constexpr const char* kImageEncoder = "Codec/Encoder/Image";
constexpr const char* kConverter = "Filter/Converter/Video/Scaler";

// Properties

constexpr auto kFlags =
    static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);

GType enumOnce(const char* name, const GEnumValue* values) {
  const GType known = g_type_from_name(name);
  return known != 0 ? known : g_enum_register_static(name, values);
}

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

// An encoder's properties in terms of the software encoders.
struct EncoderSettings {
  static constexpr unsigned kNever = 1u << 30;
  static constexpr unsigned kMaxKbits = 102400;  // accepted by every encoder

  unsigned kbits = 0;        // per second; 0: constant quality
  bool constantRate = true;  // false: only on average
  unsigned keyDistance = 0;  // frames
  unsigned effort = 0;       // 0 fastest to 3
};

unsigned number(GObject* element, const char* property) {
  unsigned value = 0;
  if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), property) != nullptr) {
    g_object_get(element, property, &value, nullptr);
  }
  return value;
}

unsigned keyDistance(unsigned frames) {
  return frames == 0 ? EncoderSettings::kNever : std::min(frames, EncoderSettings::kNever);
}

EncoderSettings nvidiaSettings(GObject* element) {
  const unsigned bits = number(element, "bitrate");
  EncoderSettings settings;
  settings.kbits = std::clamp((bits == 0 ? 4000000 : bits) / 1000, 1u, EncoderSettings::kMaxKbits);
  settings.constantRate = number(element, "control-rate") == 1;
  settings.keyDistance = std::min(keyDistance(number(element, "iframeinterval")),
                                  keyDistance(number(element, "idrinterval")));
  settings.effort = std::max(number(element, "preset-level"), 1u) - 1;
  return settings;
}

EncoderSettings vpuSettings(GObject* element) {
  EncoderSettings settings;
  settings.kbits = std::min(number(element, "bitrate"), EncoderSettings::kMaxKbits);
  settings.keyDistance = keyDistance(number(element, "gop-size"));
  return settings;
}

// Size of the rate control buffer, in milliseconds at the target rate.
unsigned rateWindow(const EncoderSettings& settings) {
  return settings.constantRate ? 600 : 10000;
}

// Descriptions of the elements inside

// A bin description cannot end with bare caps, so the filter is written as an element.
std::string capsFilter(const char* caps) {
  return std::string(" ! capsfilter caps=\"") + caps + "\"";
}

std::string x264(const EncoderSettings& settings) {
  static const char* const presets[] = {"ultrafast", "superfast", "veryfast", "faster"};
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "videoconvert qos=false ! video/x-raw,format=NV12 ! x264enc name=codec tune=zerolatency"
       << " speed-preset=" << presets[settings.effort] << " key-int-max=" << settings.keyDistance;
  if (settings.kbits == 0) {
    text << " pass=qual quantizer=23";
  } else {
    text << " bitrate=" << settings.kbits << " vbv-buf-capacity=" << rateWindow(settings);
  }
  text << " option-string=\"scenecut=0\"" << capsFilter(kH264);
  return text.str();
}

std::string x265(const EncoderSettings& settings) {
  static const char* const presets[] = {"ultrafast", "ultrafast", "superfast", "superfast"};
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "videoconvert qos=false ! video/x-raw,format=I420 ! x265enc name=codec tune=zerolatency"
       << " speed-preset=" << presets[settings.effort] << " key-int-max=" << settings.keyDistance;
  if (settings.kbits == 0) {
    text << " option-string=\"crf=25";
  } else {
    text << " bitrate=" << settings.kbits << " option-string=\"vbv-maxrate=" << settings.kbits
         << ":vbv-bufsize=" << settings.kbits * rateWindow(settings) / 1000;
  }
  text << ":open-gop=0:repeat-headers=1\"" << capsFilter(kH265);
  return text.str();
}

std::string aom(const EncoderSettings& settings) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "videoconvert qos=false ! video/x-raw,format=I420 ! av1enc name=codec "
          "usage-profile=realtime"
       << " end-usage=" << (settings.constantRate ? "cbr" : "vbr")
       << " cpu-used=" << 10 - settings.effort << " keyframe-max-dist=" << settings.keyDistance
       << " target-bitrate=" << settings.kbits << " lag-in-frames=0 min-quantizer=2"
       << " max-quantizer=63 buf-sz=" << rateWindow(settings)
       << " buf-initial-sz=" << rateWindow(settings) / 2
       << " buf-optimal-sz=" << rateWindow(settings) / 2 << capsFilter(kAv1);
  return text.str();
}

std::string nvidiaH264(GObject* element) {
  return x264(nvidiaSettings(element));
}

std::string nvidiaH265(GObject* element) {
  return x265(nvidiaSettings(element));
}

std::string nvidiaAv1(GObject* element) {
  return aom(nvidiaSettings(element));
}

std::string vpuH264(GObject* element) {
  return x264(vpuSettings(element));
}

std::string vpuH265(GObject* element) {
  return x265(vpuSettings(element));
}

std::string jpeg(GObject* element) {
  return "videoconvert qos=false ! jpegenc quality=" + std::to_string(number(element, "quality"));
}

std::string converter(GObject*) {
  return "videoconvert name=codec qos=false ! capsfilter name=between ! videoconvert qos=false "
         "! videoscale qos=false";
}

// Adaptation of the encoder inside

void filterParameterSets(GObject* element, GstElement* codec, bool h265) {
  if (number(element, "insert-sps-pps") == 0) {
    g_autoptr(GstPad) pad = gst_element_get_static_pad(codec, "src");
    dropRepeatedParameterSets(pad, h265);
  }
}

void finishH264(GObject* element, GstElement* codec) {
  filterParameterSets(element, codec, false);
}

void finishH265(GObject* element, GstElement* codec) {
  filterParameterSets(element, codec, true);
}

void finishConverter(GObject* element, GstElement* codec) {
  convertColoursExactly(GST_ELEMENT(element), codec);
}

void finishAv1(GObject*, GstElement* codec) {
  fixAv1encTimestamps(codec);
  writeAv1encColours(codec);
}

// The models

Model nvidiaEncoder(const char* name, const char* title, const char* srcCaps,
                    std::string (*inside)(GObject*), void (*finish)(GObject*, GstElement*)) {
  Model model = {name, Model::Board::Nvidia, title, kEncoder, kBoardNv12, srcCaps, {}, inside};
  model.properties = {maxperfEnable, iframeInterval, idrInterval, controlRate,
                      bitrate,       presetLevel,    outputIoMode};
  model.bridgesSink = true;
  model.finish = finish;
  return model;
}

Model nvidiaH26xEncoder(const char* name, const char* title, bool h265) {
  Model model = h265 ? nvidiaEncoder(name, title, kH265, nvidiaH265, finishH265)
                     : nvidiaEncoder(name, title, kH264, nvidiaH264, finishH264);
  model.properties.push_back(insertSpsPps);
  return model;
}

Model nvidiaConverter(const char* name, const char* title) {
  Model model = {name,
                 Model::Board::Nvidia,
                 title,
                 kConverter,
                 kRawOrBoardNv12,
                 kRawOrBoardNv12,
                 {nvbufMemoryType},
                 converter};
  model.bridgesSink = true;
  model.bridgesSrc = true;
  model.finish = finishConverter;
  return model;
}

// An encoder of boards that the library does not support.
Model otherEncoder(const char* name) {
  return {name,
          Model::Board::Other,
          "Simulated encoder of another board",
          kEncoder,
          kVpuInput,
          kH264,
          {gopSize, vpuBitrate},
          vpuH264};
}

Model nvidiaJpegEncoder() {
  Model model = {"nvjpegenc",
                 Model::Board::Nvidia,
                 "Simulated NVIDIA JPEG encoder",
                 kImageEncoder,
                 kJpegInput,
                 kJpeg,
                 {quality},
                 jpeg};
  model.bridgesSink = true;
  return model;
}

}  // namespace

const std::vector<Model>& models() {
  static const std::vector<Model> table = {
      nvidiaConverter("nvvidconv", "Simulated NVIDIA video converter"),
      nvidiaConverter("nvvideoconvert", "Simulated NVIDIA video converter"),
      nvidiaH26xEncoder("nvv4l2h264enc", "Simulated NVIDIA H.264 encoder", false),
      nvidiaH26xEncoder("nvv4l2h265enc", "Simulated NVIDIA H.265 encoder", true),
      nvidiaEncoder("nvv4l2av1enc", "Simulated NVIDIA AV1 encoder", kAv1, nvidiaAv1, finishAv1),
      nvidiaJpegEncoder(),
      {"vpuenc_h264",
       Model::Board::Imx,
       "Simulated i.MX H.264 encoder",
       kEncoder,
       kVpuInput,
       kH264,
       {gopSize, vpuBitrate},
       vpuH264},
      {"vpuenc_hevc",
       Model::Board::Imx,
       "Simulated i.MX H.265 encoder",
       kEncoder,
       kVpuInput,
       kH265,
       {gopSize, vpuBitrate},
       vpuH265},
      {"imxvideoconvert_g2d",
       Model::Board::Imx,
       "Simulated i.MX video converter",
       kConverter,
       kRaw,
       kRaw,
       {},
       converter,
       false,
       false,
       finishConverter},
      otherEncoder("imxvpuenc_h264"),
      otherEncoder("omxh264enc"),
  };
  return table;
}

}  // namespace simulated_board
