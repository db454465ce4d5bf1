#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/GstVideoBackend.h>
#include <CLI/CLI.hpp>

#include "Board.h"
#include "Doctor.h"
#include "DoctorSteps.h"
#include "Grab.h"
#include "Inspect.h"
#include "Record.h"
#include "Serve.h"
#include "StationError.h"

namespace {

using media_backend::GstVideoBackend;
using station::ExitCode;
using station::StationError;

constexpr const char* kExitCodes =
    "Exit codes: 0 done, 1 internal error, 2 wrong arguments, 3 no hardware video platform,\n"
    "4 codec not usable on this board, 5 source missing or unreadable, 6 output not writable,\n"
    "7 disk full, 8 pipeline error, 130 ended by a second Ctrl-C.";

// Options that several commands take.

void addCameraOptions(CLI::App& command, station::CameraOptions& camera) {
  const auto even = [](unsigned int& value) {
    value = media_backend::gst_source::even_dimension(value);
  };
  command.add_option("source", camera.source, "V4L2 device, still image or media file")->required();
  command.add_option("--width", camera.width, "Pixels, rounded down to even")
      ->check(CLI::Range(2U, 8192U))
      ->capture_default_str();
  command.add_option("--height", camera.height, "Pixels, rounded down to even")
      ->check(CLI::Range(2U, 8192U))
      ->capture_default_str();
  command.add_option("--fps", camera.fps, "Frames per second")
      ->check(CLI::Range(1U, 240U))
      ->capture_default_str();
  command.parse_complete_callback([&camera, even] {
    even(camera.width);
    even(camera.height);
  });
}

void addBoardOption(CLI::App& command, std::string& board) {
  command.add_option("--board", board,
                     "Simulate a board instead of using the machine's: nvidia, imx, or GStreamer "
                     "element names with commas between them");
}

GstVideoBackend::Codec parseCodec(const std::string& text) {
  const GstVideoBackend::Codec codec = GstVideoBackend::codecFromString(text);
  if (codec == GstVideoBackend::Codec::Unknown) {
    throw StationError(ExitCode::Usage, "unknown codec: " + text);
  }
  return codec;
}

struct EncoderOptions {
  std::string board;
  std::string codec = "h264";
  GstVideoBackend::EncoderConfig config;

  void addTo(CLI::App& command) {
    addBoardOption(command, board);
    command.add_option("--codec", codec, "h264, h265 (hevc), av1 or mjpeg, as the command can")
        ->capture_default_str();
    command.add_option("--bitrate", config.bitrateBps, "Video bit rate in bits per second")
        ->check(CLI::Range(std::uint32_t{1000}, std::uint32_t{1000000000}))
        ->capture_default_str();
  }

  void resolveCodec() { config.codec = parseCodec(codec); }
};

void requireRecordable(const GstVideoBackend& backend,
                       const GstVideoBackend::EncoderConfig& config) {
  if (backend.recorderPipeline(config, 1, false, false).empty()) {
    throw StationError(ExitCode::CodecNotUsable, std::string("codec not usable for recording on ") +
                                                     backend.name() + ": " +
                                                     GstVideoBackend::codecName(config.codec));
  }
}

void addAudioOptions(CLI::App& command, station::AudioOptions& audio) {
  using Mode = media_backend::AudioContinuityGuard::FallbackMode;
  static const std::map<std::string, Mode> kModes = {
      {"disabled", Mode::Disabled}, {"silence", Mode::Silence}, {"noise", Mode::Noise}};

  CLI::Option* const file = command.add_option(
      "--audio", audio.file, "Record sound: the Opus packets of this Ogg or Matroska file");
  command.add_flag("--audio-silence", audio.silence, "Record a silent sound track")->excludes(file);
  command
      .add_option_function<std::vector<std::string>>(
          "--drop",
          [&audio](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              audio.reception.dropouts.push_back(station::parseDropout(text));
            }
          },
          "START-END in seconds: no sound is received in that time; may be repeated")
      ->needs(file);
  command
      .add_option("--loss", audio.reception.lossPercent,
                  "Percent of the sound's packets to lose at random")
      ->check(CLI::Range(0.0, 100.0))
      ->needs(file);
  command.add_option("--seed", audio.reception.seed, "For --loss")->capture_default_str();
  command
      .add_option_function<std::string>(
          "--fallback",
          [&audio](const std::string& mode) { audio.track.fallback = kModes.at(mode); },
          "What fills the sound's gaps: silence (as if not given), noise or disabled")
      ->check(CLI::IsMember({"silence", "noise", "disabled"}));
  command
      .add_option_function<std::int64_t>(
          "--watchdog",
          [&audio](std::int64_t timeout) {
            audio.track.watchdog = std::chrono::milliseconds(timeout);
          },
          "Milliseconds without sound before it is filled (40 if not given)")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{3600000}));
}

