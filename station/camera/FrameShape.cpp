#include "camera/FrameShape.h"

#include <algorithm>
#include <array>
#include <cmath>

#include <media_backend/GstNv12Sample.h>

namespace station {
namespace {

using media_backend::gst_source::even_dimension;

// Beyond every picture, and within an unsigned int.
constexpr double kMaxSide = 2e9;

// Converts one dimension to the other, in a shape where `from` corresponds to `to`.
unsigned int inShape(unsigned int pixels, unsigned int to, unsigned int from) {
  const double exact = std::min(static_cast<double>(pixels) * to / from, kMaxSide);
  return std::max(2U, 2 * static_cast<unsigned int>(std::lround(exact / 2)));
}

template <typename Sample>
void turnPlane(const void* plane, std::size_t width, std::size_t height, unsigned int quarters,
               void* result) {
  const auto* from = static_cast<const Sample*>(plane);
  auto* const to = static_cast<Sample*>(result);
  for (std::size_t y = 0; y < height; ++y) {
    for (std::size_t x = 0; x < width; ++x) {
      const std::size_t place = quarters == 1   ? x * height + height - 1 - y
                                : quarters == 2 ? (height - 1 - y) * width + width - 1 - x
                                                : (width - 1 - x) * height + y;
      to[place] = *from++;
    }
  }
}

}  // namespace

Size frameSize(const Size& own, const Size& wanted) {
  if (wanted.width == 0 && wanted.height == 0) {
    return {even_dimension(own.width), even_dimension(own.height)};
  }
  return {wanted.width != 0 ? wanted.width : inShape(wanted.height, own.width, own.height),
          wanted.height != 0 ? wanted.height : inShape(wanted.width, own.height, own.width)};
}

Size sizeWithin(const Size& frame, const Size& own) {
  return {std::min(frame.width, inShape(frame.height, own.width, own.height)),
          std::min(frame.height, inShape(frame.width, own.height, own.width))};
}

// Pictures are packed, so their planes can be taken as one row after the other.
std::shared_ptr<lumora::LumoraPicture> turned(const lumora::LumoraPicture& picture,
                                              unsigned int quarters) {
  using Chroma = std::array<std::uint8_t, 2>;
  const std::size_t width = picture.width();
  const std::size_t height = picture.height();
  std::vector<std::uint8_t> nv12(width * height * 3 / 2);
  turnPlane<std::uint8_t>(picture.luma(), width, height, quarters, nv12.data());
  turnPlane<Chroma>(picture.chroma(), width / 2, height / 2, quarters, &nv12[width * height]);
  const bool isUpright = quarters == 2;
  const auto newWidth = isUpright ? picture.width() : picture.height();
  return lumora::LumoraPicture::fromNv12Host(
      nv12.data(), newWidth, isUpright ? picture.height() : picture.width(), newWidth);
}

Borders::Borders(const Size& frame, bool fullRange)
    : frame_(frame), nv12_(std::size_t{frame.width} * frame.height * 3 / 2, 128) {
  std::fill_n(nv12_.begin(), std::size_t{frame.width} * frame.height, fullRange ? 0 : 16);
}

std::shared_ptr<lumora::LumoraPicture> Borders::add(const lumora::LumoraPicture& picture) {
  const std::size_t left = std::size_t{frame_.width - picture.width()} / 4 * 2;
  const std::size_t top = std::size_t{frame_.height - picture.height()} / 4 * 2;
  const auto copy = [&](const std::uint8_t* rows, std::size_t count, std::size_t firstRow) {
    for (std::size_t row = 0; row < count; ++row) {
      std::copy_n(rows + row * picture.stride(), picture.width(),
                  &nv12_[(firstRow + row) * frame_.width + left]);
    }
  };
  copy(picture.luma(), picture.height(), top);
  copy(picture.chroma(), picture.height() / 2, frame_.height + top / 2);
  return lumora::LumoraPicture::fromNv12Host(nv12_.data(), frame_.width, frame_.height,
                                             frame_.width);
}

}  // namespace station
