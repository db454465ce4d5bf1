#include "metadata/MisbSt0604.h"

#include <cstdint>
#include <string_view>
#include <utility>

#include <sys/timex.h>

#include <gst/base/gstbytereader.h>

#include "base/Callback.h"
#include "base/Handles.h"
#include "metadata/Klv.h"

namespace station {
namespace {

using std::chrono::duration_cast;
using std::chrono::microseconds;
using std::chrono::system_clock;

struct SeiFormat {
  const char* mediaType;
  Bytes begin;  // of the message: start code, NAL header, payload type and size, and UUID
  bool (*isSlice)(std::uint8_t nalHeader);
};

// The UUIDs are those of the standard.
const SeiFormat kSeiFormats[] = {
    {"video/x-h264",
     {0,   0,   0,   1,   0x06, 5,   28,  'M', 'I', 'S', 'P', 'm',
      'i', 'c', 'r', 'o', 's',  'e', 'c', 't', 'i', 'm', 'e'},
     [](std::uint8_t header) { return (header & 0x1F) >= 1 && (header & 0x1F) <= 5; }},
    {"video/x-h265",
     {0,    0,    0,    1,    0x4E, 0x01, 5,    28,   0xA8, 0x68, 0x7D, 0xD4,
      0xD7, 0x59, 0x37, 0x58, 0xA5, 0xCE, 0xF0, 0x33, 0x8B, 0x65, 0x45, 0xF1},
     [](std::uint8_t header) { return (header >> 1 & 0x3F) < 32; }},
};

// Frames are encoded within this after their capture.
constexpr std::chrono::seconds kMostDelay{2};

// Whether NTP or PTP disciplines the kernel's clock, and the time of a new frame is by it: a
// camera's times go on as they began when the clock is set.
bool isSynchronised(system_clock::time_point time) {
  timex state{};
  return adjtimex(&state) != TIME_ERROR &&
         std::chrono::abs(system_clock::now() - time) < kMostDelay;
}

// The standard puts 0xFF after each two bytes of the time, so that no start code can occur in it.
Bytes messageOf(const SeiFormat& format, system_clock::time_point time) {
  Bytes message = format.begin;
  message.push_back(isSynchronised(time) ? 0x1F : 0x9F);
  const auto count = duration_cast<microseconds>(time.time_since_epoch()).count();
  for (int shift = 48; shift >= 0; shift -= 16) {
    appendNumber(message, static_cast<std::uint64_t>(count) >> shift, 2);
    if (shift > 0) {
      message.push_back(0xFF);
    }
  }
  message.push_back(0x80);
  return message;
}

// Offset of the start code of the first slice.
std::optional<std::size_t> findSlice(std::string_view unit, const SeiFormat& format) {
  GstByteReader reader;
  gst_byte_reader_init(&reader, reinterpret_cast<const guint8*>(unit.data()),
                       static_cast<guint>(unit.size()));
  constexpr guint kStartCode = 0x00000100;
  guint at = 0;
  while (unit.size() - at >= 4) {
    const guint found = gst_byte_reader_masked_scan_uint32(&reader, 0xFFFFFF00, kStartCode, at,
                                                           static_cast<guint>(unit.size()) - at);
    if (found == G_MAXUINT) {
      break;
    }
    if (format.isSlice(static_cast<std::uint8_t>(unit[found + 3]))) {
      return found > 0 && unit[found - 1] == 0 ? found - 1 : found;
    }
    at = found + 3;
  }
  return std::nullopt;
}

const SeiFormat* seiFormatOf(GstPad* pad) {
  g_autoptr(GstCaps) caps = gst_pad_get_current_caps(pad);
  const GstStructure* const type = caps != nullptr ? gst_caps_get_structure(caps, 0) : nullptr;
  if (type == nullptr ||
      g_strcmp0(gst_structure_get_string(type, "stream-format"), "byte-stream") != 0) {
    return nullptr;
  }
  for (const SeiFormat& format : kSeiFormats) {
    if (gst_structure_has_name(type, format.mediaType)) {
      return &format;
    }
  }
  return nullptr;
}

// The same access unit with the message, without copying its data; null if it has no slice.
GstBuffer* withMessage(GstBuffer* unit, const SeiFormat& format, const Bytes& message) {
  const std::optional<std::size_t> slice = findSlice(MappedBuffer(unit).bytes(), format);
  if (!slice) {
    return nullptr;
  }
  GstBuffer* const whole = gst_buffer_new();
  gst_buffer_copy_into(whole, unit, GST_BUFFER_COPY_METADATA, 0, *slice);
  if (*slice > 0) {
    gst_buffer_copy_into(whole, unit, GST_BUFFER_COPY_MEMORY, 0, *slice);
  }
  gst_buffer_append(whole, gst_buffer_new_memdup(message.data(), message.size()));
  gst_buffer_copy_into(whole, unit, GST_BUFFER_COPY_MEMORY, *slice, G_MAXSIZE);
  return whole;
}

GstPadProbeReturn onAccessUnit(GstPad* pad, GstPadProbeInfo* info, gpointer timeOf) {
  GstBuffer* const unit = GST_PAD_PROBE_INFO_BUFFER(info);
  const SeiFormat* const format = seiFormatOf(pad);
  g_autoptr(GstEvent) event = gst_pad_get_sticky_event(pad, GST_EVENT_SEGMENT, 0);
  if (format == nullptr || event == nullptr || !GST_BUFFER_PTS_IS_VALID(unit)) {
    return GST_PAD_PROBE_OK;
  }
  const GstSegment* segment = nullptr;
  gst_event_parse_segment(event, &segment);
  const auto time = (*static_cast<MisbSt0604::TimeOf*>(timeOf))(
      gst_segment_to_running_time(segment, GST_FORMAT_TIME, GST_BUFFER_PTS(unit)));
  GstBuffer* const whole = time ? withMessage(unit, *format, messageOf(*format, *time)) : nullptr;
  if (whole != nullptr) {
    gst_buffer_unref(unit);
    info->data = whole;
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

void MisbSt0604::insertAt(GstPad* pad, TimeOf timeOf) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, guarded<onAccessUnit>,
                    new TimeOf(std::move(timeOf)),
                    [](gpointer function) { delete static_cast<TimeOf*>(function); });
}

}  // namespace station
