// Signals a user would feed the front end: noise, speech-like talkers, plane
// waves on the three-microphone array, and the level measures the demo, the
// benchmarks and the tests judge results by. Everything is deterministic for
// a given seed.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "vorn_array.h"

namespace vorn::sim {

// The array of vorn_array.h, which the weight tables are designed for.
constexpr int kSampleRate = VORN_SAMPLE_RATE_HZ;
constexpr int kMics = VORN_MICS;
constexpr double kArrayRadiusM = VORN_ARRAY_RADIUS_M;
constexpr double kSpeedOfSound = VORN_SPEED_OF_SOUND_M_S;
constexpr double MicAzimuthDeg(int m) { return VORN_MIC_AZIMUTH_DEG(m); }

using Signal = std::vector<float>;
using ThreeMics = std::array<Signal, 3>;

Signal WhiteNoise(std::size_t n, double rms, std::uint32_t seed);
// 1/f noise (Voss-McCartney style IIR approximation), scaled to the given RMS.
Signal PinkNoise(std::size_t n, double rms, std::uint32_t seed);
Signal Tone(std::size_t n, double freq_hz, double amplitude, double phase = 0.0);

struct SpeechLikeOptions {
  double rms = 3000.0;          // RMS over the active stretches
  double f0_hz = 140.0;         // mean pitch
  double syllable_hz = 4.0;     // on/off rate of the envelope
  double duty = 0.6;            // share of each syllable period that is voiced
  double lead_silence_s = 0.0;  // silence before the first syllable
  // Tilt the voice toward the long-term spectrum of real speech (see
  // MakeSpeechLike). Off by default: the benches and networks tuned on the
  // plain voice keep it.
  bool speech_spectrum = false;
};

struct SpeechLike {
  Signal samples;
  std::vector<std::uint8_t> active;  // per sample: 1 inside a syllable
};

// A harmonic source with pitch jitter, shaped by three formant resonators
// and switched on and off at syllable rate: it has the spectral tilt, the
// harmonic structure and the on/off rhythm that VAD, suppressor and
// direction finding react to, without shipping recordings.
SpeechLike MakeSpeechLike(std::size_t n, std::uint32_t seed, const SpeechLikeOptions& opt = {});

// Per-16 ms-frame (256 samples) speech label: 1 when more than half of the
// frame's samples are active.
std::vector<std::uint8_t> FrameLabels(const std::vector<std::uint8_t>& active, std::size_t frame = 256);

// The signal as the three microphones receive it from a far source at the
// given azimuth (degrees, array frame) and elevation (degrees from the array
// plane). Microphone m, at azimuth phi_m, leads the array centre by
// R*cos(el)*cos(az - phi_m)/c;
// the fractional delays are applied with a windowed-sinc interpolator and a
// common delay of 16 samples so that every microphone's filter is causal.
ThreeMics PlaneWave(const Signal& source, double azimuth_deg, double elevation_deg = 0.0);

// Mutually independent noise per microphone (spatially white).
ThreeMics IndependentNoise(std::size_t n, double rms, std::uint32_t seed);

// Element-wise a + gain * b for each microphone (b may be shorter).
ThreeMics Mix(const ThreeMics& a, const ThreeMics& b, double gain_b = 1.0);
Signal Mix(const Signal& a, const Signal& b, double gain_b = 1.0);

// Saturating conversion to 16-bit PCM with rounding.
std::vector<std::int16_t> ToPcm(const Signal& x);
// Interleaves the microphones into the library's frame layout (m0 m1 m2 m0 ...).
std::vector<std::int16_t> Interleave(const ThreeMics& mics);

double Rms(const float* x, std::size_t n);
double Rms(const Signal& x);
double Rms(const std::vector<std::int16_t>& x);
double PowerDb(double mean_square);             // 10*log10 with a floor at -200 dB
double RmsDbfs(const Signal& x);                // relative to full-scale 32768

// Energy (mean square) of x over the samples where mask[i] == want.
double MaskedMeanSquare(const Signal& x, const std::vector<std::uint8_t>& mask, std::uint8_t want);

}  // namespace vorn::sim
