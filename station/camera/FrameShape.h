#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <lumora/LumoraPicture.h>

namespace station {

// Pixels; square ones.
struct Size {
  unsigned int width;
  unsigned int height;

  bool operator!=(const Size& other) const {
    return width != other.width || height != other.height;
  }
};

// The even size in which pictures of `own` size are shown where `wanted` is asked for. A wanted
// dimension of 0 follows from the other one and the shape of `own`; both 0 ask for the own size.
Size frameSize(const Size& own, const Size& wanted);

// The largest even size within `frame` that has the shape of `own`.
Size sizeWithin(const Size& frame, const Size& own);

// The picture after `quarters` quarter turns to the right, 1 to 3.
std::shared_ptr<lumora::LumoraPicture> turned(const lumora::LumoraPicture& picture,
                                              unsigned int quarters);

// Puts pictures in the middle of larger frames, with black borders.
//
// Threads: one at a time.
class Borders {
 public:
  // `fullRange`: black is 0 instead of 16.
  Borders(const Size& frame, bool fullRange);

  // `picture` has even dimensions and fits into the frame.
  std::shared_ptr<lumora::LumoraPicture> add(const lumora::LumoraPicture& picture);

 private:
  const Size frame_;
  std::vector<std::uint8_t> nv12_;  // packed
};

}  // namespace station
