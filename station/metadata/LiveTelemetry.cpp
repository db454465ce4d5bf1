#include "metadata/LiveTelemetry.h"

#include <cstddef>
#include <cstdio>

namespace station {
namespace {

using std::chrono::system_clock;

constexpr std::size_t kCapacity = 4096;  // values of a key

}  // namespace

LiveTelemetry::LiveTelemetry(std::chrono::nanoseconds timeout)
    : timeout_(timeout), telemetry_(timeout, kCapacity) {}

void LiveTelemetry::annotate(lumora::LumoraPicture& picture, Time /*time*/) {
  telemetry_.writeTo(picture, system_clock::now());
}

void LiveTelemetry::add(std::optional<Time> time, const Telemetry::Sample& sample) {
  const Time now = system_clock::now();
  const auto ahead = time.value_or(now) - now;
  if (std::chrono::abs(ahead) <= timeout_) {
    telemetry_.add(now + ahead, sample);
  } else if (!hasComplained_.exchange(true)) {
    std::fprintf(stderr, "telemetry: values are ignored, their time is %.1f s %s the clock\n",
                 std::chrono::duration<double>(std::chrono::abs(ahead)).count(),
                 ahead.count() > 0 ? "ahead of" : "behind");
  }
}

}  // namespace station
