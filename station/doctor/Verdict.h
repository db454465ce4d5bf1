#pragma once

#include <string>

#include "base/StationError.h"
#include "doctor/Checks.h"

namespace station {

struct Verdict {
  ExitCode code;
  std::string line;
};

// Whether the board is usable for the codec `wanted`, or, if that is Unknown, for H.264 or H.265.
Verdict judge(const Diagnosis& board, media_backend::GstVideoBackend::Codec wanted);

}  // namespace station
