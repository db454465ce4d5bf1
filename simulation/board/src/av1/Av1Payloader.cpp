#include "Av1Payloader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <gst/rtp/rtp.h>

#include "Av1Packet.h"
#include "Guarded.h"
#include "Obu.h"
#include "TypeRegistration.h"
#include "gst/MappedBuffer.h"

namespace simulated_board {
namespace {

constexpr const char* kSinkCaps = "video/x-av1,parsed=true,stream-format=obu-stream,alignment=tu";
constexpr const char* kSrcCaps =
    "application/x-rtp,media=video,payload=[96,127],clock-rate=[1,2147483647],encoding-name=AV1";

struct Av1Payloader {
  GstRTPBasePayload parent;
  guint clockRate;
  bool described;              // the source caps describe `sequence`
  Av1SequenceHeader sequence;  // the last one
};

// Shares the input's memory for the last element, which usually is most of the packet.
GstBuffer* makePacket(GstRTPBasePayload* payload, const media_backend::MappedBuffer& input,
                      const Av1Packet& packet, bool newSequence, bool marker) {
  const std::string head = packet.head(newSequence, input.bytes());
  const auto sources =
      static_cast<guint8>(gst_rtp_base_payload_get_source_count(payload, input.buffer()));
  GstBuffer* const buffer = gst_rtp_base_payload_allocate_output_buffer(
      payload, static_cast<guint>(head.size()), 0, sources);
  GstRTPBuffer rtp = GST_RTP_BUFFER_INIT;
  gst_rtp_buffer_map(buffer, GST_MAP_WRITE, &rtp);
  gst_rtp_buffer_set_marker(&rtp, marker);
  std::memcpy(gst_rtp_buffer_get_payload(&rtp), head.data(), head.size());
  gst_rtp_buffer_unmap(&rtp);

  const auto [offset, size] = packet.tail();
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

GstFlowReturn sendObus(GstRTPBasePayload* payload, const media_backend::MappedBuffer& input,
                       const std::vector<Obu>& obus, std::size_t capacity) {
  const bool newSequence = startsCodedVideoSequence(input.bytes(), obus);
  const bool key = !GST_BUFFER_FLAG_IS_SET(input.buffer(), GST_BUFFER_FLAG_DELTA_UNIT);
  const bool discont = GST_BUFFER_FLAG_IS_SET(input.buffer(), GST_BUFFER_FLAG_DISCONT);
  const std::vector<Av1Packet> packets = Av1Packet::pack(obus, capacity);
  GstBufferList* const list = gst_buffer_list_new_sized(static_cast<guint>(packets.size()));
  for (const Av1Packet& packet : packets) {
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

// Payload bytes of a packet; 0 after posting an error.
std::size_t payloadCapacity(GstRTPBasePayload* payload, GstBuffer* input) {
  const guint sources = gst_rtp_base_payload_get_source_count(payload, input);
  const std::size_t header = gst_rtp_buffer_calc_header_len(static_cast<guint8>(sources));
  const std::size_t mtu = GST_RTP_BASE_PAYLOAD_MTU(payload);
  if (mtu > header + Av1Packet::kMinFragment) {
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
  // Strings, because SDP parameters are made of string fields.
  const std::string profile = std::to_string(sequence.profile);
  const std::string tier = std::to_string(sequence.tier);
  const std::string level = std::to_string(sequence.level);
  return gst_rtp_base_payload_set_outcaps(payload, "profile", G_TYPE_STRING, profile.c_str(),
                                          "tier", G_TYPE_STRING, tier.c_str(),
                                          sequence.level >= 0 ? "level-idx" : nullptr,
                                          G_TYPE_STRING, level.c_str(), nullptr) != FALSE;
}

// Sets source caps that describe the sequence header.
bool describe(Av1Payloader* self, const Av1SequenceHeader& found) {
  const Av1SequenceHeader& last = self->sequence;
  if (self->described && found.profile == last.profile && found.tier == last.tier &&
      found.level == last.level) {
    return true;
  }
  self->sequence = found;
  self->described = setOutputCaps(&self->parent, found);
  return self->described;
}

// The OBUs of a temporal unit that RTP carries, and its sequence header. False with a text in
// `error` if it is malformed.
bool readObus(std::string_view stream, std::vector<Obu>& obus,
              std::optional<Av1SequenceHeader>& sequence, std::string& error) {
  if (!splitTemporalUnit(stream, obus, error)) {
    return false;
  }
  for (const Obu& obu : obus) {
    if (obu.type == Obu::SequenceHeader) {
      sequence = parseSequenceHeader(stream.substr(obu.payloadBegin, obu.payloadSize));
      if (!sequence) {
        error = "the sequence header ends too soon";
        return false;
      }
    }
  }
  const auto isDropped = [](const Obu& obu) {
    return obu.type == Obu::TemporalDelimiter || obu.type == Obu::TileList;
  };
  obus.erase(std::remove_if(obus.begin(), obus.end(), isDropped), obus.end());
  return true;
}

GstFlowReturn handleBuffer(GstRTPBasePayload* payload, GstBuffer* buffer) {
  g_autoptr(GstBuffer) owned = buffer;
  const media_backend::MappedBuffer input(owned);
  if (!input) {
    GST_ELEMENT_ERROR(payload, RESOURCE, READ, ("Cannot read a temporal unit"), (nullptr));
    return GST_FLOW_ERROR;
  }
  std::vector<Obu> obus;
  std::optional<Av1SequenceHeader> sequence;
  std::string error;
  if (!readObus(input.bytes(), obus, sequence, error)) {
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
  return obus.empty() ? GST_FLOW_OK : sendObus(payload, input, obus, capacity);
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
  payload->set_caps = guarded<setCaps>;
  payload->handle_buffer = guarded<handleBuffer>;
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
