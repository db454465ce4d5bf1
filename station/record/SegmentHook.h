#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace station {

// Runs programs for finished segments, without a shell, one after the other, on a thread of its
// own. Each runs in a process group of its own, so Ctrl-C does not reach it, with its output on
// standard error. A failure is logged. It outlives recordings, so that none waits for a program.
//
// Threads: any.
class SegmentHook {
 public:
  // The words of `command`, quoted as in a shell. Throws StationError (Usage) unless it begins with
  // a program that is there.
  static std::vector<std::string> parse(const std::string& command);

  SegmentHook() = default;
  // Waits for the programs of all segments.
  ~SegmentHook();
  SegmentHook(const SegmentHook&) = delete;
  SegmentHook& operator=(const SegmentHook&) = delete;

  // Runs the program of these words, with the segment's path as one more, when its turn comes.
  void push(const std::vector<std::string>& words, const std::filesystem::path& segment);

  std::uint64_t failures() const { return failures_; }

 private:
  struct Call {
    std::vector<std::string> words;
    std::filesystem::path segment;
  };

  void run();
  void carryOut(const Call& call);

  std::atomic<std::uint64_t> failures_{0};
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<Call> calls_;
  bool isOver_ = false;
  std::thread thread_;  // since the first call
};

}  // namespace station
