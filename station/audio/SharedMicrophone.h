#pragma once

#include <memory>
#include <mutex>
#include <utility>

#include "audio/Microphone.h"

namespace station {

// A microphone that is opened once for all who listen at the same time: many devices take no second
// opening.
//
// Threads: any.
class SharedMicrophone {
 public:
  explicit SharedMicrophone(MicrophoneName name) : name_(std::move(name)) {}

  // The microphone; opens it if nobody has it, or if it has failed. Throws StationError (Source).
  std::shared_ptr<Microphone> open() {
    const std::lock_guard lock(mutex_);
    std::shared_ptr<Microphone> microphone = open_.lock();
    if (microphone == nullptr || microphone->hasFailed()) {
      microphone = std::make_shared<Microphone>(name_);
      open_ = microphone;
    }
    return microphone;
  }

 private:
  const MicrophoneName name_;
  std::mutex mutex_;
  std::weak_ptr<Microphone> open_;
};

}  // namespace station
