#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace station {

// Deletes the oldest segment files of a folder, on a thread of its own, so that a recording stays
// within limits. Never the newest, never one that is being written, and nothing else in the folder.
//
// The segments of the recording itself are as old as the monotonic clock says, and newer than all
// others, whose names say when they began. So a step of the system's clock deletes nothing.
//
// Threads: any.
class Retention {
 public:
  // 0: no limit.
  struct Settings {
    double hours = 0;             // since the begin of a segment
    std::uint64_t bytes = 0;      // of all segments together
    std::uint64_t freeBytes = 0;  // of the folder's file system, which others may fill

    bool isWanted() const { return hours > 0 || bytes > 0 || freeBytes > 0; }
  };

  // `reserve`: bytes that the recording may need between two looks; kept free under any limit.
  Retention(std::filesystem::path folder, const Settings& settings, std::uint64_t reserve);
  ~Retention();
  Retention(const Retention&) = delete;
  Retention& operator=(const Retention&) = delete;

  // A segment that is about to be written, named after `start`, and its end.
  void begin(const std::filesystem::path& segment, std::chrono::system_clock::time_point start);
  void close(const std::filesystem::path& segment);

  std::uint64_t deleted() const { return deleted_; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Own {
    Clock::time_point begin;
    std::optional<Clock::time_point> end;  // nothing while it is written
  };
  struct Segment;

  void run();
  std::uint64_t shortage() const;
  void deleteOldest();
  std::vector<Segment> scan();
  std::string oldestName() const;
  bool remove(const Segment& segment);

  const std::filesystem::path folder_;
  const Settings settings_;
  const std::uint64_t freeBytes_;
  std::atomic<std::uint64_t> deleted_{0};
  std::set<std::string> stuck_;  // names of those that cannot be deleted; the thread's own

  mutable std::mutex mutex_;
  std::condition_variable wake_;
  std::map<std::filesystem::path, Own> own_;        // the recording's, while their files exist
  std::optional<std::chrono::nanoseconds> offset_;  // of its names, from the monotonic clock
  bool isDue_ = true;
  bool isOver_ = false;
  std::thread thread_;
};

}  // namespace station
