#include "run/RecordCommand.h"

#include <CLI/CLI.hpp>

namespace station {
namespace {

using Codec = media_backend::GstVideoBackend::Codec;

}  // namespace

CLI::App& RecordCommand::addOptions(CLI::App& program) {
  CLI::App& command = *program.add_subcommand(
      "record", "Record a camera, or a file played as one, into MPEG-TS segments");
  RecordOptions& record = options_->record.emplace();
  addBoardOption(command, options_->board);
  options_->encoder.addTo(command, record.recorder.encoder, {Codec::H264, Codec::H265});
  options_->camera.addTo(command);
  options_->audio.addTo(command);
  options_->camera.addLiveTo(command);
  command.add_option("-o,--output", record.folder, "Folder for the segments")
      ->type_name("FOLDER")
      ->required();
  command.add_flag_callback(
      "--no-loop", [this] { options_->camera.loop = false; },
      "End with the file, do not repeat it");
  record.addTo(command);
  options_->metadata.addTo(command);
  command.get_option("--telemetry")->needs(command.get_option("--klv"));
  return command;
}

}  // namespace station
