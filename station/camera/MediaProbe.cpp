#include "camera/MediaProbe.h"

#include <string>

namespace station {
namespace {

using std::chrono::steady_clock;

constexpr std::chrono::seconds kProbeTimeout{5};
constexpr std::chrono::milliseconds kProbePoll{50};

}  // namespace

MediaProbe::MediaProbe(const media_backend::SourcePipeline::Traits& traits, const Config& config)
    : pipeline_(traits) {
  std::string error;
  running_ = pipeline_.run(config, error);
}

MediaProbe::Sample MediaProbe::next() {
  const auto deadline = steady_clock::now() + kProbeTimeout;
  while (running_ && steady_clock::now() < deadline) {
    if (GstSample* const sample = pipeline_.pull(kProbePoll)) {
      return {sample, gst_sample_unref};
    }
    std::string error;
    if (pipeline_.isAtEnd() || pipeline_.report(error) == GST_MESSAGE_ERROR) {
      break;
    }
  }
  return {nullptr, gst_sample_unref};
}

void MediaProbe::restart() {
  std::string error;
  running_ = running_ && pipeline_.restart(error);
}

}  // namespace station
