// Image-source method for a shoebox room (Allen and Berkley). Mirroring the
// source in the walls gives a lattice of images; the image with lattice
// indices (nx, ny, nz) and parities (px, py, pz) has met the x walls
// |nx - px| + |nx| times, and likewise for y and z. Each contributes one
// delayed, attenuated impulse; the sum is the specular impulse response.
//
// Absorption is frequency independent and the same on every wall. Eyring's
// formula, the diffuse-field answer, decays too slowly in an image model: an
// arrival from direction u at time t has met about c t g(u) walls, with
// g(u) = |ux|/Lx + |uy|/Ly + |uz|/Lz, and the arrivals running along the long
// axis meet few walls, so the decay slows as they come to dominate (with
// Eyring's coefficient a 6 x 4.5 x 3 m room measured 12-25 % long).
// Instead the coefficient is chosen so that the model's own decay meets the
// target: the energy arriving at t is the direction average of
// beta^(2 c t g(u)) = exp(-a t g(u)) with a = -2 c ln(beta); its backward
// integral depends on a t alone, so the -5 and -25 dB points of that curve,
// found once per room shape, fix a for any RT60 (measured as 3 * T20).
#include "sim/room_impulse_response.h"

#include <cmath>
#include <cstdlib>
#include <numbers>

#include "sim/signal_ops.h"

namespace vorn::sim {

namespace {

// Schroeder integral at tau = a t (up to a constant): the direction average
// of exp(-tau g) / g over the octant, by the midpoint rule in polar angles.
double BackwardEnergy(const Point& size, double tau) {
  constexpr int kSteps = 24;
  const double step = std::numbers::pi / 2.0 / kSteps;
  double sum = 0.0, weight = 0.0;
  for (int i = 0; i < kSteps; ++i) {
    const double theta = (i + 0.5) * step;
    for (int j = 0; j < kSteps; ++j) {
      const double phi = (j + 0.5) * step;
      const double g = std::sin(theta) * std::cos(phi) / size.x + std::sin(theta) * std::sin(phi) / size.y +
                       std::cos(theta) / size.z;
      sum += std::sin(theta) * std::exp(-tau * g) / g;
      weight += std::sin(theta);
    }
  }
  return sum / weight;
}

// The tau at which the backward energy has fallen `db` below its start.
double TauAtDecay(const Point& size, double db) {
  const double want = BackwardEnergy(size, 0.0) * std::pow(10.0, -db / 10.0);
  double lo = 0.0, hi = 1.0;
  while (BackwardEnergy(size, hi) > want) hi *= 2.0;
  for (int iteration = 0; iteration < 30; ++iteration) {
    const double mid = 0.5 * (lo + hi);
    (BackwardEnergy(size, mid) > want ? lo : hi) = mid;
  }
  return 0.5 * (lo + hi);
}

// Every image adds with the same sign, so below a few tens of hertz the
// arrivals sum coherently into a large offset that grows with their density
// (a real wall's reflection has no such phase coherence); a second-order
// Butterworth high-pass at 50 Hz takes it out, as is usual for the model.
void RemoveLowFrequencies(std::vector<double>& h) {
  constexpr double kCutoffHz = 50.0;
  const double k = std::tan(std::numbers::pi * kCutoffHz / kSampleRate);
  const double norm = 1.0 / (1.0 + std::numbers::sqrt2 * k + k * k);
  const double b0 = norm, b1 = -2.0 * norm, b2 = norm;
  const double a1 = 2.0 * (k * k - 1.0) * norm, a2 = (1.0 - std::numbers::sqrt2 * k + k * k) * norm;
  double x1 = 0.0, x2 = 0.0, y1 = 0.0, y2 = 0.0;
  for (double& v : h) {
    const double y = b0 * v + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
    x2 = x1, x1 = v, y2 = y1, y1 = y;
    v = y;
  }
}

}  // namespace

double WallReflection(const Room& room) {
  if (room.rt60_s <= 0.0) return 0.0;
  const double a = 3.0 * (TauAtDecay(room.size, 25.0) - TauAtDecay(room.size, 5.0)) / room.rt60_s;
  return std::exp(-a / (2.0 * kSpeedOfSound));
}

std::vector<double> RoomImpulseResponse(const Room& room, const Point& source, const Point& mic) {
  const double beta = WallReflection(room);
  const double samples_per_metre = kSampleRate / kSpeedOfSound;
  const double direct_delay = Distance(source, mic) * samples_per_metre + kInterpHalfWidth;
  const std::size_t length =
      static_cast<std::size_t>(std::ceil(direct_delay + room.rt60_s * kSampleRate)) + kInterpHalfWidth + 1;
  std::vector<double> h(length, 0.0);
  if (beta == 0.0) {
    AddFractionalImpulse(direct_delay, 1.0 / (4.0 * std::numbers::pi * Distance(source, mic)), h);
    RemoveLowFrequencies(h);
    return h;
  }

  const double max_distance = static_cast<double>(length) / samples_per_metre;
  const Point& size = room.size;
  const int nx_max = static_cast<int>(std::ceil(max_distance / (2.0 * size.x))) + 1;
  const int ny_max = static_cast<int>(std::ceil(max_distance / (2.0 * size.y))) + 1;
  const int nz_max = static_cast<int>(std::ceil(max_distance / (2.0 * size.z))) + 1;
  for (int nx = -nx_max; nx <= nx_max; ++nx) {
    for (int px = 0; px <= 1; ++px) {
      const double dx = (1 - 2 * px) * source.x + 2.0 * nx * size.x - mic.x;
      const int order_x = std::abs(nx - px) + std::abs(nx);
      for (int ny = -ny_max; ny <= ny_max; ++ny) {
        for (int py = 0; py <= 1; ++py) {
          const double dy = (1 - 2 * py) * source.y + 2.0 * ny * size.y - mic.y;
          const int order_xy = order_x + std::abs(ny - py) + std::abs(ny);
          const double dxy2 = dx * dx + dy * dy;
          if (dxy2 > max_distance * max_distance) continue;
          for (int nz = -nz_max; nz <= nz_max; ++nz) {
            for (int pz = 0; pz <= 1; ++pz) {
              const double dz = (1 - 2 * pz) * source.z + 2.0 * nz * size.z - mic.z;
              const double d = std::sqrt(dxy2 + dz * dz);
              if (d > max_distance) continue;
              const int order = order_xy + std::abs(nz - pz) + std::abs(nz);
              const double gain = std::pow(beta, order) / (4.0 * std::numbers::pi * d);
              AddFractionalImpulse(d * samples_per_metre + kInterpHalfWidth, gain, h);
            }
          }
        }
      }
    }
  }
  RemoveLowFrequencies(h);
  return h;
}

}  // namespace vorn::sim
