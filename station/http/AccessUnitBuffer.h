#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include <glib.h>

namespace station {

// Ring buffer of encoded access units. A reader waits for no other reader, and for the writer only
// while it copies one access unit; a reader that falls behind continues at the newest key frame.
//
// Memory: at most the access units of the constructor and kMaxBytes, and the access units that
// readers still hold. Threads: any.
class AccessUnitBuffer {
 public:
  static constexpr std::size_t kMaxAccessUnits = 120;
  static constexpr std::size_t kMaxBytes = std::size_t{16} << 20;
  static constexpr std::size_t kMaxAccessUnitBytes = std::size_t{8} << 20;

  // Position of a reader.
  struct Cursor {
    std::uint64_t next = 0;     // number of the access unit to read next
    bool inSequence = false;    // whether it follows the last one read
    std::uint64_t skipped = 0;  // since the first one read
  };

  // With `allKeyFrames`, readers always get the newest access unit.
  explicit AccessUnitBuffer(bool allKeyFrames, std::size_t maxAccessUnits = kMaxAccessUnits)
      : allKeyFrames_(allKeyFrames), maxAccessUnits_(maxAccessUnits) {}
  ~AccessUnitBuffer();
  AccessUnitBuffer(const AccessUnitBuffer&) = delete;
  AccessUnitBuffer& operator=(const AccessUnitBuffer&) = delete;

  // Copies an access unit in. False for one of more than kMaxAccessUnitBytes: it and its successors
  // up to the next key frame are dropped.
  bool add(gconstpointer data, gsize size, bool key);
  // Drops all; readers continue at the next key frame.
  void clear();

  // Where a new reader begins that waits for the next key frame.
  std::uint64_t end() const;
  // The reader's next access unit, which the caller owns, or null if there is none yet. A new
  // reader, and one that has fallen out of the ring, continues at the newest key frame.
  GBytes* read(Cursor& cursor) const;

 private:
  struct AccessUnit {
    GBytes* bytes;
    bool key;
  };

  void dropOldest();
  bool findKey(std::uint64_t from, std::uint64_t& number) const;

  const bool allKeyFrames_;
  const std::size_t maxAccessUnits_;
  mutable std::mutex mutex_;
  std::deque<AccessUnit> accessUnits_;
  std::uint64_t end_ = 0;  // number of the next access unit
  std::size_t bytes_ = 0;
  bool needsKey_ = true;
};

}  // namespace station
