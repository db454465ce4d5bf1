#pragma once

#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "base/Options.h"
#include "base/Pipelines.h"

namespace CLI {  // NOLINT(readability-identifier-naming): the name is CLI11's
class Option;
}

namespace station {

// The options for all settings of an encoder, and which of them were given: boards and uses leave
// some settings out.
class EncoderOptions {
 public:
  using EncoderConfig = media_backend::GstVideoBackend::EncoderConfig;

  // Adds --codec (H.264 by default), --bitrate, --key-distance, --rate-control and --preset to
  // `command`, which keeps a reference to `encoder`. `command` outlives this object's other calls.
  void addTo(CLI::App& command, EncoderConfig& encoder, const Codecs& choices);

  // Whether --bitrate was given, and the description for `use` ignores it.
  bool isBitRateUnused(const media_backend::GstVideoBackend& backend, Use use,
                       const DescriptionSettings& settings) const;

  // Throws StationError (Usage) for another option that was given and that the description for
  // `use` ignores. Does nothing if the backend has no description.
  void refuseUnused(const media_backend::GstVideoBackend& backend, Use use,
                    const DescriptionSettings& settings) const;

 private:
  struct Setting {
    const CLI::Option* option;
    void (*change)(EncoderConfig&);  // to another value
  };

  static bool isUnused(const Setting& setting, const media_backend::GstVideoBackend& backend,
                       Use use, DescriptionSettings settings);

  std::vector<Setting> settings_;  // the bit rate first
};

}  // namespace station
