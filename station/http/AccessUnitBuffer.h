#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>

#include <glib.h>

namespace station {

// The last encoded pictures of a stream, for any number of readers of any speed: nobody who reads
// slowly holds up who writes, or who else reads.
//
// Memory: at most kMaxPictures pictures and kMaxBytes bytes, and what readers still hold.
// Threads: any.
class PictureRing {
 public:
  static constexpr std::size_t kMaxPictures = 120;
  static constexpr std::size_t kMaxBytes = std::size_t{16} << 20;
  static constexpr std::size_t kMaxPictureBytes = std::size_t{8} << 20;

  // How far a reader has come; starts with nothing read.
  struct Cursor {
    std::uint64_t next = 0;     // number of the picture to read next
    bool inSequence = false;    // whether it follows on what was read
    std::uint64_t skipped = 0;  // pictures missed since the first one read
  };

  // With `everyPictureIsKey`, readers always get the newest picture.
  explicit PictureRing(bool everyPictureIsKey) : everyPictureIsKey_(everyPictureIsKey) {}
  ~PictureRing();
  PictureRing(const PictureRing&) = delete;
  PictureRing& operator=(const PictureRing&) = delete;

  // Copies a picture in. False for one of more than kMaxPictureBytes, which is left out, and with
  // it what follows until the next key picture.
  bool add(gconstpointer data, gsize size, bool key);
  // Forgets the pictures; what is added next does not follow on them.
  void clear();

  // The reader's next picture, which the caller owns, or null: none yet. A reader that starts, or
  // that has fallen out of the ring, goes on at the newest key picture.
  GBytes* read(Cursor& cursor) const;

 private:
  struct Picture {
    GBytes* bytes;
    bool key;
  };

  void dropOldest();
  bool findKey(std::uint64_t from, std::uint64_t& number) const;

  const bool everyPictureIsKey_;
  mutable std::mutex mutex_;
  std::deque<Picture> pictures_;
  std::uint64_t end_ = 0;  // number of the next picture to come
  std::size_t bytes_ = 0;
  bool awaitsKey_ = true;
};

}  // namespace station
