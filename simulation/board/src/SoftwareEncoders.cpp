#include "SoftwareEncoders.h"

#include <locale>
#include <sstream>

namespace simulated_board {
namespace {

// Size of the rate control buffer, in milliseconds at the target rate.
unsigned rateWindow(const EncoderSettings& settings) {
  return settings.constantRate ? 600 : 10000;
}

// A bin description cannot end with bare caps, so the filter is written as an element.
std::string capsFilter(const char* caps) {
  return std::string(" ! capsfilter caps=\"") + caps + "\"";
}

}  // namespace

std::string x264(const EncoderSettings& settings) {
  static const char* const presets[] = {"ultrafast", "superfast", "veryfast", "faster"};
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "videoconvert qos=false ! video/x-raw,format=NV12 ! x264enc name=codec tune=zerolatency"
       << " speed-preset=" << presets[settings.effort] << " key-int-max=" << settings.keyDistance;
  if (settings.kbits == 0) {
    text << " pass=qual quantizer=23";
  } else {
    text << " bitrate=" << settings.kbits << " vbv-buf-capacity=" << rateWindow(settings);
  }
  text << " option-string=\"scenecut=0\"" << capsFilter(kH264);
  return text.str();
}

std::string x265(const EncoderSettings& settings) {
  static const char* const presets[] = {"ultrafast", "ultrafast", "superfast", "superfast"};
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "videoconvert qos=false ! video/x-raw,format=I420 ! x265enc name=codec tune=zerolatency"
       << " speed-preset=" << presets[settings.effort] << " key-int-max=" << settings.keyDistance;
  if (settings.kbits == 0) {
    text << " option-string=\"crf=25";
  } else {
    text << " bitrate=" << settings.kbits << " option-string=\"vbv-maxrate=" << settings.kbits
         << ":vbv-bufsize=" << settings.kbits * rateWindow(settings) / 1000;
  }
  text << ":open-gop=0:repeat-headers=1\"" << capsFilter(kH265);
  return text.str();
}

std::string aom(const EncoderSettings& settings) {
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << "videoconvert qos=false ! video/x-raw,format=I420 ! av1enc name=codec "
          "usage-profile=realtime"
       << " end-usage=" << (settings.constantRate ? "cbr" : "vbr")
       << " cpu-used=" << 10 - settings.effort << " keyframe-max-dist=" << settings.keyDistance
       << " target-bitrate=" << settings.kbits << " lag-in-frames=0 min-quantizer=2"
       << " max-quantizer=63 buf-sz=" << rateWindow(settings)
       << " buf-initial-sz=" << rateWindow(settings) / 2
       << " buf-optimal-sz=" << rateWindow(settings) / 2 << capsFilter(kAv1);
  return text.str();
}

}  // namespace simulated_board
