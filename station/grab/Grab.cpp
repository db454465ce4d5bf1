#include "grab/Grab.h"

#include <cstdio>
#include <string>
#include <utility>

#include <gst/video/video.h>
#include <CLI/CLI.hpp>

#include "base/Pipelines.h"
#include "base/StationError.h"
#include "base/WriteError.h"
#include "camera/CallSource.h"
#include "camera/Camera.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr GstClockTime kConvertTimeout = 10 * GST_SECOND;
constexpr int kFileMode = 0666;

// Kind of a file by its extension; null caps for raw NV12.
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

// A buffer over bytes that outlive it: GLib ends the process if there is no memory for a copy.
GstBuffer* wrapped(std::string& bytes) {
  return gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, bytes.data(), bytes.size(), 0,
                                     bytes.size(), nullptr, nullptr);
}

// GLib ends the process if there is no memory for what GStreamer makes of the picture: at most
// 16 bits of RGB, 8 bits of it, and its compressed form. This throws std::bad_alloc.
void requireMemory(const lumora::LumoraPicture& picture) {
  constexpr std::size_t kBytesPerPixel = 16;
  std::string().reserve(std::size_t{picture.width()} * picture.height() * kBytesPerPixel);
}

void convert(GstSample*& sample, const std::string& caps) {
  g_autoptr(GstCaps) to = gst_caps_from_string(caps.c_str());
  g_autoptr(GError) error = nullptr;
  GstSample* const result = gst_video_convert_sample(sample, to, kConvertTimeout, &error);
  if (result == nullptr) {
    throw StationError(ExitCode::Pipeline, "cannot make " + caps + ": " + error->message);
  }
  gst_sample_unref(std::exchange(sample, result));
}

// An empty `colorimetry` means GStreamer's default for the size.
std::string encoded(const lumora::LumoraPicture& picture, const std::string& colorimetry,
                    const std::string& type) {
  std::string nv12 = packedNv12(picture);
  requireMemory(picture);
  g_autoptr(GstBuffer) buffer = wrapped(nv12);
  g_autoptr(GstCaps) from = gst_caps_new_simple(
      "video/x-raw", "format", G_TYPE_STRING, "NV12", "width", G_TYPE_INT,
      static_cast<int>(picture.width()), "height", G_TYPE_INT, static_cast<int>(picture.height()),
      "framerate", GST_TYPE_FRACTION, 1, 1, nullptr);
  if (!colorimetry.empty()) {
    gst_caps_set_simple(from, "colorimetry", G_TYPE_STRING, colorimetry.c_str(), nullptr);
  }
  g_autoptr(GstSample) sample = gst_sample_new(buffer, from, nullptr, nullptr);
  const bool isJpeg = type == "image/jpeg";
  if (!isJpeg || colorimetry != kJpegColorimetry) {
    convert(sample, kExactRgb);
    convert(sample, isJpeg ? std::string("video/x-raw,format=I420,colorimetry=") + kJpegColorimetry
                           : "video/x-raw,format=RGB");
  }
  convert(sample, type);
  GstBuffer* const bytes = gst_sample_get_buffer(sample);
  std::string result(gst_buffer_get_size(bytes), '\0');
  gst_buffer_extract(bytes, 0, result.data(), result.size());
  return result;
}

// Replaces an existing file only if writing succeeds.
void write(const fs::path& file, const std::string& bytes) {
  g_autoptr(GError) error = nullptr;
  if (!g_file_set_contents_full(file.c_str(), bytes.data(), static_cast<gssize>(bytes.size()),
                                G_FILE_SET_CONTENTS_CONSISTENT, kFileMode, &error)) {
    throw writeError("cannot write " + file.string(), error->message);
  }
}

// "a.png" for the only frame, "a-0001.png" for the first of several.
fs::path numbered(const fs::path& file, unsigned int number, unsigned int count) {
  if (count == 1) {
    return file;
  }
  char digits[16];
  std::snprintf(digits, sizeof(digits), "-%04u", number + 1);
  fs::path result = file;
  result.replace_filename(file.stem().string() + digits + file.extension().string());
  return result;
}

}  // namespace

CLI::App& Grab::addOptions(CLI::App& program) {
  CLI::App& command =
      *program.add_subcommand("grab", "Write pictures of a camera, or of a file played as one");
  camera_.loop = false;
  camera_.addTo(command);
  command.add_option("-o,--output", file_, "File that ends in .png, .jpg or .nv12")
      ->type_name("FILE")
      ->capture_default_str();
  command.add_option("--count", count_, "Pictures; more than one number the files")
      ->check(CLI::Range(1U, 9999U))
      ->capture_default_str();
  return command;
}

void Grab::run() {
  callSource(camera_.source, [this] { grab(); });
}

void Grab::grab() {
  const Kind& kind = kindOf(file_);
  const std::unique_ptr<Camera> camera = Camera::open(camera_);
  for (unsigned int number = 0; number < count_; ++number) {
    const auto picture = camera->next();
    if (picture == nullptr) {
      throw StationError(ExitCode::Source, "source has ended after " + std::to_string(number) +
                                               " pictures: " + camera_.source);
    }
    const fs::path file = numbered(file_, number, count_);
    write(file, kind.caps == nullptr ? packedNv12(*picture)
                                     : encoded(*picture, camera->format().colorimetry, kind.caps));
    std::printf("%s  %u x %u\n", file.string().c_str(), picture->width(), picture->height());
  }
}

}  // namespace station
