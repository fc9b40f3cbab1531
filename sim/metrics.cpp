// Scoring metrics. Whole-signal energies are summed in double; every ratio is
// reported through PowerDb, so an empty or silent denominator reads as
// the 200 dB ceiling rather than infinity.
#include "sim/metrics.h"

#include <algorithm>
#include <cmath>

#include "sim/signal_ops.h"

namespace vorn::sim {
namespace {

double FramePower(const Signal& x, std::size_t frame) {
  const std::size_t begin = frame * kFrame;
  if (begin >= x.size()) return 0.0;
  const double rms = Rms(x.data() + begin, std::min(kFrame, x.size() - begin));
  return rms * rms;
}

double Ratio(double num, double den) {
  if (den <= 0.0) return num > 0.0 ? 1e20 : 1.0;
  return num / den;
}

double Dbfs(double mean_square) { return PowerDb(mean_square / (32768.0 * 32768.0)); }

}  // namespace

Signal ToSignal(const std::vector<std::int16_t>& pcm) { return Signal(pcm.begin(), pcm.end()); }

Signal Channel(const std::vector<std::int16_t>& interleaved, int mic) {
  Signal x(interleaved.size() / kMics);
  for (std::size_t i = 0; i < x.size(); ++i) x[i] = interleaved[i * kMics + static_cast<std::size_t>(mic)];
  return x;
}

long FindLatency(const Signal& input, const Signal& output, std::size_t max_lag) {
  const std::vector<double> c = CrossCorrelation(input, output, max_lag);
  std::size_t best = 0;
  for (std::size_t k = 1; k < c.size(); ++k)
    if (std::abs(c[k]) > std::abs(c[best])) best = k;
  return static_cast<long>(best) - static_cast<long>(max_lag);
}

Signal Advance(const Signal& x, long lag) {
  Signal y(x.size(), 0.0f);
  const long n = static_cast<long>(x.size());
  for (long i = 0; i < n; ++i)
    if (i + lag >= 0 && i + lag < n) y[static_cast<std::size_t>(i)] = x[static_cast<std::size_t>(i + lag)];
  return y;
}

double ErleDb(const Signal& mic, const Signal& output, const Truth& truth) {
  double mic_energy = 0.0, output_energy = 0.0;
  for (const Span& span : truth.far_single_talk) {
    for (std::size_t f = span.begin; f < span.end && f < truth.far_end.size(); ++f) {
      if (!truth.far_end[f]) continue;
      mic_energy += FramePower(mic, f);
      output_energy += FramePower(output, f);
    }
  }
  return PowerDb(Ratio(mic_energy, output_energy));
}

double SnrDb(const Signal& x, const Signal& target) {
  const std::size_t frames = std::min(x.size(), target.size()) / kFrame;
  std::vector<double> target_power(frames);
  double loudest = 0.0;
  for (std::size_t f = 0; f < frames; ++f) loudest = std::max(loudest, target_power[f] = FramePower(target, f));
  // The target's active level: mean power of its frames within 30 dB of the
  // loudest one.
  double active_sum = 0.0;
  std::size_t active_count = 0;
  for (double p : target_power) {
    if (p < loudest * 1e-3) continue;
    active_sum += p;
    ++active_count;
  }
  const double active_level = active_count ? active_sum / static_cast<double>(active_count) : 0.0;
  double speech = 0.0, noise = 0.0;
  std::size_t speech_frames = 0, noise_frames = 0;
  for (std::size_t f = 0; f < frames; ++f) {
    if (active_level > 0.0 && target_power[f] >= active_level * std::pow(10.0, -1.5)) {
      speech += FramePower(x, f);
      ++speech_frames;
    } else if (target_power[f] <= active_level * 1e-4) {
      noise += FramePower(x, f);
      ++noise_frames;
    }
  }
  if (speech_frames == 0) return PowerDb(0.0);
  speech /= static_cast<double>(speech_frames);
  noise = noise_frames ? noise / static_cast<double>(noise_frames) : 0.0;
  return PowerDb(Ratio(std::max(speech - noise, 0.0), noise));
}

double SiSdrDb(const Signal& x, const Signal& target) {
  const std::size_t n = std::min(x.size(), target.size());
  double x_mean = 0.0, t_mean = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    x_mean += x[i];
    t_mean += target[i];
  }
  x_mean /= static_cast<double>(std::max<std::size_t>(n, 1));
  t_mean /= static_cast<double>(std::max<std::size_t>(n, 1));
  double cross = 0.0, target_energy = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    cross += (x[i] - x_mean) * (target[i] - t_mean);
    target_energy += (target[i] - t_mean) * (target[i] - t_mean);
  }
  if (target_energy <= 0.0) return PowerDb(0.0);
  const double alpha = cross / target_energy;  // the least-squares gain of the target in x
  double wanted = 0.0, distortion = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const double scaled = alpha * (target[i] - t_mean);
    const double residual = (x[i] - x_mean) - scaled;
    wanted += scaled * scaled;
    distortion += residual * residual;
  }
  return PowerDb(Ratio(wanted, distortion));
}

