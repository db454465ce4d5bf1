#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Obu.h"

namespace simulated_board {

// The payload of an RTP packet: OBU elements behind an aggregation header. Refers to the OBUs.
class Av1Packet {
 public:
  // Smallest fragment of an OBU; larger than an OBU header, so that no header is split.
  static constexpr std::size_t kMinFragment = 8;

  // Puts OBUs into packets of at most `capacity` bytes, more than kMinFragment.
  static std::vector<Av1Packet> pack(const std::vector<Obu>& obus, std::size_t capacity);

  // The payload up to the last element's OBU header. `isNewSequence`: the packet starts a coded
  // video sequence. `stream`: the temporal unit.
  std::string head(bool isNewSequence, std::string_view stream) const;
  // The rest of the payload, as offset and size in the temporal unit.
  std::pair<std::size_t, std::size_t> tail() const { return elements_.back().payload(); }

 private:
  // An OBU or a fragment of one.
  struct Element {
    bool isContinuation() const { return begin > 0; }
    bool isContinued() const { return begin + size < obu->size(); }
    // Offset and size in the temporal unit of the bytes after the OBU header.
    std::pair<std::size_t, std::size_t> payload() const;

    const Obu* obu;
    std::size_t begin;  // in the OBU
    std::size_t size;
  };

  std::size_t room(std::size_t capacity) const;
  void add(const Element& element);
  bool takes(const Obu& obu) const;
  bool countsElements() const;
  unsigned aggregationHeader() const;

  std::vector<Element> elements_;
  std::size_t used_ = 1;  // bytes, with a size field for every element
  const Obu* layered_ = nullptr;
};

}  // namespace simulated_board
