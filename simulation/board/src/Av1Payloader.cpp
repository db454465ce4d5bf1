#include "Av1Payloader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <gst/rtp/rtp.h>

#include "Av1Units.h"
#include "TypeRegistration.h"

namespace simulated_board {
namespace {

constexpr const char* kSinkCaps = "video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu";
constexpr const char* kSrcCaps =
    "application/x-rtp,media=video,payload=[96,127],clock-rate=[1,2147483647],encoding-name=AV1";

// A part of a unit smaller than this is not worth a place; no unit's header is cut.
constexpr std::size_t kLeastPart = 8;

// The first byte of a packet's payload
constexpr unsigned kContinuesUnit = 0x80;
constexpr unsigned kUnitContinues = 0x40;
constexpr unsigned kElementsShift = 4;
constexpr std::size_t kMostCounted = 3;  // with more, each has its size before it
constexpr unsigned kNewSequence = 0x08;

struct Av1Payloader {
  GstRTPBasePayload parent;
  guint clockRate;
  bool described;              // the caps say what is in a sequence header,
  Av1SequenceHeader sequence;  // this one
};

// A unit or a part of one, in a packet.
struct Element {
  bool cutBefore() const { return begin > 0; }
  bool cutBehind() const { return begin + size < unit->size(); }

  const Av1Unit* unit;
  std::size_t begin;  // in the unit
  std::size_t size;
};

// The payload of a packet.
class Packet {
 public:
  // Most bytes that one more element can have in a payload of `capacity` bytes.
  std::size_t room(std::size_t capacity) const {
    const std::size_t left = capacity > used_ ? capacity - used_ : 0;
    return elements_.size() < kMostCounted || left == 0 ? left : left - leb128Size(left);
  }

  void add(const Element& element) {
    elements_.push_back(element);
    used_ += leb128Size(element.size) + element.size;
    if (element.unit->hasLayer()) {
      layered_ = element.unit;
    }
  }

  // Packets have one layer, and begin with what belongs to all layers.
  bool takes(const Av1Unit& unit) const {
    const bool sameLayer =
        layered_ == nullptr || (unit.hasLayer() && unit.layer() == layered_->layer());
    return elements_.empty() || (unit.type != Av1Unit::SequenceHeader && sameLayer);
  }

  const std::vector<Element>& elements() const { return elements_; }
  bool countsElements() const { return elements_.size() <= kMostCounted; }

  unsigned aggregationHeader() const {
    const std::size_t count = countsElements() ? elements_.size() : 0;
    return (elements_.front().cutBefore() ? kContinuesUnit : 0) |
           (elements_.back().cutBehind() ? kUnitContinues : 0) |
           static_cast<unsigned>(count << kElementsShift);
  }

 private:
  std::vector<Element> elements_;
  std::size_t used_ = 1;  // bytes, were there one more element
  const Av1Unit* layered_ = nullptr;
};

std::vector<Packet> pack(const std::vector<Av1Unit>& units, std::size_t capacity) {
  std::vector<Packet> packets;
  for (const Av1Unit& unit : units) {
    if (packets.empty() || !packets.back().takes(unit)) {
      packets.emplace_back();
    }
    for (std::size_t begin = 0; begin < unit.size();) {
      const std::size_t rest = unit.size() - begin;
      const std::size_t size = std::min(rest, packets.back().room(capacity));
      if (size < std::min(rest, kLeastPart)) {
        packets.emplace_back();
        continue;
      }
      packets.back().add({&unit, begin, size});
      begin += size;
    }
  }
  return packets;
}

// A buffer's bytes, as long as this lives.
class MappedBuffer {
 public:
  explicit MappedBuffer(GstBuffer* buffer)
      : buffer_(buffer), mapped_(gst_buffer_map(buffer, &map_, GST_MAP_READ) != FALSE) {}
  ~MappedBuffer() {
    if (mapped_) {
      gst_buffer_unmap(buffer_, &map_);
    }
  }
  MappedBuffer(const MappedBuffer&) = delete;
  MappedBuffer& operator=(const MappedBuffer&) = delete;

  explicit operator bool() const { return mapped_; }
  GstBuffer* buffer() const { return buffer_; }
  std::string_view bytes() const { return {reinterpret_cast<const char*>(map_.data), map_.size}; }

