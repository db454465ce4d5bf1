#include "BoardElement.h"

#include <array>
#include <csignal>
#include <cstring>
#include <string>
#include <utility>

#include <simulated_board/Faults.h>

#include "Debug.h"
#include "DmaBufMapCache.h"
#include "Guarded.h"
#include "PaintFault.h"
#include "ReplayEncoder.h"
#include "SurfaceBridge.h"
#include "TypeRegistration.h"

namespace simulated_board {
namespace {

constexpr std::size_t kMaxProperties = 8;

struct BoardElement {
  GstBin parent;
  GValue values[kMaxProperties];  // index: property id - 1; numbers only, nothing to free
  bool stale;                     // a value changed after the elements inside were created
};

struct BoardElementClass {
  GstBinClass parent;
  const Model* model;
  GParamSpec* specs[kMaxProperties];  // the model's; the rest is null
};

GstBinClass* parentClass = nullptr;

const Model& modelOf(gpointer element) {
  return *reinterpret_cast<BoardElementClass*>(G_OBJECT_GET_CLASS(element))->model;
}

// Debian package of an element inside.
std::string packageOf(const std::string& element) {
  static constexpr std::array<std::pair<const char*, const char*>, 6> kPackages = {{
      {"x264enc", "gstreamer1.0-plugins-ugly"},
      {"x265enc", "gstreamer1.0-plugins-bad"},
      {"av1enc", "gstreamer1.0-plugins-bad"},
      {"jpegenc", "gstreamer1.0-plugins-good"},
      {"videoconvert", "gstreamer1.0-plugins-base"},
      {"videoscale", "gstreamer1.0-plugins-base"},
  }};
  for (const auto& [name, package] : kPackages) {
    if (element == name) {
      return package;
    }
  }
  return "libgstreamer1.0-0";
}

void reportMissing(BoardElement* self, const char* missing) {
  GST_ELEMENT_ERROR(self, CORE, MISSING_PLUGIN,
                    ("%s works with the element \"%s\" inside, which is missing; the Debian "
                     "package %s has it",
                     modelOf(self).name, missing, packageOf(missing).c_str()),
                    (nullptr));
}

// Returns a floating reference; null after posting an error.
GstElement* parseInside(BoardElement* self) {
  const std::string text = modelOf(self).inside(G_OBJECT(self));
  GST_DEBUG_OBJECT(self, "inside: %s", text.c_str());
  g_autoptr(GstParseContext) context = gst_parse_context_new();
  g_autoptr(GError) error = nullptr;
  GstElement* const inside = gst_parse_bin_from_description_full(
      text.c_str(), TRUE, context, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  if (inside != nullptr) {
    return inside;
  }
  g_auto(GStrv) missing = gst_parse_context_get_missing_elements(context);
  if (missing != nullptr && missing[0] != nullptr) {
    reportMissing(self, missing[0]);
  } else {
    GST_ELEMENT_ERROR(self, LIBRARY, SETTINGS, ("%s", error->message), ("%s", text.c_str()));
  }
  return nullptr;
}

// Adds `element`, links it after `last` (null: it is the first) and returns it.
GstElement* append(BoardElement* self, GstElement* last, GstElement* element) {
  gst_bin_add(GST_BIN(self), element);
  if (last != nullptr) {
    gst_element_link(last, element);
  }
  return element;
}

void setTarget(BoardElement* self, const char* pad, GstElement* target) {
  g_autoptr(GstPad) outer = gst_element_get_static_pad(GST_ELEMENT(self), pad);
  g_autoptr(GstPad) inner = target != nullptr ? gst_element_get_static_pad(target, pad) : nullptr;
  gst_ghost_pad_set_target(GST_GHOST_PAD(outer), inner);
}

void finishCodec(BoardElement* self, GstElement* inside) {
  const Model& model = modelOf(self);
  if (model.finish != nullptr) {
    g_autoptr(GstElement) codec = gst_bin_get_by_name(GST_BIN(inside), "codec");
    model.finish(G_OBJECT(self), codec);
  }
}

// Holds each frame for `times` times its duration, as an encoder that slow would.
void slowDown(GstPad* pad, unsigned int times) {
  const auto hold = [](GstPad*, GstPadProbeInfo* info, gpointer factor) {
    const GstClockTime duration = GST_BUFFER_DURATION(GST_PAD_PROBE_INFO_BUFFER(info));
    if (GST_CLOCK_TIME_IS_VALID(duration)) {
      g_usleep(GST_TIME_AS_USECONDS(duration) * GPOINTER_TO_UINT(factor));
    }
    return GST_PAD_PROBE_OK;
  };
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, hold, GUINT_TO_POINTER(times), nullptr);
}

void dismantle(BoardElement* self) {
  setTarget(self, "sink", nullptr);
  setTarget(self, "src", nullptr);
  while (GST_BIN_CHILDREN(self) != nullptr) {
    auto* const child = static_cast<GstElement*>(GST_BIN_CHILDREN(self)->data);
    gst_element_set_state(child, GST_STATE_NULL);
    gst_bin_remove(GST_BIN(self), child);
  }
}

bool assemble(BoardElement* self) {
  dismantle(self);
  self->stale = false;
  const Model& model = modelOf(self);
  GstElement* const inside = parseInside(self);
  if (inside == nullptr) {
    return false;
  }
  GstElement* const first =
      model.bridgesSink ? append(self, nullptr, makeSurfaceBridge()) : nullptr;
  GstElement* last = append(self, first, inside);
  if (model.bridgesSrc) {
    last = append(self, last, makeSurfaceBridge());
  }
  g_autoptr(GstPad) input = gst_element_get_static_pad(inside, "sink");
  if (model.board == Model::Board::Imx) {
    cacheDmaBufMaps(input);
  }
  if (const unsigned int times = faultNumber(model.name, "slow")) {
    slowDown(input, times);
  }
  for (const char* const colour : {"black", "green"}) {
    if (hasFault(model.name, colour)) {
      paintOver(input, colour == std::string("black"));
    }
  }
  if (replaysAccessUnits() && std::strstr(model.klass, "Encoder") != nullptr) {
    replayAccessUnits(inside);
  }
  finishCodec(self, inside);
  setTarget(self, "sink", first != nullptr ? first : inside);
  setTarget(self, "src", last);
  return true;
}

// An error of opening a driver, in the words of the hardware's elements.
struct OpenFault {
  const char* name;
  GstResourceError code;
  const char* message;
};

constexpr OpenFault kOpenFaults[] = {
    {"no-open", GST_RESOURCE_ERROR_OPEN_READ_WRITE, "Cannot open the device of the encoder."},
    {"no-node", GST_RESOURCE_ERROR_NOT_FOUND, "Cannot identify device '/dev/v4l2-nvenc'."},
    {"null-node", GST_RESOURCE_ERROR_SETTINGS,
     "Error getting capabilities for device '/dev/null': It isn't a v4l2 driver. Check if it is a "
     "v4l1 driver."},
    {"no-v4l2", GST_RESOURCE_ERROR_SETTINGS,
     "Error getting capabilities for device '/dev/zero': It isn't a v4l2 driver. Check if it is a "
     "v4l1 driver."},
};

// Simulates the open call of a driver whose hardware is missing or broken. False if it fails.
bool openDriver(BoardElement* self) {
  const std::string name = modelOf(self).name;
  for (const OpenFault& fault : kOpenFaults) {
    if (hasFault(name, fault.name)) {
      gst_element_message_full(GST_ELEMENT(self), GST_MESSAGE_ERROR, GST_RESOURCE_ERROR, fault.code,
                               g_strdup(fault.message),
                               g_strdup("asked for by SIMULATED_BOARD_FAULTS"), __FILE__, __func__,
                               __LINE__);
      return false;
    }
  }
  if (hasFault(name, "crash-open")) {
    std::signal(SIGSEGV, SIG_DFL);  // a sanitizer's handler would turn it into an exit
    std::raise(SIGSEGV);
  }
  if (hasFault(name, "hang-open")) {
    while (true) {
      g_usleep(G_USEC_PER_SEC);
    }
  }
  return true;
}

GstStateChangeReturn changeState(GstElement* element, GstStateChange transition) {
  auto* const self = reinterpret_cast<BoardElement*>(element);
  if (transition == GST_STATE_CHANGE_NULL_TO_READY && !openDriver(self)) {
    return GST_STATE_CHANGE_FAILURE;
  }
  const bool due = transition == GST_STATE_CHANGE_NULL_TO_READY ||
                   (transition == GST_STATE_CHANGE_READY_TO_PAUSED && self->stale);
  if (due && !assemble(self)) {
    return GST_STATE_CHANGE_FAILURE;
  }
  const GstStateChangeReturn result =
      GST_ELEMENT_CLASS(parentClass)->change_state(element, transition);
  if (transition == GST_STATE_CHANGE_READY_TO_NULL) {
    dismantle(self);
  }
  return result;
}

void setProperty(GObject* object, guint id, const GValue* value, GParamSpec*) {
  auto* const self = reinterpret_cast<BoardElement*>(object);
  GST_OBJECT_LOCK(object);
  g_value_copy(value, &self->values[id - 1]);
  self->stale = true;
  GST_OBJECT_UNLOCK(object);
}

void getProperty(GObject* object, guint id, GValue* value, GParamSpec*) {
  GST_OBJECT_LOCK(object);
  g_value_copy(&reinterpret_cast<BoardElement*>(object)->values[id - 1], value);
  GST_OBJECT_UNLOCK(object);
}

void initClass(gpointer klass, gpointer data) {
  const auto* const model = static_cast<const Model*>(data);
  parentClass = static_cast<GstBinClass*>(g_type_class_peek_parent(klass));
  static_cast<BoardElementClass*>(klass)->model = model;

  auto* const object = static_cast<GObjectClass*>(klass);
  object->set_property = setProperty;
  object->get_property = getProperty;
  guint id = 0;
  for (const Model::Property property : model->properties) {
    GParamSpec* const spec = property();
    if (hasFault(model->name, std::string("lacks:") + spec->name)) {
      g_param_spec_unref(g_param_spec_ref_sink(spec));
      continue;
    }
    static_cast<BoardElementClass*>(klass)->specs[id] = spec;
    g_object_class_install_property(object, ++id, spec);
  }
  auto* const element = static_cast<GstElementClass*>(klass);
  element->change_state = guarded<changeState>;
  addPadTemplate(element, "sink", GST_PAD_SINK, model->sinkCaps);
  addPadTemplate(element, "src", GST_PAD_SRC, model->srcCaps);
  gst_element_class_set_metadata(element, model->title, model->klass,
                                 "Does in software what the hardware element does on its board",
                                 "-");
}

void addGhostPad(GstElement* element, GstElementClass* klass, const char* name) {
  GstPadTemplate* const padTemplate = gst_element_class_get_pad_template(klass, name);
  gst_element_add_pad(element, gst_ghost_pad_new_no_target_from_template(name, padTemplate));
}

void initInstance(GTypeInstance* instance, gpointer klass) {
  auto* const self = reinterpret_cast<BoardElement*>(instance);
  GParamSpec* const* const specs = static_cast<BoardElementClass*>(klass)->specs;
  for (std::size_t i = 0; i < kMaxProperties && specs[i] != nullptr; ++i) {
    g_value_init(&self->values[i], specs[i]->value_type);
    g_param_value_set_default(specs[i], &self->values[i]);
  }
  auto* const element = reinterpret_cast<GstElement*>(instance);
  addGhostPad(element, static_cast<GstElementClass*>(klass), "sink");
  addGhostPad(element, static_cast<GstElementClass*>(klass), "src");
}

}  // namespace

GType boardElementType(const Model& model) {
  GTypeInfo info = {};
  info.class_size = sizeof(BoardElementClass);
  info.class_init = guarded<initClass>;
  info.class_data = &model;
  info.instance_size = sizeof(BoardElement);
  info.instance_init = initInstance;
  return typeOnce(GST_TYPE_BIN, (std::string(kBoardElementType) + model.name).c_str(), info);
}

}  // namespace simulated_board
