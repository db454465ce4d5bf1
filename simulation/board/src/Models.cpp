#include "Model.h"

#include <algorithm>

#include "Av1encColourFix.h"
#include "Av1encTimestampFix.h"
#include "ExactColours.h"
#include "ParameterSets.h"
#include "Properties.h"
#include "SoftwareEncoders.h"

namespace simulated_board {
namespace {

// Caps

constexpr const char* kBoardNv12 = "video/x-raw(memory:NVMM),format=NV12";
constexpr const char* kRaw = "video/x-raw";
constexpr const char* kRawOrBoardNv12 = "video/x-raw;video/x-raw(memory:NVMM),format=NV12";
constexpr const char* kJpegInput =
    "video/x-raw(memory:NVMM),format=NV12;video/x-raw,format={NV12,I420}";
constexpr const char* kVpuInput = "video/x-raw,format={NV12,I420,YUY2,UYVY}";
constexpr const char* kJpeg = "image/jpeg";

constexpr const char* kEncoder = "Codec/Encoder/Video";
constexpr const char* kImageEncoder = "Codec/Encoder/Image";
constexpr const char* kConverter = "Filter/Converter/Video/Scaler";

// Settings

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

// Descriptions of the elements inside

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
      otherEncoder("v4l2h264enc"),
      otherEncoder("imxvpuenc_h264"),
      otherEncoder("omxh264enc"),
  };
  return table;
}

}  // namespace simulated_board
