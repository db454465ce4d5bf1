#pragma once

#include <chrono>
#include <string>

#include <media_backend/GstVideoBackend.h>

namespace station {

struct DoctorOptions {
  std::string board;  // as for openBoard(); tells the checks in child processes the same
  media_backend::GstVideoBackend::Codec codec =
      media_backend::GstVideoBackend::Codec::Unknown;  // that has to work; Unknown: H.264 or H.265
  std::chrono::seconds limit{10};                      // for each check
  bool json = false;
};

// The command "doctor": tries out what the board's elements and the library's descriptions promise,
// and prints a verdict, what to do next, and the details. Throws StationError after printing if the
// board is not usable: NoPlatform, or CodecNotUsable if what has to work does not.
void doctor(const media_backend::GstVideoBackend& backend, const DoctorOptions& options);

}  // namespace station
