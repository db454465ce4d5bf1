#pragma once

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <tuple>

namespace station {

// Creates the folder if it is missing and tests that it is writable. Throws StationError (Output,
// DiskFull).
void prepareOutputFolder(const std::filesystem::path& folder);

// What the name of a segment's file is made of: NAME.ts, or NAME-NUMBER.ts for a further one that
// begins in the same millisecond.
struct SegmentName {
  std::string stem;  // as of segmentStem()
  int number = 1;

  // Nothing for the name of any other file.
  static std::optional<SegmentName> parse(const std::string& fileName);

  bool operator<(const SegmentName& other) const {
    return std::tie(stem, number) < std::tie(other.stem, other.number);
  }
};

// UTC to the millisecond, as in 20260131T235959.250Z.
std::string segmentStem(std::chrono::system_clock::time_point start);

// Path of a segment file that begins at `start`. Never an existing file.
std::filesystem::path segmentPath(const std::filesystem::path& folder,
                                  std::chrono::system_clock::time_point start);

}  // namespace station
