#pragma once

#include <chrono>
#include <filesystem>

namespace station {

// Creates the folder if it is missing and tests that it is writable. Throws StationError (Output,
// DiskFull).
void prepareOutputFolder(const std::filesystem::path& folder);

// Path of a segment file that begins at `start`: UTC to the millisecond, as in
// 20260131T235959.250Z.ts. Never an existing file.
std::filesystem::path segmentPath(const std::filesystem::path& folder,
                                  std::chrono::system_clock::time_point start);

}  // namespace station
