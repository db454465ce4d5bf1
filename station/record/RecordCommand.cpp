#include "record/RecordCommand.h"

#include <CLI/CLI.hpp>

#include "base/Board.h"
#include "record/Recording.h"

namespace station {
namespace {

using Codec = media_backend::GstVideoBackend::Codec;

}  // namespace

CLI::App& RecordCommand::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "record", "Record a camera, or a file played as one, into MPEG-TS segments");
  addBoardOption(command, board_);
  encoder_.addTo(command, options_.recorder.encoder, {Codec::H264, Codec::H265});
  options_.camera.addTo(command);
  options_.camera.addFeedTo(command);
  command.add_option("-o,--output", options_.folder, "Folder for the segments")
      ->type_name("FOLDER")
      ->required();
  command.add_option("--segment-seconds", options_.recorder.segmentSeconds, "Longest segment")
      ->check(CLI::Range(1U, 86400U))
      ->capture_default_str();
  CLI::Option* const klv =
      command.add_flag("--klv", options_.recorder.klv, "Record a KLV track (MISB ST 0601)");
  options_.metadata.addTo(command);
  command.get_option("--telemetry")->needs(klv);
  command
      .add_option("--duration", options_.durationSeconds,
                  "Seconds to record; until Ctrl-C if not given")
      ->check(CLI::Range(0.001, 1e9))
      ->check(refuseNan);
  command.add_flag_callback(
      "--no-loop", [this] { options_.camera.loop = false; }, "End with the file, do not repeat it");
  options_.audio.addTo(command);
  options_.segments.addTo(command);
  return command;
}

void RecordCommand::run() {
  const auto& backend = openUsableBoard(board_);
  encoder_.refuseUnused(backend, Use::Record, options_.recorder);
  Recording(backend, options_).run();
}

}  // namespace station
