#pragma once

#include <cstddef>
#include <filesystem>
#include <iterator>

// What this process holds open at the moment.

inline std::ptrdiff_t entriesOf(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder),
                       std::filesystem::directory_iterator());
}

inline std::ptrdiff_t openDescriptors() {
  return entriesOf("/proc/self/fd");
}

inline std::ptrdiff_t runningThreads() {
  return entriesOf("/proc/self/task");
}
