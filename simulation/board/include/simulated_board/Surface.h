#pragma once

#include <cstdint>

namespace simulated_board {

// Board memory as a streaming element sees it: a small block that describes a picture, while the
// pixels stay where the camera wrote them. A buffer with the caps feature "memory:NVMM" holds
// exactly one such block, in place of the hardware's own surface structure.
//
// Pixels: NV12, `planes[0]` luma and `planes[1]` interleaved chroma, inside the mappable file
// descriptor `fd` of `size` bytes. Offsets and strides are in bytes.
// Ownership: the block does not own `fd`; its creator keeps the descriptor open while the block
// exists.
struct Surface {
  static constexpr std::uint32_t kMagic = 0x53425331;  // "SBS1"

  struct Plane {
    std::uint64_t offset;
    std::uint32_t stride;
    std::uint32_t rows;
  };

  std::uint32_t magic;
  std::int32_t fd;
  std::uint64_t size;
  std::uint32_t width;
  std::uint32_t height;
  Plane planes[2];
};

}  // namespace simulated_board
