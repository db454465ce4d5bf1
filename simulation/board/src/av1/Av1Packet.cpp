#include "Av1Packet.h"

#include <algorithm>

namespace simulated_board {
namespace {

// Aggregation header, the first byte of a packet's payload.
constexpr unsigned kZ = 0x80;     // the first element continues an OBU
constexpr unsigned kY = 0x40;     // the last element is continued in the next packet
constexpr unsigned kWShift = 4;   // W: number of elements
constexpr std::size_t kMaxW = 3;  // W is 0 with more elements, and each has a size field
constexpr unsigned kN = 0x08;     // the packet starts a coded video sequence

}  // namespace

std::vector<Av1Packet> Av1Packet::pack(const std::vector<Obu>& obus, std::size_t capacity) {
  std::vector<Av1Packet> packets;
  for (const Obu& obu : obus) {
    if (packets.empty() || !packets.back().takes(obu)) {
      packets.emplace_back();
    }
    for (std::size_t begin = 0; begin < obu.size();) {
      const std::size_t rest = obu.size() - begin;
      const std::size_t size = std::min(rest, packets.back().room(capacity));
      if (size < std::min(rest, kMinFragment)) {
        packets.emplace_back();
        continue;
      }
      packets.back().add({&obu, begin, size});
      begin += size;
    }
  }
  return packets;
}

std::string Av1Packet::head(bool isNewSequence, std::string_view stream) const {
  std::string text(1, static_cast<char>(aggregationHeader() | (isNewSequence ? kN : 0)));
  for (const Element& element : elements_) {
    const bool last = &element == &elements_.back();
    if (!last || !countsElements()) {
      appendLeb128(element.size, text);
    }
    if (!element.isContinuation()) {
      text.append(element.obu->header.begin(),
                  element.obu->header.begin() + element.obu->headerSize);
    }
    if (!last) {
      const auto [offset, size] = element.payload();
      text.append(stream.substr(offset, size));
    }
  }
  return text;
}

std::pair<std::size_t, std::size_t> Av1Packet::Element::payload() const {
  const std::size_t skipped = isContinuation() ? 0 : obu->headerSize;
  return {obu->payloadBegin + begin + skipped - obu->headerSize, size - skipped};
}

// Space for one more element in a payload of `capacity` bytes.
std::size_t Av1Packet::room(std::size_t capacity) const {
  const std::size_t left = capacity > used_ ? capacity - used_ : 0;
  return elements_.size() < kMaxW || left == 0 ? left : left - leb128Size(left);
}

void Av1Packet::add(const Element& element) {
  elements_.push_back(element);
  used_ += leb128Size(element.size) + element.size;
  if (element.obu->hasLayer()) {
    layered_ = element.obu;
  }
}

// A packet carries one layer; a sequence header, which applies to all layers, starts a packet.
bool Av1Packet::takes(const Obu& obu) const {
  const bool sameLayer =
      layered_ == nullptr || (obu.hasLayer() && obu.layer() == layered_->layer());
  return elements_.empty() || (obu.type != Obu::SequenceHeader && sameLayer);
}

bool Av1Packet::countsElements() const {
  return elements_.size() <= kMaxW;
}

unsigned Av1Packet::aggregationHeader() const {
  const std::size_t count = countsElements() ? elements_.size() : 0;
  return (elements_.front().isContinuation() ? kZ : 0) | (elements_.back().isContinued() ? kY : 0) |
         static_cast<unsigned>(count << kWShift);
}

}  // namespace simulated_board
