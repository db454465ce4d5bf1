// Any arguments, with zero bytes between them: they are refused, or what they said is inside the
// ranges that the help shows.

#include "cli/CommandLine.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "Require.h"

namespace {

using station::Command;
using station::CommandLine;
using station::ExitCode;
using station::StationError;

// Takes what the parser says to people.
class Silence : public std::streambuf {
  int overflow(int letter) override { return letter == EOF ? 0 : letter; }
  std::streamsize xsputn(const char* /*text*/, std::streamsize count) override { return count; }
};

class Silenced {
 public:
  Silenced() : out_(std::cout.rdbuf(&silence_)), err_(std::cerr.rdbuf(&silence_)) {}
  ~Silenced() {
    std::cout.rdbuf(out_);
    std::cerr.rdbuf(err_);
  }
  Silenced(const Silenced&) = delete;
  Silenced& operator=(const Silenced&) = delete;

 private:
  Silence silence_;
  std::streambuf* const out_;
  std::streambuf* const err_;
};

std::vector<std::string> split(const std::uint8_t* bytes, std::size_t size) {
  std::vector<std::string> arguments(1, "media-station");
  const std::uint8_t* const end = bytes + size;
  for (const std::uint8_t* place = bytes; place < end;) {
    const std::uint8_t* const stop = std::find(place, end, 0);
    arguments.emplace_back(place, stop);
    place = stop + (stop < end ? 1 : 0);
  }
  return arguments;
}

template <typename Number>
void requireRange(Number value, Number least, Number most, const char* rule) {
  require(value >= least && value <= most, rule);  // false for NaN
}

void checkCamera(const station::CameraOptions& camera) {
  requireRange(camera.width, 2U, 8192U, "--width");
  requireRange(camera.height, 2U, 8192U, "--height");
  require(camera.width % 2 == 0 && camera.height % 2 == 0, "dimensions are even");
  requireRange(camera.fps, 1U, 240U, "--fps");
}

void checkRecord(const station::RecordOptions& record) {
  checkCamera(record.camera);
  require(!record.folder.empty(), "record has a folder");
  requireRange(record.segmentSeconds, 1U, 86400U, "record --segment-seconds");
  require(record.durationSeconds == 0 ||
              (record.durationSeconds >= 0.001 && record.durationSeconds <= 1e9),
          "--duration");
  const station::AudioOptions& audio = record.audio;
  require(!audio.silence || audio.file.empty(), "--audio-silence excludes --audio");
  requireRange(audio.reception.lossPercent, 0.0, 100.0, "--loss");
  for (const station::Dropout& dropout : audio.reception.dropouts) {
    require(dropout.begin.count() >= 0 && dropout.begin <= dropout.end &&
                dropout.end <= std::chrono::seconds(1000000000),
            "--drop");
  }
  require(audio.reception.dropouts.empty() || !audio.file.empty(), "--drop needs --audio");
  requireRange<std::int64_t>(audio.track.watchdog.count(), 1, 3600000, "--watchdog");
}

void checkServe(const station::ServeOptions& serve) {
  checkCamera(serve.camera);
  requireRange(serve.maxClients, 1U, 10000U, "--max-clients");
  requireRange(serve.mtu, 64U, 65535U, "--mtu");
  require(serve.path.rfind('/', 0) == 0, "--path begins with /");
}

template <typename Function>
void requireUsageError(const Function& function) {
  try {
    function();
  } catch (const StationError& error) {
    require(error.code() == ExitCode::Usage, "a codec that there is not is a wrong argument");
  }
}

void checkFields(const CommandLine& line) {
  requireRange(line.encoder.bitrateBps, std::uint32_t{1000}, std::uint32_t{1000000000},
               "--bitrate");
  switch (line.command) {
    case Command::Record:
      checkRecord(line.record);
      break;
    case Command::Grab:
      checkCamera(line.grab.camera);
      requireRange(line.grab.count, 1U, 9999U, "--count");
      break;
    case Command::ServeRtsp:
      checkServe(line.rtsp);
      break;
    case Command::ServeHttp:
      checkServe(line.http);
      break;
    case Command::Doctor:
      requireRange<std::int64_t>(line.doctor.limit.count(), 1, 3600, "--timeout");
      break;
    case Command::DoctorStep:
    case Command::Inspect:
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  std::vector<std::string> arguments = split(bytes, size);
  std::vector<char*> argv;
  for (std::string& argument : arguments) {
    argv.push_back(argument.data());
  }
  argv.push_back(nullptr);

  CommandLine line;
  std::optional<int> exitCode;
  try {
    const Silenced silenced;
    exitCode = line.parse(static_cast<int>(arguments.size()), argv.data());
  } catch (const StationError& error) {
    exitCode = static_cast<int>(error.code());
  }
  if (exitCode) {
    require(*exitCode == 0 || *exitCode == static_cast<int>(ExitCode::Usage),
            "the exit code is that of help or of wrong arguments");
    return 0;
  }
  checkFields(line);
  requireUsageError([&line] { static_cast<void>(line.encoderConfig()); });
  requireUsageError([&line] { static_cast<void>(line.doctorOptions()); });
  return 0;
}
