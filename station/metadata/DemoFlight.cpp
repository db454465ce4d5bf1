#include "metadata/DemoFlight.h"

#include <cmath>
#include <cstdint>
#include <cstdio>

#include "metadata/Geometry.h"

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

constexpr GeoPoint kCentre{47.0, 8.5, 450.0};
constexpr double kHeightM = 800.0;  // above ground
constexpr double kRadiusM = 1500.0;
constexpr double kPeriodS = 240.0;
constexpr double kBankDeg = 6.0;
constexpr double kHfovDeg = 24.0;

}  // namespace

DemoFlight::DemoFlight() {
  std::fprintf(stderr, "telemetry: demo, an invented flight\n");
}

void DemoFlight::annotate(lumora::LumoraPicture& picture, Time time) {
  start_ = start_.value_or(time);
  const double seconds = std::chrono::duration<double>(time - *start_).count();
  const double bearing = 360.0 * std::fmod(seconds, kPeriodS) / kPeriodS;  // from the centre
  double outwards = 0;
  GeoPoint sensor = moved(kCentre, bearing, kRadiusM, outwards);
  sensor.height += kHeightM;
  // It flies clockwise, so the centre is always to its right.
  Pose pose{std::fmod(outwards + 450.0, 360.0), 0, kBankDeg, 0, 0};
  const double range = aimAt(kCentre, sensor, pose);
  const double speed = 360 * kRadians * kRadiusM / kPeriodS;
  const double aspect = static_cast<double>(picture.height()) / picture.width();
  const double halfHfov = kHfovDeg / 2 * kRadians;

  const auto set = [&picture](const std::string& key, double value) {
    picture.setMetadata(key, value);
  };
  set(Keys::kYawDeg, pose.yaw);
  set(Keys::kPitchDeg, pose.pitch);
  set(Keys::kRollDeg, pose.roll);
  set(Keys::kPanDeg, pose.pan);
  set(Keys::kTiltDeg, pose.tilt);
  set(Keys::kSensorLatDeg, sensor.latitude);
  set(Keys::kSensorLonDeg, sensor.longitude);
  set(Keys::kSensorAltM, sensor.height);
  set(Keys::kVelocityNorthMps, speed * std::cos(pose.yaw * kRadians));
  set(Keys::kVelocityEastMps, speed * std::sin(pose.yaw * kRadians));
  set(Keys::kVelocityDownMps, 0);
  set(Keys::kHfovDeg, kHfovDeg);
  set(Keys::kVfovDeg, 2 * std::atan(std::tan(halfHfov) * aspect) / kRadians);
  set(Keys::kMeasuredSlantRangeM, range);
  set(Keys::kFrameCenterLatDeg, kCentre.latitude);
  set(Keys::kFrameCenterLonDeg, kCentre.longitude);
  set(Keys::kFrameCenterElevM, kCentre.height);
  picture.setMetadata(Keys::kCameraName, std::string("demo camera"));
  picture.setMetadata(Keys::kSerialNumber, std::string("demo"));
}

}  // namespace station
