#include "Av1encColourFix.h"

#include <string>
#include <vector>

#include <gst/video/video.h>

#include "Guarded.h"
#include "av1/Obu.h"
#include "gst/MappedBuffer.h"

namespace simulated_board {
namespace {

Av1Colours coloursOf(GstPad* pad) {
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(pad);
  GstVideoInfo info;
  if (caps == nullptr || !gst_video_info_from_caps(&info, caps)) {
    return {};
  }
  const GstVideoColorimetry& colorimetry = info.colorimetry;
  return {gst_video_color_primaries_to_iso(colorimetry.primaries),
          gst_video_transfer_function_to_iso(colorimetry.transfer),
          gst_video_color_matrix_to_iso(colorimetry.matrix),
          colorimetry.range == GST_VIDEO_COLOR_RANGE_0_255};
}

// Returns the temporal unit with these colours; empty if it has no sequence header.
std::string rewritten(std::string_view unit, const Av1Colours& colours) {
  std::vector<Obu> obus;
  std::string error;
  if (!splitTemporalUnit(unit, obus, error)) {
    return {};
  }
  std::size_t begin = 0;  // of the OBU
  for (const Obu& obu : obus) {
    const std::size_t end = obu.payloadBegin + obu.payloadSize;
    if (obu.type == Obu::SequenceHeader) {
      std::string result(unit.substr(0, begin));
      appendWithSize(obu, withColours(unit.substr(obu.payloadBegin, obu.payloadSize), colours),
                     result);
      return result.append(unit.substr(end));
    }
    begin = end;
  }
  return {};
}

GstPadProbeReturn rewriteUnit(GstPad* /*src*/, GstPadProbeInfo* info, gpointer sink) {
  GstBuffer* const buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT)) {
    return GST_PAD_PROBE_OK;
  }
  const std::string unit =
      rewritten(media_backend::MappedBuffer(buffer).bytes(), coloursOf(GST_PAD(sink)));
  if (!unit.empty()) {
    GstBuffer* const copy = gst_buffer_new_memdup(unit.data(), unit.size());
    gst_buffer_copy_into(copy, buffer, GST_BUFFER_COPY_METADATA, 0, G_MAXSIZE);
    gst_buffer_unref(buffer);
    GST_PAD_PROBE_INFO_DATA(info) = copy;
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

void writeAv1encColours(GstElement* encoder) {
  g_autoptr(GstPad) src = gst_element_get_static_pad(encoder, "src");
  gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_BUFFER, guarded<rewriteUnit>,
                    gst_element_get_static_pad(encoder, "sink"), gst_object_unref);
}

}  // namespace simulated_board
