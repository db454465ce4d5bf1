#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include <gst/gst.h>

// The camera behind a "v4l2src" of this process, which takes the real element's place. It does what
// a driver will not do on command. One source at a time reads it.
class StandInCamera {
 public:
  // The camera of the process, its element registered; GStreamer is initialised by then.
  static StandInCamera& instance();

  // For the sources that start from now on.
  void offer(const std::string& caps);
  // Runs in place of opening the device, false to refuse; null to open it.
  void onOpen(std::function<bool(GstElement* source)> open);

  // Gives the running source frame `number`, at its time at 30 frames per second, luma of value
  // `number`; returns when it has reached the end of the pipeline.
  void show(int number);

  std::string device() const { return locked(device_); }

 private:
  friend struct StandInSource;

  template <typename Value>
  Value locked(const Value& value) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return value;
  }

  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::string caps_;
  std::string device_;
  std::function<bool(GstElement*)> open_;
  std::optional<int> frame_;  // while a source has one to take or to deliver
  bool flushing_ = false;
};
