// Array and source positions in the room frame (see geometry.h).
#include "sim/geometry.h"

#include <cmath>
#include <numbers>

namespace vorn::sim {

namespace {
constexpr double kDegree = std::numbers::pi / 180.0;
}

double Distance(const Point& a, const Point& b) {
  const double dx = a.x - b.x, dy = a.y - b.y, dz = a.z - b.z;
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

Point MicPosition(const Point& centre, int m) { return PointToward(centre, MicAzimuthDeg(m), 0.0, kArrayRadiusM); }

Point PointToward(const Point& centre, double azimuth_deg, double elevation_deg, double distance_m) {
  const double az = azimuth_deg * kDegree, el = elevation_deg * kDegree;
  return {centre.x + distance_m * std::cos(el) * std::cos(az), centre.y + distance_m * std::cos(el) * std::sin(az),
          centre.z + distance_m * std::sin(el)};
}

bool InsideRoom(const Point& size, const Point& p, double margin) {
  return p.x >= margin && p.y >= margin && p.z >= margin && p.x <= size.x - margin && p.y <= size.y - margin &&
         p.z <= size.z - margin;
}

}  // namespace vorn::sim
