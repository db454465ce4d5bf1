#pragma once

#include <functional>
#include <string>

#include <gst/gst.h>

// The camera behind a "v4l2src" of this process, which takes the real element's place. It does what
// a driver will not do on command. One source at a time reads it, and one thread commands it.
struct StandInCamera {
  // The camera of the process, its element registered; GStreamer is initialised by then.
  static StandInCamera& instance();

  // Gives the running source frame `number`, at its time at 30 frames per second, luma of value
  // `number`; returns when it has reached the end of the pipeline.
  void show(int number) const;

  // Runs in place of opening the device, false to refuse; null to open it.
  std::function<bool(GstElement* source)> open;
  GstElement* source = nullptr;  // the last one that was opened
  std::string device;            // of the last one
};
