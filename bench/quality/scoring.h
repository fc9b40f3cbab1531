// Scoring steps of the quality bench that the scene metrics leave to the
// caller: aligning a system's flags to the truth, cutting talk spans out of
// signals, per-frame echo attenuation, direction tracking over speech, and
// the spectrogram the report draws.
#pragma once

#include <cstdint>
#include <vector>

#include "sim/metrics.h"
#include "sim/scene.h"

namespace vorn::bench {

// Whole frames by which a system's flags trail the truth, from its latency in
// samples: the nearest frame, never negative.
std::size_t FrameLag(long latency_samples);

// The samples of x inside the spans (frames of 256), one after another;
// spans past the end of x are cut short.
sim::Signal SpanSamples(const sim::Signal& x, const std::vector<sim::Span>& spans);

// Per frame, microphone energy over output energy in dB (both aligned),
// summed over the `window` frames centred on it (1: the frame alone); where
// both are silent it reads 0 dB.
std::vector<double> FrameAttenuationDb(const sim::Signal& mic, const sim::Signal& output, std::size_t window = 1);

// Per-frame azimuth estimates scored on the frames labelled speech, once the
// talker has spoken `settle` speech frames (a tracker needs to lock on).
// Label f is compared with estimate f + frame_lag.
sim::DoaScores ScoreTracking(const std::vector<double>& estimates_deg, const std::vector<std::uint8_t>& labels,
                        std::size_t frame_lag, double truth_deg, std::size_t settle);

// Detection counts summed over several scenes, with the precision, recall
// and F1 of the sums (0 where a ratio has nothing to divide).
sim::VadScores PoolVad(const std::vector<sim::VadScores>& scores);

// Log-power spectrogram in dBFS: Hann-windowed frames of `size` samples every
// `hop`, bins 0..size/2. Row t covers samples [t*hop, t*hop+size).
std::vector<std::vector<double>> Spectrogram(const sim::Signal& x, std::size_t size, std::size_t hop);

}  // namespace vorn::bench
