// The still image source on real files, and its conversion against the plain double arithmetic.

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>
#include <media_backend/StillImageFrameSource.h>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>

#include "BgrToNv12.h"
#include "support/Interpose.h"
#include "support/PlainBgrToNv12.h"
#include "support/TempFolder.h"

namespace {
bool g_refusePictures = false;
}  // namespace

std::shared_ptr<lumora::LumoraPicture> lumora::LumoraPicture::fromNv12Host(const void* data,
                                                                           unsigned width,
                                                                           unsigned height,
                                                                           unsigned stride) {
  static auto* const real =
      nextDefinition<decltype(fromNv12Host)>("_ZN6lumora13LumoraPicture12fromNv12HostEPKvjjj");
  return g_refusePictures ? nullptr : real(data, width, height, stride);
}

namespace {

namespace fs = std::filesystem;
using media_backend::StillImageFrameSource;
using Bytes = std::vector<std::uint8_t>;

// Every colour once in any 2^24 pixels that follow each other, neighbours far apart.
cv::Mat manyColours(int width, int height) {
  cv::Mat image(height, width, CV_8UC3);
  std::uint32_t colour = 0;
  for (std::uint8_t* at = image.data; at != image.dataend; at += 3) {
    colour += 0x9e3779;
    at[0] = static_cast<std::uint8_t>(colour);
    at[1] = static_cast<std::uint8_t>(colour >> 8U);
    at[2] = static_cast<std::uint8_t>(colour >> 16U);
  }
  return image;
}

Bytes plainNv12(const cv::Mat& image) {
  const unsigned width = static_cast<unsigned>(image.cols) & ~1U;
  const unsigned height = static_cast<unsigned>(image.rows) & ~1U;
  Bytes nv12(std::size_t{width} * height * 3 / 2);
  plainBgrToNv12(image.data, image.step[0], width, height, nv12.data());
  return nv12;
}

Bytes nv12Of(const lumora::LumoraPicture& picture) {
  return {picture.luma(), picture.luma() + std::size_t{picture.width()} * picture.height() * 3 / 2};
}

class StillImage : public testing::Test {
 protected:
  void TearDown() override { g_refusePictures = false; }

  std::string write(const std::string& name, const cv::Mat& image) {
    const std::string path = folder_ / name;
    EXPECT_TRUE(cv::imwrite(path, image)) << path;
    return path;
  }

  // Empty, and a failure, unless there is a picture.
  Bytes load(const std::string& path) {
    error_ = "from an earlier call";
    const auto picture = source_.load({path}, error_);
    EXPECT_EQ(error_, "");
    return picture == nullptr ? Bytes() : nv12Of(*picture);
  }

