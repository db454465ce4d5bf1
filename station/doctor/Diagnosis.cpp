#include "doctor/Diagnosis.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <system_error>
#include <utility>

#include <gst/gst.h>

#include "doctor/Child.h"
#include "doctor/DescriptionCheck.h"
#include "doctor/Devices.h"

namespace station {
namespace {

using media_backend::GstVideoBackend;
using Codec = GstVideoBackend::Codec;

constexpr const char* kEveryPlatform = "every platform";

// What the trial encodes: small enough for any encoder, large enough for those with a least size.
constexpr const char* kTrialSource =
    "videotestsrc num-buffers=10 ! video/x-raw,format=NV12,width=640,height=480,framerate=30/1,"
    "interlace-mode=progressive,pixel-aspect-ratio=1/1 "
    "! identity ";  // GStreamer does not parse caps behind caps

constexpr const char* kBoardMaker = "the board maker's GStreamer plugins";

// Who provides an element that is missing.
const char* providerOf(const std::string& element) {
  static const std::map<std::string, const char*> kProviders = {
      {"av1parse", "the GStreamer plugin videoparsersbad (Debian: gstreamer1.0-plugins-bad)"},
      {"h264parse", "the GStreamer plugin videoparsersbad (Debian: gstreamer1.0-plugins-bad)"},
      {"h265parse", "the GStreamer plugin videoparsersbad (Debian: gstreamer1.0-plugins-bad)"},
      {"mpegtsmux", "the GStreamer plugin mpegtsmux (Debian: gstreamer1.0-plugins-bad)"},
      {"opusparse", "the GStreamer plugin opusparse (Debian: gstreamer1.0-plugins-bad)"},
      {"jpegenc", "the GStreamer plugin jpeg (Debian: gstreamer1.0-plugins-good)"},
      {"splitmuxsink", "the GStreamer plugin multifile (Debian: gstreamer1.0-plugins-good)"},
      {"rtph264pay", "the GStreamer plugin rtp (Debian: gstreamer1.0-plugins-good)"},
      {"rtph265pay", "the GStreamer plugin rtp (Debian: gstreamer1.0-plugins-good)"},
      {"rtpav1pay", "GStreamer's plugins in Rust (plugin rsrtp)"},
      {"appsrc", "the GStreamer plugin app (Debian: gstreamer1.0-plugins-base)"},
      {"appsink", "the GStreamer plugin app (Debian: gstreamer1.0-plugins-base)"},
  };
  const auto row = kProviders.find(element);
  return row != kProviders.end() ? row->second : kBoardMaker;
}

// Whether it is one of the board's own, and no software element that a platform needs as well.
bool isBoardMakers(const std::string& element) {
  return providerOf(element) == kBoardMaker;
}

PluginOrigin originOf(const char* element) {
  PluginOrigin origin;
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(element);
  if (factory == nullptr) {
    return origin;
  }
  g_autoptr(GstPlugin) plugin = gst_plugin_feature_get_plugin(GST_PLUGIN_FEATURE(factory));
  if (plugin == nullptr) {
    origin.plugin = "registered by this program";
    return origin;
  }
  const char* const file = gst_plugin_get_filename(plugin);
  origin.plugin = gst_plugin_get_name(plugin);
  origin.version = gst_plugin_get_version(plugin);
  origin.file = file != nullptr ? file : "";
  origin.package = gst_plugin_get_package(plugin);
  return origin;
}

// The file's one name where folders are symbolic links, as /lib is.
std::string realName(const std::string& file) {
  std::error_code error;
  return std::filesystem::weakly_canonical(file, error);
}

// Debian packages by real name of a file; empty where there is no dpkg or it knows none of them.
std::map<std::string, std::string> packagesOf(const std::vector<ElementDiagnosis>& elements) {
  std::set<std::string> files;
  for (const ElementDiagnosis& element : elements) {
    if (!element.origin.file.empty()) {
      files.insert({element.origin.file, realName(element.origin.file)});
    }
  }
  if (files.empty()) {
    return {};
  }
  std::vector<std::string> command = {"dpkg-query", "-S"};
  command.insert(command.end(), files.begin(), files.end());
  std::istringstream lines(runTimed(command, std::chrono::seconds(10)).output);
  std::map<std::string, std::string> packages;
  for (std::string line; std::getline(lines, line);) {  // PACKAGE:ARCHITECTURE: FILE
    const std::size_t file = line.find(": /");
    if (file != std::string::npos) {
      packages[realName(line.substr(file + 2))] = line.substr(0, line.find(':'));
    }
  }
  return packages;
}

// The board's own elements are opened: those of its platform, or of any if it has none.
std::vector<ElementDiagnosis> diagnoseElements(const GstVideoBackend& backend,
                                               const StepRunner& runner) {
  std::vector<ElementDiagnosis> elements;
  for (const BoardElement& element : lookUpElements()) {
    ElementDiagnosis diagnosis{element, originOf(element.name), std::nullopt};
    const bool counts = !backend.available() || element.platform == std::string(backend.name());
    if (element.present && counts && isBoardMakers(element.name)) {
      diagnosis.opening = runner.run(kStepOpen, element.name);
    }
    elements.push_back(std::move(diagnosis));
  }
  const std::map<std::string, std::string> packages = packagesOf(elements);
  for (ElementDiagnosis& element : elements) {
    const auto package = packages.find(realName(element.origin.file));
    if (package != packages.end()) {
      element.origin.package = package->second;
    }
  }
  return elements;
}

std::vector<UseDiagnosis> usesOf(const GstVideoBackend& backend,
                                 const GstVideoBackend::EncoderConfig& config) {
  std::vector<UseDiagnosis> uses;
  const std::string recorder =
      backend.recorderPipeline(config, 60, /*withKlv=*/true, /*withAudio=*/true);
  const std::string transport = backend.transportEncoderChain(config, "-1");
  const std::string http = backend.httpEncoderChain(config);
  const std::string source = "appsrc name=source ";
  if (!recorder.empty()) {
    uses.push_back({"record", recorder, {}});
  }
  if (!transport.empty()) {
    uses.push_back({"rtsp",
                    source + backend.inputConversionChain(nullptr) + transport +
                        backend.rtspPayloaderChain(config.codec, 1400),
                    {}});
  }
  if (!http.empty()) {
    uses.push_back({"http", source + backend.httpUploadChain(nullptr) + http, {}});
  }
  return uses;
}

// The library's own way to an encoder's pictures, with a test picture in front.
std::string trialOf(const GstVideoBackend& backend, const GstVideoBackend::EncoderConfig& config) {
  const std::string transport = backend.transportEncoderChain(config, "-1");
  return kTrialSource + (transport.empty()
                             ? backend.httpUploadChain(nullptr) + backend.httpEncoderChain(config)
                             : backend.inputConversionChain(nullptr) + transport +
                                   "! appsink name=sink sync=false");
}

// How an element's role begins that counts for the codec.
const char* roleOf(Codec codec) {
  switch (codec) {
    case Codec::H264:
      return "H.264 ";
    case Codec::H265:
      return "H.265 ";
    case Codec::Av1:
      return "AV1 ";
    default:
      return "JPEG ";
  }
}

void nameMissing(CodecDiagnosis& codec, const Diagnosis& board) {
  for (const ElementDiagnosis& row : board.elements) {
    if (!row.element.present && row.element.platform == board.profile &&
        std::string(row.element.role).rfind(roleOf(codec.codec), 0) == 0) {
      codec.problems.push_back(std::string(row.element.name) + " is missing");
    }
  }
  if (codec.problems.empty()) {
    codec.problems.emplace_back("no encoder that the library knows on this platform");
  }
}

// The elements of the codec's descriptions that were seen not to open.
void nameUnopened(CodecDiagnosis& codec, const Diagnosis& board) {
  for (const ElementDiagnosis& row : board.elements) {
    const auto names = [&row](const UseDiagnosis& use) {
      const std::vector<std::string> elements = elementsOf(use.description);
      return std::find(elements.begin(), elements.end(), row.element.name) != elements.end();
    };
    if (row.opening && !row.opening->ok &&
        std::any_of(codec.uses.begin(), codec.uses.end(), names)) {
      codec.problems.push_back(std::string(row.element.name) + ": " + row.opening->error);
    }
  }
}

void checkUses(CodecDiagnosis& codec, const StepRunner& runner) {
  for (UseDiagnosis& use : codec.uses) {
    use.check = runner.run(kStepCheck, use.description);
    if (!use.check.ok) {
      codec.problems.push_back(std::string(use.use) + ": " + use.check.error);
    }
    for (const auto& problem : use.check.value) {
      codec.problems.push_back(std::string(use.use) + ": " + problem["message"].get<std::string>());
    }
  }
}

CodecDiagnosis diagnoseCodec(const GstVideoBackend& backend, Codec codec, const Diagnosis& board,
                             const StepRunner& runner) {
  CodecDiagnosis diagnosis{codec, backend.supports(codec), {}, std::nullopt, {}};
  if (!diagnosis.supported) {
    nameMissing(diagnosis, board);
    return diagnosis;
  }
  GstVideoBackend::EncoderConfig config;
  config.codec = codec;
  diagnosis.uses = usesOf(backend, config);
  nameUnopened(diagnosis, board);
  const bool opens = diagnosis.problems.empty();
  checkUses(diagnosis, runner);
  const auto isOk = [](const UseDiagnosis& use) { return use.ok(); };
  if (opens && std::any_of(diagnosis.uses.begin(), diagnosis.uses.end(), isOk)) {
    diagnosis.encoding = runner.run(kStepEncode, trialOf(backend, config));
    if (!diagnosis.encoding->ok) {
      diagnosis.problems.push_back("trial: " + diagnosis.encoding->error);
    }
  }
  return diagnosis;
}

std::vector<FailedPlugin> findFailedPlugins(const StepRunner& runner) {
  std::vector<FailedPlugin> failed;
  GList* const plugins = gst_registry_get_plugin_list(gst_registry_get());
  for (const GList* item = plugins; item != nullptr; item = item->next) {
    auto* const plugin = static_cast<GstPlugin*>(item->data);
    const char* const file = gst_plugin_get_filename(plugin);
    if (GST_OBJECT_FLAG_IS_SET(plugin, GST_PLUGIN_FLAG_BLACKLISTED) && file != nullptr) {
      const StepResult load = runner.run(kStepLoad, file);
      failed.push_back({file, load.ok ? "it loads now, but failed when GStreamer looked for plugins"
                                      : load.error});
    }
  }
  gst_plugin_list_free(plugins);
  return failed;
}

// What to do next

class Advice {
 public:
  explicit Advice(Diagnosis& board) : board_(board) {}

