#include "audio/AudioOptions.h"

#include <chrono>
#include <cstdint>
#include <limits>
#include <map>
#include <vector>

#include <CLI/CLI.hpp>

#include "base/Options.h"

namespace station {
namespace {

using Mode = media_backend::AudioContinuityGuard::FallbackMode;

void addTrackOptions(CLI::App& command, AudioTrack::Settings& track) {
  static const std::map<std::string, Mode> kModes = {
      {"disabled", Mode::Disabled}, {"silence", Mode::Silence}, {"noise", Mode::Noise}};
  command
      .add_option_function<std::string>(
          "--fallback", [&track](const std::string& mode) { track.fallback = kModes.at(mode); },
          "What fills gaps in the audio")
      ->check(CLI::IsMember({"silence", "noise", "disabled"}))
      ->default_str("silence");
  command
      .add_option("--fallback-bitrate", track.fallbackBitRate,
                  "Bits per second of what fills gaps in the audio")
      ->check(CLI::Range(6000, 256000))
      ->capture_default_str();
  command
      .add_option_function<std::int64_t>(
          "--watchdog",
          [&track](std::int64_t timeout) { track.watchdog = std::chrono::milliseconds(timeout); },
          "Milliseconds without audio before it is filled")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{3600000}))
      ->default_str("40");
}

}  // namespace

void AudioOptions::addTo(CLI::App& command) {
  CLI::Option* const source =
      command.add_option("--audio", file, "Audio: the Opus packets of this Ogg or Matroska file")
          ->type_name("FILE");
  CLI::Option* const live =
      command
          .add_option_function<std::string>(
              "--mic",
              [this](const std::string& text) { microphone = MicrophoneName::parse(text); },
              "Audio: of alsa:DEVICE, pulse:NAME, or a test tone")
          ->type_name("alsa:DEVICE|pulse:NAME|test")
          ->excludes(source);
  command.add_flag("--audio-silence", silence, "Audio: a silent track")
      ->excludes(source)
      ->excludes(live);
  command
      .add_option_function<std::vector<std::string>>(
          "--drop",
          [this](const std::vector<std::string>& texts) {
            for (const std::string& text : texts) {
              reception.dropouts.push_back(parseDropout(text));
            }
          },
          "START-END in seconds: no audio is received in that time; may be repeated")
      ->type_name("START-END")
      ->needs(source);
  command
      .add_option("--loss", reception.lossPercent, "Percent of the audio packets to lose at random")
      ->check(CLI::Range(0.0, 100.0))
      ->check(refuseNan)
      ->needs(source);
  command.add_option("--seed", reception.seed, "For --loss")
      ->check(CLI::Range(std::uint32_t{0}, std::numeric_limits<std::uint32_t>::max()))
      ->capture_default_str();
  addTrackOptions(command, track);
}

}  // namespace station
