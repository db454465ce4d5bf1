#include "record/SegmentFiles.h"

#include <cerrno>
#include <regex>
#include <string>
#include <system_error>

#include <glib/gstdio.h>

#include "base/Handles.h"
#include "base/WriteError.h"

namespace station {

void prepareOutputFolder(const std::filesystem::path& folder) {
  const auto fail = [&folder](int error) {
    throw writeError("cannot write to output folder " + folder.string(), g_strerror(error));
  };
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) {
    fail(error.value());
  }
  std::string probe = (folder / ".media-station-XXXXXX").string();
  const UniqueFd file(g_mkstemp(probe.data()));
  if (file.get() < 0) {
    fail(errno);
  }
  g_unlink(probe.c_str());
}

std::optional<SegmentName> SegmentName::parse(const std::string& fileName) {
  static const std::regex kName("(\\d{8}T\\d{6}\\.\\d{3}Z)(-([2-9]|[1-9]\\d{1,5}))?\\.ts");
  std::smatch match;
  if (!std::regex_match(fileName, match, kName)) {
    return std::nullopt;
  }
  return SegmentName{match[1], match[3].matched ? std::stoi(match[3]) : 1};
}

std::string segmentStem(std::chrono::system_clock::time_point start) {
  const auto milliseconds =
      std::chrono::duration_cast<std::chrono::milliseconds>(start.time_since_epoch()).count();
  g_autoptr(GDateTime) time = g_date_time_new_from_unix_utc(milliseconds / 1000);
  g_autofree gchar* seconds = g_date_time_format(time, "%Y%m%dT%H%M%S");
  std::string fraction = std::to_string(1000 + milliseconds % 1000);
  fraction[0] = '.';
  return seconds + fraction + "Z";
}

std::filesystem::path segmentPath(const std::filesystem::path& folder,
                                  std::chrono::system_clock::time_point start) {
  const std::string stem = segmentStem(start);
  std::filesystem::path path = folder / (stem + ".ts");
  std::error_code error;  // a folder that cannot be searched: opening the file says why
  for (int i = 2; std::filesystem::exists(path, error); ++i) {
    path = folder / (stem + "-" + std::to_string(i) + ".ts");
  }
  return path;
}

}  // namespace station
