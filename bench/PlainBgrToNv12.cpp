#include "PlainBgrToNv12.h"

#include "support/PlainBgrToNv12.h"

void plainLoop(const std::uint8_t* bgr, std::size_t step, unsigned width, unsigned height,
               std::uint8_t* nv12) {
  plainBgrToNv12(bgr, step, width, height, nv12);
}
