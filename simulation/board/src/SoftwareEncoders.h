#pragma once

#include <string>

namespace simulated_board {

// What the encoders give.
constexpr const char* kH264 = "video/x-h264,stream-format=byte-stream,alignment=au";
constexpr const char* kH265 = "video/x-h265,stream-format=byte-stream,alignment=au";
constexpr const char* kAv1 = "video/x-av1,stream-format=obu-stream,alignment=tu";

// A hardware encoder's properties in terms of the software encoders.
struct EncoderSettings {
  static constexpr unsigned kNever = 1u << 30;
  static constexpr unsigned kMaxKbits = 102400;  // accepted by every encoder

  unsigned kbits = 0;        // per second; 0: constant quality
  bool constantRate = true;  // false: only on average
  unsigned keyDistance = 0;  // frames
  unsigned effort = 0;       // 0 fastest to 3
};

// Descriptions of software encoders with these settings, from raw video to the caps above. The
// encoder's name is "codec".
std::string x264(const EncoderSettings& settings);
std::string x265(const EncoderSettings& settings);
std::string aom(const EncoderSettings& settings);

}  // namespace simulated_board
