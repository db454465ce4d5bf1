#include "cli/CommandLine.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <utility>

#include <media_backend/GstNv12Sample.h>
#include <CLI/CLI.hpp>

namespace station {
namespace {

using media_backend::GstVideoBackend;

// A value's type name says what completion offers: FILE, FOLDER, or the words in braces.

// CLI11's range lets "nan" through, which is neither below nor above.
CLI::Validator isNumber() {
  return CLI::Validator(
      [](std::string& text) {
        return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is no number" : "";
      },
      "");
}

// Options that several commands take.

void addCameraOptions(CLI::App& command, CameraOptions& camera) {
  const auto even = [](unsigned int& value) {
    value = media_backend::gst_source::even_dimension(value);
  };
  command.add_option("source", camera.source, "V4L2 device, still image or media file")
      ->type_name("FILE")
      ->required();
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

void addBoardOption(CLI::App& command, CommandLine& line) {
  command
      .add_option("--board", line.board,
                  "Simulate a board instead of using the machine's: nvidia, imx, or GStreamer "
                  "element names with commas between them")
      ->type_name("{nvidia,imx}");
}

void addEncoderOptions(CLI::App& command, CommandLine& line) {
  addBoardOption(command, line);
  command.add_option("--codec", line.codec, "h264, h265 (hevc), av1 or mjpeg, as the command can")
      ->type_name("{h264,h265,av1,mjpeg}")
      ->capture_default_str();
  command.add_option("--bitrate", line.encoder.bitrateBps, "Video bit rate in bits per second")
      ->check(CLI::Range(std::uint32_t{1000}, std::uint32_t{1000000000}))
      ->capture_default_str();
}

void addAudioOptions(CLI::App& command, AudioOptions& audio) {
  using Mode = media_backend::AudioContinuityGuard::FallbackMode;
  static const std::map<std::string, Mode> kModes = {
      {"disabled", Mode::Disabled}, {"silence", Mode::Silence}, {"noise", Mode::Noise}};

  CLI::Option* const file =
      command
          .add_option("--audio", audio.file,
                      "Record sound: the Opus packets of this Ogg or Matroska file")
          ->type_name("FILE");
  command.add_flag("--audio-silence", audio.silence, "Record a silent sound track")->excludes(file);
  command
      .add_option_function<std::vector<std::string>>(
          "--drop",
          [&audio](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              audio.reception.dropouts.push_back(parseDropout(text));
            }
          },
          "START-END in seconds: no sound is received in that time; may be repeated")
      ->type_name("START-END")
      ->needs(file);
  command
      .add_option("--loss", audio.reception.lossPercent,
                  "Percent of the sound's packets to lose at random")
      ->check(CLI::Range(0.0, 100.0))
      ->check(isNumber())
      ->needs(file);
  command.add_option("--seed", audio.reception.seed, "For --loss")->capture_default_str();
  command
      .add_option_function<std::string>(
          "--fallback",
          [&audio](const std::string& mode) { audio.track.fallback = kModes.at(mode); },
          "What fills the sound's gaps")
      ->check(CLI::IsMember({"silence", "noise", "disabled"}))
      ->default_str("silence");
  command
      .add_option_function<std::int64_t>(
          "--watchdog",
          [&audio](std::int64_t timeout) {
            audio.track.watchdog = std::chrono::milliseconds(timeout);
          },
          "Milliseconds without sound before it is filled")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{3600000}))
      ->default_str("40");
}

void addServeOptions(CLI::App& command, ServeOptions& serve, std::string& auth) {
  command.add_option("--port", serve.port, "TCP port; 0 for any free one")->capture_default_str();
  command.add_option("--bind", serve.address, "Numeric address to serve on")->capture_default_str();
  command
      .add_option("--auth", auth,
                  "USER:FILE, to ask for a password, which is the file's first line")
      ->type_name("USER:FILE");
  command.add_option("--max-clients", serve.maxClients, "Clients that may watch at once")
      ->check(CLI::Range(1U, 10000U))
      ->capture_default_str();
}

// The commands.

void select(CLI::App& definition, CommandLine& line, Command command) {
  definition.callback([&line, command] { line.command = command; });
}

void addInspect(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand(
      "inspect", "Show the board's video platform, its codecs, and what the library makes of it");
  select(command, line, Command::Inspect);
  InspectOptions& inspect = line.inspect;
  addEncoderOptions(command, line);
  command.add_option("--segment-seconds", inspect.segmentSeconds, "Longest segment")
      ->capture_default_str();
  command.add_flag("--klv", inspect.klv, "Describe the recorder with its KLV track");
  command.add_flag("--json", inspect.json, "Print JSON");
  command
      .add_option("--graph", inspect.graph,
                  "Draw the recorder's pipeline into this SVG file (takes Graphviz)")
      ->type_name("FILE");
}

void addDoctor(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand(
      "doctor",
      "Try out what the board offers, and say what to do where it does not work. The board is "
      "usable, and the exit code 0, if H.264 or H.265 (or what --codec names) encodes and every "
      "description that the library writes for it fits the board's elements");
  select(command, line, Command::Doctor);
  DoctorOptions& doctor = line.doctor;
  addBoardOption(command, line);
  command.add_option("--codec", line.doctorCodec, "Codec that has to work: h264, h265, av1, mjpeg")
      ->type_name("{h264,h265,av1,mjpeg}");
  command
      .add_option_function<unsigned int>(
          "--timeout",
          [&doctor](unsigned int seconds) { doctor.limit = std::chrono::seconds(seconds); },
          "Seconds for each check, which runs in a process of its own")
      ->check(CLI::Range(1U, 3600U))
      ->default_str("10");
  command.add_flag("--json", doctor.json, "Print JSON");

  CLI::App& step = *app.add_subcommand("doctor-step", "One check of doctor");
  step.group("");  // not in the help: doctor runs it
  select(step, line, Command::DoctorStep);
  addBoardOption(step, line);
  step.add_option("step", line.step)->required();
  step.add_option("argument", line.stepArgument)->required();
}

