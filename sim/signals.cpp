#include "sim/signals.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>

namespace vorn::sim {
namespace {

constexpr double kPi = std::numbers::pi;

void ScaleToRms(Signal& x, double rms) {
  const double now = Rms(x);
  if (now <= 0.0) return;
  const double g = rms / now;
  for (float& v : x) v = static_cast<float>(v * g);
}

// Two-pole resonator at a formant frequency with the given bandwidth.
struct Resonator {
  double a1, a2, b0, y1 = 0.0, y2 = 0.0;
  Resonator(double freq, double bw) {
    const double r = std::exp(-kPi * bw / kSampleRate);
    a1 = 2.0 * r * std::cos(2.0 * kPi * freq / kSampleRate);
    a2 = -r * r;
    b0 = 1.0 - r;
  }
  double Step(double x) {
    const double y = b0 * x + a1 * y1 + a2 * y2;
    y2 = y1;
    y1 = y;
    return y;
  }
};

}  // namespace

Signal WhiteNoise(std::size_t n, double rms, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<double> dist(0.0, rms);
  Signal x(n);
  for (float& v : x) v = static_cast<float>(dist(rng));
  return x;
}

Signal PinkNoise(std::size_t n, double rms, std::uint32_t seed) {
  // Paul Kellet's economical pink filter over white noise.
  Signal w = WhiteNoise(n, 1.0, seed);
  Signal x(n);
  double b0 = 0, b1 = 0, b2 = 0, b3 = 0, b4 = 0, b5 = 0, b6 = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double white = w[i];
    b0 = 0.99886 * b0 + white * 0.0555179;
    b1 = 0.99332 * b1 + white * 0.0750759;
    b2 = 0.96900 * b2 + white * 0.1538520;
    b3 = 0.86650 * b3 + white * 0.3104856;
    b4 = 0.55000 * b4 + white * 0.5329522;
    b5 = -0.7616 * b5 - white * 0.0168980;
    x[i] = static_cast<float>(b0 + b1 + b2 + b3 + b4 + b5 + b6 + white * 0.5362);
    b6 = white * 0.115926;
  }
  ScaleToRms(x, rms);
  return x;
}

Signal Tone(std::size_t n, double freq_hz, double amplitude, double phase) {
  Signal x(n);
  for (std::size_t i = 0; i < n; ++i)
    x[i] = static_cast<float>(amplitude * std::sin(2.0 * kPi * freq_hz * static_cast<double>(i) / kSampleRate + phase));
  return x;
}

