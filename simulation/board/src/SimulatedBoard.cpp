#include <simulated_board/SimulatedBoard.h>

#include <sstream>
#include <vector>

#include "BoardElement.h"
#include "Model.h"

namespace simulated_board {
namespace {

using Selection = std::vector<const Model*>;

void selectBoard(Model::Board board, Selection& selected) {
  for (const Model& model : models()) {
    if (model.board == board) {
      selected.push_back(&model);
    }
  }
}

bool select(const std::string& name, Selection& selected, std::string& error) {
  if (name == "nvidia") {
    selectBoard(Model::Board::Nvidia, selected);
  } else if (name == "imx") {
    selectBoard(Model::Board::Imx, selected);
  } else if (const Model* const model = findModel(name)) {
    selected.push_back(model);
  } else {
    error = "\"" + name + "\" is neither nvidia, imx nor an element of theirs";
    return false;
  }
  return true;
}

// Whether an element of that name is there that `plugin` did not bring.
bool isTaken(const char* name, GstPlugin* plugin) {
  g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
  if (factory == nullptr) {
    return false;
  }
  const char* const owner = gst_plugin_feature_get_plugin_name(GST_PLUGIN_FEATURE(factory));
  return g_strcmp0(owner, plugin != nullptr ? gst_plugin_get_name(plugin) : nullptr) != 0;
}

}  // namespace

bool registerElements(GstPlugin* plugin, const std::string& selection, std::string& error) {
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
  for (const Model* const model : selected) {
    if (isTaken(model->name, plugin)) {
      error = std::string(model->name) + " is there already, from another plugin";
      return false;
    }
  }
  for (const Model* const model : selected) {
    if (!gst_element_register(plugin, model->name, GST_RANK_NONE, boardElementType(*model))) {
      error = std::string("GStreamer does not take ") + model->name;
      return false;
    }
  }
  return true;
}

}  // namespace simulated_board
