#include "metadata/Klv.h"

#include <stdexcept>

namespace station {
namespace {

constexpr std::size_t kMostLengthBytes = 4;

}  // namespace

void appendNumber(Bytes& bytes, std::uint64_t value, std::size_t size) {
  for (std::size_t i = size; i-- > 0;) {
    bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }
}

std::uint64_t numberOf(const Bytes& bytes) {
  std::uint64_t value = 0;
  for (const std::uint8_t byte : bytes) {
    value = value << 8 | byte;
  }
  return value;
}

void appendLength(Bytes& bytes, std::size_t length) {
  if (length < 0x80) {
    bytes.push_back(static_cast<std::uint8_t>(length));
    return;
  }
  std::size_t size = 1;
  while (length >> (8 * size) != 0) {
    ++size;
  }
  bytes.push_back(static_cast<std::uint8_t>(0x80 | size));
  appendNumber(bytes, length, size);
}

void appendItem(Bytes& set, std::uint8_t tag, const Bytes& value) {
  set.push_back(tag);
  appendLength(set, value.size());
  set.insert(set.end(), value.begin(), value.end());
}

Bytes KlvReader::take(std::size_t size) {
  if (size > bytes_.size() - at_) {
    throw std::out_of_range("the set reaches past its end");
  }
  const auto begin = bytes_.begin() + static_cast<std::ptrdiff_t>(at_);
  at_ += size;
  return {begin, begin + static_cast<std::ptrdiff_t>(size)};
}

std::uint64_t KlvReader::takeTag() {
  std::uint64_t tag = 0;
  std::uint8_t byte = 0x80;
  while ((byte & 0x80) != 0) {
    byte = take(1).front();
    tag = tag << 7 | (byte & 0x7F);
  }
  return tag;
}

std::size_t KlvReader::takeLength() {
  const std::uint8_t first = take(1).front();
  if (first < 0x80) {
    return first;
  }
  const std::size_t size = first & 0x7F;
  if (size == 0 || size > kMostLengthBytes) {
    throw std::out_of_range("a length cannot be read");
  }
  return numberOf(take(size));
}

std::uint16_t klvChecksum(const std::uint8_t* packet, std::size_t size) {
  unsigned int sum = 0;
  for (std::size_t i = 0; i < size; ++i) {
    sum += i % 2 == 0 ? packet[i] * 256U : packet[i];
  }
  return static_cast<std::uint16_t>(sum);
}

}  // namespace station
