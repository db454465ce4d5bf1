#include "record/SegmentFiles.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <system_error>

#include <glib/gstdio.h>
#include <unistd.h>

#include "base/StationError.h"

namespace station {

void prepareOutputFolder(const std::filesystem::path& folder) {
  const auto fail = [&folder](int error) {
    throw StationError(
        error == ENOSPC ? ExitCode::DiskFull : ExitCode::Output,
        "cannot write to output folder " + folder.string() + ": " + std::strerror(error));
  };
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    fail(error.value());
  }
  std::string probe = (folder / ".media-station-XXXXXX").string();
  const int fd = g_mkstemp(probe.data());
  if (fd < 0) {
    fail(errno);
  }
  close(fd);
  g_unlink(probe.c_str());
}

std::filesystem::path segmentPath(const std::filesystem::path& folder,
                                  std::chrono::system_clock::time_point start) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count();
  const std::time_t seconds = milliseconds / 1000;
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  char text[32];
  const std::size_t length = std::strftime(text, sizeof(text), "%Y%m%dT%H%M%S", &utc);
  std::string fraction = std::to_string(1000 + milliseconds % 1000);
  fraction[0] = '.';
  const std::string stem = std::string(text, length) + fraction + "Z";

  std::filesystem::path path = folder / (stem + ".ts");
  for (int i = 2; std::filesystem::exists(path); ++i) {
    path = folder / (stem + "-" + std::to_string(i) + ".ts");
  }
  return path;
}

}  // namespace station
