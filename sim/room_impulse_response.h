// Room impulse responses of a shoebox room by the image-source method.
#pragma once

#include <vector>

#include "sim/geometry.h"

namespace vorn::sim {

struct Room {
  Point size{5.0, 4.0, 3.0};  // metres along x, y, z
  double rt60_s = 0.3;        // reverberation time; 0 gives the direct path only
};

// Pressure reflection coefficient shared by the six walls for the room's RT60.
double WallReflection(const Room& room);

// Impulse response from `source` to `mic` (both inside the room), sampled at
// 16 kHz: a windowed-sinc tap per image source, amplitude beta^order / (4 pi d),
// delayed by kInterpHalfWidth samples beyond the true arrival, the sum
// high-passed at 50 Hz. It ends RT60 after the direct arrival, where the
// decay has reached -60 dB.
std::vector<double> RoomImpulseResponse(const Room& room, const Point& source, const Point& mic);

}  // namespace vorn::sim
