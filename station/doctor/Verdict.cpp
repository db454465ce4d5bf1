#include "doctor/Verdict.h"

#include <algorithm>

namespace station {
namespace {

using Codec = media_backend::GstVideoBackend::Codec;

bool isUsable(const Diagnosis& board, Codec wanted) {
  return std::any_of(board.codecs.begin(), board.codecs.end(), [wanted](const auto& codec) {
    const bool counts = wanted == Codec::Unknown
                            ? codec.codec == Codec::H264 || codec.codec == Codec::H265
                            : codec.codec == wanted;
    return counts && codec.works();
  });
}

// Names of the codecs that work for a use, each after a blank.
std::string codecsFor(const Diagnosis& board, Use use) {
  std::string names;
  for (const CodecDiagnosis& codec : board.codecs) {
    for (const DescriptionDiagnosis& row : codec.descriptions) {
      if (row.use == use && row.works()) {
        names += std::string(" ") + codec.name();
      }
    }
  }
  return names.empty() ? " nothing" : names;
}

// Codecs that have a problem, with the first one.
std::string failuresOf(const Diagnosis& board) {
  std::string text;
  for (const CodecDiagnosis& codec : board.codecs) {
    if (!codec.works()) {
      text += std::string("; ") + codec.name() + ": " + codec.problems.front();
    }
  }
  return text;
}

}  // namespace

Verdict judge(const Diagnosis& board, Codec wanted) {
  if (!board.available()) {
    return {ExitCode::NoPlatform, "not usable: this machine offers no hardware video platform"};
  }
  const bool usable = isUsable(board, wanted);
  std::string line = usable ? "usable: " : "not usable: ";
  line += board.profile + " records" + codecsFor(board, Use::Record) + ", streams over RTSP" +
          codecsFor(board, Use::Rtsp) + ", over HTTP" + codecsFor(board, Use::Http);
  line += failuresOf(board);
  return {usable ? ExitCode::Ok : ExitCode::CodecNotUsable, line};
}

}  // namespace station
