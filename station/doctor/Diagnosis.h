#pragma once

#include <optional>
#include <string>
#include <vector>

#include <media_backend/GstVideoBackend.h>

#include "base/Board.h"
#include "doctor/DoctorStep.h"

namespace station {

// Where an element comes from. Texts that cannot be found out are empty.
struct PluginOrigin {
  std::string plugin;
  std::string version;
  std::string file;
  std::string package;  // that the file belongs to, by dpkg; else what the plugin itself says
};

struct ElementDiagnosis {
  BoardElement element;
  PluginOrigin origin;
  std::optional<StepResult> opening;  // none if it was not tried
};

// One of the library's descriptions, whole, as a host would run it.
struct UseDiagnosis {
  const char* use;  // "record", "rtsp" or "http"
  std::string description;
  StepResult check;  // `value` holds the problems

  bool ok() const { return check.ok && check.value.empty(); }
};

struct CodecDiagnosis {
  media_backend::GstVideoBackend::Codec codec;
  bool supported;                      // by the profile
  std::vector<UseDiagnosis> uses;      // those that there are for this codec
  std::optional<StepResult> encoding;  // some pictures; none if that was not tried
  std::vector<std::string> problems;   // a line each

  const char* name() const { return media_backend::GstVideoBackend::codecName(codec); }
  bool encodes() const { return encoding && encoding->ok; }
  bool works() const { return supported && problems.empty(); }
};

// A plugin that GStreamer found and could not load.
struct FailedPlugin {
  std::string file;
  std::string error;
};

struct Diagnosis {
  std::string profile;
  bool available = false;
  std::vector<ElementDiagnosis> elements;
  std::vector<CodecDiagnosis> codecs;
  std::vector<FailedPlugin> failedPlugins;
  std::vector<StepResult> devices;  // `value` as the step "device" gives it
  std::vector<std::string> nodes;   // of `devices`
  std::vector<std::string> next;    // what to do, in this order
};

// Runs every check; each may take the runner's limit.
Diagnosis diagnose(const media_backend::GstVideoBackend& backend, const StepRunner& runner);

}  // namespace station
