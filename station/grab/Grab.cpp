#include "grab/Grab.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <system_error>

#include <gst/video/video.h>

#include "base/GstPtr.h"
#include "base/StationError.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr GstClockTime kConvertTimeout = 10 * GST_SECOND;

// A file's kind by its ending; null caps for raw NV12.
struct Kind {
  const char* extension;
  const char* caps;
};

constexpr Kind kKinds[] = {
    {".png", "image/png"}, {".jpg", "image/jpeg"}, {".jpeg", "image/jpeg"}, {".nv12", nullptr}};

const Kind& kindOf(const fs::path& file) {
  for (const Kind& kind : kKinds) {
    if (file.extension() == kind.extension) {
      return kind;
    }
  }
  throw StationError(ExitCode::Usage,
                     "grab writes .png, .jpg and .nv12, not \"" + file.string() + "\"");
}

std::string packedNv12(const lumora::LumoraPicture& picture) {
  std::string bytes;
  bytes.reserve(std::size_t{picture.width()} * picture.height() * 3 / 2);
  const auto append = [&](const std::uint8_t* rows, unsigned int count) {
    for (unsigned int row = 0; row < count; ++row) {
      bytes.append(reinterpret_cast<const char*>(rows) + std::size_t{row} * picture.stride(),
                   picture.width());
    }
  };
  append(picture.luma(), picture.height());
  append(picture.chroma(), picture.height() / 2);
  return bytes;
}

// Colours are those of `colorimetry`, or if that is null GStreamer's default for the size.
std::string encoded(const lumora::LumoraPicture& picture, const char* colorimetry,
                    const char* type) {
  const std::string nv12 = packedNv12(picture);
  g_autoptr(GstBuffer) buffer = gst_buffer_new_memdup(nv12.data(), nv12.size());
  g_autoptr(GstCaps) from = gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, "NV12", "width", G_TYPE_INT,
      static_cast<int>(picture.width()), "height", G_TYPE_INT, static_cast<int>(picture.height()),
      "framerate", GST_TYPE_FRACTION, 1, 1, nullptr);
  if (colorimetry != nullptr) {
    gst_caps_set_simple(from, "colorimetry", G_TYPE_STRING, colorimetry, nullptr);
  }
  g_autoptr(GstCaps) to = gst_caps_new_empty_simple(type);
  g_autoptr(GstSample) sample = gst_sample_new(buffer, from, nullptr, nullptr);
  g_autoptr(GError) error = nullptr;
  g_autoptr(GstSample) image = gst_video_convert_sample(sample, to, kConvertTimeout, &error);
  if (image == nullptr) {
    throw StationError(ExitCode::Pipeline,
                       std::string("cannot make ") + type + ": " + error->message);
  }
  GstBuffer* const bytes = gst_sample_get_buffer(image);
  std::string result(gst_buffer_get_size(bytes), '\0');
  gst_buffer_extract(bytes, 0, result.data(), result.size());
  return result;
}

void write(const fs::path& file, const std::string& bytes) {
  std::ofstream stream(file, std::ios::binary);
  stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream.close();
  if (!stream) {
    throw StationError(ExitCode::Output, "cannot write " + file.string() + ": " +
                                             std::generic_category().message(errno));
  }
}

// "a.png" for the only picture, "a-0001.png" for the first of several.
fs::path numbered(const GrabOptions& options, unsigned int number) {
  if (options.count == 1) {
    return options.file;
  }
  char digits[16];
  std::snprintf(digits, sizeof(digits), "-%04u", number + 1);
  fs::path file = options.file;
  file.replace_filename(options.file.stem().string() + digits + options.file.extension().string());
  return file;
}

}  // namespace

void grab(const GrabOptions& options) {
  const Kind& kind = kindOf(options.file);
  const std::unique_ptr<Camera> camera = Camera::open(options.camera);
  for (unsigned int number = 0; number < options.count; ++number) {
    const auto picture = camera->next();
    if (picture == nullptr) {
      throw StationError(ExitCode::Source, "source has ended after " + std::to_string(number) +
                                               " pictures: " + options.camera.source);
    }
    const fs::path file = numbered(options, number);
    write(file, kind.caps == nullptr ? packedNv12(*picture)
                                     : encoded(*picture, camera->colorimetry(), kind.caps));
    std::printf("%s  %u x %u\n", file.string().c_str(), picture->width(), picture->height());
  }
}

}  // namespace station
