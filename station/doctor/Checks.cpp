#include "doctor/Checks.h"

#include <algorithm>
#include <utility>

#include <gst/gst.h>

#include "doctor/Devices.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

// Opens the board maker's elements: those of the board's platform, or of any if it has none.
std::vector<ElementDiagnosis> diagnoseElements(const Diagnosis& board, const CheckRunner& runner) {
  const std::vector<BoardElement> elements = lookUpElements();
  std::vector<std::string> names;
  names.reserve(elements.size());
  for (const BoardElement& element : elements) {
    names.emplace_back(element.name);
  }
  std::vector<PluginOrigin> origins = originsOf(names);
  std::vector<ElementDiagnosis> result;
  for (std::size_t i = 0; i < elements.size(); ++i) {
    const BoardElement& element = elements[i];
    ElementDiagnosis diagnosis{element, std::move(origins[i]), std::nullopt};
    const bool counts = !board.available() || element.platform == board.platform;
    if (element.present && counts && isBoardMakers(element.name)) {
      diagnosis.opening = runner.run(Check::Open, element.name);
    }
    result.push_back(std::move(diagnosis));
  }
  return result;
}

void nameMissing(CodecDiagnosis& codec, const Diagnosis& board) {
  for (const ElementDiagnosis& row : board.elements) {
    if (!row.element.present && row.element.platform == board.platform &&
        row.element.codec == codec.codec) {
      codec.problems.push_back(std::string(row.element.name) + " is missing");
    }
  }
  if (codec.problems.empty()) {
    codec.problems.emplace_back("no encoder that the library knows on this platform");
  }
}

// Elements of the codec's descriptions that do not open.
void nameUnopened(CodecDiagnosis& codec, const Diagnosis& board) {
  for (const ElementDiagnosis& row : board.elements) {
    const auto hasIt = [&row](const DescriptionDiagnosis& description) {
      return description.hasElement(row.element.name);
    };
    if (!row.opens() && std::any_of(codec.descriptions.begin(), codec.descriptions.end(), hasIt)) {
      codec.problems.push_back(std::string(row.element.name) + ": " + row.opening->error);
    }
  }
}

void nameProblems(CodecDiagnosis& codec) {
  for (const DescriptionDiagnosis& description : codec.descriptions) {
    const std::string name = description.name();
    if (!description.check.ok) {
      codec.problems.push_back(name + ": " + description.check.error);
    }
    for (const auto& problem : description.problems()) {
      codec.problems.push_back(name + ": " + problem["message"].get<std::string>());
    }
  }
}

// Sends pictures through every description that is in order.
void tryOut(CodecDiagnosis& codec, const CheckRunner& runner) {
  for (DescriptionDiagnosis& description : codec.descriptions) {
    if (!description.ok()) {
      continue;
    }
    const int frames = description.use == Use::Record ? 30 : 10;
    CheckResult trial = runner.run(Check::Trial, std::string(description.name()) + " " +
                                                     codec.name() + " " + std::to_string(frames));
    if (trial.ok) {
      trial.error = trial.value["fault"];
      trial.ok = trial.error.empty();
    }
    if (!trial.ok) {
      codec.problems.push_back(description.name() + (": " + trial.error));
    }
    description.trial = std::move(trial);
  }
}

CodecDiagnosis diagnoseCodec(const GstVideoBackend& backend, Codec codec, const Diagnosis& board,
                             const CheckRunner& runner) {
  CodecDiagnosis diagnosis{codec, backend.supports(codec), {}, {}};
  if (!board.available()) {
    return diagnosis;
  }
  if (!diagnosis.supported) {
    nameMissing(diagnosis, board);
    return diagnosis;
  }
  DescriptionSettings settings;
  settings.encoder.codec = codec;
  settings.klv = settings.audio = true;
  for (const Use use : kUses) {
    const std::string description = describe(backend, use, settings);
    if (!description.empty()) {
      diagnosis.descriptions.push_back(
          {use, description, runner.run(Check::Description, description), std::nullopt});
    }
  }
  nameUnopened(diagnosis, board);
  if (!board.frames->ok) {
    diagnosis.problems.push_back("frames: " + board.frames->error);
  }
  const bool canRun = diagnosis.problems.empty();
  nameProblems(diagnosis);
  if (canRun) {
    tryOut(diagnosis, runner);
  }
  return diagnosis;
}

std::vector<FailedPlugin> findFailedPlugins(const CheckRunner& runner) {
  std::vector<FailedPlugin> failed;
  GList* const plugins = gst_registry_get_plugin_list(gst_registry_get());
  for (const GList* item = plugins; item != nullptr; item = item->next) {
    auto* const plugin = static_cast<GstPlugin*>(item->data);
    const char* const file = gst_plugin_get_filename(plugin);
    if (GST_OBJECT_FLAG_IS_SET(plugin, GST_PLUGIN_FLAG_BLACKLISTED) && file != nullptr) {
      const CheckResult load = runner.run(Check::Load, file);
      failed.push_back({file, load.ok ? "it loads now, but failed when GStreamer looked for plugins"
                                      : load.error});
    }
  }
  gst_plugin_list_free(plugins);
  return failed;
}

}  // namespace

nlohmann::ordered_json DescriptionDiagnosis::problems() const {
  return check.ok ? check.value["problems"] : nlohmann::ordered_json::array();
}

bool DescriptionDiagnosis::hasElement(const std::string& name) const {
  if (!check.ok) {
    return false;
  }
  const nlohmann::ordered_json& elements = check.value["elements"];
  return std::find(elements.begin(), elements.end(), name) != elements.end();
}

bool DescriptionDiagnosis::hasWrongPictures() const {
  return trial && !trial->ok && trial->value.is_object();
}

bool CodecDiagnosis::encodes() const {
  return std::any_of(descriptions.begin(), descriptions.end(),
                     [](const DescriptionDiagnosis& description) { return description.works(); });
}

const CheckResult* Diagnosis::trial() const {
  const CheckResult* first = nullptr;
  for (const CodecDiagnosis& codec : codecs) {
    for (const DescriptionDiagnosis& description : codec.descriptions) {
      if (description.works()) {
        return &*description.trial;
      }
      if (first == nullptr && description.trial) {
        first = &*description.trial;
      }
    }
  }
  return first;
}

bool Diagnosis::hasAlternativeTo(const BoardElement& element) const {
  return std::any_of(elements.begin(), elements.end(), [&element](const ElementDiagnosis& other) {
    return other.element.present && other.element.name != std::string(element.name) &&
           areAlternatives(element, other.element) && element.codec == other.element.codec;
  });
}

Diagnosis diagnose(const GstVideoBackend& backend, const CheckRunner& runner) {
  Diagnosis board;
  board.platform = platformOf(backend);
  board.profile = backend.name();
  board.elements = diagnoseElements(board, runner);
  if (board.available()) {
    board.frames = runner.run(Check::Frames, std::to_string(kFramesInUse));
  }
  for (const Codec codec : kCodecs) {
    board.codecs.push_back(diagnoseCodec(backend, codec, board, runner));
  }
  board.failedPlugins = findFailedPlugins(runner);
  for (const std::string& node : listDeviceNodes()) {
    CheckResult check = runner.run(Check::Device, node);
    Device broken;
    broken.node = node;
    broken.error = check.error;
    board.devices.push_back(check.ok ? std::move(check.value) : toJson(broken));
  }
  board.machine = describeMachine();
  board.otherEncoders = findOtherEncoders();
  return board;
}

}  // namespace station
