#include "record/Retention.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "base/Callback.h"
#include "record/SegmentFiles.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kLook{1};
constexpr int kLooksPerScan = 10;

}  // namespace

struct Retention::Segment {
  SegmentName name;
  fs::path path;
  std::uint64_t bytes;
};

Retention::Retention(fs::path folder, const Settings& settings, std::uint64_t reserve)
    : folder_(std::move(folder)),
      settings_(settings),
      freeBytes_(std::max(settings.freeBytes, reserve)),
      thread_([this] { callGuarded([this] { run(); }); }) {}

Retention::~Retention() {
  {
    const std::lock_guard lock(mutex_);
    isOver_ = true;
  }
  wake_.notify_one();
  thread_.join();
}

void Retention::begin(const fs::path& segment) {
  const std::lock_guard lock(mutex_);
  open_.insert(segment);
}

void Retention::close(const fs::path& segment) {
  {
    const std::lock_guard lock(mutex_);
    open_.erase(segment);
    isDue_ = true;
  }
  wake_.notify_one();
}

void Retention::run() {
  std::unique_lock lock(mutex_);
  for (int looks = 0;; ++looks) {
    const bool isOver = isOver_;
    const bool isDue = std::exchange(isDue_, false) || looks % kLooksPerScan == 0;
    lock.unlock();
    if (isDue || isDiskShort()) {
      deleteOldest();
    }
    lock.lock();
    if (isOver) {
      return;
    }
    wake_.wait_for(lock, kLook, [this] { return isDue_ || isOver_; });
  }
}

bool Retention::isDiskShort() const {
  std::error_code error;
  const fs::space_info space = fs::space(folder_, error);
  return !error && space.available < freeBytes_;
}

void Retention::deleteOldest() {
  std::vector<Segment> segments;
  std::uint64_t total = 0;
  std::error_code error;  // the recording itself reports a folder that is gone
  for (fs::directory_iterator entry(folder_, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::optional<SegmentName> name = SegmentName::parse(entry->path().filename().string());
    std::error_code gone;
    if (name && entry->symlink_status(gone).type() == fs::file_type::regular) {
      const std::uint64_t bytes = entry->file_size(gone);
      segments.push_back({*name, entry->path(), gone ? 0 : bytes});
      total += segments.back().bytes;
    }
  }
  std::sort(segments.begin(), segments.end(),
            [](const Segment& a, const Segment& b) { return a.name < b.name; });
  if (!segments.empty()) {
    segments.pop_back();
  }
  const auto age = std::chrono::duration<double, std::ratio<3600>>(settings_.hours);
  const std::string oldest =
      segmentStem(std::chrono::system_clock::now() -
                  std::chrono::duration_cast<std::chrono::system_clock::duration>(age));
  for (const Segment& segment : segments) {
    const bool isOld = settings_.hours > 0 && segment.name.stem < oldest;
    const bool isTooMuch = settings_.bytes > 0 && total > settings_.bytes;
    if (!isOld && !isTooMuch && !isDiskShort()) {
      return;
    }
    if (remove(segment)) {
      total -= segment.bytes;
    }
  }
}

bool Retention::remove(const Segment& segment) {
  {
    const std::lock_guard lock(mutex_);
    if (open_.count(segment.path) != 0) {
      return false;
    }
  }
  std::error_code error;
  fs::remove(segment.path, error);
  if (!error) {
    ++deleted_;
  } else if (stuck_.insert(segment.path.string()).second) {
    std::fprintf(stderr, "cannot delete %s: %s\n", segment.path.c_str(), error.message().c_str());
  }
  return !error;
}

}  // namespace station
