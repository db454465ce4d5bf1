#pragma once

#include <optional>

#include "metadata/MetadataSource.h"

namespace station {

// Metadata for a camera without sensors: an aircraft circles a point on the ground at constant
// height, banked, and its gimbal keeps that point in the middle of the picture. Where the line of
// sight meets the ground are the frame centre and the slant range.
class DemoFlight : public MetadataSource {
 public:
  // Says on standard error that the flight is invented.
  DemoFlight();
  void annotate(lumora::LumoraPicture& picture, Time time) override;

 private:
  std::optional<Time> start_;  // time of the first picture
};

}  // namespace station
