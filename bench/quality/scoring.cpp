// Scoring helpers. The spectrogram is a direct DFT over a cosine table: the
// report draws three of them, and at 512 points this costs a fraction of a
// second while leaving nothing to get wrong in an FFT of our own.
#include "quality/scoring.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace vorn::bench {

std::size_t FrameLag(long latency_samples) {
  if (latency_samples <= 0) return 0;
  const long frame = static_cast<long>(sim::kFrame);
  return static_cast<std::size_t>((latency_samples + frame / 2) / frame);
}

sim::Signal SpanSamples(const sim::Signal& x, const std::vector<sim::Span>& spans) {
  sim::Signal cut;
  for (const sim::Span& span : spans) {
    const std::size_t begin = std::min(span.begin * sim::kFrame, x.size());
    const std::size_t end = std::min(span.end * sim::kFrame, x.size());
    if (begin < end) cut.insert(cut.end(), x.begin() + static_cast<long>(begin), x.begin() + static_cast<long>(end));
  }
  return cut;
}

std::vector<double> FrameAttenuationDb(const sim::Signal& mic, const sim::Signal& output, std::size_t window) {
  const std::size_t frames = std::min(mic.size(), output.size()) / sim::kFrame;
  std::vector<double> mic_energy(frames, 0.0), output_energy(frames, 0.0);
  for (std::size_t f = 0; f < frames; ++f) {
    for (std::size_t i = f * sim::kFrame; i < (f + 1) * sim::kFrame; ++i) {
      mic_energy[f] += static_cast<double>(mic[i]) * mic[i];
      output_energy[f] += static_cast<double>(output[i]) * output[i];
    }
  }
  const std::size_t span = std::max<std::size_t>(window, 1);
  std::vector<double> attenuation(frames);
  for (std::size_t f = 0; f < frames; ++f) {
    // The window slides inwards at the edges so that it always holds `span`
    // frames (fewer only when the signal is shorter).
    std::size_t first = f > (span - 1) / 2 ? f - (span - 1) / 2 : 0;
    if (first + span > frames) first = frames > span ? frames - span : 0;
    const std::size_t last = std::min(frames, first + span);
    double mic_sum = 0.0, output_sum = 0.0;
    for (std::size_t g = first; g < last; ++g) {
      mic_sum += mic_energy[g];
      output_sum += output_energy[g];
    }
    // One LSB squared per sample keeps digital silence finite on either side.
    const double floor = static_cast<double>((last - first) * sim::kFrame);
    attenuation[f] = 10.0 * std::log10((mic_sum + floor) / (output_sum + floor));
  }
  return attenuation;
}

sim::DoaScores ScoreTracking(const std::vector<double>& estimates_deg, const std::vector<std::uint8_t>& labels,
                        std::size_t frame_lag, double truth_deg, std::size_t settle) {
  std::vector<double> estimates, truths;
  std::size_t spoken = 0;
  for (std::size_t f = 0; f < labels.size() && f + frame_lag < estimates_deg.size(); ++f) {
    if (!labels[f]) continue;
    if (spoken++ < settle) continue;
    estimates.push_back(estimates_deg[f + frame_lag]);
    truths.push_back(truth_deg);
  }
  return sim::ScoreDoa(estimates, truths);
}

sim::VadScores PoolVad(const std::vector<sim::VadScores>& scores) {
  sim::VadScores pooled;
  for (const sim::VadScores& s : scores) {
    pooled.true_positive += s.true_positive;
    pooled.false_positive += s.false_positive;
    pooled.false_negative += s.false_negative;
  }
  const double tp = static_cast<double>(pooled.true_positive);
  const double flagged = tp + static_cast<double>(pooled.false_positive);
  const double spoken = tp + static_cast<double>(pooled.false_negative);
  pooled.precision = flagged > 0 ? tp / flagged : 0.0;
  pooled.recall = spoken > 0 ? tp / spoken : 0.0;
  pooled.f1 = pooled.precision + pooled.recall > 0
                  ? 2.0 * pooled.precision * pooled.recall / (pooled.precision + pooled.recall)
                  : 0.0;
  return pooled;
}

std::vector<std::vector<double>> Spectrogram(const sim::Signal& x, std::size_t size, std::size_t hop) {
  const std::size_t bins = size / 2 + 1;
  std::vector<double> window(size), cosine(size), sine(size);
  double window_sum = 0.0;
  for (std::size_t n = 0; n < size; ++n) {
    const double phase = 2.0 * std::numbers::pi * static_cast<double>(n) / static_cast<double>(size);
    window[n] = 0.5 - 0.5 * std::cos(phase);
    window_sum += window[n];
    cosine[n] = std::cos(phase);
    sine[n] = std::sin(phase);
  }
  // A full-scale sine reads 0 dBFS in its bin.
  const double full_scale = 32768.0 * 32768.0 * window_sum * window_sum / 4.0;
  std::vector<std::vector<double>> rows;
  std::vector<double> frame(size);
  for (std::size_t start = 0; start + size <= x.size(); start += hop) {
    for (std::size_t n = 0; n < size; ++n) frame[n] = window[n] * x[start + n];
    std::vector<double> row(bins);
    for (std::size_t k = 0; k < bins; ++k) {
      double re = 0.0, im = 0.0;
      std::size_t index = 0;
      for (std::size_t n = 0; n < size; ++n) {
        re += frame[n] * cosine[index];
        im -= frame[n] * sine[index];
        index += k;
        if (index >= size) index -= size;
      }
      row[k] = 10.0 * std::log10((re * re + im * im) / full_scale + 1e-12);
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

}  // namespace vorn::bench
