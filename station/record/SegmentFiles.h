#pragma once

#include <chrono>
#include <filesystem>

namespace station {

// Makes the folder where it is missing and proves that files can be written there; throws
// StationError (Output, or DiskFull) otherwise.
void prepareOutputFolder(const std::filesystem::path& folder);

// Path of a segment file that begins at `start`: UTC to the millisecond, as in
// 20260131T235959.250Z.ts. Never the path of a file that exists.
std::filesystem::path segmentPath(const std::filesystem::path& folder,
                                  std::chrono::system_clock::time_point start);

}  // namespace station
