#pragma once

#include <string>
#include <vector>

#include <gst/gst.h>

namespace simulated_board {

// One hardware element and what stands in for it.
struct Model {
  enum class Board { Nvidia, Imx };
  using Property = GParamSpec* (*)();

  const char* name;  // as on the hardware
  Board board;
  const char* title;
  const char* klass;
  const char* sinkCaps;
  const char* srcCaps;
  std::vector<Property> properties;

  // Description of the software elements inside, for the present values of `element`'s properties.
  std::string (*inside)(GObject* element);
  bool bridgesSink = false;  // board memory may come in
  bool bridgesSrc = false;   // board memory may go out

  // What is done to the encoder inside, which the description names "codec"; null for nothing.
  void (*finish)(GObject* element, GstElement* codec) = nullptr;
};

const std::vector<Model>& models();

}  // namespace simulated_board