void addRecord(CLI::App& app, CommandLine& line) {
  CLI::App& command = *app.add_subcommand(
      "record", "Record a camera, or a file played as one, into MPEG-TS segments");
  select(command, line, Command::Record);
  RecordOptions& record = line.record;
  addEncoderOptions(command, line);
  addCameraOptions(command, record.camera);
  command.add_option("-o,--output", record.folder, "Folder for the segments")
      ->type_name("FOLDER")
      ->required();
  command.add_option("--segment-seconds", record.segmentSeconds, "Longest segment")
      ->check(CLI::Range(1U, 86400U))
      ->capture_default_str();
  command.add_flag("--klv", record.klv, "Record a KLV track (MISB ST 0601)");
  command
      .add_option("--duration", record.durationSeconds,
                  "Seconds to record; until Ctrl-C if not given")
      ->check(CLI::Range(0.001, 1e9))
      ->check(isNumber());
  command.add_flag_callback(
      "--no-loop", [&record] { record.camera.loop = false; },
      "End with the file, do not repeat it");
  addAudioOptions(command, record.audio);
}

void addGrab(CLI::App& app, CommandLine& line) {
  CLI::App& command =
      *app.add_subcommand("grab", "Write pictures of a camera, or of a file played as one");
  select(command, line, Command::Grab);
  GrabOptions& grab = line.grab;
  grab.camera.loop = false;
  grab.file = "picture.png";
  addCameraOptions(command, grab.camera);
  command.add_option("-o,--output", grab.file, "File that ends in .png, .jpg or .nv12")
      ->type_name("FILE")
      ->capture_default_str();
  command.add_option("--count", grab.count, "Pictures; more than one number the files")
      ->check(CLI::Range(1U, 9999U))
      ->capture_default_str();
}

void addServe(CLI::App& app, CommandLine& line) {
  CLI::App& serve =
      *app.add_subcommand("serve", "Show a camera, or a file played as one, live on the network");
  serve.require_subcommand(1);
  const auto add = [&line, &serve](const char* name, const char* description, Command value,
                                   ServeOptions& options, std::uint16_t port) -> CLI::App& {
    CLI::App& command = *serve.add_subcommand(name, description);
    select(command, line, value);
    options.port = port;
    addEncoderOptions(command, line);
    addCameraOptions(command, options.camera);
    addServeOptions(command, options, line.auth);
    return command;
  };
  CLI::App& rtsp = add("rtsp", "Serve RTSP", Command::ServeRtsp, line.rtsp, 8554);
  rtsp.add_option("--path", line.rtsp.path, "Path of the stream")
      ->check([](const std::string& path) {
        return path.rfind('/', 0) == 0 ? "" : "the path has to begin with /";
      })
      ->capture_default_str();
  rtsp.add_option("--mtu", line.rtsp.mtu, "Most bytes of an RTP packet")
      ->check(CLI::Range(64U, 65535U))
      ->capture_default_str();
  add("http", "Serve a page, streams and snapshots over HTTP", Command::ServeHttp, line.http, 8080);
}

GstVideoBackend::Codec parseCodec(const std::string& text) {
  const GstVideoBackend::Codec codec = GstVideoBackend::codecFromString(text);
  if (codec == GstVideoBackend::Codec::Unknown) {
    throw StationError(ExitCode::Usage, "unknown codec: " + text);
  }
  return codec;
}

std::string exitCodesText() {
  std::string text = "Exit codes:";
  for (const ExitCodeMeaning& meaning : exitCodes()) {
    text += "\n  " + std::to_string(static_cast<int>(meaning.code)) + "  " + meaning.text;
  }
  return text;
}

}  // namespace

CommandLine::CommandLine()
    : app(std::make_unique<CLI::App>("Example host of media_backend: video from a camera board.",
                                     "media-station")) {
  app->require_subcommand(1);
  app->footer(exitCodesText());
  addInspect(*app, *this);
  addDoctor(*app, *this);
  addRecord(*app, *this);
  addGrab(*app, *this);
  addServe(*app, *this);
}

CommandLine::~CommandLine() = default;

std::optional<int> CommandLine::parse(int argc, char** argv) {
  try {
    app->parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app->exit(error) == 0 ? 0 : static_cast<int>(ExitCode::Usage);
  }
  return std::nullopt;
}

GstVideoBackend::EncoderConfig CommandLine::encoderConfig() const {
  GstVideoBackend::EncoderConfig config = encoder;
  config.codec = parseCodec(codec);
  return config;
}

DoctorOptions CommandLine::doctorOptions() const {
  DoctorOptions options = doctor;
  options.board = board;
  if (!doctorCodec.empty()) {
    options.codec = parseCodec(doctorCodec);
  }
  return options;
}

const std::vector<ExitCodeMeaning>& exitCodes() {
  static const std::vector<ExitCodeMeaning> kExitCodes = {
      {ExitCode::Ok, "done"},
      {ExitCode::Internal, "internal error"},
      {ExitCode::Usage, "wrong arguments"},
      {ExitCode::NoPlatform, "no hardware video platform"},
      {ExitCode::CodecNotUsable, "codec not usable on this board"},
      {ExitCode::Source, "source missing or unreadable"},
      {ExitCode::Output, "output not writable"},
      {ExitCode::DiskFull, "disk full"},
      {ExitCode::Pipeline, "pipeline error"},
      {ExitCode::Interrupted, "ended by a second Ctrl-C"},
  };
  return kExitCodes;
}

}  // namespace station
