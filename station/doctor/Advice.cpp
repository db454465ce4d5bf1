#include "doctor/Advice.h"

#include <algorithm>
#include <cstdint>

#include "doctor/WrongPictures.h"

namespace station {
namespace {

using Codec = media_backend::GstVideoBackend::Codec;
using Platform = media_backend::GstVideoBackend::Platform;

constexpr std::uint64_t kPoolKb = kFramesInUse * 1280 * 736 * 3 / 2 / 1024;

class Advice {
 public:
  explicit Advice(const Diagnosis& board) : board_(board) {}

  std::vector<std::string> give() {
    adviseOnAccess();
    adviseOnPlugins();
    if (!board_.available()) {
      adviseOnPlatforms();
      adviseOnOtherEncoders();
    }
    adviseOnOpening();
    adviseOnTrials();
    adviseOnMemory();
    adviseOnDescriptions();
    if (board_.available()) {
      adviseOnMissing();
    }
    return lines_;
  }

 private:
  void add(const std::string& line) {
    if (std::find(lines_.begin(), lines_.end(), line) == lines_.end()) {
      lines_.push_back(line);
    }
  }

  void adviseOnAccess() {
    for (const auto& device : board_.devices) {
      if (const std::string remedy = device["remedy"]; !remedy.empty()) {
        add(remedy);
      }
    }
  }

  void adviseOnPlugins() {
    for (const FailedPlugin& plugin : board_.failedPlugins) {
      add("repair " + plugin.file + " (" + plugin.error +
          "), then remove GStreamer's registry (~/.cache/gstreamer-1.0) for it to look again");
    }
  }

  // An alternative for the same codec makes up for a missing element.
  void adviseOnMissing() {
    for (const ElementDiagnosis& row : board_.elements) {
      const BoardElement& element = row.element;
      const bool counts = element.platform == board_.platform || element.platform == Platform::None;
      if (!element.present && counts && !board_.hasAlternativeTo(element)) {
        add(std::string("to have ") + element.name + " (" + element.role + "), install " +
            providerOf(element.name));
      }
    }
  }

  // A platform that is partly there is the one to complete.
  void adviseOnPlatforms() {
    const bool nvidia = adviseOnPlatform(Platform::Nvidia);
    const bool imx = adviseOnPlatform(Platform::ImxVpu);
    if (!nvidia && !imx) {
      add(std::string("install ") + kBoardMaker +
          ": no hardware video element is here (--board nvidia or --board imx simulates a board)");
    }
  }

  // Whether any element of the platform is there.
  bool adviseOnPlatform(Platform platform) {
    std::string found;
    std::string missing;
    for (const ElementDiagnosis& row : board_.elements) {
      if (row.element.platform == platform && isBoardMakers(row.element.name)) {
        (row.element.present ? found : missing).append(" ").append(row.element.name);
      }
    }
    if (!found.empty()) {
      add(platformName(platform) + (" takes" + needsOf(platform)) + "; here is only" + found +
          ": install " + kBoardMaker + " that have" + missing);
    }
    return !found.empty();
  }

  // " one of A B and one of C D"
  std::string needsOf(Platform platform) const {
    std::string text;
    const BoardElement* previous = nullptr;
    for (const ElementDiagnosis& row : board_.elements) {
      const BoardElement& element = row.element;
      if (element.platform != platform || element.need != Need::OneOf) {
        continue;
      }
      if (previous == nullptr || !areAlternatives(*previous, element)) {
        text += previous == nullptr ? " one of" : " and one of";
      }
      text.append(" ").append(element.name);
      previous = &element;
    }
    return text;
  }

  void adviseOnOpening() {
    for (const ElementDiagnosis& row : board_.elements) {
      const std::string remedy = row.opens() ? "" : remedyFor(row.opening->error);
      if (!remedy.empty()) {
        add(remedy);
      } else if (!row.opens()) {
        const std::string name = row.element.name;
        add(std::string("does this chip have what ")
                .append(name)
                .append(" works with? See dmesg, and GST_DEBUG=4 gst-launch-1.0 fakesrc "
                        "num-buffers=1 ! ")
                .append(name)
                .append(" ! fakesink"));
      }
    }
  }

  void adviseOnTrials() {
    for (const std::string& line : adviseOnWrongPictures(board_)) {
      add(line);
    }
    for (const CodecDiagnosis& codec : board_.codecs) {
      for (const DescriptionDiagnosis& description : codec.descriptions) {
        if (description.trial && !description.hasWrongPictures()) {
          adviseOnTrial(codec, description);
        }
      }
    }
  }

  void adviseOnTrial(const CodecDiagnosis& codec, const DescriptionDiagnosis& description) {
    const CheckResult& trial = *description.trial;
    if (!trial.ok) {
      const std::string remedy = remedyFor(trial.error);
      add(!remedy.empty() ? remedy
                          : std::string("see what the drivers say of the trial of ") +
                                codec.name() + ", " + description.name() + ", below, and dmesg");
    } else if (!trial.value["compared"].get<bool>()) {
      add(std::string("to compare pictures of ") + codec.name() +
          ", install a decoder of software (Debian: gstreamer1.0-libav)");
    }
  }

  void adviseOnMemory() {
    if (board_.frames && !board_.frames->ok) {
      add(board_.frames->error);
    }
    const Machine& machine = board_.machine;
    // NVIDIA's video hardware has memory management of its own.
    if (board_.platform == Platform::ImxVpu && machine.contiguousFreeKb &&
        *machine.contiguousFreeKb < kPoolKb) {
      add("give the kernel more contiguous memory (cma=256M on its command line): " +
          std::to_string(*machine.contiguousFreeKb) +
          " kB are free, and frames of 1280 x 720 take " + std::to_string(kPoolKb));
    }
  }

  void adviseOnOtherEncoders() {
    for (const OtherEncoder& encoder : board_.otherEncoders) {
      add(std::string(encoder.name) + " is of " + encoder.boards +
          "; the library does not use it: it takes the elements of NVIDIA's or NXP's own plugins");
    }
  }

  void adviseOnDescriptions() {
    for (const CodecDiagnosis& codec : board_.codecs) {
      for (const DescriptionDiagnosis& description : codec.descriptions) {
        for (const auto& problem : description.problems()) {
          adviseOnProblem(problem["missing"]);
        }
      }
    }
  }

  void adviseOnProblem(const std::vector<std::string>& missing) {
    for (const std::string& element : missing) {
      add("to have " + element + ", install " + providerOf(element));
    }
    if (missing.empty()) {
      add("see the marked pieces of descriptions below: another release of the element's plugin "
          "is needed");
    }
  }

  const Diagnosis& board_;
  std::vector<std::string> lines_;
};

}  // namespace

std::vector<std::string> adviseOn(const Diagnosis& board) {
  return Advice(board).give();
}

}  // namespace station
