#pragma once

#include <optional>

namespace station {

// Geometry of a camera in the air, on the WGS84 ellipsoid. All heights of a call count from the
// same surface; where that is the sea level, distances are wrong by less than 2 in 100,000.
//
// Threads: any.

constexpr double kRadians = 3.14159265358979323846 / 180;  // of a degree

struct GeoPoint {
  double latitude;   // degrees
  double longitude;  // degrees
  double height;     // metres
};

// Degrees. Heading clockwise from north, pitch nose up, roll right wing down; then, relative to the
// platform, pan to the right and tilt up.
struct Pose {
  double yaw, pitch, roll;
  double pan, tilt;
};

// A direction in the picture: tangents of the angles to the right of its centre and below it.
struct Ray {
  double right = 0;
  double down = 0;
};

// Where the ray of a sensor at `from` meets the surface of height `ground`; nothing if it does not
// within 1000 km.
std::optional<GeoPoint> meetGround(const GeoPoint& from, const Pose& pose, const Ray& ray,
                                   double ground);

// Sets pan and tilt so that the line of sight goes from `from` to `target`. Returns the distance in
// metres.
double aimAt(const GeoPoint& target, const GeoPoint& from, Pose& pose);

// The point `metres` from `origin` at `bearing` degrees from north, at the origin's height.
// `heading` receives the direction of the way there at its end, in degrees.
GeoPoint moved(const GeoPoint& origin, double bearing, double metres, double& heading);

// The point at `fraction` of the shortest way over the ground between two, with heights
// interpolated.
GeoPoint between(const GeoPoint& from, const GeoPoint& to, double fraction);

}  // namespace station
