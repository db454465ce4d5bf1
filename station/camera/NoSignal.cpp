#include "camera/NoSignal.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include <glib.h>
#include <opencv2/imgproc.hpp>

namespace station {
namespace {

constexpr std::uint8_t kBackground = 40;
constexpr std::uint8_t kText = 220;
constexpr std::uint8_t kNoColour = 128;

// `y`: middle of the line, as a share of the height; `width`: its length, likewise.
void drawLine(cv::Mat& luma, const std::string& text, double y, double width) {
  const int font = cv::FONT_HERSHEY_SIMPLEX;
  const cv::Size one = cv::getTextSize(text, font, 1, 1, nullptr);
  const double scale = std::min(width * luma.cols / one.width, 0.2 * luma.rows / one.height);
  const int thickness = std::max(1, static_cast<int>(2 * scale));
  const cv::Size size = cv::getTextSize(text, font, scale, thickness, nullptr);
  const cv::Point begin((luma.cols - size.width) / 2,
                        static_cast<int>(y * luma.rows) + size.height / 2);
  cv::putText(luma, text, begin, font, scale, cv::Scalar(kText), thickness, cv::LINE_AA);
}

std::string timeText(std::chrono::system_clock::time_point time) {
  g_autoptr(GDateTime) utc =
      g_date_time_new_from_unix_utc(std::chrono::system_clock::to_time_t(time));
  g_autofree gchar* text = g_date_time_format(utc, "since %Y-%m-%d %H:%M:%S UTC");
  return text;
}

}  // namespace

std::shared_ptr<lumora::LumoraPicture> noSignalPicture(
    unsigned int width, unsigned int height, std::chrono::system_clock::time_point since) {
  std::vector<std::uint8_t> nv12(std::size_t{width} * height * 3 / 2, kNoColour);
  cv::Mat luma(static_cast<int>(height), static_cast<int>(width), CV_8UC1, nv12.data());
  luma.setTo(kBackground);
  drawLine(luma, "no signal", 0.42, 0.5);
  drawLine(luma, timeText(since), 0.64, 0.6);
  return lumora::LumoraPicture::fromNv12Host(nv12.data(), width, height, width);
}

}  // namespace station
