#include "doctor/WrongPictures.h"

#include <algorithm>
#include <map>
#include <utility>

namespace station {
namespace {

using Suspects = std::vector<const ElementDiagnosis*>;

bool anythingWorksWith(const Diagnosis& board, const std::string& element) {
  return std::any_of(board.codecs.begin(), board.codecs.end(), [&](const CodecDiagnosis& codec) {
    return std::any_of(codec.descriptions.begin(), codec.descriptions.end(),
                       [&](const auto& row) { return row.works() && row.hasElement(element); });
  });
}

Suspects suspectsIn(const Diagnosis& board, const DescriptionDiagnosis& description) {
  Suspects suspects;
  for (const ElementDiagnosis& row : board.elements) {
    const std::string name = row.element.name;
    if (row.element.platform == board.platform && isBoardMakers(name) &&
        description.hasElement(name) && !anythingWorksWith(board, name)) {
      suspects.push_back(&row);
    }
  }
  return suspects;
}

// Whether the platform is complete without this converter.
bool isDispensable(const Diagnosis& board, const BoardElement& element) {
  return element.codec == media_backend::GstVideoBackend::Codec::Unknown &&
         (element.need == Need::Optional || board.hasAlternativeTo(element));
}

std::string causeOf(const Diagnosis& board, const Suspects& suspects) {
  std::string names;
  for (const ElementDiagnosis* const row : suspects) {
    names += (names.empty() ? "" : " or ") + std::string(row->element.name);
  }
  std::string line =
      (names.empty() ? "" : "the fault is in " + names + "; ") + "update the board maker's release";
  if (suspects.size() == 1 && isDispensable(board, suspects.front()->element)) {
    line += ", or take " + names + " out of GStreamer's path: the library does without it";
  }
  return line;
}

}  // namespace

std::vector<std::string> adviseOnWrongPictures(const Diagnosis& board) {
  std::map<std::pair<std::string, Suspects>, std::string> uses;
  for (const CodecDiagnosis& codec : board.codecs) {
    for (const DescriptionDiagnosis& description : codec.descriptions) {
      if (description.hasWrongPictures()) {
        std::string& names = uses[{description.trial->error, suspectsIn(board, description)}];
        names += (names.empty() ? "" : ", ") + std::string(codec.name()) + " " + description.name();
      }
    }
  }
  std::vector<std::string> lines;
  lines.reserve(uses.size());
  for (const auto& [fault, names] : uses) {
    lines.push_back(fault.first + " (" + names + "): " + causeOf(board, fault.second));
  }
  return lines;
}

}  // namespace station
