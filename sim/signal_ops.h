// Offline signal operations the scene simulator and the metrics share:
// long convolutions, cross-correlation and fractional delays. These run on
// whole recordings in double precision; speed matters only enough to render
// a scene of a few tens of seconds in well under a second per source.
#pragma once

#include <complex>
#include <cstddef>
#include <vector>

#include "sim/geometry.h"

namespace vorn::sim {

// Half width of the windowed-sinc fractional delay. Every impulse response
// the simulator builds carries this much common delay so that its taps stay
// causal.
constexpr int kInterpHalfWidth = 8;

// Adds gain * (a band-limited impulse delayed by `delay` samples) to h, with
// a Hann-windowed sinc of 2 * kInterpHalfWidth + 1 taps. Taps outside h are
// dropped.
void AddFractionalImpulse(double delay, double gain, std::vector<double>& h);

// x convolved with h, cut to x's length (the recording keeps its duration).
Signal Convolve(const Signal& x, const std::vector<double>& h);
// x through each kernel, transforming x once.
std::vector<Signal> ConvolveEach(const Signal& x, const std::vector<std::vector<double>>& kernels);

// In-place radix-2 transform of a power-of-two length; `inverse` scales by 1/n.
void Fft(std::vector<std::complex<double>>& a, bool inverse);

// c[k] = sum_n y[n + lag] * x[n] for lag = k - max_lag, k = 0 .. 2 * max_lag.
std::vector<double> CrossCorrelation(const Signal& x, const Signal& y, std::size_t max_lag);

}  // namespace vorn::sim
