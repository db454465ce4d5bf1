#include "metadata/MetadataKeys.h"

#include <lumora/LumoraPicture.h>

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

}  // namespace

const std::vector<MetadataKey>& metadataKeys() {
  using Kind = KeyKind;
  static const std::vector<MetadataKey> kKeys = {
      {Keys::kSourceNs, Kind::Frame},
      {Keys::kCameraIndex, Kind::Integer},
      {Keys::kCameraName, Kind::Text},
      {Keys::kCameraModelName, Kind::Text},
      {Keys::kCameraType, Kind::Text},
      {Keys::kUtcTimestampUs, Kind::Frame},
      {Keys::kHfovDeg, Kind::Number},
      {Keys::kVfovDeg, Kind::Number},
      {Keys::kZoomRatio, Kind::Number},
      {Keys::kPanDeg, Kind::Angle},
      {Keys::kTiltDeg, Kind::HalfTurn},
      {Keys::kRollDeg, Kind::HalfTurn},
      {Keys::kPitchDeg, Kind::Number},
      {Keys::kYawDeg, Kind::Angle},
      {Keys::kSensorLatDeg, Kind::Latitude},
      {Keys::kSensorLonDeg, Kind::Longitude},
      {Keys::kSensorAltM, Kind::Number},
      {Keys::kFrameCenterLatDeg, Kind::Latitude},
      {Keys::kFrameCenterLonDeg, Kind::Longitude},
      {Keys::kFrameCenterElevM, Kind::Number},
      {Keys::kTargetLrfLatDeg, Kind::Latitude},
      {Keys::kTargetLrfLonDeg, Kind::Longitude},
      {Keys::kTargetLrfElevM, Kind::Number},
      {Keys::kMeasuredSlantRangeM, Kind::Number},
      {Keys::kLaserRangeEnabled, Kind::Flag},
      {Keys::kVelocityNorthMps, Kind::Number},
      {Keys::kVelocityEastMps, Kind::Number},
      {Keys::kVelocityDownMps, Kind::Number},
      {Keys::kAzimuthRateDps, Kind::Number},
      {Keys::kElevationRateDps, Kind::Number},
      {Keys::kRollRateDps, Kind::Number},
      {Keys::kNavSatCount, Kind::Integer},
      {Keys::kPositioningMethodSource, Kind::Integer},
      {Keys::kPlatformStatus, Kind::Integer},
      {Keys::kGimbalModeRaw, Kind::Integer},
      {Keys::kLaserPrfCode, Kind::Integer},
      {Keys::kQuatX, Kind::Component},
      {Keys::kQuatY, Kind::Component},
      {Keys::kQuatZ, Kind::Component},
      {Keys::kQuatW, Kind::Component},
      {Keys::kGimbalModelCode, Kind::Integer},
      {Keys::kPartNumber, Kind::Text},
      {Keys::kSerialNumber, Kind::Text},
      {Keys::kSoftwareVersion, Kind::Text},
      {Keys::kFollowMeEnabledCommand, Kind::Flag},
  };
  return kKeys;
}

}  // namespace station
