// How recordings end, and what becomes of old segments.

#include <sys/mount.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>

#include "Record.h"

namespace {

namespace fs = std::filesystem;

TEST_F(Record, EndsTheLastSegmentOnASignal) {
  for (const int number : {SIGINT, SIGHUP}) {
    Program program(
        command({"--board", "nvidia", "--klv", "--audio-silence", "--segment-seconds", "1"}));
    ASSERT_TRUE(awaitSegments(2));
    program.signal(number);
    const Result verdict = judge(program.wait(), {"--segment-seconds", "1"});
    EXPECT_EQ(verdict.exitCode, 0) << number << verdict.out << verdict.err;
    fs::remove_all(output());
  }
}

TEST_F(Record, QuitsOnTheSecondCtrlC) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer hands signals on when a thread gets to it, or never";
#endif
  Program program(command({"--board", "nvidia"}));
  ASSERT_TRUE(awaitSegments(1));
  // Both are pending when the process goes on, so neither can be late.
  for (const int number : {SIGSTOP, SIGINT, SIGTERM, SIGCONT}) {
    program.signal(number);
  }
  EXPECT_EQ(program.wait().exitCode, 130);
}

TEST_F(Record, KeepsWhatWasRecordedWhenSourceOrFolderVanishes) {
  const fs::path moved = folder_ / "moved";
  const std::tuple<const char*, fs::path, bool, int, const char*> rows[] = {
      {"nvidia", output(), false, 6, "No such file or directory"},
      {"imx", output(), true, 6, "Too many levels of symbolic links"},
      {"imx", clip_, false, 5, "media file does not exist: "},
      {"nvidia", clip_, true, 5, "Too many levels of symbolic links: "},
  };
  for (const auto& [board, vanishes, becomesLoop, exitCode, error] : rows) {
    Program program(command({"--board", board, "--segment-seconds", "1", "--exit-on-loss"}));
    ASSERT_TRUE(awaitSegments(2));
    fs::rename(vanishes, moved);
    if (becomesLoop) {
      fs::create_symlink(vanishes, vanishes);
    }
    const Result result = program.wait();
    EXPECT_EQ(result.exitCode, exitCode) << result.err;
    EXPECT_NE(result.err.find(error), std::string::npos) << result.err;
    fs::remove(vanishes);
    fs::rename(moved, vanishes);
    EXPECT_GE(decodedFrames(filesIn(output()).front()), 20);
    fs::remove_all(output());
  }
}

TEST_F(Record, SaysThatTheDiskIsFull) {
  for (const char* const limit : {"size=2m", "nr_inodes=4"}) {
    fs::create_directories(output());
    if (mount("none", output().c_str(), "tmpfs", 0, limit) != 0) {
      GTEST_SKIP() << "a small file system can only be mounted as root: " << std::strerror(errno);
    }
    const Result result = run(command({"--board", "nvidia", "--segment-seconds", "1", "--bitrate",
                                       "8000000", "--duration", "20"}));
    EXPECT_EQ(result.exitCode, 7) << result.err;
    EXPECT_NE(result.err.find("is full"), std::string::npos) << result.err;
    EXPECT_EQ(decodedFrames(filesIn(output()).front()), 30);
    umount(output().c_str());
  }
}

TEST_F(Record, MakesRoomOnAFullDisk) {
  fs::create_directories(output());
  if (mount("none", output().c_str(), "tmpfs", 0, "size=2m") != 0) {
    GTEST_SKIP() << "a small file system can only be mounted as root: " << std::strerror(errno);
  }
  const Result result = run(command({"--board", "nvidia", "--segment-seconds", "1", "--bitrate",
                                     "4000000", "--duration", "8", "--keep-hours", "1"}));
  EXPECT_TRUE(hasRecorded(result)) << result.exitCode << result.err;
  EXPECT_GE(decodedFrames(filesIn(output()).front()), 20);
  umount(output().c_str());
}

TEST_F(Record, DeletesItsOldestSegmentsAndHandsOnTheOthers) {
  const char* const theirs[] = {"holiday.ts", "20200101T000000.000Z-copy.ts",
                                "20200101T000000.000Z.mp4", "x20200101T000000.000Z.ts"};
  const char* const olds[] = {"20200101T000000.000Z.ts", "20200101T000000.000Z-2.ts"};
  const std::string link = folder_ / "out/20200103T000000.000Z.ts";
  for (const auto& [option, value] : {std::pair{"--keep-hours", "1"}, {"--keep-size", "250kB"}}) {
    fs::create_directories(output() / "20200102T000000.000Z.ts");
    fs::create_symlink("holiday.ts", link);
    for (const auto& names : {std::vector(theirs, theirs + 4), std::vector(olds, olds + 2)}) {
      for (const char* const name : names) {
        std::ofstream(output() / name) << std::string(300000, 'x');
      }
    }
    const Result result =
        run(command({"--board", "imx", "--segment-seconds", "1", "--duration", "4", "--bitrate",
                     "800000", option, value, "--on-segment",
                     "sh -c 'ffprobe -v error \"$1\" && echo \"whole $1\"; exit 3' sh"}));
    EXPECT_TRUE(hasRecorded(result)) << result.err;
    EXPECT_TRUE(fs::is_directory(output() / "20200102T000000.000Z.ts"));
    EXPECT_TRUE(fs::is_symlink(link));
    fs::remove(link);
    for (const char* const name : theirs) {
      EXPECT_TRUE(fs::remove(output() / name)) << option << name;
    }
    for (const char* const name : olds) {
      EXPECT_FALSE(fs::exists(output() / name)) << option << name;
    }
    fs::remove(output() / "20200102T000000.000Z.ts");
    std::uintmax_t bytes = 0;
    for (const fs::path& file : filesIn(output())) {
      bytes += fs::file_size(file);
      EXPECT_NE(result.err.find("\nwhole " + file.string()), std::string::npos) << result.err;
      EXPECT_NE(result.err.find(file.string() + ": Child process exited with code 3"),
                std::string::npos)
          << result.err;
    }
    EXPECT_EQ(bytes < 250000, option == std::string("--keep-size")) << bytes;
    EXPECT_GT(bytes, 0U);
    fs::remove_all(output());
  }
}

TEST_F(Record, SaysThatAFileMayNotGrow) {
  std::vector<std::string> limited = command({"--board", "imx", "--duration", "20"});
  limited.insert(limited.begin(), {"prlimit", "--fsize=300000"});
  const Result result = run(limited);
  EXPECT_EQ(result.exitCode, 6);
  EXPECT_NE(result.err.find("File too large"), std::string::npos) << result.err;
}

}  // namespace