SpeechLike MakeSpeechLike(std::size_t n, std::uint32_t seed, const SpeechLikeOptions& opt) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> uni(-1.0, 1.0);
  SpeechLike s;
  s.samples.assign(n, 0.0f);
  s.active.assign(n, 0);

  const std::size_t lead = static_cast<std::size_t>(opt.lead_silence_s * kSampleRate);
  const double period = kSampleRate / opt.syllable_hz;
  // Formants move from syllable to syllable, like changing vowels.
  const double vowels[4][3] = {{730, 1090, 2440}, {270, 2290, 3010}, {530, 1840, 2480}, {300, 870, 2240}};

  double phase = 0.0;
  double f0 = opt.f0_hz;
  int syllable = -1;
  Resonator r1(700, 90), r2(1200, 110), r3(2500, 170);
  for (std::size_t i = 0; i < n; ++i) {
    if (i < lead) continue;
    const double t = static_cast<double>(i - lead);
    const int syl = static_cast<int>(t / period);
    const double pos = (t - syl * period) / period;  // 0..1 inside the syllable
    if (syl != syllable) {
      syllable = syl;
      const auto& v = vowels[static_cast<std::size_t>(syl) % 4];
      r1 = Resonator(v[0], 90);
      r2 = Resonator(v[1], 110);
      r3 = Resonator(v[2], 170);
      f0 = opt.f0_hz * (1.0 + 0.15 * uni(rng));
    }
    const bool on = pos < opt.duty;
    double env = 0.0;
    if (on) {
      // Raised-cosine attack and release of 20 ms inside the voiced part.
      const double voiced_len = opt.duty * period;
      const double at = pos * period, rem = voiced_len - at, ramp = 0.02 * kSampleRate;
      env = 1.0;
      if (at < ramp) env = 0.5 - 0.5 * std::cos(kPi * at / ramp);
      if (rem < ramp) env = std::min(env, 0.5 - 0.5 * std::cos(kPi * rem / ramp));
    }
    // Glottal-like pulse train: a sum of harmonics with falling amplitude
    // plus a little aspiration noise; slow vibrato on the pitch.
    const double inst_f0 = f0 * (1.0 + 0.02 * std::sin(2.0 * kPi * 5.0 * t / kSampleRate));
    phase += 2.0 * kPi * inst_f0 / kSampleRate;
    if (phase > 2.0 * kPi) phase -= 2.0 * kPi;
    double src = 0.0;
    for (int h = 1; h * inst_f0 < 7600.0; ++h) src += std::sin(h * phase) / h;
    src += 0.05 * uni(rng);
    const double y = r1.Step(src) + 0.6 * r2.Step(src) + 0.3 * r3.Step(src);
    s.samples[i] = static_cast<float>(env * y);
    s.active[i] = on ? 1 : 0;
  }
  if (opt.speech_spectrum) {
    // The resonators' skirts and the source's 1/h harmonics leave the
    // plain voice far darker than speech: its octaves 0.5-1, 1-2, 2-4 and
    // 4-8 kHz lie 16, 31, 41 and 60 dB below its 250-500 Hz octave, where
    // the long-term spectrum of speech has them about 3, 9, 15 and 20 dB
    // down (fricatives and the upper formants). Two first-order
    // pre-emphases of coefficient 0.8 (together 7-10 dB per octave from
    // 500 Hz to 4 kHz) bring them to 7, 13, 13 and 22 dB down. What a
    // direction finder or a beam can do with the band above 1 kHz depends
    // on it.
    constexpr float kEmphasis = 0.8f;
    for (int pass = 0; pass < 2; ++pass) {
      float previous = 0.0f;
      for (float& v : s.samples) {
        const float x = v;
        v = x - kEmphasis * previous;
        previous = x;
      }
    }
  }
  // Scale so that the active stretches have the requested RMS.
  const double ms = MaskedMeanSquare(s.samples, s.active, 1);
  if (ms > 0.0) {
    const double g = opt.rms / std::sqrt(ms);
    for (float& v : s.samples) v = static_cast<float>(v * g);
  }
  return s;
}

std::vector<std::uint8_t> FrameLabels(const std::vector<std::uint8_t>& active, std::size_t frame) {
  std::vector<std::uint8_t> labels(active.size() / frame);
  for (std::size_t f = 0; f < labels.size(); ++f) {
    std::size_t on = 0;
    for (std::size_t i = 0; i < frame; ++i) on += active[f * frame + i];
    labels[f] = on * 2 > frame ? 1 : 0;
  }
  return labels;
}

