#include "camera/CaptureTimes.h"

#include <cstdlib>
#include <iterator>

namespace station {
namespace {

constexpr std::size_t kMostInEncoder = 256;  // frames
constexpr GstClockTimeDiff kEncoderRounding = GST_MSECOND;

}  // namespace

void CaptureTimes::add(GstClockTime runningTime, Time captured) {
  const std::lock_guard lock(mutex_);
  times_[runningTime] = captured;
  if (times_.size() > kMostInEncoder) {
    times_.erase(times_.begin());
  }
}

std::optional<CaptureTimes::Time> CaptureTimes::find(GstClockTime runningTime) const {
  const std::lock_guard lock(mutex_);
  auto nearest = times_.lower_bound(runningTime);
  const auto distance = [&](std::map<GstClockTime, Time>::const_iterator frame) {
    return frame == times_.end() ? G_MAXINT64 : std::abs(GST_CLOCK_DIFF(frame->first, runningTime));
  };
  if (nearest != times_.begin() && distance(std::prev(nearest)) < distance(nearest)) {
    --nearest;
  }
  return distance(nearest) < kEncoderRounding ? std::optional(nearest->second) : std::nullopt;
}

}  // namespace station
