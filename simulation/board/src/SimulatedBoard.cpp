#include <simulated_board/SimulatedBoard.h>

#include <algorithm>
#include <mutex>
#include <sstream>
#include <vector>

#include "BoardElement.h"
#include "Debug.h"
#include "Model.h"
#include "av1/Av1Payloader.h"

namespace simulated_board {

GST_DEBUG_CATEGORY(simulatedBoardDebug);

namespace {

// An element that can be registered.
struct Element {
  const char* name;
  Model::Board board;
  const Model* model;  // null for the AV1 payloader, which is not hardware
};

using Selection = std::vector<Element>;

Selection allElements() {
  Selection all;
  for (const Model& model : models()) {
    all.push_back({model.name, model.board, &model});
  }
  all.push_back({"rtpav1pay", Model::Board::Nvidia, nullptr});
  return all;
}

bool select(const std::string& name, Selection& selected, std::string& error) {
  const std::size_t before = selected.size();
  for (const Element& element : allElements()) {
    const char* const board = element.board == Model::Board::Nvidia ? "nvidia"
                              : element.board == Model::Board::Imx  ? "imx"
                                                                    : nullptr;
    if (name == element.name || (board != nullptr && name == board)) {
      selected.push_back(element);
    }
  }
  if (selected.size() == before) {
    error = "\"" + name + "\" is neither nvidia, imx nor an element of theirs";
    return false;
  }
  return true;
}

// Whether an element of that name exists that `plugin` does not provide.
bool isTaken(const char* name, GstPlugin* plugin) {
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
  if (factory == nullptr) {
    return false;
  }
  const char* const owner = gst_plugin_feature_get_plugin_name(GST_PLUGIN_FEATURE(factory));
  return g_strcmp0(owner, plugin != nullptr ? gst_plugin_get_name(plugin) : nullptr) != 0;
}

}  // namespace

bool isSimulated(const char* element) {
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(element);
  if (factory == nullptr) {
    return false;
  }
  const char* const owner = gst_plugin_feature_get_plugin_name(GST_PLUGIN_FEATURE(factory));
  if (owner != nullptr) {
    return std::string(owner) == "simulatedboard";
  }
  // Without a plugin, the factory has the type already.
  const char* const type = g_type_name(gst_element_factory_get_element_type(factory));
  return type != nullptr && std::string(type).rfind(kBoardElementType, 0) == 0;
}

bool registerElements(GstPlugin* plugin, const std::string& selection, std::string& error) {
  static std::once_flag once;
  std::call_once(once, [] {
    GST_DEBUG_CATEGORY_INIT(simulatedBoardDebug, "simulatedboard", 0, "simulated camera board");
  });
  Selection selected;
  std::istringstream names(selection);
  for (std::string name; std::getline(names, name, ',');) {
    if (!select(name, selected, error)) {
      return false;
    }
  }
  if (selected.empty()) {
    error = "no element is named";
    return false;
  }
  const auto isOffered = [plugin](const Element& element) {
    return element.model == nullptr && isTaken(element.name, plugin);
  };
  selected.erase(std::remove_if(selected.begin(), selected.end(), isOffered), selected.end());
  for (const Element& element : selected) {
    if (isTaken(element.name, plugin)) {
      error = std::string(element.name) + " is there already, from another plugin";
      return false;
    }
  }
  for (const Element& element : selected) {
    const GType type =
        element.model != nullptr ? boardElementType(*element.model) : av1PayloaderType();
    if (!gst_element_register(plugin, element.name, GST_RANK_NONE, type)) {
      error = std::string("GStreamer does not take ") + element.name;
      return false;
    }
    GST_INFO("registered %s", element.name);
  }
  return true;
}

}  // namespace simulated_board
