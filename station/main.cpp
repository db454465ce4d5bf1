#include <cstdio>
#include <exception>
#include <optional>

#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>

#include "base/Board.h"
#include "base/StationError.h"
#include "cli/CommandLine.h"
#include "doctor/Doctor.h"
#include "doctor/DoctorSteps.h"
#include "grab/Grab.h"
#include "http/ServeHttp.h"
#include "inspect/Inspect.h"
#include "record/RecordCommand.h"
#include "rtsp/ServeRtsp.h"

namespace {

using media_backend::GstVideoBackend;
using station::Command;
using station::ExitCode;
using station::StationError;

void requireRecordable(const GstVideoBackend& backend,
                       const GstVideoBackend::EncoderConfig& config) {
  if (backend.recorderPipeline(config, 1, false, false).empty()) {
    throw StationError(ExitCode::CodecNotUsable, std::string("codec not usable for recording on ") +
                                                     backend.name() + ": " +
                                                     GstVideoBackend::codecName(config.codec));
  }
}

void serve(const GstVideoBackend& backend, station::CommandLine& line,
           const GstVideoBackend::EncoderConfig& encoder) {
  const bool overRtsp = line.command == Command::ServeRtsp;
  station::ServeOptions& options = overRtsp ? line.rtsp : line.http;
  options.encoder = encoder;
  if (!line.auth.empty()) {
    options.credentials = station::Credentials::fromOption(line.auth);
  }
  station::requirePlatform(backend);
  (overRtsp ? station::serveRtsp : station::serveHttp)(backend, options);
}

int run(int argc, char** argv) {
  station::CommandLine line;
  if (const std::optional<int> exitCode = line.parse(argc, argv)) {
    return *exitCode;
  }

  gst_init(nullptr, nullptr);
  if (line.command == Command::Grab) {
    station::grab(line.grab);
    return static_cast<int>(ExitCode::Ok);
  }
  const GstVideoBackend::EncoderConfig encoder = line.encoderConfig();
  const station::DoctorOptions doctor = line.doctorOptions();
  const GstVideoBackend& backend = station::openBoard(line.board);
  switch (line.command) {
    case Command::Doctor:
      station::doctor(backend, doctor);
      break;
    case Command::DoctorStep:
      station::doctorStep(line.step, line.stepArgument);
      break;
    case Command::Inspect:
      line.inspect.encoder = encoder;
      station::inspect(backend, line.inspect);
      break;
    case Command::Record:
      line.record.encoder = encoder;
      requireRecordable(station::requirePlatform(backend), encoder);
      station::record(backend, line.record);
      break;
    case Command::ServeRtsp:
    case Command::ServeHttp:
      serve(backend, line, encoder);
      break;
    case Command::Grab:
      break;
  }
  return static_cast<int>(ExitCode::Ok);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const StationError& error) {
    std::fprintf(stderr, "media-station: %s\n", error.what());
    return static_cast<int>(error.code());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "media-station: internal error: %s\n", error.what());
    return static_cast<int>(ExitCode::Internal);
  }
}