  void give() {
    adviseOnAccess();
    adviseOnPlugins();
    if (!board_.available) {
      adviseOnPlatform();
    }
    adviseOnOpening();
    adviseOnDescriptions();
    if (board_.available) {
      adviseOnMissing();
    }
  }

 private:
  void add(const std::string& line) {
    if (std::find(board_.next.begin(), board_.next.end(), line) == board_.next.end()) {
      board_.next.push_back(line);
    }
  }

  void adviseOnAccess() {
    for (const StepResult& device : board_.devices) {
      if (device.ok && !device.value["remedy"].get<std::string>().empty()) {
        add(device.value["remedy"]);
      }
    }
  }

  void adviseOnPlugins() {
    for (const FailedPlugin& plugin : board_.failedPlugins) {
      add("repair " + plugin.file + " (" + plugin.error +
          "), then remove GStreamer's registry (~/.cache/gstreamer-1.0) for it to look again");
    }
  }

  void adviseOnMissing() {
    for (const ElementDiagnosis& row : board_.elements) {
      const bool needed =
          row.element.platform == board_.profile
              ? std::string(row.element.role).find("one needed") == std::string::npos
              : row.element.platform == std::string(kEveryPlatform);
      if (!row.element.present && needed) {
        add(std::string("to have ") + row.element.name + " (" + row.element.role + "), install " +
            providerOf(row.element.name));
      }
    }
  }

