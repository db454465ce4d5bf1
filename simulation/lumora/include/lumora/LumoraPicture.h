#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include <lumora/Export.h>
#include <lumora/FrameExport.h>

namespace lumora {

// An NV12 picture, in host memory or in the memory of an exported frame, with its metadata.
//
// Ownership: owns a copy of its pixels, or shares the exported frame; pointers from luma() and
// chroma() are valid while it exists. Threads: one at a time may change it, any number may read it
// while none does.
class LUMORA_API LumoraPicture {
 public:
  using MetadataValue = std::variant<bool, std::int64_t, double, std::string>;

  struct BaseMetadata {
    // Names of the per-picture metadata. Angles are in degrees, lengths in metres, speeds in metres
    // per second, rates in degrees per second, as the suffixes say.
    struct Keys {
      inline static const std::string kSourceNs = "source_ns";
      inline static const std::string kCameraIndex = "camera_index";
      inline static const std::string kCameraName = "camera_name";
      inline static const std::string kCameraModelName = "camera_model_name";
      inline static const std::string kCameraType = "camera_type";
      inline static const std::string kUtcTimestampUs = "utc_timestamp_us";
      inline static const std::string kHfovDeg = "hfov_deg";
      inline static const std::string kVfovDeg = "vfov_deg";
      inline static const std::string kZoomRatio = "zoom_ratio";
      inline static const std::string kPanDeg = "pan_deg";
      inline static const std::string kTiltDeg = "tilt_deg";
      inline static const std::string kRollDeg = "roll_deg";
      inline static const std::string kPitchDeg = "pitch_deg";
      inline static const std::string kYawDeg = "yaw_deg";
      inline static const std::string kSensorLatDeg = "sensor_lat_deg";
      inline static const std::string kSensorLonDeg = "sensor_lon_deg";
      inline static const std::string kSensorAltM = "sensor_alt_m";
      inline static const std::string kFrameCenterLatDeg = "frame_center_lat_deg";
      inline static const std::string kFrameCenterLonDeg = "frame_center_lon_deg";
      inline static const std::string kFrameCenterElevM = "frame_center_elev_m";
      inline static const std::string kTargetLrfLatDeg = "target_lrf_lat_deg";
      inline static const std::string kTargetLrfLonDeg = "target_lrf_lon_deg";
      inline static const std::string kTargetLrfElevM = "target_lrf_elev_m";
      inline static const std::string kMeasuredSlantRangeM = "measured_slant_range_m";
      inline static const std::string kLaserRangeEnabled = "laser_range_enabled";
      inline static const std::string kVelocityNorthMps = "velocity_north_mps";
      inline static const std::string kVelocityEastMps = "velocity_east_mps";
      inline static const std::string kVelocityDownMps = "velocity_down_mps";
      inline static const std::string kAzimuthRateDps = "azimuth_rate_dps";
      inline static const std::string kElevationRateDps = "elevation_rate_dps";
      inline static const std::string kRollRateDps = "roll_rate_dps";
      inline static const std::string kNavSatCount = "nav_sat_count";
      inline static const std::string kPositioningMethodSource = "positioning_method_source";
      inline static const std::string kPlatformStatus = "platform_status";
      inline static const std::string kGimbalModeRaw = "gimbal_mode_raw";
      inline static const std::string kLaserPrfCode = "laser_prf_code";
      inline static const std::string kQuatX = "quat_x";
      inline static const std::string kQuatY = "quat_y";
      inline static const std::string kQuatZ = "quat_z";
      inline static const std::string kQuatW = "quat_w";
      inline static const std::string kGimbalModelCode = "gimbal_model_code";
      inline static const std::string kPartNumber = "part_number";
      inline static const std::string kSerialNumber = "serial_number";
      inline static const std::string kSoftwareVersion = "software_version";
      inline static const std::string kFollowMeEnabledCommand =
          "kelvarion.follow_me_enabled_command";
    };
  };

  // Copies an NV12 image: `height` rows of luma at `data`, then `height / 2` rows of interleaved
  // chroma at `data + stride * height`; rows start `stride` bytes apart and hold `width` bytes.
  // Empty if there is no data, a dimension is zero, or `stride` is less than `width`.
  static std::shared_ptr<LumoraPicture> fromNv12Host(const void* data, unsigned width,
                                                     unsigned height, unsigned stride);

  // A picture that stays in the frame's memory, which nobody maps.
  static std::shared_ptr<LumoraPicture> fromExportedFrame(std::shared_ptr<ExportedFrame> frame);

  unsigned width() const { return width_; }    // pixels
  unsigned height() const { return height_; }  // pixels
  unsigned stride() const { return width_; }   // bytes between rows of either plane
  // Null if the picture is not in host memory, like chroma().
  const std::uint8_t* luma() const { return pixels_.get(); }
  const std::uint8_t* chroma() const {
    return pixels_ != nullptr ? pixels_.get() + std::size_t{width_} * height_ : nullptr;
  }
  // The frame in whose memory it is; null for a picture in host memory.
  const std::shared_ptr<ExportedFrame>& exportedFrame() const { return exported_; }

  void setMetadata(const std::string& key, MetadataValue value);
  // Null if the picture does not have the key.
  const MetadataValue* metadata(const std::string& key) const;

 private:
  LumoraPicture(unsigned width, unsigned height);

  unsigned width_;
  unsigned height_;
  std::unique_ptr<std::uint8_t[]> pixels_;   // null with an exported frame
  std::shared_ptr<ExportedFrame> exported_;  // null with pixels
  std::map<std::string, MetadataValue> metadata_;
};

}  // namespace lumora
