#pragma once

#include <chrono>
#include <new>
#include <optional>
#include <string>

#include <gst/gst.h>

#include "gst/GstPtr.h"

namespace media_backend {

// Pipeline of a frame source, from a source element to an appsink: start, reuse, pull, bus messages
// and teardown. Traits hold the differences between sources. One thread at a time.
class SourcePipeline {
 public:
  // A caller's request. The running pipeline is reused while it is unchanged.
  struct Config {
    std::string location;
    unsigned width;   // pixels
    unsigned height;  // pixels
    double fps;
    bool loop;  // whether the source plays again at its end
  };

  struct Traits {
    const char* sourceName;                         // name of the source element in the description
    const char* sourceProperty;                     // its property that takes the location
    const char* sinkName;                           // name of the appsink in the description
    GstMessageType watched;                         // messages that report() takes
    std::string (*describe)(const Config& config);  // takes a normalised config
    void (*prepare)(GstElement* pipeline);          // called before PLAYING; may be null

    // error texts
    const char* createFailed;
    const char* sourceMissing;
    const char* sinkMissing;
    const char* playRefused;
    const char* stateChangeFailed;
  };

  explicit SourcePipeline(const Traits& traits) : traits_(traits) {}
  ~SourcePipeline() { teardown(); }
  SourcePipeline(const SourcePipeline&) = delete;
  SourcePipeline& operator=(const SourcePipeline&) = delete;

  // Runs a pipeline for `config`, normalised to even dimensions and 0.1 to 240 frames per second.
  // Reuses the running one if its configuration is the same. False with a message in `error`; no
  // pipeline runs then.
  bool run(Config config, std::string& error);

  // Restarts the running pipeline. False as for run().
  bool restart(std::string& error);

  // Returns the next sample within `timeout` (negative: at once), owned by the caller; null if
  // none.
  GstSample* pull(std::chrono::nanoseconds timeout);

  // Takes one watched message from the bus, waiting up to `wait` for it, and returns its type;
  // GST_MESSAGE_UNKNOWN if there is none. Stores the text of an error or warning in `error`.
  GstMessageType report(std::string& error, GstClockTime wait = 0);

  // The appsink of the running pipeline.
  GstElement* sink() const { return sink_.get(); }

  // Whether the last sample has been pulled. The sink reports this earlier than the bus.
  bool isAtEnd() const;

  void teardown();

  // Calls `capture` and tears the pipeline down if memory runs out: the exception may discard an
  // error of the pipeline, which no later call would report.
  template <typename Capture>
  auto tearDownOnBadAlloc(const Capture& capture) {
    try {
      return capture();
    } catch (const std::bad_alloc&) {
      teardown();
      throw;
    }
  }

 private:
  bool start(const Config& config, std::string& error);
  bool build(const Config& config, std::string& error);
  bool play(std::string& error);
  bool failWithReport(const char* fallback, std::string& error);
  void emptyDecoders();

  const Traits& traits_;
  GstPtr<GstElement> pipeline_;
  GstPtr<GstElement> source_;
  GstPtr<GstElement> sink_;
  std::optional<Config> active_;  // normalised; set while the pipeline runs
};

}  // namespace media_backend
