#include "record/SensorModel.h"

#include <cmath>
#include <cstdint>

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

constexpr double kPi = 3.14159265358979323846;
constexpr double kDegrees = 180.0 / kPi;
constexpr double kMetresPerDegree = 111320.0;  // of latitude

constexpr double kCentreLatDeg = 47.0;
constexpr double kCentreLonDeg = 8.5;
constexpr double kGroundElevM = 450.0;
constexpr double kHeightM = 800.0;  // above ground
constexpr double kRadiusM = 1500.0;
constexpr double kPeriodS = 240.0;
constexpr double kBankDeg = 6.0;
constexpr double kHfovDeg = 24.0;

}  // namespace

void writeSensorMetadata(lumora::LumoraPicture& picture, std::chrono::system_clock::time_point utc,
                         std::chrono::nanoseconds elapsed) {
  const double seconds = std::chrono::duration<double>(elapsed).count();
  const double bearing = 2.0 * kPi * std::fmod(seconds, kPeriodS) / kPeriodS;  // from the centre
  const double north = kRadiusM * std::cos(bearing);
  const double east = kRadiusM * std::sin(bearing);
  const double aspect = static_cast<double>(picture.height()) / picture.width();
  const double halfHfov = kHfovDeg / 2.0 / kDegrees;

  const auto set = [&picture](const std::string& key, double value) {
    picture.setMetadata(key, value);
  };
  using std::chrono::duration_cast;
  picture.setMetadata(
      Keys::kUtcTimestampUs,
      std::int64_t{duration_cast<std::chrono::microseconds>(utc.time_since_epoch()).count()});
  picture.setMetadata(Keys::kSourceNs, std::int64_t{elapsed.count()});

  // It flies clockwise, so the centre is always to its right.
  set(Keys::kYawDeg, std::fmod(bearing * kDegrees + 90.0, 360.0));
  set(Keys::kPitchDeg, 0.0);
  set(Keys::kRollDeg, kBankDeg);
  set(Keys::kPanDeg, 90.0);
  set(Keys::kTiltDeg, -std::atan2(kHeightM, kRadiusM) * kDegrees);
  set(Keys::kSensorLatDeg, kCentreLatDeg + north / kMetresPerDegree);
  set(Keys::kSensorLonDeg,
      kCentreLonDeg + east / (kMetresPerDegree * std::cos(kCentreLatDeg / kDegrees)));
  set(Keys::kSensorAltM, kGroundElevM + kHeightM);
  set(Keys::kHfovDeg, kHfovDeg);
  set(Keys::kVfovDeg, 2.0 * std::atan(std::tan(halfHfov) * aspect) * kDegrees);
  set(Keys::kMeasuredSlantRangeM, std::hypot(kRadiusM, kHeightM));
  set(Keys::kFrameCenterLatDeg, kCentreLatDeg);
  set(Keys::kFrameCenterLonDeg, kCentreLonDeg);
  set(Keys::kFrameCenterElevM, kGroundElevM);
}

}  // namespace station
