#include "camera/MediaFormat.h"

#include <algorithm>

#include <gst/video/video.h>
#include <media_backend/GstNv12Sample.h>

#include "PictureLimit.h"
#include "camera/MediaProbe.h"

namespace station {
namespace {

using media_backend::SourcePipeline;
using Sample = MediaProbe::Sample;

constexpr int kMeasuredFrames = 25;

// As the library's media file source decodes, up to the converter. A decoder's caps say what
// neither the container nor the codec does: for GstDiscoverer, an untagged file has no colorimetry.
// A discoverer would also decode without the library's limit of the size.
std::string describeFile(const SourcePipeline::Config& /*config*/) {
  return "filesrc name=simu_file_src ! decodebin name=simu_file_decode ! queue max-size-buffers=2 "
         "! video/x-raw(ANY) ! appsink name=sink sync=false async=false max-buffers=2";
}

constexpr const char* kContainerColorimetry = "container-colorimetry";

// Moves the container's colorimetry from the decoder's caps to data of the appsink: parsers and
// decoders prefer it to the stream's, and qtdemux of GStreamer 1.22, not of 1.26, ignores its flag
// of a full range.
GstPadProbeReturn takeColorimetry(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer sink) {
  GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
  GstCaps* caps = nullptr;
  if (GST_EVENT_TYPE(event) == GST_EVENT_CAPS) {
    gst_event_parse_caps(event, &caps);
  }
  const GstStructure* const type = caps != nullptr ? gst_caps_get_structure(caps, 0) : nullptr;
  const char* const text =
      type != nullptr ? gst_structure_get_string(type, "colorimetry") : nullptr;
  if (text == nullptr || gst_structure_has_name(type, "video/x-raw")) {
    return GST_PAD_PROBE_OK;
  }
  g_object_set_data_full(G_OBJECT(sink), kContainerColorimetry, g_strdup(text), g_free);
  g_autoptr(GstCaps) bare = gst_caps_copy(caps);
  gst_structure_remove_field(gst_caps_get_structure(bare, 0), "colorimetry");
  GST_PAD_PROBE_INFO_DATA(info) = gst_event_new_caps(bare);
  gst_event_unref(event);
  return GST_PAD_PROBE_OK;
}

void onTrack(GstElement* /*demuxer*/, GstPad* pad, gpointer sink) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, takeColorimetry, sink, nullptr);
}

void onElement(GstBin* /*decodebin*/, GstElement* element, gpointer sink) {
  if (gst_element_factory_list_is_type(gst_element_get_factory(element),
                                       GST_ELEMENT_FACTORY_TYPE_DEMUXER) != FALSE) {
    g_signal_connect(element, "pad-added", G_CALLBACK(onTrack), sink);
  }
}

// The appsink outlives the streaming threads, which use it.
void prepareFile(GstElement* pipeline) {
  media_backend::refuseHugePictures(pipeline);
  g_autoptr(GstElement) decodebin = gst_bin_get_by_name(GST_BIN(pipeline), "simu_file_decode");
  g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  g_signal_connect(decodebin, "element-added", G_CALLBACK(onElement), sink);
}

constexpr SourcePipeline::Traits kFile =
    MediaProbe::traits("simu_file_src", "location", describeFile, prepareFile);

// As the library's V4L2 source: the driver chooses its format by the size and rate that are asked
// for.
std::string describeDevice(const SourcePipeline::Config& config) {
  const auto [numerator, denominator] = media_backend::gst_source::fps_fraction(config.fps);
  return "v4l2src name=simu_v4l_src io-mode=2 ! queue max-size-buffers=2 ! videoconvert "
         "! videoscale ! videorate drop-only=true ! video/x-raw,format=NV12,width=" +
         std::to_string(config.width) + ",height=" + std::to_string(config.height) +
         ",framerate=" + std::to_string(numerator) + "/" + std::to_string(denominator) +
         " ! appsink name=sink sync=false async=false max-buffers=1 drop=true";
}

constexpr SourcePipeline::Traits kDevice =
    MediaProbe::traits("simu_v4l_src", "device", describeDevice, nullptr);

bool isPlausible(const FrameRate& rate) {
  return rate.numerator > 0 && rate.denominator > 0 && rate.perSecond() >= 0.1 &&
         rate.perSecond() <= 240;
}

// The average rate after the frame `first`, for files that do not declare theirs.
FrameRate measureRate(MediaProbe& probe, const GstSample* first) {
  const auto timeOf = [](const GstSample* sample) {
    return GST_BUFFER_PTS(gst_sample_get_buffer(const_cast<GstSample*>(sample)));
  };
  const GstClockTime begin = timeOf(first);
  GstClockTime end = begin;
  guint64 frames = 0;
  for (Sample sample = probe.next(); sample != nullptr && frames < kMeasuredFrames;
       sample = probe.next()) {
    end = timeOf(sample.get());
    ++frames;
  }
  FrameRate rate;
  if (GST_CLOCK_TIME_IS_VALID(begin) && GST_CLOCK_TIME_IS_VALID(end) && end > begin) {
    gst_video_guess_framerate((end - begin) / frames, &rate.numerator, &rate.denominator);
  }
  return isPlausible(rate) ? rate : FrameRate();
}