  // A platform that is partly there is what the user means to have.
  void adviseOnPlatform() {
    static constexpr std::array<std::pair<const char*, const char*>, 2> kNeeds = {{
        {"nvidia-nvmm", "a converter and an H.264 or H.265 encoder"},
        {"dmabuf-nv12-vpu", "an H.264 or H.265 encoder"},
    }};
    bool anything = false;
    for (const auto& [platform, needs] : kNeeds) {
      std::string found;
      std::string missing;
      for (const ElementDiagnosis& row : board_.elements) {
        if (row.element.platform == std::string(platform) && isBoardMakers(row.element.name)) {
          (row.element.present ? found : missing).append(" ").append(row.element.name);
        }
      }
      if (!found.empty()) {
        anything = true;
        add(std::string(platform)
                .append(" takes ")
                .append(needs)
                .append("; here is only")
                .append(found)
                .append(": install ")
                .append(kBoardMaker)
                .append(" that have")
                .append(missing));
      }
    }
    if (!anything) {
      add(std::string("install ") + kBoardMaker +
          ": no hardware video element is here (--board nvidia or --board imx simulates a board)");
    }
  }

  void adviseOnOpening() {
    for (const ElementDiagnosis& row : board_.elements) {
      if (row.opening && !row.opening->ok) {
        const std::string name = row.element.name;
        add(std::string("does this chip have what ")
                .append(name)
                .append(" works with? See dmesg, and GST_DEBUG=4 gst-launch-1.0 fakesrc "
                        "num-buffers=1 ! ")
                .append(name)
                .append(" ! fakesink"));
      }
    }
    for (const CodecDiagnosis& codec : board_.codecs) {
      if (codec.encoding && !codec.encoding->ok) {
        add(std::string("look at what the drivers say of the trial of ") + codec.name() +
            ", below, and in dmesg");
      }
    }
  }

