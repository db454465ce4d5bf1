#include "base/EncoderOptions.h"

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

#include "base/StationError.h"

namespace station {

using media_backend::GstVideoBackend;

void EncoderOptions::addTo(CLI::App& command, EncoderConfig& encoder, const Codecs& choices) {
  encoder.codec = GstVideoBackend::Codec::H264;
  addCodecOption(command, encoder.codec, choices, "What to encode, if the board can");
  const CLI::Option* const bitRate =
      command.add_option("--bitrate", encoder.bitrateBps, "Video bit rate in bits per second")
          ->check(CLI::Range(std::uint32_t{1000}, std::uint32_t{1000000000}))
          ->capture_default_str();
  const CLI::Option* const keyDistance =
      command
          .add_option_function<std::uint32_t>(
              "--key-distance",
              [&encoder](std::uint32_t frames) {
                encoder.iframeInterval = frames;
                encoder.idrInterval = frames;
              },
              "Frames from one key picture to the next")
          ->check(CLI::Range(1U, 32767U))  // the i.MX encoders have 15 bits for it
          ->default_str(std::to_string(encoder.idrInterval));
  const CLI::Option* const rateControl =
      command
          .add_option_function<std::string>(
              "--rate-control",
              [&encoder](const std::string& mode) { encoder.controlRate = mode == "constant"; },
              "Whether the bit rate may vary for the same quality")
          ->check(CLI::IsMember({"constant", "variable"}))
          ->default_str("constant");
  const CLI::Option* const preset =
      command
          .add_option("--preset", encoder.presetLevel,
                      "The encoder's trade of speed for quality: 1 fastest to 4 slowest, 0 none")
          ->check(CLI::Range(0, 4))
          ->capture_default_str();
  settings_ = {{bitRate, [](EncoderConfig& config) { config.bitrateBps *= 2; }},
               {keyDistance, [](EncoderConfig& config) { ++config.idrInterval; }},
               {rateControl, [](EncoderConfig& config) { ++config.controlRate; }},
               {preset, [](EncoderConfig& config) { ++config.presetLevel; }}};
}

bool EncoderOptions::isUnused(const Setting& setting, const GstVideoBackend& backend, Use use,
                              DescriptionSettings settings) {
  if (setting.option->count() == 0) {
    return false;
  }
  const std::string description = describe(backend, use, settings);
  setting.change(settings.encoder);
  return !description.empty() && description == describe(backend, use, settings);
}

bool EncoderOptions::isBitRateUnused(const GstVideoBackend& backend, Use use,
                                     const DescriptionSettings& settings) const {
  return isUnused(settings_.front(), backend, use, settings);
}

void EncoderOptions::refuseUnused(const GstVideoBackend& backend, Use use,
                                  const DescriptionSettings& settings) const {
  for (auto setting = settings_.begin() + 1; setting != settings_.end(); ++setting) {
    if (isUnused(*setting, backend, use, settings)) {
      throw StationError(ExitCode::Usage, setting->option->get_name() + " has no effect on " +
                                              backend.name() + " for " + displayName(use) + " of " +
                                              GstVideoBackend::codecName(settings.encoder.codec));
    }
  }
}

}  // namespace station