GstVideoColorimetry nv12Default(unsigned int width, unsigned int height) {
  GstVideoInfo info;
  gst_video_info_set_format(&info, GST_VIDEO_FORMAT_NV12, width, height);
  return info.colorimetry;
}

// By the orientation that the file is tagged with; 0 for mirrored ones.
unsigned int quarterTurns(GstElement* sink) {
  const char* const orientations[] = {"rotate-0", "rotate-90", "rotate-180", "rotate-270"};
  g_autoptr(GstPad) pad = gst_element_get_static_pad(sink, "sink");
  guint i = 0;
  while (GstEvent* const event = gst_pad_get_sticky_event(pad, GST_EVENT_TAG, i++)) {
    GstTagList* tags = nullptr;
    gst_event_parse_tag(event, &tags);
    g_autofree gchar* text = nullptr;
    gst_tag_list_get_string(tags, GST_TAG_IMAGE_ORIENTATION, &text);
    gst_event_unref(event);
    for (unsigned int quarters = 0; quarters < 4; ++quarters) {
      if (g_strcmp0(text, orientations[quarters]) == 0) {
        return quarters;
      }
    }
  }
  return 0;
}

// False without a text that says anything.
bool parse(const char* text, GstVideoColorimetry& colorimetry) {
  return text != nullptr && gst_video_colorimetry_from_string(&colorimetry, text) != FALSE;
}

// Sets what videoconvert makes of the decoded pictures' colorimetry: it keeps a complete one, makes
// NV12 of the default from other formats, and does not convert what lacks a matrix.
void readColorimetry(const GstCaps* caps, const GstVideoInfo& info, const char* container,
                     MediaFormat& format) {
  const char* const text = gst_structure_get_string(gst_caps_get_structure(caps, 0), "colorimetry");
  GstVideoColorimetry decoded{};
  GstVideoColorimetry declared{};
  const bool isTagged = parse(text, decoded);
  if (!GST_VIDEO_INFO_IS_YUV(&info)) {
    if (isTagged) {
      format.colorimetry = nv12Default(static_cast<unsigned int>(info.width),
                                       static_cast<unsigned int>(info.height));
    }
    return;
  }
  format.fullRange = decoded.range == GST_VIDEO_COLOR_RANGE_0_255;
  if (decoded.matrix != GST_VIDEO_COLOR_MATRIX_UNKNOWN) {
    format.colorimetry = decoded;
  } else if (parse(container, declared) && declared.matrix != GST_VIDEO_COLOR_MATRIX_UNKNOWN) {
    format.colorimetry = declared;
  }
}

}  // namespace

std::string MediaFormat::colorimetryAt(unsigned int nv12Width, unsigned int nv12Height) const {
  GstVideoColorimetry result = colorimetry.value_or(nv12Default(nv12Width, nv12Height));
  result.range = fullRange ? GST_VIDEO_COLOR_RANGE_0_255 : GST_VIDEO_COLOR_RANGE_16_235;
  g_autofree gchar* text = gst_video_colorimetry_to_string(&result);
  return text != nullptr ? text : "";
}

std::string readDeviceColorimetry(const media_backend::V4l2FrameSourceConfig& config) {
  MediaProbe probe(kDevice, {config.device, config.width, config.height, config.fps, false});
  const Sample sample = probe.next();
  return sample != nullptr ? colorimetryOf(sample.get(), config.width, config.height) : "";
}

std::string colorimetryOf(GstSample* sample, unsigned int width, unsigned int height) {
  MediaFormat format;
  GstVideoInfo info;
  GstCaps* const caps = gst_sample_get_caps(sample);
  if (caps == nullptr || !gst_video_info_from_caps(&info, caps)) {
    return "";
  }
  readColorimetry(caps, info, nullptr, format);
  return format.colorimetryAt(width, height);
}

std::optional<MediaFormat> readMediaFormat(const std::string& path) {
  MediaProbe probe(kFile, {path, 0, 0, 0, false});
  const Sample first = probe.next();
  GstVideoInfo info;
  GstCaps* const caps = first != nullptr ? gst_sample_get_caps(first.get()) : nullptr;
  if (caps == nullptr || !gst_video_info_from_caps(&info, caps)) {
    return std::nullopt;
  }
  MediaFormat format;
  const guint64 width = gst_util_uint64_scale_round(static_cast<guint64>(info.width),
                                                    static_cast<guint64>(info.par_n),
                                                    static_cast<guint64>(info.par_d));
  format.width = static_cast<unsigned int>(std::clamp<guint64>(width, 1, G_MAXINT));
  format.height = static_cast<unsigned int>(info.height);
  format.rate = {info.fps_n, info.fps_d};
  if (!isPlausible(format.rate)) {
    format.rate = measureRate(probe, first.get());
  }
  format.quarters = quarterTurns(probe.sink());
  readColorimetry(
      caps, info,
      static_cast<const char*>(g_object_get_data(G_OBJECT(probe.sink()), kContainerColorimetry)),
      format);
  return format;
}

}  // namespace station
