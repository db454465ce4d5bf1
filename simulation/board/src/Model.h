#pragma once

#include <string>
#include <vector>

#include <gst/gst.h>

namespace simulated_board {

// A hardware element and its software replacement.
struct Model {
  enum class Board { Nvidia, Imx, Other };
  using Property = GParamSpec* (*)();

  const char* name;  // as on the hardware
  Board board;
  const char* title;
  const char* klass;
  const char* sinkCaps;
  const char* srcCaps;
  std::vector<Property> properties;

  // Description of the software elements inside, for the current properties of `element`.
  std::string (*inside)(GObject* element);
  bool bridgesSink = false;  // takes board memory
  bool bridgesSrc = false;   // gives board memory

  // Adapts the element inside that is named "codec" in the description; may be null.
  void (*finish)(GObject* element, GstElement* codec) = nullptr;
};

const std::vector<Model>& models();

}  // namespace simulated_board
