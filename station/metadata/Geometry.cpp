#include "metadata/Geometry.h"

#include <cmath>

#include <GeographicLib/Geodesic.hpp>
#include <GeographicLib/GeodesicLine.hpp>
#include <GeographicLib/LocalCartesian.hpp>

namespace station {
namespace {

using GeographicLib::Geodesic;
using GeographicLib::LocalCartesian;

constexpr double kFarthestM = 1e6;
constexpr double kHeightToleranceM = 1e-4;
constexpr int kSteps = 30;

// Forward, right and down, in the axes of the sensor, the platform or the ground.
struct Vector {
  double x, y, z;
};

// Turns up by `degrees` around the axis to the right.
Vector turnUp(const Vector& v, double degrees) {
  const double c = std::cos(degrees * kRadians);
  const double s = std::sin(degrees * kRadians);
  return {c * v.x + s * v.z, v.y, c * v.z - s * v.x};
}

Vector turnRight(const Vector& v, double degrees) {
  const double c = std::cos(degrees * kRadians);
  const double s = std::sin(degrees * kRadians);
  return {c * v.x - s * v.y, s * v.x + c * v.y, v.z};
}

Vector roll(const Vector& v, double degrees) {
  const double c = std::cos(degrees * kRadians);
  const double s = std::sin(degrees * kRadians);
  return {v.x, c * v.y - s * v.z, s * v.y + c * v.z};
}

}  // namespace

std::optional<GeoPoint> meetGround(const GeoPoint& from, const Pose& pose, const Ray& ray,
                                   double ground) {
  Vector v = turnRight(turnUp({1, ray.right, ray.down}, pose.tilt), pose.pan);
  v = turnRight(turnUp(roll(v, pose.roll), pose.pitch), pose.yaw);
  const double length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
  const LocalCartesian local(from.latitude, from.longitude, from.height);
  const auto pointAt = [&](double range) {
    GeoPoint point{};
    const double scale = range / length;
    local.Reverse(v.y * scale, v.x * scale, -v.z * scale, point.latitude, point.longitude,
                  point.height);
    return point;
  };
  // The ray descends less and less on its way: each step stays short of the ground.
  double range = 0;
  for (int i = 0; i < kSteps; ++i) {
    const GeoPoint point = pointAt(range);
    const double above = point.height - ground;
    if (std::abs(above) < kHeightToleranceM) {
      return point;
    }
    const double descent = point.height - pointAt(range + 1).height;
    range += above / descent;
    if (!(descent > 0) || !(range >= 0 && range < kFarthestM)) {
      break;
    }
  }
  return std::nullopt;
}

double aimAt(const GeoPoint& target, const GeoPoint& from, Pose& pose) {
  const LocalCartesian local(from.latitude, from.longitude, from.height);
  Vector v{};
  double up = 0;
  local.Forward(target.latitude, target.longitude, target.height, v.y, v.x, up);
  v.z = -up;
  v = roll(turnUp(turnRight(v, -pose.yaw), -pose.pitch), -pose.roll);
  const double level = std::hypot(v.x, v.y);
  pose.pan = std::atan2(v.y, v.x) / kRadians;
  pose.tilt = -std::atan2(v.z, level) / kRadians;
  return std::hypot(level, v.z);
}

GeoPoint moved(const GeoPoint& origin, double bearing, double metres, double& heading) {
  GeoPoint point{0, 0, origin.height};
  Geodesic::WGS84().Direct(origin.latitude, origin.longitude, bearing, metres, point.latitude,
                           point.longitude, heading);
  return point;
}

GeoPoint between(const GeoPoint& from, const GeoPoint& to, double fraction) {
  const GeographicLib::GeodesicLine way =
      Geodesic::WGS84().InverseLine(from.latitude, from.longitude, to.latitude, to.longitude);
  GeoPoint point{0, 0, from.height + fraction * (to.height - from.height)};
  way.Position(fraction * way.Distance(), point.latitude, point.longitude);
  return point;
}

}  // namespace station
