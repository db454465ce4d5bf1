#include "http/AccessUnitBuffer.h"

namespace station {

PictureRing::~PictureRing() {
  clear();
}

bool PictureRing::add(gconstpointer data, gsize size, bool key) {
  const std::lock_guard lock(mutex_);
  if (size > kMaxPictureBytes) {
    awaitsKey_ = true;
    return false;
  }
  if (awaitsKey_ && !key) {
    return true;
  }
  awaitsKey_ = false;
  while (pictures_.size() >= kMaxPictures || bytes_ + size > kMaxBytes) {
    dropOldest();
  }
  pictures_.push_back({g_bytes_new(data, size), key});
  bytes_ += size;
  ++end_;
  return true;
}

void PictureRing::clear() {
  const std::lock_guard lock(mutex_);
  while (!pictures_.empty()) {
    dropOldest();
  }
  ++end_;  // a gap, so that nobody is in sequence any more
  awaitsKey_ = true;
}

void PictureRing::dropOldest() {
  bytes_ -= g_bytes_get_size(pictures_.front().bytes);
  g_bytes_unref(pictures_.front().bytes);
  pictures_.pop_front();
}

// Newest key picture with a number of at least `from`.
bool PictureRing::findKey(std::uint64_t from, std::uint64_t& number) const {
  const std::uint64_t begin = end_ - pictures_.size();
  for (std::uint64_t candidate = end_; candidate > begin && candidate > from; --candidate) {
    if (pictures_[candidate - 1 - begin].key) {
      number = candidate - 1;
      return true;
    }
  }
  return false;
}

GBytes* PictureRing::read(Cursor& cursor) const {
  const std::lock_guard lock(mutex_);
  const std::uint64_t begin = end_ - pictures_.size();
  std::uint64_t number = cursor.next;
  const bool follows = cursor.inSequence && number >= begin && !everyPictureIsKey_;
  if (follows ? number >= end_ : !findKey(cursor.next, number)) {
    return nullptr;
  }
  if (cursor.inSequence) {
    cursor.skipped += number - cursor.next;
  }
  cursor.next = number + 1;
  cursor.inSequence = true;
  return g_bytes_ref(pictures_[number - begin].bytes);
}

}  // namespace station
