#include "Av1encTimestampFix.h"

namespace simulated_board {
namespace {

struct Shift {
  GstClockTime halfFrame = 0;                   // ns; 0 while the caps give no frame rate
  GstClockTime duration = GST_CLOCK_TIME_NONE;  // of the frame in the encoder

  static void destroy(gpointer shift) { delete static_cast<Shift*>(shift); }
};

GstBuffer* writableBuffer(GstPadProbeInfo* info) {
  GstBuffer* const buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
  GST_PAD_PROBE_INFO_DATA(info) = buffer;
  return buffer;
}

GstPadProbeReturn learnFrameRate(GstPad*, GstPadProbeInfo* info, gpointer data) {
  GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
  if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) {
    return GST_PAD_PROBE_OK;
  }
  GstCaps* caps = nullptr;
  gst_event_parse_caps(event, &caps);
  int numerator = 0;
  int denominator = 1;
  gst_structure_get_fraction(gst_caps_get_structure(caps, 0), "framerate", &numerator,
                             &denominator);
  static_cast<Shift*>(data)->halfFrame =
      numerator > 0 ? gst_util_uint64_scale_int(GST_SECOND / 2, denominator, numerator) : 0;
  return GST_PAD_PROBE_OK;
}

// Sets the duration to one frame, rounded up: a nanosecond less would be truncated to 0.
GstPadProbeReturn shiftInput(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto* const shift = static_cast<Shift*>(data);
  GstBuffer* const buffer = writableBuffer(info);
  if (GST_BUFFER_PTS_IS_VALID(buffer)) {
    GST_BUFFER_PTS(buffer) += shift->halfFrame;
  }
  shift->duration = GST_BUFFER_DURATION(buffer);
  GST_BUFFER_DURATION(buffer) =
      shift->halfFrame > 0 ? 2 * shift->halfFrame + 2 : GST_CLOCK_TIME_NONE;
  return GST_PAD_PROBE_OK;
}

GstPadProbeReturn shiftOutput(GstPad*, GstPadProbeInfo* info, gpointer data) {
  const auto* const shift = static_cast<const Shift*>(data);
  GstBuffer* const buffer = writableBuffer(info);
  if (GST_BUFFER_DTS_IS_VALID(buffer) && GST_BUFFER_DTS(buffer) == GST_BUFFER_PTS(buffer)) {
    GST_BUFFER_DTS(buffer) -= shift->halfFrame;
  }
  if (GST_BUFFER_PTS_IS_VALID(buffer)) {
    GST_BUFFER_PTS(buffer) -= shift->halfFrame;
  }
  GST_BUFFER_DURATION(buffer) = shift->duration;
  return GST_PAD_PROBE_OK;
}

}  // namespace

void fixAv1encTimestamps(GstElement* encoder) {
  auto* const shift = new Shift;
  g_object_set_data_full(G_OBJECT(encoder), "simulated-board-shift", shift, Shift::destroy);
  g_autoptr(GstPad) sink = gst_element_get_static_pad(encoder, "sink");
  g_autoptr(GstPad) src = gst_element_get_static_pad(encoder, "src");
  gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, learnFrameRate, shift, nullptr);
  gst_pad_add_probe(sink, GST_PAD_PROBE_TYPE_BUFFER, shiftInput, shift, nullptr);
  gst_pad_add_probe(src, GST_PAD_PROBE_TYPE_BUFFER, shiftOutput, shift, nullptr);
}

}  // namespace simulated_board
