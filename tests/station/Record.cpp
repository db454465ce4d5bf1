#include "Record.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "support/Clip.h"

namespace fs = std::filesystem;

std::vector<fs::path> filesIn(const fs::path& folder) {
  const std::vector<fs::directory_entry> entries{fs::directory_iterator(folder), {}};
  std::vector<fs::path> files(entries.begin(), entries.end());
  std::sort(files.begin(), files.end());
  return files;
}

Record::Record() {
  makeClip(clip_, "320x180", 30, 60);
}

std::vector<std::string> Record::command(const std::vector<std::string>& options,
                                         const std::string& output) const {
  return station({"record", clip_, "-o", folder_ / output, "--width", "320", "--height", "180"},
                 options);
}

Result Record::judge(const Result& result, const std::vector<std::string>& options,
                     const std::string& codec, const std::string& output) const {
  EXPECT_TRUE(hasRecorded(result)) << result.exitCode << result.out << result.err;
  const std::string summary = folder_ / (output + ".txt");
  std::ofstream(summary) << result.out;
  const std::string program = TEST_SOURCES "/../../scripts/judge";
  std::vector<std::string> command = {program, "--size", "320x180",        "--recording",
                                      "-",     codec,    folder_ / output, summary};
  command.insert(command.end(), options.begin(), options.end());
  return run(command);
}

std::string Record::makeSound(int seconds, int channels, const char* name) const {
  const std::string noise = "anoisesrc=sample_rate=48000:duration=" + std::to_string(seconds);
  runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i", noise, "-c:a", "libopus", "-ac",
              std::to_string(channels), "-b:a", "48k", folder_ / name});
  return folder_ / name;
}

bool Record::awaitSegments(std::size_t count) const {
  for (int i = 0; i < 600; ++i) {
    if (fs::exists(output()) && filesIn(output()).size() >= count) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

int Record::decodedFrames(const fs::path& file) {
  const Result result = run({"ffprobe", "-v", "error", "-select_streams", "v", "-count_frames",
                             "-show_entries", "stream=nb_read_frames", "-of", "csv=p=0", file});
  EXPECT_EQ(result.err, "") << file;
  return std::stoi("0" + result.out);
}