  void adviseOnDescriptions() {
    for (const CodecDiagnosis& codec : board_.codecs) {
      for (const UseDiagnosis& use : codec.uses) {
        for (const auto& problem : use.check.value) {
          adviseOnProblem(problem);
        }
      }
    }
  }

  void adviseOnProblem(const nlohmann::ordered_json& problem) {
    const std::string piece = problem["piece"];
    const std::string missing = "there is no element " + piece;
    if (problem["message"] == missing) {
      add("to have " + piece + ", install " + providerOf(piece));
    } else {
      add("see the marked pieces of descriptions below: another release of the element's plugin "
          "is needed");
    }
  }

  Diagnosis& board_;
};

}  // namespace

Diagnosis diagnose(const GstVideoBackend& backend, const StepRunner& runner) {
  Diagnosis board;
  board.profile = backend.name();
  board.available = backend.available();
  board.elements = diagnoseElements(backend, runner);
  if (board.available) {
    for (const Codec codec : {Codec::H264, Codec::H265, Codec::Av1, Codec::Mjpeg}) {
      board.codecs.push_back(diagnoseCodec(backend, codec, board, runner));
    }
  }
  board.failedPlugins = findFailedPlugins(runner);
  board.nodes = listDeviceNodes();
  for (const std::string& node : board.nodes) {
    board.devices.push_back(runner.run(kStepDevice, node));
  }
  Advice(board).give();
  return board;
}

}  // namespace station
