#include "ReplayEncoder.h"

#include <atomic>
#include <cstdlib>
#include <string>
#include <vector>

#include <gst/video/video.h>

#include "Debug.h"
#include "Guarded.h"

namespace simulated_board {
namespace {

// Two IDR pictures in a row have to differ, so a group has at least two pictures.
constexpr std::size_t kShortest = 2;
constexpr std::size_t kLongest = 300;

struct Replay {
  explicit Replay(GstElement* encoder) : output(gst_element_get_static_pad(encoder, "src")) {}
  ~Replay() {
    clear();
    gst_object_unref(output);
  }
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;

  void clear() {
    for (GstBuffer* const unit : units) {
      gst_buffer_unref(unit);
    }
    units.clear();
    length = 0;
  }

  static void destroy(gpointer replay) { delete static_cast<Replay*>(replay); }

  GstPad* const output;
  std::vector<GstBuffer*> units;
  std::size_t length = 0;  // of the group; 0 until it is complete
  std::size_t next = 0;
  GstClockTime input = GST_CLOCK_TIME_NONE;  // timestamp of the first frame
  std::atomic<bool> isKeyWanted{false};
};

bool isKey(GstBuffer* unit) {
  return !GST_BUFFER_FLAG_IS_SET(unit, GST_BUFFER_FLAG_DELTA_UNIT);
}

// Encoders may shift all timestamps by a constant.
GstBuffer* unitFor(Replay& replay, GstBuffer* frame) {
  if (replay.isKeyWanted.exchange(false)) {
    replay.next = 0;
  }
  GstBuffer* const unit = gst_buffer_copy(replay.units[replay.next]);
  replay.next = (replay.next + 1) % replay.length;
  if (GST_BUFFER_PTS_IS_VALID(frame) && GST_BUFFER_PTS_IS_VALID(unit)) {
    const GstClockTime delay =
        GST_BUFFER_DTS_IS_VALID(unit) ? GST_BUFFER_PTS(unit) - GST_BUFFER_DTS(unit) : 0;
    GST_BUFFER_PTS(unit) =
        GST_BUFFER_PTS(frame) - replay.input + GST_BUFFER_PTS(replay.units.front());
    GST_BUFFER_DTS(unit) = GST_BUFFER_PTS(unit) - delay;
  }
  GST_BUFFER_DURATION(unit) = GST_BUFFER_DURATION(frame);
  return unit;
}

GstPadProbeReturn onInput(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data) {
  auto& replay = *static_cast<Replay*>(data);
  if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0) {
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_CAPS) {
      replay.clear();
    }
    return GST_PAD_PROBE_OK;
  }
  GstBuffer* const frame = GST_PAD_PROBE_INFO_BUFFER(info);
  if (replay.length == 0) {
    if (replay.units.empty()) {
      replay.input = GST_BUFFER_PTS(frame);
    }
    return GST_PAD_PROBE_OK;
  }
  GST_PAD_PROBE_INFO_FLOW_RETURN(info) = gst_pad_push(replay.output, unitFor(replay, frame));
  gst_buffer_unref(frame);
  return GST_PAD_PROBE_HANDLED;
}

GstPadProbeReturn onOutput(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data) {
  auto& replay = *static_cast<Replay*>(data);
  if ((info->type & GST_PAD_PROBE_TYPE_EVENT_UPSTREAM) != 0) {
    if (gst_video_event_is_force_key_unit(GST_PAD_PROBE_INFO_EVENT(info)) != FALSE) {
      replay.isKeyWanted = true;
    }
    return GST_PAD_PROBE_OK;
  }
  if (replay.length != 0) {
    return GST_PAD_PROBE_OK;
  }
  GstBuffer* const unit = GST_PAD_PROBE_INFO_BUFFER(info);
  const std::size_t before = replay.units.size();
  if ((before >= kShortest && isKey(unit)) || before == kLongest) {
    replay.length = before;
    replay.next = isKey(unit) ? 1 : 0;
    replay.isKeyWanted = false;
    GST_INFO("replaying %u access units", static_cast<unsigned>(before));
  } else {
    replay.units.push_back(gst_buffer_ref(unit));
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

bool replaysAccessUnits() {
  const char* const encoder = std::getenv("SIMULATED_BOARD_ENCODER");
  return encoder != nullptr && encoder == std::string("replay");
}

void replayAccessUnits(GstElement* encoder) {
  auto* const replay = new Replay(encoder);
  g_object_set_data_full(G_OBJECT(encoder), "simulated-board-replay", replay, Replay::destroy);
  g_autoptr(GstPad) input = gst_element_get_static_pad(encoder, "sink");
  gst_pad_add_probe(
      input,
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
      guarded<onInput>, replay, nullptr);
  gst_pad_add_probe(
      replay->output,
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_UPSTREAM),
      guarded<onOutput>, replay, nullptr);
}

}  // namespace simulated_board