Enhancement ScoreEnhancement(const Signal& mic0, const Signal& output, const Signal& target, std::size_t max_lag) {
  Enhancement e;
  e.latency = FindLatency(target, output, max_lag);
  const Signal aligned = Advance(output, e.latency);
  e.snr_in_db = SnrDb(mic0, target);
  e.snr_out_db = SnrDb(aligned, target);
  e.si_sdr_in_db = SiSdrDb(mic0, target);
  e.si_sdr_out_db = SiSdrDb(aligned, target);
  return e;
}

VadScores ScoreVad(const std::vector<std::uint8_t>& flags, const std::vector<std::uint8_t>& labels,
                   std::size_t frame_lag) {
  VadScores s;
  for (std::size_t f = frame_lag; f < flags.size() && f - frame_lag < labels.size(); ++f) {
    const bool flag = flags[f] != 0, label = labels[f - frame_lag] != 0;
    s.true_positive += flag && label;
    s.false_positive += flag && !label;
    s.false_negative += !flag && label;
  }
  const double tp = static_cast<double>(s.true_positive);
  s.precision = s.true_positive + s.false_positive ? tp / static_cast<double>(s.true_positive + s.false_positive) : 0.0;
  s.recall = s.true_positive + s.false_negative ? tp / static_cast<double>(s.true_positive + s.false_negative) : 0.0;
  s.f1 = s.precision + s.recall > 0.0 ? 2.0 * s.precision * s.recall / (s.precision + s.recall) : 0.0;
  return s;
}

double AzimuthErrorDeg(double estimate_deg, double truth_deg) {
  const double d = std::fmod(std::abs(estimate_deg - truth_deg), 360.0);
  return d > 180.0 ? 360.0 - d : d;
}

DoaScores ScoreDoa(const std::vector<double>& estimates_deg, const std::vector<double>& truths_deg) {
  DoaScores s;
  const std::size_t n = std::min(estimates_deg.size(), truths_deg.size());
  if (n == 0) return s;
  std::size_t within = 0;
  for (std::size_t i = 0; i < n; ++i) {
    const double error = AzimuthErrorDeg(estimates_deg[i], truths_deg[i]);
    s.mean_error_deg += error;
    within += error <= 10.0;
  }
  s.mean_error_deg /= static_cast<double>(n);
  s.share_within_10 = static_cast<double>(within) / static_cast<double>(n);
  return s;
}

double ActiveLevelDbfs(const Signal& x, const std::vector<std::uint8_t>& labels, std::size_t frame_lag) {
  double sum = 0.0;
  std::size_t count = 0;
  for (std::size_t f = 0; f < labels.size() && (f + frame_lag + 1) * kFrame <= x.size(); ++f) {
    if (!labels[f]) continue;
    sum += FramePower(x, f + frame_lag);
    ++count;
  }
  return Dbfs(count ? sum / static_cast<double>(count) : 0.0);
}

double LevelSpreadDb(const std::vector<double>& levels_db) {
  if (levels_db.empty()) return 0.0;
  const auto [lo, hi] = std::minmax_element(levels_db.begin(), levels_db.end());
  return *hi - *lo;
}

}  // namespace vorn::sim
