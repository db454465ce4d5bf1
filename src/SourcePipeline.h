#pragma once

#include <chrono>
#include <new>
#include <optional>
#include <string>

#include <gst/gst.h>

#include "gst/GstPtr.h"

namespace media_backend {

// The pipeline of a frame source, from a source element to an appsink: start, reuse, pull, bus
// report and teardown, as every GStreamer source does them. What differs between sources is in
// Traits. One thread at a time.
class SourcePipeline {
 public:
  // What a caller asks for. The running pipeline is used again while it stays the same.
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
    GstMessageType watched;                         // what report() looks for on the bus
    std::string (*describe)(const Config& config);  // takes a normalised config
    void (*prepare)(GstElement* pipeline);          // called before it plays, unless null

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

  // Makes a pipeline run for `config`, with even dimensions and 0.1 to 240 frames per second: the
  // one that runs already if it was started for the same, else a new one. False with a message in
  // `error`; no pipeline runs then.
  bool run(Config config, std::string& error);

  // Starts the running pipeline anew. False as for run().
  bool restart(std::string& error);

  // The next sample within `timeout` (negative: at once), which the caller owns; null if none.
  GstSample* pull(std::chrono::nanoseconds timeout);

  // Takes one watched message from the bus, which may take up to `wait` to get there, and returns
  // its type, GST_MESSAGE_UNKNOWN if there is none. An error's or a warning's text goes into
  // `error`.
  GstMessageType report(std::string& error, GstClockTime wait = 0);

  // Whether the sink has handed out the last sample of the stream. The sink knows before the bus.
  bool isAtEnd() const;

  void teardown();

  // Calls `capture`, and tears the pipeline down if memory runs out in it: what the pipeline
  // reported may be lost with the exception, and no later call would know that it has failed.
  template <typename Capture>
  auto withTeardown(const Capture& capture) {
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
