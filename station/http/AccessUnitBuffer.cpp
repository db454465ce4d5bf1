#include "http/AccessUnitBuffer.h"

namespace station {

AccessUnitBuffer::~AccessUnitBuffer() {
  clear();
}

bool AccessUnitBuffer::add(gconstpointer data, gsize size, bool key) {
  const std::lock_guard lock(mutex_);
  if (size > kMaxAccessUnitBytes) {
    needsKey_ = true;
    return false;
  }
  if (needsKey_ && !key) {
    return true;
  }
  needsKey_ = false;
  while (accessUnits_.size() >= maxAccessUnits_ || bytes_ + size > kMaxBytes) {
    dropOldest();
  }
  accessUnits_.push_back({g_bytes_new(data, size), key});
  bytes_ += size;
  ++end_;
  return true;
}

void AccessUnitBuffer::clear() {
  const std::lock_guard lock(mutex_);
  while (!accessUnits_.empty()) {
    dropOldest();
  }
  ++end_;  // a gap, so that no reader is in sequence
  needsKey_ = true;
}

void AccessUnitBuffer::dropOldest() {
  bytes_ -= g_bytes_get_size(accessUnits_.front().bytes);
  g_bytes_unref(accessUnits_.front().bytes);
  accessUnits_.pop_front();
}

// Newest key frame with a number of at least `from`.
bool AccessUnitBuffer::findKey(std::uint64_t from, std::uint64_t& number) const {
  const std::uint64_t begin = end_ - accessUnits_.size();
  for (std::uint64_t candidate = end_; candidate > begin && candidate > from; --candidate) {
    if (accessUnits_[candidate - 1 - begin].key) {
      number = candidate - 1;
      return true;
    }
  }
  return false;
}

std::uint64_t AccessUnitBuffer::end() const {
  const std::lock_guard lock(mutex_);
  return end_;
}

GBytes* AccessUnitBuffer::read(Cursor& cursor) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t begin = end_ - accessUnits_.size();
  std::uint64_t number = cursor.next;
  const bool follows = cursor.inSequence && number >= begin && !allKeyFrames_;
  if (follows ? number >= end_ : !findKey(cursor.next, number)) {
    return nullptr;
  }
  if (cursor.inSequence) {
    cursor.skipped += number - cursor.next;
  }
  cursor.next = number + 1;
  cursor.inSequence = true;
  return g_bytes_ref(accessUnits_[number - begin].bytes);
}

}  // namespace station
