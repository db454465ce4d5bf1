#include "record/SegmentOptions.h"

#include <CLI/CLI.hpp>

#include "base/Options.h"
#include "record/SegmentHook.h"

namespace station {

void SegmentOptions::addTo(CLI::App& app) {
  app.add_option("--keep-hours", keep.hours,
                 "Delete segments that began more hours ago; the newest stays, as below")
      ->check(CLI::Range(0.001, 1e5))
      ->check(refuseNan);
  app.add_option("--keep-size", keep.bytes,
                 "Delete the oldest segments when all take more bytes; also as 500MB, 20GB")
      ->transform(CLI::AsSizeValue(true));
  app.add_option("--keep-free", keep.freeBytes,
                 "Delete the oldest segments when the disk has fewer bytes free")
      ->transform(CLI::AsSizeValue(true));
  app.add_option_function<std::string>(
         "--on-segment", [this](const std::string& text) { command = SegmentHook::parse(text); },
         "Run this program, without a shell, with the path of each finished segment as its last "
         "argument")
      ->type_name("COMMAND");
}

}  // namespace station
