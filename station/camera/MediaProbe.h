#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "SourcePipeline.h"

namespace station {

// A pipeline of the station's own that examines a source. Failures are silent: the library's source
// fails again, with a message.
//
// Threads: one at a time.
class MediaProbe {
 public:
  using Sample = std::unique_ptr<GstSample, decltype(&gst_sample_unref)>;
  using Config = media_backend::SourcePipeline::Config;

  // Traits of a description with the source `source` and the appsink "sink".
  static constexpr media_backend::SourcePipeline::Traits traits(
      const char* source, const char* property, std::string (*describe)(const Config&),
      void (*prepare)(GstElement* pipeline)) {
    return {source, property, "sink", GST_MESSAGE_ERROR, describe, prepare, "", "", "", "", ""};
  }

  MediaProbe(const media_backend::SourcePipeline::Traits& traits, const Config& config);

  // Null at the end, after a failure, and after five seconds without a sample.
  Sample next();
  // Begins again at the start.
  void restart();
  GstElement* sink() const { return pipeline_.sink(); }

 private:
  media_backend::SourcePipeline pipeline_;
  bool running_;
};

}  // namespace station
