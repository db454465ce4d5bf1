#pragma once

#include <optional>
#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "base/Board.h"
#include "base/Pipelines.h"
#include "doctor/CheckRunner.h"
#include "doctor/Machine.h"
#include "doctor/PluginOrigin.h"
#include "doctor/Traps.h"

namespace station {

constexpr unsigned int kFramesInUse = 8;  // at once, of 1280 x 720

struct ElementDiagnosis {
  BoardElement element;
  PluginOrigin origin;
  std::optional<CheckResult> opening;  // none if it was not tried

  bool opens() const { return !opening || opening->ok; }
};

// One of the library's descriptions, whole, as the station runs it.
struct DescriptionDiagnosis {
  Use use;
  std::string description;
  CheckResult check;

  std::optional<CheckResult> trial;  // none if it was not made

  const char* name() const { return nameOf(use); }
  nlohmann::ordered_json problems() const;
  bool hasElement(const std::string& name) const;
  bool ok() const { return check.ok && problems().empty(); }
  bool works() const { return ok() && trial && trial->ok; }
  bool hasWrongPictures() const;  // the trial has run, and they did not come back as sent
};

struct CodecDiagnosis {
  media_backend::GstVideoBackend::Codec codec;
  bool supported = false;                          // by the profile
  std::vector<DescriptionDiagnosis> descriptions;  // that the library has for the codec
  std::vector<std::string> problems;               // a line each

  const char* name() const { return media_backend::GstVideoBackend::codecName(codec); }
  bool encodes() const;  // for any use
  bool works() const { return supported && problems.empty(); }
};

// A plugin that GStreamer found and could not load.
struct FailedPlugin {
  std::string file;
  std::string error;
};

struct Diagnosis {
  media_backend::GstVideoBackend::Platform platform;  // None: not available
  std::string profile;
  std::vector<ElementDiagnosis> elements;
  std::optional<CheckResult> frames;   // whether memory has kFramesInUse; none without a platform
  std::vector<CodecDiagnosis> codecs;  // all
  std::vector<FailedPlugin> failedPlugins;
  std::vector<nlohmann::ordered_json> devices;
  Machine machine;
  std::vector<OtherEncoder> otherEncoders;

  // Of the first use that works, or else the first that was tried; null without one.
  const CheckResult* trial() const;
  // Whether another element is here that does the same for the platform.
  bool hasAlternativeTo(const BoardElement& element) const;
  bool available() const { return platform != media_backend::GstVideoBackend::Platform::None; }
};

// Runs every check; each may take the runner's limit.
Diagnosis diagnose(const media_backend::GstVideoBackend& backend, const CheckRunner& runner);

}  // namespace station
