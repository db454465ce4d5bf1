#include "ParameterSets.h"

#include <string>
#include <string_view>
#include <vector>

#include "Guarded.h"
#include "gst/MappedBuffer.h"

namespace simulated_board {
namespace {

struct Filter {
  bool h265;
  std::string sent;  // the parameter sets that the decoder has

  static void destroy(gpointer filter) { delete static_cast<Filter*>(filter); }
};

// A NAL unit with its start code, inside an access unit.
struct NalUnit {
  std::size_t begin;
  std::size_t end;
  unsigned header;  // first byte after the start code
};

std::vector<NalUnit> splitNalUnits(std::string_view stream) {
  constexpr std::string_view kStartCode("\0\0\1", 3);
  std::vector<NalUnit> units;
  std::size_t code = stream.find(kStartCode);
  while (code != std::string_view::npos && code + kStartCode.size() < stream.size()) {
    const std::size_t begin = code > 0 && stream[code - 1] == '\0' ? code - 1 : code;
    if (!units.empty()) {
      units.back().end = begin;
    }
    const auto header = static_cast<unsigned char>(stream[code + kStartCode.size()]);
    units.push_back({begin, stream.size(), header});
    code = stream.find(kStartCode, code + kStartCode.size());
  }
  return units;
}

bool isParameterSet(const NalUnit& unit, bool h265) {
  const unsigned type = h265 ? unit.header >> 1 & 0x3f : unit.header & 0x1f;
  return h265 ? type >= 32 && type <= 34 : type == 7 || type == 8;
}

// Returns a copy of the buffer without its parameter sets; null if it has none, or if they differ
// from `filter.sent`, which is then updated.
GstBuffer* withoutRepeatedSets(GstBuffer* buffer, Filter& filter) {
  const media_backend::MappedBuffer map(buffer);
  std::string sets;
  g_autoptr(GstBuffer) stripped = gst_buffer_new();
  gst_buffer_copy_into(stripped, buffer, GST_BUFFER_COPY_METADATA, 0, G_MAXSIZE);
  for (const NalUnit& unit : splitNalUnits(map.bytes())) {
    const std::string_view bytes = map.bytes().substr(unit.begin, unit.end - unit.begin);
    if (!isParameterSet(unit, filter.h265)) {
      gst_buffer_copy_into(stripped, buffer, GST_BUFFER_COPY_MEMORY, unit.begin, bytes.size());
    } else if (sets.find(bytes) == std::string::npos) {  // encoders may send them twice at first
      sets.append(bytes);
    }
  }
  if (sets.empty()) {
    return nullptr;
  }
  if (sets != filter.sent) {
    filter.sent = sets;
    return nullptr;
  }
  return static_cast<GstBuffer*>(g_steal_pointer(&stripped));
}

GstPadProbeReturn filterBuffer(GstPad*, GstPadProbeInfo* info, gpointer data) {
  GstBuffer* const buffer = GST_PAD_PROBE_INFO_BUFFER(info);
  if (GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT)) {
    return GST_PAD_PROBE_OK;
  }
  GstBuffer* const filtered = withoutRepeatedSets(buffer, *static_cast<Filter*>(data));
  if (filtered != nullptr) {
    gst_buffer_unref(buffer);
    GST_PAD_PROBE_INFO_DATA(info) = filtered;
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

void dropRepeatedParameterSets(GstPad* pad, bool h265) {
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, guarded<filterBuffer>, new Filter{h265, {}},
                    Filter::destroy);
}

}  // namespace simulated_board
