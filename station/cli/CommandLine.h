#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "base/StationError.h"
#include "doctor/Doctor.h"
#include "grab/Grab.h"
#include "inspect/Inspect.h"
#include "record/RecordCommand.h"
#include "serve/ServeOptions.h"

namespace CLI {  // NOLINT(readability-identifier-naming): the name is CLI11's
class App;
}

namespace station {

enum class Command { Inspect, Doctor, DoctorStep, Record, Grab, ServeRtsp, ServeHttp };

// The program's commands and options, and what the arguments said. Help, man page and completion
// are all made from the one set of definitions.
struct CommandLine {
  CommandLine();
  ~CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Reads the arguments into the fields below. Has a value if the program is to end with that exit
  // code: help was asked for, or the arguments are wrong; what is to be said has been said. Throws
  // StationError (Usage) for a dropout that is none.
  std::optional<int> parse(int argc, char** argv);

  // The fields below with their codecs. Throw StationError (Usage) for a codec that there is not.
  media_backend::GstVideoBackend::EncoderConfig encoderConfig() const;
  DoctorOptions doctorOptions() const;

  std::unique_ptr<CLI::App> app;

  Command command = Command::Inspect;
  std::string board;  // simulated; empty for the machine's own
  std::string codec = "h264";
  media_backend::GstVideoBackend::EncoderConfig encoder;  // without the codec
  std::string auth;                                       // USER:FILE, or empty
  InspectOptions inspect;
  DoctorOptions doctor;     // without board and codec
  std::string doctorCodec;  // empty for none in particular
  std::string step;         // of DoctorStep
  std::string stepArgument;
  RecordOptions record;
  GrabOptions grab;
  ServeOptions rtsp;
  ServeOptions http;
};

struct ExitCodeMeaning {
  ExitCode code;
  const char* text;
};
const std::vector<ExitCodeMeaning>& exitCodes();

}  // namespace station
