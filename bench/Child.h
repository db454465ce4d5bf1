#pragma once

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

inline double threadSeconds() {
  timespec time{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

// Touches every page of the process. A page's first access is a fault, which under virtualisation
// takes longer than all that is measured in a child.
inline void touchPages() {
  struct Range {
    std::uintptr_t begin;
    std::uintptr_t end;
    bool ours;  // a write stays in this process
  };
  std::vector<Range> ranges;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    Range range{};
    char access[5] = {};
    std::sscanf(line.c_str(), "%" SCNxPTR "-%" SCNxPTR " %4s", &range.begin, &range.end, access);
    range.ours = access[1] == 'w' && access[3] == 'p';
    if (access[0] == 'r' && line.find("[v") == std::string::npos) {  // [vvar], [vsyscall]
      ranges.push_back(range);
    }
  }
  const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
  for (const Range& range : ranges) {
    for (std::uintptr_t at = range.begin; at < range.end; at += page) {
      auto* const byte = reinterpret_cast<volatile char*>(at);
      const char value = *byte;
      if (range.ours) {
        *byte = value;
      }
    }
  }
}

// Runs the function in a child process and returns the seconds of processor time that it took
// there.
template <typename Function>
double secondsInChild(Function function) {
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t child = fork();
  if (child == 0) {
    touchPages();
    const double begin = threadSeconds();
    function();
    const double seconds = threadSeconds() - begin;
    _exit(write(ends[1], &seconds, sizeof(seconds)) == sizeof(seconds) ? EXIT_SUCCESS
                                                                       : EXIT_FAILURE);
  }
  close(ends[1]);
  double seconds = 0;
  const bool complete = read(ends[0], &seconds, sizeof(seconds)) == sizeof(seconds);
  close(ends[0]);
  waitpid(child, nullptr, 0);
  if (!complete) {
    throw std::runtime_error("a child ended without its time");
  }
  return seconds;
}
