// Where things sit in a simulated room: the three-microphone array and the
// sources around it, in metres. The room frame has z up; the array lies in a
// horizontal plane and its own x axis (microphone 0's direction) is the
// room's x axis, so an azimuth in the array frame is also one in the room.
#pragma once

#include "sim/signals.h"

namespace vorn::sim {

constexpr std::size_t kFrame = 256;  // samples per frame of the front end

struct Point {
  double x = 0.0, y = 0.0, z = 0.0;
};

double Distance(const Point& a, const Point& b);

// Microphone m (0..2) on the circle around `centre`, where vorn_array.h puts it.
Point MicPosition(const Point& centre, int m);

// The point `distance_m` away from `centre` towards azimuth (counter-clockwise
// from microphone 0's direction) and elevation (up from the array plane).
Point PointToward(const Point& centre, double azimuth_deg, double elevation_deg, double distance_m);

// True when p lies inside the box [0, size] with `margin` to every wall.
bool InsideRoom(const Point& size, const Point& p, double margin);

}  // namespace vorn::sim
