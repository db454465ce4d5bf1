#include "record/Retention.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <system_error>
#include <tuple>
#include <utility>

#include "base/Callback.h"
#include "record/SegmentFiles.h"

namespace station {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds kLook{1};
constexpr int kLooksPerScan = 10;

using Hours = std::chrono::duration<double, std::ratio<3600>>;

}  // namespace

struct Retention::Segment {
  std::optional<Clock::time_point> begin;  // nothing for one of another recording
  SegmentName name;
  fs::path path;
  std::uint64_t bytes;

  bool operator<(const Segment& other) const {
    return std::tie(begin, name) < std::tie(other.begin, other.name);
  }
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

void Retention::begin(const fs::path& segment, std::chrono::system_clock::time_point start) {
  const std::lock_guard lock(mutex_);
  const Clock::time_point now = Clock::now();
  own_[segment] = {now, std::nullopt};
  offset_ = start.time_since_epoch() - now.time_since_epoch();
}

void Retention::close(const fs::path& segment) {
  {
    const std::lock_guard lock(mutex_);
    own_[segment].end = Clock::now();
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
    if (isDue || shortage() > 0) {
      deleteOldest();
    }
    lock.lock();
    if (isOver) {
      return;
    }
    wake_.wait_for(lock, kLook, [this] { return isDue_ || isOver_; });
  }
}

// Bytes that the disk lacks.
std::uint64_t Retention::shortage() const {
  std::error_code error;
  const fs::space_info space = fs::space(folder_, error);
  return error || space.available >= freeBytes_ ? 0 : freeBytes_ - space.available;
}

// In the order of their age. Forgets the recording's own that are gone.
std::vector<Retention::Segment> Retention::scan() {
  const Clock::time_point begin = Clock::now();
  std::vector<Segment> segments;
  std::error_code error;  // the recording itself reports a folder that is gone
  for (fs::directory_iterator entry(folder_, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::optional<SegmentName> name = SegmentName::parse(entry->path().filename().string());
    std::error_code gone;
    if (name && entry->symlink_status(gone).type() == fs::file_type::regular) {
      const std::uint64_t bytes = entry->file_size(gone);
      segments.push_back({std::nullopt, *name, entry->path(), gone ? 0 : bytes});
    }
  }
  const std::lock_guard lock(mutex_);
  std::map<fs::path, Own> there;
  for (Segment& segment : segments) {
    const auto own = own_.find(segment.path);
    if (own != own_.end()) {
      segment.begin = own->second.begin;
      there.insert(*own);
    }
  }
  for (const auto& [path, own] : own_) {
    if (!own.end || *own.end >= begin) {  // the scan may have missed it
      there.emplace(path, own);
    }
  }
  own_ = std::move(there);
  std::sort(segments.begin(), segments.end());
  return segments;
}

// Names before this one are too old: by the recording's own names, so none before its first.
std::string Retention::oldestName() const {
  const std::lock_guard lock(mutex_);
  if (!offset_) {
    return {};
  }
  using SystemClock = std::chrono::system_clock;
  return segmentStem(SystemClock::time_point(std::chrono::duration_cast<SystemClock::duration>(
      Clock::now().time_since_epoch() + *offset_ - Hours(settings_.hours))));
}

// The space of a deleted file may come back later: when the file system gets to it, or when a
// reader closes the file. The next look then tells whether it was enough.
void Retention::deleteOldest() {
  std::vector<Segment> segments = scan();
  std::uint64_t total = 0;
  for (const Segment& segment : segments) {
    total += segment.bytes;
  }
  if (!segments.empty()) {
    segments.pop_back();
  }
  std::uint64_t missing = shortage();
  const std::string oldest = oldestName();
  const Clock::time_point now = Clock::now();
  for (const Segment& segment : segments) {
    const bool isOlder =
        segment.begin ? now - *segment.begin > Hours(settings_.hours) : segment.name.stem < oldest;
    const bool isOld = settings_.hours > 0 && isOlder;
    const bool isTooMuch = settings_.bytes > 0 && total > settings_.bytes;
    if (!isOld && !isTooMuch && missing == 0) {
      return;
    }
    if (remove(segment)) {
      total -= segment.bytes;
      missing -= std::min(missing, segment.bytes);
    }
  }
}

bool Retention::remove(const Segment& segment) {
  {
    const std::lock_guard lock(mutex_);
    const auto own = own_.find(segment.path);
    if (own != own_.end() && !own->second.end) {
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