  TempFolder folder_;
  const StillImageFrameSource source_ = {};
  std::string error_;
};

TEST_F(StillImage, IsExactForEveryColour) {
  const cv::Mat image = manyColours(4096, 4096);
  const Bytes expected = plainNv12(image);
  EXPECT_TRUE(load(write("all.bmp", image)) == expected);
  for (const auto convert : media_backend::bgrToNv12Conversions()) {
    if (convert != nullptr) {
      Bytes nv12(expected.size());
      convert(image.data, image.step[0], 4096, 4096, nv12.data());
      EXPECT_TRUE(nv12 == expected);
    }
  }
}

// What the plain arithmetic is held against.
TEST_F(StillImage, HasTheKnownValuesOfUniformColours) {
  const std::tuple<cv::Scalar, int, int, int> rows[] = {{{255, 255, 255}, 255, 128, 128},
                                                        {{0, 0, 255}, 76, 84, 255},
                                                        {{0, 255, 0}, 149, 43, 21},
                                                        {{255, 0, 0}, 29, 255, 107}};
  for (const auto& [bgr, y, u, v] : rows) {
    const Bytes nv12 = load(write("uniform.png", cv::Mat(2, 2, CV_8UC3, bgr)));
    EXPECT_EQ(std::vector<int>(nv12.begin(), nv12.end()), (std::vector<int>{y, y, y, y, u, v}));
  }
}

// Rows are padded, but for the last one, behind which memory ends.
TEST_F(StillImage, IsConvertedFromRowsOfAnyLength) {
  for (const unsigned width : {2U, 4U, 30U, 62U, 64U, 66U, 126U, 128U, 130U, 642U}) {
    for (const unsigned height : {2U, 6U}) {
      const cv::Mat image = manyColours(static_cast<int>(width), static_cast<int>(height));
      const std::size_t step = std::size_t{3} * width + 5;
      Bytes rows(step * height - 5);
      for (unsigned y = 0; y < height; ++y) {
        std::memcpy(rows.data() + y * step, image.ptr(static_cast<int>(y)), std::size_t{3} * width);
      }
      const Bytes expected = plainNv12(image);
      for (const auto convert : media_backend::bgrToNv12Conversions()) {
        if (convert != nullptr) {
          Bytes nv12(expected.size());
          convert(rows.data(), step, width, height, nv12.data());
          EXPECT_EQ(nv12, expected) << width << " x " << height;
        }
      }
    }
  }
}

TEST_F(StillImage, LosesAnOddLastRowAndColumn) {
  const std::array<int, 2> sizes[] = {{641, 481}, {640, 481}, {641, 480}, {2, 2},
                                      {3, 3},     {2, 999},   {999, 2}};
  for (const auto& [width, height] : sizes) {
    const cv::Mat image = manyColours(width, height);
    const auto picture = source_.load({write("odd.png", image)}, error_);
    ASSERT_NE(picture, nullptr) << error_;
    EXPECT_EQ(picture->width(), width / 2 * 2);
    EXPECT_EQ(picture->height(), height / 2 * 2);
    EXPECT_EQ(nv12Of(*picture), plainNv12(image)) << width << " x " << height;
  }
}

TEST_F(StillImage, IsReadInEveryFormat) {
  const cv::Mat bgr = manyColours(66, 34);
  std::vector<cv::Mat> channels;
  cv::split(bgr, channels);
  const cv::Mat& one = channels[1];
  cv::Mat grey;
  cv::merge(std::vector<cv::Mat>{one, one, one}, grey);
  cv::Mat alpha;
  cv::merge(std::vector<cv::Mat>{channels[0], one, channels[2], one}, alpha);
  cv::Mat deep;
  bgr.convertTo(deep, CV_16U, 256, 255);  // low bytes of 255
  const std::tuple<const char*, const cv::Mat&, const cv::Mat&> rows[] = {
      {"colour.png", bgr, bgr}, {"colour.bmp", bgr, bgr},  {"grey.png", one, grey},
      {"grey.bmp", one, grey},  {"alpha.png", alpha, bgr}, {"deep.png", deep, bgr},
  };
  for (const auto& [name, written, expected] : rows) {
    EXPECT_EQ(load(write(name, written)), plainNv12(expected)) << name;
  }
  const std::string lossy = write("colour.jpg", bgr);  // what is left of the colours is the codec's
  EXPECT_EQ(load(lossy), plainNv12(cv::imread(lossy, cv::IMREAD_COLOR)));
}

TEST_F(StillImage, SaysWhyThereIsNoPicture) {
  const cv::Mat image = manyColours(640, 480);
  std::ofstream(folder_ / "text.png") << "no image";
  std::ofstream(folder_ / "huge.ppm") << "P6 65536 65536 255\nabc";
  const std::string missing = folder_ / "none.png";
  const std::string thin[] = {write("1x1.png", image({0, 0, 1, 1})),
                              write("1x480.png", image({0, 0, 1, 480})),
                              write("640x1.png", image({0, 0, 640, 1}))};
  const std::pair<std::string, std::string> rows[] = {
      {"", "empty still image path"},
      {missing, "still image does not exist: " + missing},
      {folder_ / "text.png", "failed to decode still image: " + folder_ / "text.png"},
      {folder_ / "huge.ppm", "failed to decode still image: " + folder_ / "huge.ppm"},
      {folder_.path(), "failed to decode still image: " + folder_.path().string()},
      {thin[0], "still image is too small: " + thin[0]},
      {thin[1], "still image is too small: " + thin[1]},
      {thin[2], "still image is too small: " + thin[2]},
  };
  for (const auto& [path, message] : rows) {
    error_ = "from an earlier call";
    EXPECT_EQ(source_.load({path}, error_), nullptr);
    EXPECT_EQ(error_, message);
  }
  g_refusePictures = true;
  const std::string good = write("good.png", image);
  EXPECT_EQ(source_.load({good}, error_), nullptr);
  EXPECT_EQ(error_, "LumoraPicture::fromNv12Host failed for still image: " + good);
}

TEST_F(StillImage, ThrowsIfThePathCannotBeLookedUp) {
  error_ = "from an earlier call";
  EXPECT_THROW(source_.load({folder_ / std::string(300, 'x')}, error_), fs::filesystem_error);
  EXPECT_EQ(error_, "");
}

TEST_F(StillImage, IsReadAgainOnEveryCallFromAnyThread) {
  const cv::Mat first = manyColours(320, 240);
  const cv::Mat second = ~first;
  for (const cv::Mat& image : {first, second}) {
    const std::string path = write("image.png", image);
    const Bytes expected = plainNv12(image);
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back([&] {
        std::string error;
        const auto picture = source_.load({path}, error);
        EXPECT_TRUE(picture != nullptr && nv12Of(*picture) == expected) << error;
      });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
  }
}

}  // namespace
