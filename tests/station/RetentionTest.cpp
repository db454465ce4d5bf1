// Which segments are deleted, whatever clock and disk do.

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <sys/mount.h>

#include "record/Retention.h"
#include "record/SegmentFiles.h"
#include "support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using station::Retention;

// Begins with segments of an earlier recording, and records three more.
class Folder {
 public:
  using Time = std::chrono::system_clock::time_point;

  explicit Folder(const std::vector<Time>& earlier) {
    for (const Time time : earlier) {
      write(station::segmentPath(folder_.path(), time));
    }
  }

  // Returns the names of those that are left.
  std::set<std::string> record(Time start, const Retention::Settings& settings) {
    {
      Retention retention(folder_.path(), settings, 0);
      for (int i = 0; i < 3; ++i) {
        const Time time = start + std::chrono::minutes(i);
        const fs::path path = station::segmentPath(folder_.path(), time);
        retention.begin(path, time);
        write(path);
        retention.close(path);
      }
    }
    std::set<std::string> names;
    for (const fs::path& path : fs::directory_iterator(folder_.path())) {
      names.insert(path.stem());
    }
    return names;
  }

 private:
  static void write(const fs::path& path) { std::ofstream(path) << std::string(1000, 'x'); }

  const TempFolder folder_;
};

// The recording began with a clock that has been set since.
TEST(Retention, KeepsTheRecordingAfterAStepOfTheClock) {
  using std::chrono::hours;
  const Folder::Time now = std::chrono::system_clock::now();
  struct Row {
    hours behind;
    Retention::Settings settings;
    std::vector<Folder::Time> deleted;  // of an earlier recording
    std::vector<Folder::Time> kept;     // likewise
  };
  const Row rows[] = {
      {hours(72), {48, 0, 0}, {now - hours(150)}, {now - hours(100), now}},
      {hours(24), {0, 3000, 0}, {now - hours(48), now}, {}},
  };
  for (const Row& row : rows) {
    std::vector<Folder::Time> earlier = row.deleted;
    earlier.insert(earlier.end(), row.kept.begin(), row.kept.end());
    const std::set<std::string> left = Folder(earlier).record(now - row.behind, row.settings);
    EXPECT_EQ(left.size(), 3 + row.kept.size());
    for (const Folder::Time time : row.deleted) {
      EXPECT_EQ(left.count(station::segmentStem(time)), 0U);
    }
    for (const Folder::Time time : row.kept) {
      EXPECT_EQ(left.count(station::segmentStem(time)), 1U);
    }
  }
}

// The space of files that somebody reads comes back when they are closed.
TEST(Retention, DeletesNoMoreThanTheDiskLacks) {
  const TempFolder folder;
  if (mount("none", folder.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "a small file system can only be mounted as root: " << std::strerror(errno);
  }
  std::vector<std::ifstream> readers;
  for (int i = 0; i < 10; ++i) {
    const fs::path path = station::segmentPath(folder.path(), Folder::Time(std::chrono::hours(i)));
    std::ofstream(path) << std::string(64000, 'x');
    readers.emplace_back(path);
  }
  const std::uint64_t free = fs::space(folder.path()).available;
  { const Retention retention(folder.path(), {0, 0, free + 100000}, 0); }
  const auto left = std::distance(fs::directory_iterator(folder.path()), {});
  EXPECT_LE(left, 8);
  EXPECT_GE(left, 4) << "one look deletes two";
  readers.clear();
  umount(folder.path().c_str());
}

}  // namespace
