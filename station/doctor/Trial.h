#pragma once

#include <string>

#include <media_backend/GstVideoBackend.h>

#include "base/Pipelines.h"

namespace station {

// What came of test pictures that went through a whole description of the library and a decoder of
// software.
struct Trial {
  std::string feed;  // how the frames got to the elements
  bool isZeroCopy = false;
  unsigned int sent = 0;
  unsigned int encoded = 0;
  std::string decoder;  // empty: there is none, nothing was compared
  std::string fault;    // what is wrong with the pictures; empty: they came back as they were
};

// Runs `frames` pictures through the description for this use, which the backend has for the
// codec. Throws StationError if the frames do not get to the elements or the pipeline fails.
Trial tryOut(const media_backend::GstVideoBackend& backend, Use use,
             media_backend::GstVideoBackend::Codec codec, unsigned int frames);

}  // namespace station
