// The array every weight set is designed for, and the plane-wave steering
// vector on it. Shared by the delay-and-sum rule and the designed sets.
#pragma once

#include <array>
#include <cmath>
#include <complex>

#include "vorn_array.h"

namespace vorn::gen {

using Complex = std::complex<double>;
using MicVector = std::array<Complex, 3>;

constexpr double kPi = 3.14159265358979323846;
constexpr int kFftLen = 512;
constexpr int kBins = kFftLen / 2 + 1;
constexpr double kSampleRate = VORN_SAMPLE_RATE_HZ;
constexpr double kSpeedOfSound = VORN_SPEED_OF_SOUND_M_S;  // m/s
constexpr double kRadiusM = VORN_ARRAY_RADIUS_M;
// Array radius in samples: the largest advance of a microphone over the centre.
constexpr double kRadiusSamples = kRadiusM * kSampleRate / kSpeedOfSound;  // 1.8353
// Every set delays the look direction by a quarter frame so that its filter
// response sits inside the half of the overlap-save output that is kept.
constexpr double kCommonDelay = 128.0;

inline double Radians(double degrees) { return degrees * kPi / 180.0; }

// Advance in samples of microphone m over the array centre for a far source
// at azimuth az (degrees) and polar angle theta from the vertical (90 = in
// the array plane), on a circle whose radius in samples is radius_samples.
inline double MicAdvance(int m, double az_deg, double theta_deg, double radius_samples = kRadiusSamples) {
  // Folding the angle to [0, 180] makes mirror-image microphones get
  // bit-identical advances (e.g. 1 and 2 for a look direction of 0 degrees).
  double offset = std::fmod(std::fabs(az_deg - VORN_MIC_AZIMUTH_DEG(m)), 360.0);
  if (offset > 180.0) offset = 360.0 - offset;
  return radius_samples * std::sin(Radians(theta_deg)) * std::cos(Radians(offset));
}

// Spectrum factor of the common delay at bin k.
inline Complex CommonDelay(int k) { return std::polar(1.0, -2.0 * kPi * k * kCommonDelay / kFftLen); }

// Steering vector: microphone m receives the source with factor
// exp(+j 2 pi k tau_m / 512) relative to the array centre.
inline MicVector Steering(int k, double az_deg, double theta_deg = 90.0,
                          double radius_samples = kRadiusSamples) {
  MicVector d;
  for (int m = 0; m < 3; ++m)
    d[m] = std::polar(1.0, 2.0 * kPi * k * MicAdvance(m, az_deg, theta_deg, radius_samples) / kFftLen);
  return d;
}

// Distance between two microphones in metres (all pairs are one chord apart).
constexpr double kMicSpacingM = kRadiusM * 1.7320508075688772;

}  // namespace vorn::gen
