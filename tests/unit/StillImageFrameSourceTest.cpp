// The still image source on real files, and its conversion against the plain double arithmetic.

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>
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

// Of the image's pixels in rows of `step` bytes, by every conversion that this processor has.
void expectConversions(const std::uint8_t* bgr, std::size_t step, const cv::Mat& image) {
  const Bytes expected = plainNv12(image);
  for (const auto convert : media_backend::bgrToNv12Conversions()) {
    if (convert != nullptr) {
      Bytes nv12(expected.size());
      convert(bgr, step, static_cast<unsigned>(image.cols), static_cast<unsigned>(image.rows),
              nv12.data());
      EXPECT_TRUE(nv12 == expected) << image.cols << " x " << image.rows;
    }
  }
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
  const cv::Mat image = manyColours(4096, 4098);
  expectConversions(image.data, image.step[0], image);
  EXPECT_TRUE(load(write("all.bmp", image)) == plainNv12(image));
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
  for (const int width : {2, 4, 30, 62, 64, 66, 126, 128, 130, 642}) {
    const cv::Mat image = manyColours(width, 6);
    const std::size_t step = image.step[0] + 5;
    Bytes rows(step * 6 - 5);
    for (int y = 0; y < 6; ++y) {
      std::memcpy(rows.data() + static_cast<std::size_t>(y) * step, image.ptr(y), image.step[0]);
    }
    expectConversions(rows.data(), step, image);
  }
}

TEST_F(StillImage, LosesAnOddLastRowAndColumn) {
  const std::array<int, 2> sizes[] = {{641, 480}, {640, 481}, {3, 3}, {2, 2}};
  for (const auto& [width, height] : sizes) {
    const cv::Mat image = manyColours(width, height);
    const auto picture = source_.load({write("odd.png", image)}, error_);
    ASSERT_NE(picture, nullptr) << error_;
    EXPECT_EQ(picture->width(), width / 2 * 2);
    EXPECT_EQ(picture->height(), height / 2 * 2);
    EXPECT_EQ(nv12Of(*picture), plainNv12(image)) << width << " x " << height;
  }
}

TEST_F(StillImage, IsReadAsEightBitsOfThreeColours) {
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
      {"grey.png", one, grey}, {"alpha.png", alpha, bgr}, {"deep.png", deep, bgr}};
  for (const auto& [name, written, expected] : rows) {
    EXPECT_EQ(load(write(name, written)), plainNv12(expected)) << name;
  }
}

TEST_F(StillImage, SaysWhyThereIsNoPicture) {
  const cv::Mat image = manyColours(640, 480);
  std::ofstream(folder_ / "text.png") << "no image";
  std::ofstream(folder_ / "huge.ppm") << "P6 65536 65536 255\nabc";
  const std::string missing = folder_ / "none.png";
  const std::string thin[] = {write("1x480.png", image({0, 0, 1, 480})),
                              write("640x1.png", image({0, 0, 640, 1}))};
  const std::pair<std::string, std::string> rows[] = {
      {"", "empty still image path"},
      {missing, "still image does not exist: " + missing},
      {folder_ / "text.png", "failed to decode still image: " + folder_ / "text.png"},
      {folder_ / "huge.ppm", "failed to decode still image: " + folder_ / "huge.ppm"},
      {folder_.path(), "failed to decode still image: " + folder_.path().string()},
      {thin[0], "still image is too small: " + thin[0]},
      {thin[1], "still image is too small: " + thin[1]},
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

}  // namespace
