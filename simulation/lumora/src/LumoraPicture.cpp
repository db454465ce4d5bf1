#include <lumora/LumoraPicture.h>

#include <cstring>
#include <utility>

namespace lumora {

std::shared_ptr<LumoraPicture> LumoraPicture::fromNv12Host(const void* data, unsigned width,
                                                           unsigned height, unsigned stride) {
  if (data == nullptr || width == 0 || height == 0 || stride < width) {
    return {};
  }
  std::shared_ptr<LumoraPicture> picture(new LumoraPicture(width, height));
  picture->pixels_.reset(new std::uint8_t[std::size_t{width} * (std::size_t{height} + height / 2)]);
  const auto* source = static_cast<const std::uint8_t*>(data);
  std::uint8_t* target = picture->pixels_.get();
  const std::size_t rows = std::size_t{height} + height / 2;
  for (std::size_t row = 0; row < rows; ++row) {
    std::memcpy(target + row * width, source + row * stride, width);
  }
  return picture;
}

std::shared_ptr<LumoraPicture> LumoraPicture::fromExportedFrame(
    std::shared_ptr<ExportedFrame> frame) {
  const FrameExportHandle& handle = frame->handle();
  std::shared_ptr<LumoraPicture> picture(new LumoraPicture(handle.width, handle.height));
  picture->exported_ = std::move(frame);
  return picture;
}

LumoraPicture::LumoraPicture(unsigned width, unsigned height) : width_(width), height_(height) {}

void LumoraPicture::setMetadata(const std::string& key, MetadataValue value) {
  metadata_.insert_or_assign(key, std::move(value));
}

const LumoraPicture::MetadataValue* LumoraPicture::metadata(const std::string& key) const {
  const auto found = metadata_.find(key);
  return found == metadata_.end() ? nullptr : &found->second;
}

}  // namespace lumora
