#include "record/RecordOptions.h"

#include <CLI/CLI.hpp>

namespace station {

void RecordOptions::addTo(CLI::App& command) {
  command.add_option("--segment-seconds", recorder.segmentSeconds, "Longest segment")
      ->check(CLI::Range(1U, 86400U))
      ->capture_default_str();
  segments.addTo(command);
  command
      .add_option("--duration", durationSeconds,
                  "Seconds to record, then end; until Ctrl-C if not given")
      ->check(CLI::Range(0.001, 1e9))
      ->check(refuseNan);
  command.add_flag("--klv", recorder.klv, "A KLV track (MISB ST 0601)");
}

}  // namespace station
