#include <media_backend/StillImageFrameSource.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <new>

#include <sys/mman.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "BgrToNv12.h"

namespace media_backend {
namespace {

// Empty if the file cannot be decoded. OpenCV throws if a header declares more pixels than its
// limit.
cv::Mat decode(const std::string& path) {
  try {
    return cv::imread(path, cv::IMREAD_COLOR);
  } catch (const cv::Exception&) {
    return {};
  }
}

constexpr std::align_val_t kLargePage{2U << 20U};  // bytes

struct LargePageDelete {
  void operator()(std::uint8_t* bytes) const { ::operator delete[](bytes, kLargePage); }
};
using LargePages = std::unique_ptr<std::uint8_t[], LargePageDelete>;

// Uninitialised memory, in large pages if it fills one and the kernel provides them. The page
// faults of hundreds of small pages can take longer than the conversion.
LargePages allocate(std::size_t size) {
  constexpr auto kPage = static_cast<std::size_t>(kLargePage);
  const std::size_t rounded = size < kPage ? size : (size + kPage - 1) / kPage * kPage;
  LargePages bytes(new (kLargePage) std::uint8_t[rounded]);
  madvise(bytes.get(), rounded, MADV_HUGEPAGE);
  return bytes;
}

}  // namespace

std::shared_ptr<lumora::LumoraPicture> StillImageFrameSource::load(
    const StillImageFrameSourceConfig& config, std::string& error) const {
  error.clear();
  if (config.path.empty()) {
    error = "empty still image path";
    return {};
  }
  if (!std::filesystem::exists(std::filesystem::status(config.path))) {
    error = "still image does not exist: " + config.path;
    return {};
  }
  const cv::Mat image = decode(config.path);
  if (image.empty()) {
    error = "failed to decode still image: " + config.path;
    return {};
  }
  const unsigned width = static_cast<unsigned>(image.cols) & ~1U;
  const unsigned height = static_cast<unsigned>(image.rows) & ~1U;
  if (width == 0 || height == 0) {
    error = "still image is too small: " + config.path;
    return {};
  }

  const LargePages nv12 = allocate(std::size_t{width} * height * 3 / 2);
  bgrToNv12Conversions().front()(image.data, image.step[0], width, height, nv12.get());
  std::shared_ptr<lumora::LumoraPicture> picture =
      lumora::LumoraPicture::fromNv12Host(nv12.get(), width, height, width);
  if (picture == nullptr) {
    error = "LumoraPicture::fromNv12Host failed for still image: " + config.path;
  }
  return picture;
}

}  // namespace media_backend
