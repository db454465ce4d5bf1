#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace station {

// A piece of a pipeline description that this machine's elements do not go along with.
struct DescriptionProblem {
  std::size_t offset;  // bytes from the description's beginning
  std::size_t length;  // 0: no single piece is to blame
  std::string message;
};

// Checks a whole description against the elements that it names: that they exist, that they have
// the properties that it sets and take their values, that their pads can have the caps between
// them, and that GStreamer builds the pipeline of it. It loads the plugins and makes the elements,
// which stay in state NULL.
std::vector<DescriptionProblem> checkDescription(const std::string& description);

// Names of the elements of a description, in its order. Loads nothing.
std::vector<std::string> elementsOf(const std::string& description);

// The part of the description, between two link marks, that holds the problem's piece, and a second
// line with the piece marked. The whole description without a mark if there is no such piece.
std::string markProblem(const std::string& description, const DescriptionProblem& problem);

}  // namespace station
