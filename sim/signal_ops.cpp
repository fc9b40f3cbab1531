// Long convolutions and correlations go through one zero-padded radix-2 FFT
// of the whole signal: a scene is at most a few hundred thousand samples, so
// a single transform is simpler than overlap-add and costs a few tens of
// milliseconds. Short kernels (fractional delays) are convolved directly.
#include "sim/signal_ops.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>

namespace vorn::sim {
namespace {

using Spectrum = std::vector<std::complex<double>>;
constexpr double kPi = std::numbers::pi;
constexpr std::size_t kDirectLimit = 64;  // longest kernel convolved directly

std::size_t NextPow2(std::size_t n) {
  std::size_t p = 1;
  while (p < n) p <<= 1;
  return p;
}

Spectrum Twiddles(std::size_t n) {
  Spectrum twiddle(n / 2);
  for (std::size_t k = 0; k < n / 2; ++k)
    twiddle[k] = std::polar(1.0, -2.0 * kPi * static_cast<double>(k) / static_cast<double>(n));
  return twiddle;
}

// The product written out: std::complex's operator* checks for infinities
// and costs several times more in this inner loop.
std::complex<double> Times(std::complex<double> a, std::complex<double> b) {
  return {a.real() * b.real() - a.imag() * b.imag(), a.real() * b.imag() + a.imag() * b.real()};
}

// In-place iterative radix-2 transform over the forward twiddles of its size;
// `inverse` conjugates them and scales by 1/n.
void Fft(Spectrum& a, const Spectrum& twiddle, bool inverse) {
  const std::size_t n = a.size();
  for (std::size_t i = 1, j = 0; i < n; ++i) {
    std::size_t bit = n >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j ^= bit;
    if (i < j) std::swap(a[i], a[j]);
  }
  for (std::size_t len = 2; len <= n; len <<= 1) {
    const std::size_t stride = n / len;
    for (std::size_t start = 0; start < n; start += len) {
      for (std::size_t k = 0; k < len / 2; ++k) {
        const std::complex<double> w = inverse ? std::conj(twiddle[k * stride]) : twiddle[k * stride];
        const std::complex<double> u = a[start + k];
        const std::complex<double> v = Times(a[start + k + len / 2], w);
        a[start + k] = u + v;
        a[start + k + len / 2] = u - v;
      }
    }
  }
  if (inverse)
    for (auto& v : a) v /= static_cast<double>(n);
}

template <typename T>
Spectrum Transform(const std::vector<T>& x, const Spectrum& twiddle) {
  Spectrum a(2 * twiddle.size());
  for (std::size_t i = 0; i < x.size() && i < a.size(); ++i) a[i] = static_cast<double>(x[i]);
  Fft(a, twiddle, false);
  return a;
}

}  // namespace

void Fft(std::vector<std::complex<double>>& a, bool inverse) { Fft(a, Twiddles(a.size()), inverse); }

void AddFractionalImpulse(double delay, double gain, std::vector<double>& h) {
  const long centre = static_cast<long>(std::floor(delay));
  const double frac = delay - static_cast<double>(centre);
  // sin(pi (k - frac)) = -(-1)^k sin(pi frac); the window's cosine advances
  // by a fixed angle per tap, so one sine and one rotation serve all taps.
  const double sin_frac = std::sin(kPi * frac);
  const double step = kPi / (kInterpHalfWidth + 1);
  const std::complex<double> rotate = std::polar(1.0, step);
  std::complex<double> phase = std::polar(1.0, step * (-kInterpHalfWidth - frac));
  for (int k = -kInterpHalfWidth; k <= kInterpHalfWidth + 1; ++k, phase = Times(phase, rotate)) {
    const long at = centre + k;
    if (at < 0 || at >= static_cast<long>(h.size())) continue;
    const double d = k - frac;  // distance of this tap from the true arrival
    const double sinc = std::abs(d) < 1e-12 ? 1.0 : ((k % 2) ? sin_frac : -sin_frac) / (kPi * d);
    const double window = 0.5 + 0.5 * phase.real();
    h[static_cast<std::size_t>(at)] += gain * sinc * window;
  }
}

std::vector<Signal> ConvolveEach(const Signal& x, const std::vector<std::vector<double>>& kernels) {
  std::vector<Signal> out(kernels.size(), Signal(x.size(), 0.0f));
  std::size_t longest = 0;
  for (const auto& h : kernels) longest = std::max(longest, h.size());
  if (x.empty() || longest == 0) return out;
  if (longest <= kDirectLimit) {
    for (std::size_t c = 0; c < kernels.size(); ++c) {
      const std::vector<double>& h = kernels[c];
      for (std::size_t i = 0; i < x.size(); ++i) {
        double acc = 0.0;
        for (std::size_t k = 0; k < h.size() && k <= i; ++k) acc += h[k] * x[i - k];
        out[c][i] = static_cast<float>(acc);
      }
    }
    return out;
  }
  // Kernels go through in pairs as h0 + j h1: the transform of that is
  // H0 + j H1, and since x * h0 and x * h1 are both real, the inverse of
  // X (H0 + j H1) holds the first in its real part and the second in its
  // imaginary part.
  const std::size_t n = NextPow2(x.size() + longest - 1);
  const Spectrum twiddle = Twiddles(n);
  const Spectrum x_spectrum = Transform(x, twiddle);
  for (std::size_t c = 0; c < kernels.size(); c += 2) {
    const bool pair = c + 1 < kernels.size();
    Spectrum product(n);
    for (std::size_t i = 0; i < kernels[c].size(); ++i) product[i].real(kernels[c][i]);
    if (pair)
      for (std::size_t i = 0; i < kernels[c + 1].size(); ++i) product[i].imag(kernels[c + 1][i]);
    Fft(product, twiddle, false);
    for (std::size_t k = 0; k < n; ++k) product[k] = Times(product[k], x_spectrum[k]);
    Fft(product, twiddle, true);
    for (std::size_t i = 0; i < x.size(); ++i) {
      out[c][i] = static_cast<float>(product[i].real());
      if (pair) out[c + 1][i] = static_cast<float>(product[i].imag());
    }
  }
  return out;
}

Signal Convolve(const Signal& x, const std::vector<double>& h) { return ConvolveEach(x, {h})[0]; }

std::vector<double> CrossCorrelation(const Signal& x, const Signal& y, std::size_t max_lag) {
  const Spectrum twiddle = Twiddles(NextPow2(std::max(x.size(), y.size()) + max_lag + 1));
  Spectrum a = Transform(y, twiddle);
  const Spectrum b = Transform(x, twiddle);
  for (std::size_t k = 0; k < a.size(); ++k) a[k] = Times(a[k], std::conj(b[k]));
  Fft(a, twiddle, true);
  // Lag L sits at index L for L >= 0 and at n + L for L < 0.
  std::vector<double> c(2 * max_lag + 1);
  for (std::size_t k = 0; k < c.size(); ++k) {
    const long lag = static_cast<long>(k) - static_cast<long>(max_lag);
    c[k] = a[static_cast<std::size_t>(lag >= 0 ? lag : static_cast<long>(a.size()) + lag)].real();
  }
  return c;
}

}  // namespace vorn::sim