void addServeOptions(CLI::App& command, station::ServeOptions& serve, std::string& auth) {
  command.add_option("--port", serve.port, "TCP port; 0 for any free one")->capture_default_str();
  command.add_option("--bind", serve.address, "Numeric address to serve on")->capture_default_str();
  command.add_option("--auth", auth,
                     "USER:FILE, to ask for a password, which is the file's first line");
  command.add_option("--max-clients", serve.maxClients, "Clients that may watch at once")
      ->check(CLI::Range(1U, 10000U))
      ->capture_default_str();
}

int run(int argc, char** argv) {
  CLI::App app("Example host of media_backend: video from a camera board.");
  app.require_subcommand(1);
  app.footer(kExitCodes);

  EncoderOptions encoder;
  station::InspectOptions inspect;
  CLI::App* const inspectCommand = app.add_subcommand(
      "inspect", "Show the board's video platform, its codecs, and what the library makes of it");
  encoder.addTo(*inspectCommand);
  inspectCommand->add_option("--segment-seconds", inspect.segmentSeconds)->capture_default_str();
  inspectCommand->add_flag("--klv", inspect.klv, "Describe the recorder with its KLV track");
  inspectCommand->add_flag("--json", inspect.json, "Print JSON");
  inspectCommand->add_option("--graph", inspect.graph,
                             "Draw the recorder's pipeline into this SVG file (takes Graphviz)");

  station::DoctorOptions doctor;
  std::string doctorCodec;
  CLI::App* const doctorCommand = app.add_subcommand(
      "doctor",
      "Try out what the board offers, and say what to do where it does not work. The board is "
      "usable, and the exit code 0, if H.264 or H.265 (or what --codec names) encodes and every "
      "description that the library writes for it fits the board's elements");
  addBoardOption(*doctorCommand, doctor.board);
  doctorCommand->add_option("--codec", doctorCodec,
                            "Codec that has to work: h264, h265, av1, mjpeg");
  doctorCommand
      ->add_option_function<unsigned int>(
          "--timeout",
          [&doctor](unsigned int seconds) { doctor.limit = std::chrono::seconds(seconds); },
          "Seconds for each check, which runs in a process of its own (10 if not given)")
      ->check(CLI::Range(1U, 3600U));
  doctorCommand->add_flag("--json", doctor.json, "Print JSON");

  std::string step;
  std::string stepArgument;
  CLI::App* const stepCommand = app.add_subcommand("doctor-step", "One check of doctor");
  stepCommand->group("");  // not in the help: doctor runs it
  addBoardOption(*stepCommand, doctor.board);
  stepCommand->add_option("step", step)->required();
  stepCommand->add_option("argument", stepArgument)->required();

  station::RecordOptions record;
  CLI::App* const recordCommand = app.add_subcommand(
      "record", "Record a camera, or a file played as one, into MPEG-TS segments");
  encoder.addTo(*recordCommand);
  addCameraOptions(*recordCommand, record.camera);
  recordCommand->add_option("-o,--output", record.folder, "Folder for the segments")->required();
  recordCommand->add_option("--segment-seconds", record.segmentSeconds, "Longest segment")
      ->check(CLI::Range(1U, 86400U))
      ->capture_default_str();
  recordCommand->add_flag("--klv", record.klv, "Record a KLV track (MISB ST 0601)");
  recordCommand
      ->add_option("--duration", record.durationSeconds,
                   "Seconds to record; until Ctrl-C if not given")
      ->check(CLI::Range(0.001, 1e9));
  recordCommand->add_flag_callback(
      "--no-loop", [&record] { record.camera.loop = false; },
      "End with the file, do not repeat it");
  addAudioOptions(*recordCommand, record.audio);

  station::GrabOptions grab;
  grab.camera.loop = false;
  grab.file = "picture.png";
  CLI::App* const grabCommand =
      app.add_subcommand("grab", "Write pictures of a camera, or of a file played as one");
  addCameraOptions(*grabCommand, grab.camera);
  grabCommand->add_option("-o,--output", grab.file, "File that ends in .png, .jpg or .nv12")
      ->capture_default_str();
  grabCommand->add_option("--count", grab.count, "Pictures; more than one number the files")
      ->check(CLI::Range(1U, 9999U))
      ->capture_default_str();

  station::ServeOptions rtsp;
  rtsp.port = 8554;
  station::ServeOptions http;
  http.port = 8080;
  std::string auth;
  CLI::App* const serveCommand =
      app.add_subcommand("serve", "Show a camera, or a file played as one, live on the network");
  serveCommand->require_subcommand(1);
  CLI::App* const rtspCommand = serveCommand->add_subcommand("rtsp", "Serve RTSP");
  CLI::App* const httpCommand =
      serveCommand->add_subcommand("http", "Serve a page, streams and snapshots over HTTP");
  const auto addOptions = [&encoder, &auth](CLI::App& command, station::ServeOptions& serve) {
    encoder.addTo(command);
    addCameraOptions(command, serve.camera);
    addServeOptions(command, serve, auth);
  };
  addOptions(*rtspCommand, rtsp);
  addOptions(*httpCommand, http);
  rtspCommand->add_option("--path", rtsp.path, "Path of the stream")
      ->check([](const std::string& path) {
        return path.rfind('/', 0) == 0 ? "" : "the path has to begin with /";
      })
      ->capture_default_str();
  rtspCommand->add_option("--mtu", rtsp.mtu, "Most bytes of an RTP packet")
      ->check(CLI::Range(64U, 65535U))
      ->capture_default_str();

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : static_cast<int>(ExitCode::Usage);
  }

  gst_init(nullptr, nullptr);
  if (*grabCommand) {
    station::grab(grab);
    return static_cast<int>(ExitCode::Ok);
  }
  if (*doctorCommand || *stepCommand) {
    if (!doctorCodec.empty()) {
      doctor.codec = parseCodec(doctorCodec);
    }
    const GstVideoBackend& board = station::openBoard(doctor.board);
    if (*stepCommand) {
      station::doctorStep(step, stepArgument);
    } else {
      station::doctor(board, doctor);
    }
    return static_cast<int>(ExitCode::Ok);
  }
  encoder.resolveCodec();
  const GstVideoBackend& backend = station::openBoard(encoder.board);
  if (*inspectCommand) {
    inspect.encoder = encoder.config;
    station::inspect(backend, inspect);
  } else if (*serveCommand) {
    station::ServeOptions& serve = *rtspCommand ? rtsp : http;
    serve.encoder = encoder.config;
    if (!auth.empty()) {
      serve.credentials = station::Credentials::fromOption(auth);
    }
    station::requirePlatform(backend);
    (*rtspCommand ? station::serveRtsp : station::serveHttp)(backend, serve);
  } else {
    record.encoder = encoder.config;
    requireRecordable(station::requirePlatform(backend), record.encoder);
    station::record(backend, record);
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
