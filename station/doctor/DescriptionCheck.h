#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace station {

// The first fault that GStreamer finds in a description.
struct DescriptionProblem {
  std::string message;               // GStreamer's
  std::vector<std::string> missing;  // elements, where that is the fault
  std::size_t offset = 0;            // of the faulty piece in the description, in bytes
  std::size_t length = 0;            // 0: the piece is unknown
};

struct DescriptionCheck {
  std::vector<std::string> elements;  // factory names of what GStreamer has built
  std::optional<DescriptionProblem> problem;
};

// Has GStreamer build a pipeline of the description, in state NULL.
DescriptionCheck checkDescription(const std::string& description);

// The part of the description between two link marks that holds the faulty piece, and a second line
// that marks it. The whole description if the piece is unknown.
std::string markProblem(const std::string& description, const DescriptionProblem& problem);

}  // namespace station
