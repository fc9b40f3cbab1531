// Microphone faults from the samples alone, frame by frame.
//
// Dead: the microphone's frame is constant (zeros, or a stuck DC value) while
// another microphone's is not; a whole array in digital silence is a silent
// room, not a fault. Clipping: the microphone's frame reaches its extreme
// value several times at a level no quiet signal has, while another
// microphone's frame does not; a talker loud enough to clip every microphone
// leaves them all in. The three microphones lie 6.8 cm apart and hear every
// source within a few dB of one another, so a microphone whose power
// (smoothed over a few frames) stands 12 dB above the middle one runs hot and
// counts as clipping, and one 20 dB below it counts as dead, although neither
// shows in single samples. Evidence raises a score quickly and a clean frame
// lowers it slowly, so a fault is declared within a few frames and withdrawn
// only after about a second of good behaviour; a clipping microphone that is
// quiet between syllables stays out meanwhile. A hot microphone is declared
// on its first frame: its noise stands far above the others' and would sound
// through the beam for those few frames (a dead one only takes its share
// away). Samples at the rails alone wait for the score: a talker loud enough
// to clip the whole array hits the rails of one microphone a few samples
// more often than another's, frame by frame.
#include "adsp_bf/mic_health.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>


namespace vorn {
namespace {

constexpr int kFrame = 256;
constexpr int kMics = 3;
constexpr uint16_t kEvidenceStep = 4;    // per frame with evidence
constexpr uint16_t kFaultScore = 16;     // four frames of evidence in a row
constexpr uint16_t kScoreCeiling = 64;   // withdrawn after 64 clean frames
constexpr int kClipRunSamples = 3;       // samples at the frame's extreme value
constexpr int kClipLevel = 8192;         // -12 dBFS: below it repeats are quantisation
// Per frame: a rise is followed over about 100 ms; a fall, which in power
// takes longer to show, over about 30 ms.
constexpr float kRiseSmoothing = 0.15f;
constexpr float kFallSmoothing = 0.5f;
constexpr float kHotRatio = 15.85f;      // 12 dB above the middle microphone's power
constexpr float kQuietRatio = 0.01f;     // 20 dB below it

struct FrameFacts {
  bool constant;
  bool clipped;
  float power;  // mean square
};

// Sixteen lanes (four vectors of four, so that the additions of one vector
// do not wait for those of the last) combined the same way by both paths:
// lane j of each vector first, then the four lanes.
constexpr int kLanes = 16;
static_assert(kFrame % kLanes == 0, "whole rounds of the lanes");

FrameStats CombineLanes(const float lo[kLanes], const float hi[kLanes], const float energy[kLanes]) {
  float l[4], h[4], e[4];
  for (int j = 0; j < 4; ++j) {
    const float l01 = lo[j] < lo[4 + j] ? lo[j] : lo[4 + j], l23 = lo[8 + j] < lo[12 + j] ? lo[8 + j] : lo[12 + j];
    const float h01 = hi[j] > hi[4 + j] ? hi[j] : hi[4 + j], h23 = hi[8 + j] > hi[12 + j] ? hi[8 + j] : hi[12 + j];
    l[j] = l01 < l23 ? l01 : l23;
    h[j] = h01 > h23 ? h01 : h23;
    e[j] = (energy[j] + energy[4 + j]) + (energy[8 + j] + energy[12 + j]);
  }
  FrameStats stats{l[0], h[0], 0.0f};
  for (int j = 1; j < 4; ++j) {
    stats.lo = l[j] < stats.lo ? l[j] : stats.lo;
    stats.hi = h[j] > stats.hi ? h[j] : stats.hi;
  }
  stats.energy = (e[0] + e[1]) + (e[2] + e[3]);
  return stats;
}

FrameStats FrameStatsOf(const float* x) {
#if defined(VORN_SIMD4)
  return FrameStatsSimd(x);
#else
  return FrameStatsPlain(x);
#endif
}

void Inspect(const float* const latest[kMics], FrameFacts facts[kMics]) {
  for (int m = 0; m < kMics; ++m) {
    const float* x = latest[m];
    const FrameStats stats = FrameStatsOf(x);
    facts[m] = {stats.lo == stats.hi, false, stats.energy / kFrame};
    const float peak = -stats.lo > stats.hi ? stats.lo : stats.hi;
    if (std::fabs(peak) < kClipLevel) continue;
    int at_peak = 0;
    for (int n = 0; n < kFrame; ++n) at_peak += x[n] == peak;
    facts[m].clipped = at_peak >= kClipRunSamples;
  }
}

void Score(uint16_t& score, bool evidence, uint16_t step) {
  if (evidence) {
    score = static_cast<uint16_t>(score + step > kScoreCeiling ? kScoreCeiling : score + step);
  } else if (score > 0) {
    --score;
  }
}

// Fault when the score reaches kFaultScore; cleared only when it is back at 0.
void Judge(uint32_t& mask, int m, uint16_t score) {
  if (score >= kFaultScore) mask |= 1u << m;
  if (score == 0) mask &= ~(1u << m);
}

}  // namespace

void MicHealthInit(MicHealth* health) { *health = MicHealth{}; }

FrameStats FrameStatsPlain(const float* x) {
  float lo[kLanes], hi[kLanes], energy[kLanes];
  for (int j = 0; j < kLanes; ++j) {
    lo[j] = hi[j] = x[j];
    energy[j] = 0.0f;
  }
  for (int n = 0; n < kFrame; n += kLanes) {
    for (int j = 0; j < kLanes; ++j) {
      const float v = x[n + j];
      lo[j] = v < lo[j] ? v : lo[j];
      hi[j] = v > hi[j] ? v : hi[j];
      energy[j] += v * v;
    }
  }
  return CombineLanes(lo, hi, energy);
}

#if defined(VORN_SIMD4)
// v < lo ? v : lo and v > hi ? v : hi lane by lane, as the plain twin takes
// them; SSE has each as one instruction with exactly that rule.
namespace {
#if defined(__SSE2__)
simd::F4 Lower(simd::F4 v, simd::F4 lo) { return _mm_min_ps(v, lo); }
simd::F4 Higher(simd::F4 v, simd::F4 hi) { return _mm_max_ps(v, hi); }
#else
simd::F4 Lower(simd::F4 v, simd::F4 lo) { return simd::Min(v, lo); }
simd::F4 Higher(simd::F4 v, simd::F4 hi) { return simd::Select(simd::Gt(v, hi), v, hi); }
#endif
}  // namespace

FrameStats FrameStatsSimd(const float* x) {
  using namespace simd;
  F4 lo[4], hi[4], energy[4];
  for (int a = 0; a < 4; ++a) {
    lo[a] = hi[a] = Load(x + 4 * a);
    energy[a] = Zero();
  }
  for (int n = 0; n < kFrame; n += kLanes) {
    for (int a = 0; a < 4; ++a) {
      const F4 v = Load(x + n + 4 * a);
      lo[a] = Lower(v, lo[a]);
      hi[a] = Higher(v, hi[a]);
      energy[a] = Add(energy[a], Mul(v, v));
    }
  }
  float l[kLanes], h[kLanes], e[kLanes];
  for (int a = 0; a < 4; ++a) {
    Store(l + 4 * a, lo[a]);
    Store(h + 4 * a, hi[a]);
    Store(e + 4 * a, energy[a]);
  }
  return CombineLanes(l, h, e);
}
#endif

void MicHealthUpdate(MicHealth* health, const float* const latest[3]) {
  FrameFacts facts[kMics];
  Inspect(latest, facts);
  int varying = 0, unclipped = 0;
  for (int m = 0; m < kMics; ++m) {
    varying += !facts[m].constant;
    unclipped += !facts[m].clipped;
    float& power = health->power[m];
    const float a = facts[m].power > power ? kRiseSmoothing : kFallSmoothing;
    power = health->frames == 0 ? facts[m].power : power + a * (facts[m].power - power);
  }
  if (health->frames < 1u << 30) ++health->frames;
  const float* power = health->power;
  const float middle = std::max(std::min(power[0], power[1]), std::min(std::max(power[0], power[1]), power[2]));
  for (int m = 0; m < kMics; ++m) {
    // Evidence counts only against a microphone that behaves otherwise.
    const bool others_vary = varying - !facts[m].constant > 0;
    const bool others_clean = unclipped - !facts[m].clipped > 0;
    // One LSB squared keeps a silent array from judging rounding noise.
    const bool dead = (facts[m].constant && others_vary) || power[m] + 1.0f < kQuietRatio * (middle + 1.0f);
    const bool at_rails = facts[m].clipped && others_clean;
    const bool hot = power[m] + 1.0f > kHotRatio * (middle + 1.0f);
    Score(health->dead_score[m], dead, kEvidenceStep);
    Score(health->clipped_score[m], at_rails || hot, hot ? kFaultScore : kEvidenceStep);
    Judge(health->dead_mask, m, health->dead_score[m]);
    Judge(health->clipped_mask, m, health->clipped_score[m]);
  }
}

uint32_t MicHealthLive(const MicHealth* health) {
  const uint32_t live = ~(health->dead_mask | health->clipped_mask | health->excluded_mask) & 0x7u;
  if (live != 0) return live;
  // Every microphone judged faulty cannot happen frame by frame (evidence
  // needs another microphone behaving), but scores outlive their evidence:
  // keep the one with the least against it.
  int best = 0, best_score = 1 << 30;
  for (int m = 0; m < kMics; ++m) {
    const int score = health->dead_score[m] + health->clipped_score[m] + ((health->excluded_mask >> m) & 1u) * 1000;
    if (score < best_score) {
      best_score = score;
      best = m;
    }
  }
  return 1u << best;
}

}  // namespace vorn
