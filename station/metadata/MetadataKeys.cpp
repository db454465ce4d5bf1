#include "metadata/MetadataKeys.h"

#include <lumora/LumoraPicture.h>

namespace station {
namespace {

using Keys = lumora::LumoraPicture::BaseMetadata::Keys;

}  // namespace

const std::vector<MetadataKey>& metadataKeys() {
  static const std::vector<MetadataKey> kKeys = {
      {Keys::kSourceNs, KeyKind::Frame},
      {Keys::kCameraIndex, KeyKind::Integer},
      {Keys::kCameraName, KeyKind::Text},
      {Keys::kCameraModelName, KeyKind::Text},
      {Keys::kCameraType, KeyKind::Text},
      {Keys::kUtcTimestampUs, KeyKind::Frame},
      {Keys::kHfovDeg, KeyKind::Number},
      {Keys::kVfovDeg, KeyKind::Number},
      {Keys::kZoomRatio, KeyKind::Number},
      {Keys::kPanDeg, KeyKind::Angle},
      {Keys::kTiltDeg, KeyKind::HalfTurn},
      {Keys::kRollDeg, KeyKind::HalfTurn},
      {Keys::kPitchDeg, KeyKind::Number},
      {Keys::kYawDeg, KeyKind::Angle},
      {Keys::kSensorLatDeg, KeyKind::Latitude},
      {Keys::kSensorLonDeg, KeyKind::Longitude},
      {Keys::kSensorAltM, KeyKind::Number},
      {Keys::kFrameCenterLatDeg, KeyKind::Latitude},
      {Keys::kFrameCenterLonDeg, KeyKind::Longitude},
      {Keys::kFrameCenterElevM, KeyKind::Number},
      {Keys::kTargetLrfLatDeg, KeyKind::Latitude},
      {Keys::kTargetLrfLonDeg, KeyKind::Longitude},
      {Keys::kTargetLrfElevM, KeyKind::Number},
      {Keys::kMeasuredSlantRangeM, KeyKind::Number},
      {Keys::kLaserRangeEnabled, KeyKind::Flag},
      {Keys::kVelocityNorthMps, KeyKind::Number},
      {Keys::kVelocityEastMps, KeyKind::Number},
      {Keys::kVelocityDownMps, KeyKind::Number},
      {Keys::kAzimuthRateDps, KeyKind::Number},
      {Keys::kElevationRateDps, KeyKind::Number},
      {Keys::kRollRateDps, KeyKind::Number},
      {Keys::kNavSatCount, KeyKind::Integer},
      {Keys::kPositioningMethodSource, KeyKind::Integer},
      {Keys::kPlatformStatus, KeyKind::Integer},
      {Keys::kGimbalModeRaw, KeyKind::Integer},
      {Keys::kLaserPrfCode, KeyKind::Integer},
      {Keys::kQuatX, KeyKind::Component},
      {Keys::kQuatY, KeyKind::Component},
      {Keys::kQuatZ, KeyKind::Component},
      {Keys::kQuatW, KeyKind::Component},
      {Keys::kGimbalModelCode, KeyKind::Integer},
      {Keys::kPartNumber, KeyKind::Text},
      {Keys::kSerialNumber, KeyKind::Text},
      {Keys::kSoftwareVersion, KeyKind::Text},
      {Keys::kFollowMeEnabledCommand, KeyKind::Flag},
  };
  return kKeys;
}

}  // namespace station
