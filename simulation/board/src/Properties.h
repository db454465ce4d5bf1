#pragma once

#include <gst/gst.h>

namespace simulated_board {

// Properties of the hardware elements, with their names, ranges and defaults. Each call makes one,
// which the class that installs it takes.
GParamSpec* maxperfEnable();
GParamSpec* iframeInterval();
GParamSpec* idrInterval();
GParamSpec* controlRate();
GParamSpec* bitrate();
GParamSpec* presetLevel();
GParamSpec* insertSpsPps();
GParamSpec* outputIoMode();
GParamSpec* nvbufMemoryType();
GParamSpec* quality();
GParamSpec* gopSize();
GParamSpec* vpuBitrate();  // in kbit/s

}  // namespace simulated_board
