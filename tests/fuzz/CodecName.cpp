// Texts as codec names: any case of the seven known ones, and nothing around them.

#include <cctype>
#include <cstring>
#include <string>

#include <media_backend/GstVideoBackend.h>
#include <strings.h>

#include "Require.h"

using media_backend::GstVideoBackend;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const struct {
    const char* text;
    int codec;
    const char* name;
  } rows[] = {{"h264", 1, "h264"},   {"h265", 2, "h265"},  {"hevc", 2, "h265"}, {"av1", 3, "av1"},
              {"mjpeg", 4, "mjpeg"}, {"jpeg", 4, "mjpeg"}, {"jpg", 4, "mjpeg"}};
  const std::string text(reinterpret_cast<const char*>(data), size);
  int codec = 0;
  const char* name = "unknown";
  for (const auto& row : rows) {
    // A text with a zero byte is longer than it looks.
    if (text.size() == std::strlen(row.text) && strcasecmp(text.c_str(), row.text) == 0) {
      codec = row.codec;
      name = row.name;
    }
  }
  const GstVideoBackend::Codec found = GstVideoBackend::codecFromString(text);
  require(static_cast<int>(found) == codec, "a codec is known by its names alone");
  require(std::strcmp(GstVideoBackend::codecName(found), name) == 0, "codecName()");
  return 0;
}
