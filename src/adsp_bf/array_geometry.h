// The array the beams are steered on: three microphones on a horizontal
// circle, microphone m at azimuth 120 m degrees, sound at 340 m/s sampled at
// 16 kHz, the same figures the weight tables are designed for.
#pragma once

namespace vorn {

constexpr double kArrayRadiusM = 0.039;
constexpr double kSpeedOfSoundMs = 340.0;
constexpr double kArrayRateHz = 16000.0;
constexpr double kMicSpacingDeg = 120.0;
// Centre to microphone, in samples: the largest lead of a microphone over the
// centre for a source in the array plane.
constexpr double kArrayRadiusSamples = kArrayRadiusM * kArrayRateHz / kSpeedOfSoundMs;
// Every pair of microphones is one chord, radius * sqrt(3), apart.
constexpr double kMicChordM = kArrayRadiusM * 1.7320508075688772;

}  // namespace vorn
