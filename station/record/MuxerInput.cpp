#include "record/MuxerInput.h"

#include "base/Callback.h"
#include "base/Handles.h"
#include "base/StationError.h"

namespace station {
namespace {

// The muxer's pad behind the segment sink's own: the sink has a queue for each pad.
GstPtr<GstPad> muxerPad(GstPad* outer) {
  const GstPtr<GstPad> inner(
      GST_IS_GHOST_PAD(outer) ? gst_ghost_pad_get_target(GST_GHOST_PAD(outer)) : nullptr);
  const GstPtr<GstElement> queue(inner != nullptr ? gst_pad_get_parent_element(inner.get())
                                                  : nullptr);
  const GstPtr<GstPad> output(queue != nullptr ? gst_element_get_static_pad(queue.get(), "src")
                                               : nullptr);
  return GstPtr<GstPad>(output != nullptr ? gst_pad_get_peer(output.get()) : nullptr);
}

}  // namespace

MuxerInput::MuxerInput(GstPad* upstream) {
  const GstPtr<GstPad> outer(gst_pad_get_peer(upstream));
  const GstPtr<GstPad> muxer = outer != nullptr ? muxerPad(outer.get()) : nullptr;
  if (muxer == nullptr) {
    throw StationError(ExitCode::Pipeline, "the segment sink has no muxer inside");
  }
  gst_pad_add_probe(muxer.get(), GST_PAD_PROBE_TYPE_BUFFER, guarded<onBuffer>, this, nullptr);
}

GstPadProbeReturn MuxerInput::onBuffer(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) {
  auto* const input = static_cast<MuxerInput*>(self);
  input->bytes_ += gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info));
  ++input->buffers_;
  return GST_PAD_PROBE_OK;
}

}  // namespace station
