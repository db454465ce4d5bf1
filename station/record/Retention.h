#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace station {

// Deletes the oldest segment files of a folder, on a thread of its own, so that a recording stays
// within limits. Never the newest, never one that is being written, and nothing else in the folder.
// Age and order are those of the names, which say when a segment begins.
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

  // A segment that is about to be written, and its end.
  void begin(const std::filesystem::path& segment);
  void close(const std::filesystem::path& segment);

  std::uint64_t deleted() const { return deleted_; }

 private:
  struct Segment;

  void run();
  bool isDiskShort() const;
  void deleteOldest();
  bool remove(const Segment& segment);

  const std::filesystem::path folder_;
  const Settings settings_;
  const std::uint64_t freeBytes_;
  std::atomic<std::uint64_t> deleted_{0};
  std::set<std::string> stuck_;  // names of those that cannot be deleted; the thread's own

  std::mutex mutex_;
  std::condition_variable wake_;
  std::set<std::filesystem::path> open_;
  bool isDue_ = true;
  bool isOver_ = false;
  std::thread thread_;
};

}  // namespace station