ThreeMics PlaneWave(const Signal& source, double azimuth_deg, double elevation_deg) {
  constexpr int kHalf = 16;  // taps each side of the interpolator, and the common delay
  const double az = azimuth_deg * kPi / 180.0, el = elevation_deg * kPi / 180.0;
  const double r_samples = kArrayRadiusM * kSampleRate / kSpeedOfSound;
  ThreeMics out;
  for (int m = 0; m < 3; ++m) {
    const double phi = MicAzimuthDeg(m) * kPi / 180.0;
    const double advance = r_samples * std::cos(el) * std::cos(az - phi);
    const double delay = kHalf - advance;  // total delay in samples, > 0
    const int base = static_cast<int>(std::floor(delay));
    const double frac = delay - base;
    // Windowed-sinc taps for y[n] = x(n - delay).
    double taps[2 * kHalf + 1];
    for (int k = -kHalf; k <= kHalf; ++k) {
      const double d = k - frac;
      const double sinc = std::abs(d) < 1e-12 ? 1.0 : std::sin(kPi * d) / (kPi * d);
      const double win = 0.5 + 0.5 * std::cos(kPi * d / (kHalf + 1));
      taps[k + kHalf] = sinc * win;
    }
    Signal& y = out[static_cast<std::size_t>(m)];
    y.assign(source.size(), 0.0f);
    const long n = static_cast<long>(source.size());
    for (long i = 0; i < n; ++i) {
      double acc = 0.0;
      for (int k = -kHalf; k <= kHalf; ++k) {
        const long j = i - base - k;
        if (j >= 0 && j < n) acc += taps[k + kHalf] * source[static_cast<std::size_t>(j)];
      }
      y[static_cast<std::size_t>(i)] = static_cast<float>(acc);
    }
  }
  return out;
}

ThreeMics IndependentNoise(std::size_t n, double rms, std::uint32_t seed) {
  return {WhiteNoise(n, rms, seed), WhiteNoise(n, rms, seed + 1000003u), WhiteNoise(n, rms, seed + 2000003u)};
}

Signal Mix(const Signal& a, const Signal& b, double gain_b) {
  Signal y = a;
  const std::size_t n = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < n; ++i) y[i] = static_cast<float>(a[i] + gain_b * b[i]);
  return y;
}

ThreeMics Mix(const ThreeMics& a, const ThreeMics& b, double gain_b) {
  return {Mix(a[0], b[0], gain_b), Mix(a[1], b[1], gain_b), Mix(a[2], b[2], gain_b)};
}

std::vector<std::int16_t> ToPcm(const Signal& x) {
  std::vector<std::int16_t> y(x.size());
  for (std::size_t i = 0; i < x.size(); ++i) {
    const double v = std::clamp(std::round(static_cast<double>(x[i])), -32768.0, 32767.0);
    y[i] = static_cast<std::int16_t>(v);
  }
  return y;
}

std::vector<std::int16_t> Interleave(const ThreeMics& mics) {
  const std::size_t n = std::min({mics[0].size(), mics[1].size(), mics[2].size()});
  std::vector<std::int16_t> y(3 * n);
  for (std::size_t m = 0; m < 3; ++m) {
    const std::vector<std::int16_t> pcm = ToPcm(mics[m]);
    for (std::size_t i = 0; i < n; ++i) y[3 * i + m] = pcm[i];
  }
  return y;
}

double Rms(const float* x, std::size_t n) {
  if (n == 0) return 0.0;
  double acc = 0.0;
  for (std::size_t i = 0; i < n; ++i) acc += static_cast<double>(x[i]) * x[i];
  return std::sqrt(acc / static_cast<double>(n));
}

double Rms(const Signal& x) { return Rms(x.data(), x.size()); }

double Rms(const std::vector<std::int16_t>& x) {
  if (x.empty()) return 0.0;
  double acc = 0.0;
  for (std::int16_t v : x) acc += static_cast<double>(v) * v;
  return std::sqrt(acc / static_cast<double>(x.size()));
}

double PowerDb(double mean_square) { return mean_square > 1e-20 ? 10.0 * std::log10(mean_square) : -200.0; }

double RmsDbfs(const Signal& x) {
  const double r = Rms(x) / 32768.0;
  return PowerDb(r * r);
}

double MaskedMeanSquare(const Signal& x, const std::vector<std::uint8_t>& mask, std::uint8_t want) {
  double acc = 0.0;
  std::size_t count = 0;
  const std::size_t n = std::min(x.size(), mask.size());
  for (std::size_t i = 0; i < n; ++i) {
    if (mask[i] != want) continue;
    acc += static_cast<double>(x[i]) * x[i];
    ++count;
  }
  return count ? acc / static_cast<double>(count) : 0.0;
}

}  // namespace vorn::sim
