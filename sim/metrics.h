// What a front end is scored by (the demo, the quality bench, the tests),
// against a rendered scene's clean target and ground truth. Signals are on the int16 scale; levels are dBFS
// (RMS relative to 32768).
#pragma once

#include <cstdint>
#include <vector>

#include "sim/geometry.h"
#include "sim/scene.h"

namespace vorn::sim {

Signal ToSignal(const std::vector<std::int16_t>& pcm);
// One microphone out of an interleaved three-microphone capture.
Signal Channel(const std::vector<std::int16_t>& interleaved, int mic);

// Lag in [-max_lag, max_lag] (samples) by which `output` trails `input`: the
// peak of their cross-correlation's magnitude (a polarity flip still aligns).
long FindLatency(const Signal& input, const Signal& output, std::size_t max_lag);
// x moved `lag` samples earlier (later for a negative lag), zero-filled.
Signal Advance(const Signal& x, long lag);

// Echo return loss enhancement: microphone energy over output energy across
// the frames of the far-end single-talk spans where the far end is active.
// `output` must already be aligned to `mic`.
double ErleDb(const Signal& mic, const Signal& output, const Truth& truth);

// SNR of x judged by the clean target: mean power of the frames where the
// target is within 15 dB of its active level (speech power with noise) against
// the frames where the target is silent or 40 dB down (noise alone). It needs
// no waveform fidelity and ignores a change of overall gain.
double SnrDb(const Signal& x, const Signal& target);
// Scale-invariant signal-to-distortion ratio of x against the target.
double SiSdrDb(const Signal& x, const Signal& target);

struct Enhancement {
  long latency = 0;  // samples the output trails the target
  double snr_in_db = 0.0, snr_out_db = 0.0, si_sdr_in_db = 0.0, si_sdr_out_db = 0.0;
  double SnrImprovementDb() const { return snr_out_db - snr_in_db; }
  double SiSdrImprovementDb() const { return si_sdr_out_db - si_sdr_in_db; }
};
// Microphone 0 against the system's output, both scored on the target; the
// output is aligned first by its latency against the target.
Enhancement ScoreEnhancement(const Signal& mic0, const Signal& output, const Signal& target,
                             std::size_t max_lag = 4096);

struct VadScores {
  std::size_t true_positive = 0, false_positive = 0, false_negative = 0;
  double precision = 0.0, recall = 0.0, f1 = 0.0;
};
// Per-frame flags against labels; flag f is compared with label f - frame_lag
// (the system's latency in frames).
VadScores ScoreVad(const std::vector<std::uint8_t>& flags, const std::vector<std::uint8_t>& labels,
                   std::size_t frame_lag = 0);

// Smallest angle between two azimuths, in degrees (0..180).
double AzimuthErrorDeg(double estimate_deg, double truth_deg);
struct DoaScores {
  double mean_error_deg = 0.0;
  double share_within_10 = 0.0;  // 0..1
};
DoaScores ScoreDoa(const std::vector<double>& estimates_deg, const std::vector<double>& truths_deg);

// Mean power over the frames labelled speech (label f applies to frame
// f + frame_lag of x; labels past the end of x are left out), in dBFS.
double ActiveLevelDbfs(const Signal& x, const std::vector<std::uint8_t>& labels, std::size_t frame_lag = 0);
// Largest minus smallest of a set of levels (dB).
double LevelSpreadDb(const std::vector<double>& levels_db);

}  // namespace vorn::sim
