#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>

#include <malloc.h>

// What this process holds open at the moment.

inline std::ptrdiff_t entriesOf(const char* folder) {
  return std::distance(std::filesystem::directory_iterator(folder),
                       std::filesystem::directory_iterator());
}

inline std::ptrdiff_t openDescriptors() {
  return entriesOf("/proc/self/fd");
}

// Without the one that GLib keeps to start pool threads.
inline std::ptrdiff_t runningThreads() {
  const std::filesystem::directory_iterator tasks("/proc/self/task");
  return std::count_if(begin(tasks), end(tasks), [](const auto& task) {
    std::string name;
    std::getline(std::ifstream(task.path() / "comm"), name);
    return name != "pool-spawner";
  });
}

// Pipelines and pool threads end a moment after the call that ends them. False if `condition` does
// not become true within ten seconds.
template <typename Condition>
bool settles(const Condition& condition) {
  for (int i = 0; i < 1000 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return condition();
}

inline bool threadsSettle(std::ptrdiff_t most) {
  return settles([most] { return runningThreads() <= most; });
}

inline bool descriptorsSettle(std::ptrdiff_t most) {
  return settles([most] { return openDescriptors() <= most; });
}

// Bytes from malloc() in use, mapped blocks included; a sanitizer's allocator is not seen.
inline std::size_t allocatedBytes() {
#if __GLIBC_PREREQ(2, 33)
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
#else
  const struct mallinfo info = mallinfo();  // counts as int, which the tests do not exceed
  return static_cast<std::size_t>(info.uordblks) + static_cast<std::size_t>(info.hblkhd);
#endif
}