 private:
  GstBuffer* buffer_;
  GstMapInfo map_ = {};
  bool mapped_;
};

// Where the part of an element's bytes that is behind the unit's header is in the input.
std::pair<std::size_t, std::size_t> payloadPart(const Element& element) {
  const std::size_t skipped = element.cutBefore() ? 0 : element.unit->headerSize;
  return {element.unit->payloadBegin + element.begin + skipped - element.unit->headerSize,
          element.size - skipped};
}

// The payload's bytes up to what the last element takes from the input.
std::string payloadHead(const Packet& packet, unsigned flags, std::string_view stream) {
  std::string head(1, static_cast<char>(packet.aggregationHeader() | flags));
  for (const Element& element : packet.elements()) {
    const bool last = &element == &packet.elements().back();
    if (!last || !packet.countsElements()) {
      appendLeb128(element.size, head);
    }
    if (!element.cutBefore()) {
      head.append(element.unit->header.begin(),
                  element.unit->header.begin() + element.unit->headerSize);
    }
    if (!last) {
      const auto [offset, size] = payloadPart(element);
      head.append(stream.substr(offset, size));
    }
  }
  return head;
}

// The last element's bytes, mostly all there are, are the input's own memory.
GstBuffer* makePacket(GstRTPBasePayload* payload, const MappedBuffer& input, const Packet& packet,
                      bool newSequence, bool marker) {
  const std::string head = payloadHead(packet, newSequence ? kNewSequence : 0, input.bytes());
  const auto sources =
      static_cast<guint8>(gst_rtp_base_payload_get_source_count(payload, input.buffer()));
  GstBuffer* const buffer = gst_rtp_base_payload_allocate_output_buffer(
      payload, static_cast<guint>(head.size()), 0, sources);
  GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
  gst_rtp_buffer_map(buffer, GST_MAP_WRITE, &rtp);
  gst_rtp_buffer_set_marker(&rtp, marker);
  std::memcpy(gst_rtp_buffer_get_payload(&rtp), head.data(), head.size());
  gst_rtp_buffer_unmap(&rtp);

  const auto [offset, size] = payloadPart(packet.elements().back());
  if (size > 0) {
    gst_buffer_copy_into(buffer, input.buffer(), GST_BUFFER_COPY_MEMORY, offset, size);
  }
  GST_BUFFER_PTS(buffer) = GST_BUFFER_PTS(input.buffer());
  GST_BUFFER_DTS(buffer) = GST_BUFFER_DTS(input.buffer());
  if (marker) {
    GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_MARKER);
  }
  return buffer;
}

GstFlowReturn sendUnits(GstRTPBasePayload* payload, const MappedBuffer& input,
                        const std::vector<Av1Unit>& units, std::size_t capacity) {
  const bool newSequence = startsCodedVideoSequence(input.bytes(), units);
  const bool key = !GST_BUFFER_FLAG_IS_SET(input.buffer(), GST_BUFFER_FLAG_DELTA_UNIT);
  const bool discont = GST_BUFFER_FLAG_IS_SET(input.buffer(), GST_BUFFER_FLAG_DISCONT);
  const std::vector<Packet> packets = pack(units, capacity);
  GstBufferList* const list = gst_buffer_list_new_sized(static_cast<guint>(packets.size()));
  for (const Packet& packet : packets) {
    const bool first = &packet == &packets.front();
    GstBuffer* const buffer =
        makePacket(payload, input, packet, first && newSequence, &packet == &packets.back());
    if (!first || !key) {
      GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT);
    }
    if (first && discont) {
      GST_BUFFER_FLAG_SET(buffer, GST_BUFFER_FLAG_DISCONT);
    }
    gst_buffer_list_add(list, buffer);
  }
  return gst_rtp_base_payload_push_list(payload, list);
}

// Bytes that a packet has for its payload, or 0 after an error message.
std::size_t payloadCapacity(GstRTPBasePayload* payload, GstBuffer* input) {
  const guint sources = gst_rtp_base_payload_get_source_count(payload, input);
  const std::size_t header = gst_rtp_buffer_calc_header_len(static_cast<guint8>(sources));
  const std::size_t mtu = GST_RTP_BASE_PAYLOAD_MTU(payload);
  if (mtu > header + kLeastPart) {
    return mtu - header;
  }
  GST_ELEMENT_ERROR(payload, LIBRARY, SETTINGS,
                    ("An mtu of %" G_GSIZE_FORMAT " bytes leaves too little behind an RTP header "
                     "of %" G_GSIZE_FORMAT " bytes",
                     mtu, header),
                    (nullptr));
  return 0;
}

bool setOutputCaps(GstRTPBasePayload* payload, const Av1SequenceHeader& sequence) {
  // Text, since that is what becomes a parameter in an SDP.
  const std::string profile = std::to_string(sequence.profile);
  const std::string tier = std::to_string(sequence.tier);
  const std::string level = std::to_string(sequence.level);
  return gst_rtp_base_payload_set_outcaps(payload, "profile", G_TYPE_STRING, profile.c_str(),
                                          "tier", G_TYPE_STRING, tier.c_str(),
                                          sequence.level >= 0 ? "level-idx" : nullptr,
                                          G_TYPE_STRING, level.c_str(), nullptr) != FALSE;
}

