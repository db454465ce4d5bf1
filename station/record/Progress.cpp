#include "record/Progress.h"

#include <cstdio>

#include <unistd.h>

namespace station {
namespace {

using std::chrono_literals::operator""ms;
using std::chrono_literals::operator""s;

constexpr std::chrono::seconds kLogInterval{60};

}  // namespace

Progress::Progress() : onTerminal_(isatty(STDERR_FILENO) != 0) {}

void Progress::print(const Recorder::Statistics& statistics, const std::string& segment,
                     std::chrono::nanoseconds recorded) {
  const std::chrono::seconds lineInterval(recorded < kLogInterval ? 1s : kLogInterval);
  due_ = std::chrono::steady_clock::now() + (onTerminal_ ? 200ms : lineInterval);
  const auto tenths = recorded.count() / 100000000;
  std::fprintf(stderr, "%s%02lld:%02lld.%lld  %llu frames  %llu dropped  segment %llu %s  %s%s",
               onTerminal_ ? "\r\033[K" : "", static_cast<long long>(tenths / 600),
               static_cast<long long>(tenths / 10 % 60), static_cast<long long>(tenths % 10),
               static_cast<unsigned long long>(statistics.frames),
               static_cast<unsigned long long>(statistics.dropped),
               static_cast<unsigned long long>(statistics.segments), segment.c_str(),
               bitRate(statistics.bytes, recorded).c_str(), onTerminal_ ? "" : "\n");
  std::fflush(stderr);
  lineOpen_ = onTerminal_;
}

void Progress::end() {
  if (lineOpen_) {
    std::fputc('\n', stderr);
    lineOpen_ = false;
  }
}

std::string Progress::bitRate(std::uint64_t bytes, std::chrono::nanoseconds duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  const double megabits = seconds > 0 ? static_cast<double>(bytes) * 8e-6 / seconds : 0;
  char text[32];
  std::snprintf(text, sizeof(text), "%.2f Mbit/s", megabits);
  return text;
}

}  // namespace station