// Has the caps say what the sequence header does.
bool describe(Av1Payloader* self, const Av1SequenceHeader& found) {
  const Av1SequenceHeader& told = self->sequence;
  if (self->described && found.profile == told.profile && found.tier == told.tier &&
      found.level == told.level) {
    return true;
  }
  self->sequence = found;
  self->described = setOutputCaps(&self->parent, found);
  return self->described;
}

// What is sent of a temporal unit, and its sequence header. False with a text in `error` if it is
// malformed.
bool readUnits(std::string_view stream, std::vector<Av1Unit>& units,
               std::optional<Av1SequenceHeader>& sequence, std::string& error) {
  if (!splitTemporalUnit(stream, units, error)) {
    return false;
  }
  for (const Av1Unit& unit : units) {
    if (unit.type == Av1Unit::SequenceHeader) {
      sequence = parseSequenceHeader(stream.substr(unit.payloadBegin, unit.payloadSize));
      if (!sequence) {
        error = "the sequence header ends too soon";
        return false;
      }
    }
  }
  const auto isDropped = [](const Av1Unit& unit) {
    return unit.type == Av1Unit::TemporalDelimiter || unit.type == Av1Unit::TileList;
  };
  units.erase(std::remove_if(units.begin(), units.end(), isDropped), units.end());
  return true;
}

GstFlowReturn handleBuffer(GstRTPBasePayload* payload, GstBuffer* buffer) {
  g_autoptr(GstBuffer) owned = buffer;
  const MappedBuffer input(owned);
  if (!input) {
    GST_ELEMENT_ERROR(payload, RESOURCE, READ, ("Cannot read a temporal unit"), (nullptr));
    return GST_FLOW_ERROR;
  }
  std::vector<Av1Unit> units;
  std::optional<Av1SequenceHeader> sequence;
  std::string error;
  if (!readUnits(input.bytes(), units, sequence, error)) {
    GST_ELEMENT_WARNING(payload, STREAM, FORMAT, ("Dropped a malformed temporal unit"),
                        ("%s", error.c_str()));
    return GST_FLOW_OK;
  }
  if (sequence && !describe(reinterpret_cast<Av1Payloader*>(payload), *sequence)) {
    return GST_FLOW_NOT_NEGOTIATED;
  }
  const std::size_t capacity = payloadCapacity(payload, buffer);
  if (capacity == 0) {
    return GST_FLOW_ERROR;
  }
  return units.empty() ? GST_FLOW_OK : sendUnits(payload, input, units, capacity);
}

gboolean setCaps(GstRTPBasePayload* payload, GstCaps*) {
  auto* const self = reinterpret_cast<Av1Payloader*>(payload);
  self->described = false;
  gst_rtp_base_payload_set_options(payload, "video", TRUE, "AV1", self->clockRate);
  return gst_rtp_base_payload_set_outcaps(payload, nullptr);
}

void setProperty(GObject* object, guint, const GValue* value, GParamSpec*) {
  reinterpret_cast<Av1Payloader*>(object)->clockRate = g_value_get_uint(value);
}

void getProperty(GObject* object, guint, GValue* value, GParamSpec*) {
  g_value_set_uint(value, reinterpret_cast<Av1Payloader*>(object)->clockRate);
}

GParamSpec* clockRate() {
  return g_param_spec_uint(
      "clock-rate", "Clock rate", "RTP clock rate in Hz; the payload format has 90000 only", 1,
      G_MAXINT, 90000,
      static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_CONSTRUCT | G_PARAM_STATIC_STRINGS |
                               GST_PARAM_MUTABLE_READY));
}

void initClass(gpointer klass, gpointer) {
  auto* const object = static_cast<GObjectClass*>(klass);
  object->set_property = setProperty;
  object->get_property = getProperty;
  g_object_class_install_property(object, 1, clockRate());

  auto* const element = static_cast<GstElementClass*>(klass);
  addPadTemplate(element, "sink", GST_PAD_SINK, kSinkCaps);
  addPadTemplate(element, "src", GST_PAD_SRC, kSrcCaps);
  gst_element_class_set_static_metadata(element, "RTP AV1 payloader", "Codec/Payloader/Network/RTP",
                                        "Puts AV1 video into RTP packets", "-");

  auto* const payload = static_cast<GstRTPBasePayloadClass*>(klass);
  payload->set_caps = setCaps;
  payload->handle_buffer = handleBuffer;
}

}  // namespace

GType av1PayloaderType() {
  GTypeInfo info = {};
  info.class_size = sizeof(GstRTPBasePayloadClass);
  info.class_init = initClass;
  info.instance_size = sizeof(Av1Payloader);
  return typeOnce(GST_TYPE_RTP_BASE_PAYLOAD, "SimulatedBoard-rtpav1pay", info);
}

}  // namespace simulated_board
