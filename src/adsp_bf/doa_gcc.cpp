// Pair correlations on a lag grid and the direction search over them.
//
// The correlations are formed by rotating one phasor per lag from bin to bin
// (exp(-i w tau) for neighbouring bins differs by a constant factor), so a
// hop costs one complex rotation per lag and bin plus one multiply-add per
// pair, all in independent lanes across the lags. A direction is scored by
// interpolating each pair's correlation at the pair's delay, which for a
// planar array is the in-plane delay scaled by the cosine of the elevation;
// both factors come from tables computed at compile time.
#include "adsp_bf/doa_gcc.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>

#include "common/constexpr_trig.h"
#include "common/cpu_avx2.h"

namespace vorn {
namespace {

constexpr int kPairA[kGccPairs] = {0, 0, 1};
constexpr int kPairB[kGccPairs] = {1, 2, 2};

// The array: microphones on a 0.039 m circle at 0, 120 and 240 degrees,
// sound at 340 m/s, 16 kHz sampling.
constexpr double kRadiusSamples = 0.039 * 16000.0 / 340.0;

// Lag l's phasor at the band's first bin and its factor from bin to bin:
// exp(-i 2 pi k tau_l / 512), tau_l = (l - kGccLagZero) / kGccLagsPerSample.
struct LagPhasors {
  float start_re[kGccLags], start_im[kGccLags], step_re[kGccLags], step_im[kGccLags];
};

constexpr LagPhasors MakeLagPhasors() {
  LagPhasors t{};
  constexpr long kTurn = 512L * kGccLagsPerSample;
  for (int l = 0; l < kGccLags; ++l) {
    const long lag = l - kGccLagZero;
    t.start_re[l] = static_cast<float>(ct::CosTurn(-kGccLowBin * lag, kTurn));
    t.start_im[l] = static_cast<float>(ct::SinTurn(-kGccLowBin * lag, kTurn));
    t.step_re[l] = static_cast<float>(ct::CosTurn(-lag, kTurn));
    t.step_im[l] = static_cast<float>(ct::SinTurn(-lag, kTurn));
  }
  return t;
}
constexpr LagPhasors kLagPhasors = MakeLagPhasors();

// In-plane delay of each pair (samples by which microphone a hears a source
// at that azimuth before microphone b), per whole degree of azimuth.
constexpr std::array<std::array<float, kGccPairs>, 360> MakePairDelays() {
  std::array<std::array<float, kGccPairs>, 360> t{};
  for (int az = 0; az < 360; ++az)
    for (int p = 0; p < kGccPairs; ++p)
      t[az][p] = static_cast<float>(kRadiusSamples *
                                    (ct::CosTurn(az - 120 * kPairA[p], 360) - ct::CosTurn(az - 120 * kPairB[p], 360)));
  return t;
}
constexpr auto kPairDelays = MakePairDelays();

constexpr std::array<float, kGccMaxElevationDeg + 1> MakeElevationFactors() {
  std::array<float, kGccMaxElevationDeg + 1> t{};
  for (int el = 0; el <= kGccMaxElevationDeg; ++el) t[el] = static_cast<float>(ct::CosTurn(el, 360));
  return t;
}
constexpr auto kElevationFactors = MakeElevationFactors();

// The in-plane pair delays of the search's coarse azimuths, a row per pair,
// so that a vector reads consecutive azimuths.
constexpr std::array<std::array<float, kGccCoarseAzimuths>, kGccPairs> MakeCoarseDelays() {
  std::array<std::array<float, kGccCoarseAzimuths>, kGccPairs> t{};
  for (int p = 0; p < kGccPairs; ++p)
    for (int a = 0; a < kGccCoarseAzimuths; ++a) t[p][a] = kPairDelays[a * kGccCoarseDeg][p];
  return t;
}
constexpr auto kCoarseDelays = MakeCoarseDelays();

// Coherence of a spherically diffuse field between two microphones d apart,
// sin(w d / c) / (w d / c), per band bin. The pairs are all d = sqrt(3) times
// the radius apart; the bin's phase step w d / c is taken as an exact
// fraction of a turn, k * kSpacingTicks / (512 * kTicksPerSample), with the
// spacing in ten-thousandths of a sample (small enough for 32-bit longs).
constexpr long kTicksPerSample = 10000;
constexpr long kSpacingTicks = static_cast<long>(kRadiusSamples * 1.7320508075688772 * kTicksPerSample + 0.5);
constexpr std::array<float, kGccBins> MakeDiffuseCoherence() {
  std::array<float, kGccBins> t{};
  for (int b = 0; b < kGccBins; ++b) {
    const long k = kGccLowBin + b;
    const double x = 2.0 * ct::kPi * static_cast<double>(k * kSpacingTicks) / (512.0 * kTicksPerSample);
    t[b] = static_cast<float>(ct::SinTurn(k * kSpacingTicks, 512L * kTicksPerSample) / x);
  }
  return t;
}
constexpr auto kDiffuseCoherence = MakeDiffuseCoherence();

static_assert(kGccLagZero > kRadiusSamples * 1.7320508 * kGccLagsPerSample + 1, "lag grid too short");
static_assert(kGccLags - 1 - kGccLagZero > kRadiusSamples * 1.7320508 * kGccLagsPerSample + 1, "lag grid too short");

int Wrap360(int deg) { return ((deg % 360) + 360) % 360; }

// Noise following: a bin below kNoiseLike times the estimate is noise.
constexpr float kNoiseLike = 3.0f;
constexpr float kNoiseAverage = 0.1f;  // about 10 hops (160 ms) of memory
constexpr float kNoiseClimb = 1.01f;   // 2.7 dB/s while a bin stays loud
// Evidence: a bin counts once its smoothed power is above kNoiseMargin
// times the noise (9 dB: a noise bin gets there about once in a thousand
// hops) and, in a stretch, the sound it holds above the noise at least
// kOnsetRise times what its recent level held above it (the tracker
// chooses its own rises).
constexpr float kNoiseMargin = 8.0f;
constexpr float kPooledNoiseMargin = 4.0f;
// The tracker's recent level counts as the room's sound only where it
// stands this many times over the noise test's floor: nearer the floor it
// is as likely the noise's own swell, which the noise test bounds already.
constexpr float kRoomOverFloor = 3.0f;
// The learnt noise's coherence is read from this bin up (1.5 kHz): below
// it a diffuse field is itself coherent across the 6.8 cm pairs, above it
// only a source in one direction keeps the pairs coherent.
constexpr int kCoherenceLowBin = 48;
constexpr float kOnsetRise = 4.0f;
// Coherence smoothing: each hop adds this share (a memory of about 5 hops,
// 80 ms: long enough to read a coherence from, short enough to follow a
// syllable's onset).
constexpr float kCoherenceNew = 0.2f;
// Coherence magnitudes are held below 1 so the ratio stays finite.
constexpr float kMaxCoherence2 = 0.9999f;

// Pooled bin weight past which the amount of evidence no longer limits the
// confidence (a few syllable onsets' worth).
constexpr float kConfidentWeight = 20.0f;

}  // namespace

void GccBandOf(const float spectra[kBfChannels][kBfFftLen], GccBand* band) {
  for (int m = 0; m < kBfChannels; ++m) {
    const float* x = spectra[m];
    for (int b = 0; b < kGccBins; ++b) {
      const int k = kGccLowBin + b;
      band->re[m][b] = 0.5f * x[k] - 0.25f * (x[k - 1] + x[k + 1]);
      band->im[m][b] = 0.5f * x[kBfFftLen - k] - 0.25f * (x[kBfFftLen - k + 1] + x[kBfFftLen - k - 1]);
    }
  }
}

void GccBandPower(const GccBand& band, float power[kGccBins]) {
  for (int b = 0; b < kGccBins; ++b) {
    float sum = 0.0f;
    for (int m = 0; m < kBfChannels; ++m) sum += band.re[m][b] * band.re[m][b] + band.im[m][b] * band.im[m][b];
    power[b] = sum * (1.0f / kBfChannels);
  }
}

namespace {

// Pair p's cross-spectrum a * conj(b) over the band.
void PairProducts(const GccBand& band, int p, float re[kGccBins], float im[kGccBins]) {
  const float* ar = band.re[kPairA[p]];
  const float* ai = band.im[kPairA[p]];
  const float* br = band.re[kPairB[p]];
  const float* bi = band.im[kPairB[p]];
  for (int b = 0; b < kGccBins; ++b) {
    re[b] = ar[b] * br[b] + ai[b] * bi[b];
    im[b] = ai[b] * br[b] - ar[b] * bi[b];
  }
}

// `a` where `take_a`, else `b`. Both are formed before the choice, which is
// a bitwise blend: the compiler then runs the loops that choose four bins
// at a time, where a conditional would keep it to one (it may not form a
// quotient or a product in a bin that did not ask for it, lest it raise a
// floating-point exception the plain loop would not).
float Pick(bool take_a, float a, float b) {
  const std::uint32_t mask = 0u - static_cast<std::uint32_t>(take_a);
  return std::bit_cast<float>((std::bit_cast<std::uint32_t>(a) & mask) | (std::bit_cast<std::uint32_t>(b) & ~mask));
}

// How much of each bin of the hop the noise estimate takes in: the plain
// mean's share over the first hops, kNoiseAverage for a bin that counts as
// noise afterwards, 0 for a louder one (whose mean then only climbs). The
// loops are written without branches, so that the compiler can run them
// four bins at a time.
void NoiseSteps(const float power[kGccBins], const GccNoise& noise, int learnt, float step[kGccBins]) {
  if (learnt < kGccNoiseStartHops) {
    const float share = 1.0f / static_cast<float>(learnt + 1);
    for (int b = 0; b < kGccBins; ++b) step[b] = share;
    return;
  }
  for (int b = 0; b < kGccBins; ++b) step[b] = power[b] < kNoiseLike * noise.power[b] ? kNoiseAverage : 0.0f;
}

void ApplyNoiseSteps(const float power[kGccBins], const float step[kGccBins], GccNoise* noise) {
  for (int b = 0; b < kGccBins; ++b) {
    const float mean = noise->power[b];
    const float averaged = mean + step[b] * (power[b] - mean);
    const float climbed = mean * kNoiseClimb;
    noise->power[b] = Pick(step[b] > 0.0f, averaged, climbed);
  }
}

}  // namespace

void GccFollowNoise(const float power[kGccBins], int learnt, GccNoise* noise) {
  float step[kGccBins];
  NoiseSteps(power, *noise, learnt, step);
  ApplyNoiseSteps(power, step, noise);
}

void GccFollowNoise(const GccBand& band, const float power[kGccBins], int learnt, GccNoise* noise,
                    GccNoiseCross* cross) {
  // The steps are read before the power's mean moves, so both follow the
  // same bins.
  float step[kGccBins];
  NoiseSteps(power, *noise, learnt, step);
  for (int p = 0; p < kGccPairs; ++p) {
    float re[kGccBins], im[kGccBins];
    PairProducts(band, p, re, im);
    for (int b = 0; b < kGccBins; ++b) {
      cross->re[p][b] += step[b] * (re[b] - cross->re[p][b]);
      cross->im[p][b] += step[b] * (im[b] - cross->im[p][b]);
    }
  }
  ApplyNoiseSteps(power, step, noise);
}

float GccNoiseCoherence(const GccNoise& noise, const GccNoiseCross& cross) {
  float sum = 0.0f;
  int counted = 0;
  for (int b = kCoherenceLowBin - kGccLowBin; b < kGccBins; ++b) {
    if (!(noise.power[b] > 0.0f)) continue;
    const float inverse = 1.0f / (noise.power[b] * noise.power[b]);
    for (int p = 0; p < kGccPairs; ++p)
      sum += (cross.re[p][b] * cross.re[p][b] + cross.im[p][b] * cross.im[p][b]) * inverse;
    counted += kGccPairs;
  }
  return counted > 0 ? sum / static_cast<float>(counted) : 0.0f;
}

float GccBinWeights(const float power[kGccBins], const GccNoise& noise, const float recent[kGccBins],
                    float rise_over_noise, float rise_over_room, float weight[kGccBins]) {
  for (int b = 0; b < kGccBins; ++b) {
    // The noise test looks at the power smoothed with the last hops: a
    // single hop's bin of noise swings far above its mean too often, and a
    // steady interferer's bins would then vote, sharply, at every swing.
    const float smoothed = 0.5f * (recent[b] + power[b]);
    const float floor = kNoiseMargin * noise.power[b];
    const float room_floor = kRoomOverFloor * floor;
    const float room = Pick(recent[b] > room_floor, recent[b] - room_floor, 0.0f);
    const float rise = power[b] - rise_over_noise * (recent[b] - room) - rise_over_room * room;
    // The quotients are formed on every bin; where the bin does not count
    // they may be undefined and are not used.
    const float w = (smoothed - floor) / smoothed * (rise / power[b]);
    weight[b] = Pick((smoothed > floor) & (rise > 0.0f), w, 0.0f);
  }
  float total = 0.0f;
  for (int b = 0; b < kGccBins; ++b) total += weight[b];
  return total;
}

float GccBinWeightsPooled(const float power[kGccBins], const GccNoise& noise, const float recent[kGccBins],
                          float weight[kGccBins]) {
  // Each bin's smoothed power and noise summed with its neighbours' (one
  // at the band's edges) once for the band, then the weights without
  // branches (the tracker asks for them on every hop with onsets).
  float smoothed[kGccBins], summed[kGccBins], floor[kGccBins];
  for (int b = 0; b < kGccBins; ++b) smoothed[b] = 0.5f * (recent[b] + power[b]);
  summed[0] = smoothed[0] + smoothed[1];
  floor[0] = noise.power[0] + noise.power[1];
  for (int b = 1; b + 1 < kGccBins; ++b) {
    summed[b] = smoothed[b - 1] + smoothed[b] + smoothed[b + 1];
    floor[b] = noise.power[b - 1] + noise.power[b] + noise.power[b + 1];
  }
  summed[kGccBins - 1] = smoothed[kGccBins - 2] + smoothed[kGccBins - 1];
  floor[kGccBins - 1] = noise.power[kGccBins - 2] + noise.power[kGccBins - 1];
  for (int b = 0; b < kGccBins; ++b) {
    const float margin = kPooledNoiseMargin * floor[b];
    const float recent_above = Pick(recent[b] > noise.power[b], recent[b] - noise.power[b], 0.0f);
    const float rise = power[b] - noise.power[b] - kOnsetRise * recent_above;
    const bool counts = (summed[b] > margin) & (rise > 0.0f);
    // The quotients are formed on every lane; where the bin does not count
    // they may be undefined and are not used.
    const float w = (summed[b] - margin) / summed[b] * (rise / power[b]);
    weight[b] = Pick(counts, w, 0.0f);
  }
  float total = 0.0f;
  for (int b = 0; b < kGccBins; ++b) total += weight[b];
  return total;
}

namespace {

// cross_p += scale * weight * pair p's cross-spectrum, less `times` the
// noise's (none when `noise` is null), reduced to unit magnitude.
void AddPairCross(const GccBand& band, int p, const float weight[kGccBins], float scale, GccCross* cross,
                  const GccNoiseCross* noise = nullptr, float times = 0.0f) {
  const float* ar = band.re[kPairA[p]];
  const float* ai = band.im[kPairA[p]];
  const float* br = band.re[kPairB[p]];
  const float* bi = band.im[kPairB[p]];
  for (int b = 0; b < kGccBins; ++b) {
    if (weight[b] <= 0.0f) continue;
    float re = ar[b] * br[b] + ai[b] * bi[b];
    float im = ai[b] * br[b] - ar[b] * bi[b];
    if (noise != nullptr) {
      re -= times * noise->re[p][b];
      im -= times * noise->im[p][b];
    }
    const float magnitude = std::sqrt(re * re + im * im);
    if (!(magnitude > 1e-20f)) continue;
    const float gain = scale * weight[b] / magnitude;
    cross->re[p][b] += gain * re;
    cross->im[p][b] += gain * im;
  }
}

}  // namespace

void GccAddCross(const GccBand& band, const float weight[kGccBins], float scale, GccCross* cross) {
  for (int p = 0; p < kGccPairs; ++p) AddPairCross(band, p, weight, scale, cross);
}

void GccAddCrossPairs(const GccBand& band, const float weight[kGccPairs][kGccBins], float scale, GccCross* cross) {
  for (int p = 0; p < kGccPairs; ++p) AddPairCross(band, p, weight[p], scale, cross);
}

void GccAddCrossPairs(const GccBand& band, const float weight[kGccPairs][kGccBins], float scale,
                      const GccNoiseCross& noise, float times, GccCross* cross) {
  for (int p = 0; p < kGccPairs; ++p) AddPairCross(band, p, weight[p], scale, cross, &noise, times);
}

void GccFollowCoherence(const GccBand& band, bool first, GccCovariance* c) {
  // The first hop is written, not blended: the record starts out unset.
  constexpr float kKeep = 1.0f - kCoherenceNew;
  for (int m = 0; m < kBfChannels; ++m)
    for (int b = 0; b < kGccBins; ++b) {
      const float power = band.re[m][b] * band.re[m][b] + band.im[m][b] * band.im[m][b];
      c->power[m][b] = first ? power : kKeep * c->power[m][b] + kCoherenceNew * power;
    }
  for (int p = 0; p < kGccPairs; ++p) {
    float re[kGccBins], im[kGccBins];
    PairProducts(band, p, re, im);
    for (int b = 0; b < kGccBins; ++b) {
      c->re[p][b] = first ? re[b] : kKeep * c->re[p][b] + kCoherenceNew * re[b];
      c->im[p][b] = first ? im[b] : kKeep * c->im[p][b] + kCoherenceNew * im[b];
    }
  }
}

namespace {

// The direct share of pair p's bin b (see GccDirectShare).
float DirectShareOf(const GccCovariance& c, int p, int b) {
  const float scale = std::sqrt(c.power[kPairA[p]][b] * c.power[kPairB[p]][b]);
  if (!(scale > 0.0f)) return 0.0f;
  // The ratio that fits a coherence g made of a direct part (unit
  // magnitude, any phase) and a diffuse part of coherence d:
  // r = (d Re g - |g|^2 - sqrt(d^2 Re g^2 - d^2 |g|^2 + d^2 - 2 d Re g + |g|^2)) / (|g|^2 - 1).
  const float real = c.re[p][b] / scale, imag = c.im[p][b] / scale;
  const float g2 = std::min(real * real + imag * imag, kMaxCoherence2);
  const float d = kDiffuseCoherence[static_cast<std::size_t>(b)];
  const float root = d * d * real * real - d * d * g2 + d * d - 2.0f * d * real + g2;
  const float ratio = (d * real - g2 - std::sqrt(root > 0.0f ? root : 0.0f)) / (g2 - 1.0f);
  return ratio > 0.0f ? ratio / (1.0f + ratio) : 0.0f;
}

}  // namespace

void GccDirectShare(const GccCovariance& c, float share[kGccPairs][kGccBins]) {
  for (int p = 0; p < kGccPairs; ++p)
    for (int b = 0; b < kGccBins; ++b) share[p][b] = DirectShareOf(c, p, b);
}

float GccDirectWeights(const GccCovariance& c, const float weight[kGccBins], float direct[kGccPairs][kGccBins]) {
  float sum = 0.0f;
  for (int p = 0; p < kGccPairs; ++p)
    for (int b = 0; b < kGccBins; ++b) {
      direct[p][b] = weight[b] > 0.0f
                         ? weight[b] * (kGccDirectFloor + (1.0f - kGccDirectFloor) * DirectShareOf(c, p, b))
                         : 0.0f;
      sum += direct[p][b];
    }
  return sum;
}

void GccCrossToLags(const GccCross& cross, GccLags lags) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) {
    GccCrossToLagsAvx2(cross, lags);
    return;
  }
#endif
  GccCrossToLagsPlain(cross, lags);
}

namespace {

// The phasors at the band's first bin, and the correlations cleared.
void StartLags(float phasor_re[kGccLags], float phasor_im[kGccLags], GccLags lags) {
  for (int l = 0; l < kGccLags; ++l) {
    phasor_re[l] = kLagPhasors.start_re[l];
    phasor_im[l] = kLagPhasors.start_im[l];
  }
  for (int p = 0; p < kGccPairs; ++p)
    for (int l = 0; l < kGccLags; ++l) lags[p][l] = 0.0f;
}

// Lags [from, kGccLags): one bin's term of a pair's correlations.
void AddLagTerms(float* out, float cr, float ci, const float* phasor_re, const float* phasor_im, int from) {
  for (int l = from; l < kGccLags; ++l) out[l] += cr * phasor_re[l] - ci * phasor_im[l];
}

// Lags [from, kGccLags): the phasors turned on to the next bin.
void TurnPhasors(float* phasor_re, float* phasor_im, int from) {
  for (int l = from; l < kGccLags; ++l) {
    const float re = phasor_re[l] * kLagPhasors.step_re[l] - phasor_im[l] * kLagPhasors.step_im[l];
    const float im = phasor_re[l] * kLagPhasors.step_im[l] + phasor_im[l] * kLagPhasors.step_re[l];
    phasor_re[l] = re;
    phasor_im[l] = im;
  }
}

}  // namespace

namespace {

// Whether pair p's bin b adds anything. A bin without weight adds a zero
// term, which leaves every sum as it is (the sums start at +0, and no sum of
// nonzero terms rounds to -0), so it is skipped; the hop's onsets leave most
// bins so.
bool Counts(const GccCross& cross, int p, int b) { return cross.re[p][b] != 0.0f || cross.im[p][b] != 0.0f; }

// One past the last bin any pair counts in: the phasors need not be turned
// beyond it (onsets seldom reach the top of the band).
int CountedBins(const GccCross& cross) {
  for (int b = kGccBins; b > 0; --b)
    for (int p = 0; p < kGccPairs; ++p)
      if (Counts(cross, p, b - 1)) return b;
  return 0;
}

}  // namespace

void GccCrossToLagsPlain(const GccCross& cross, GccLags lags) {
  float phasor_re[kGccLags], phasor_im[kGccLags];
  StartLags(phasor_re, phasor_im, lags);
  const int bins = CountedBins(cross);
  for (int b = 0; b < bins; ++b) {
    for (int p = 0; p < kGccPairs; ++p)
      if (Counts(cross, p, b)) AddLagTerms(lags[p], cross.re[p][b], cross.im[p][b], phasor_re, phasor_im, 0);
    TurnPhasors(phasor_re, phasor_im, 0);
  }
}

#if defined(VORN_AVX2)
// Eight lags per vector, each lane doing the plain routine's operations in
// its order (no fused multiply-add), so the bits are the same; the lags past
// the last whole vector run the plain way.
VORN_TARGET_AVX2 void GccCrossToLagsAvx2(const GccCross& cross, GccLags lags) {
  constexpr int kVectorLags = kGccLags / 8 * 8;
  alignas(32) float phasor_re[kGccLags], phasor_im[kGccLags];
  StartLags(phasor_re, phasor_im, lags);
  const int bins = CountedBins(cross);
  for (int b = 0; b < bins; ++b) {
    for (int p = 0; p < kGccPairs; ++p) {
      if (!Counts(cross, p, b)) continue;
      const float cr = cross.re[p][b], ci = cross.im[p][b];
      const __m256 vr = _mm256_set1_ps(cr), vi = _mm256_set1_ps(ci);
      float* out = lags[p];
      for (int l = 0; l < kVectorLags; l += 8) {
        const __m256 term = _mm256_sub_ps(_mm256_mul_ps(vr, _mm256_load_ps(phasor_re + l)),
                                          _mm256_mul_ps(vi, _mm256_load_ps(phasor_im + l)));
        _mm256_storeu_ps(out + l, _mm256_add_ps(_mm256_loadu_ps(out + l), term));
      }
      AddLagTerms(out, cr, ci, phasor_re, phasor_im, kVectorLags);
    }
    for (int l = 0; l < kVectorLags; l += 8) {
      const __m256 pr = _mm256_load_ps(phasor_re + l), pi = _mm256_load_ps(phasor_im + l);
      const __m256 sr = _mm256_loadu_ps(kLagPhasors.step_re + l), si = _mm256_loadu_ps(kLagPhasors.step_im + l);
      _mm256_store_ps(phasor_re + l, _mm256_sub_ps(_mm256_mul_ps(pr, sr), _mm256_mul_ps(pi, si)));
      _mm256_store_ps(phasor_im + l, _mm256_add_ps(_mm256_mul_ps(pr, si), _mm256_mul_ps(pi, sr)));
    }
    TurnPhasors(phasor_re, phasor_im, kVectorLags);
  }
}
#endif

float GccAgreement(float score, float weight) {
  if (!(weight > 0.0f)) return 0.0f;
  const float c = (score / (kGccPairs * weight) - 0.05f) / 0.35f;
  return c < 0.0f ? 0.0f : c > 1.0f ? 1.0f : c;
}

float GccConfidence(float score, float weight) {
  if (!(weight > 0.0f)) return 0.0f;
  return GccAgreement(score, weight) * (1.0f - std::exp(-weight / kConfidentWeight));
}

namespace {

// The summed correlations at the direction whose in-plane pair delays are
// `delays`, at the height whose cosine is `factor`.
float ScoreAt(const GccLags lags, const std::array<float, kGccPairs>& delays, float factor) {
  float score = 0.0f;
  for (int p = 0; p < kGccPairs; ++p) {
    const float at = delays[p] * factor * kGccLagsPerSample + kGccLagZero;
    const int i = static_cast<int>(at);  // at > 0: the grid reaches past every delay
    const float frac = at - static_cast<float>(i);
    score += lags[p][i] + frac * (lags[p][i + 1] - lags[p][i]);
  }
  return score;
}

}  // namespace

float GccScore(const GccLags lags, int azimuth_deg, int elevation_deg) {
  return ScoreAt(lags, kPairDelays[static_cast<std::size_t>(Wrap360(azimuth_deg))],
                 kElevationFactors[static_cast<std::size_t>(elevation_deg)]);
}

void GccCoarseScores(const GccLags lags, int elevation_deg, float scores[kGccCoarseAzimuths]) {
#if defined(VORN_AVX2)
  if (CpuHasAvx2()) {
    GccCoarseScoresAvx2(lags, elevation_deg, scores);
    return;
  }
#endif
  GccCoarseScoresPlain(lags, elevation_deg, scores);
}

void GccCoarseScoresPlain(const GccLags lags, int elevation_deg, float scores[kGccCoarseAzimuths]) {
  const float factor = kElevationFactors[static_cast<std::size_t>(elevation_deg)];
  for (int a = 0; a < kGccCoarseAzimuths; ++a)
    scores[a] = ScoreAt(lags, kPairDelays[static_cast<std::size_t>(a * kGccCoarseDeg)], factor);
}

#if defined(VORN_AVX2)
// Eight azimuths per vector, each lane doing ScoreAt's operations in its
// order (the lag's whole part by truncation, as the cast does, and no fused
// multiply-add), so the bits are the same.
VORN_TARGET_AVX2 void GccCoarseScoresAvx2(const GccLags lags, int elevation_deg,
                                          float scores[kGccCoarseAzimuths]) {
  static_assert(kGccCoarseAzimuths % 8 == 0);
  const __m256 factor = _mm256_set1_ps(kElevationFactors[static_cast<std::size_t>(elevation_deg)]);
  const __m256 per_sample = _mm256_set1_ps(static_cast<float>(kGccLagsPerSample));
  const __m256 zero_lag = _mm256_set1_ps(static_cast<float>(kGccLagZero));
  for (int a = 0; a < kGccCoarseAzimuths; a += 8) {
    __m256 score = _mm256_setzero_ps();
    for (int p = 0; p < kGccPairs; ++p) {
      const __m256 delays = _mm256_loadu_ps(&kCoarseDelays[static_cast<std::size_t>(p)][static_cast<std::size_t>(a)]);
      const __m256 at = _mm256_add_ps(_mm256_mul_ps(_mm256_mul_ps(delays, factor), per_sample), zero_lag);
      const __m256i i = _mm256_cvttps_epi32(at);
      const __m256 frac = _mm256_sub_ps(at, _mm256_cvtepi32_ps(i));
      const __m256 low = _mm256_i32gather_ps(lags[p], i, 4);
      const __m256 high = _mm256_i32gather_ps(lags[p] + 1, i, 4);
      score = _mm256_add_ps(score, _mm256_add_ps(low, _mm256_mul_ps(frac, _mm256_sub_ps(high, low))));
    }
    _mm256_storeu_ps(scores + a, score);
  }
}
#endif

GccPeak GccSearch(const GccLags lags, int elevation_step_deg) {
  int best_az = 0, best_el = 0;
  float best = GccScore(lags, 0, 0);
  for (int el = 0; el <= kGccMaxElevationDeg; el += elevation_step_deg) {
    float scores[kGccCoarseAzimuths];
    GccCoarseScores(lags, el, scores);
    for (int a = 0; a < kGccCoarseAzimuths; ++a)
      if (scores[a] > best) best = scores[a], best_az = a * kGccCoarseDeg, best_el = el;
  }
  // One degree round the coarse winner, on its height and the neighbouring ones.
  int fine_az = best_az, fine_el = best_el;
  for (int el = best_el - elevation_step_deg; el <= best_el + elevation_step_deg; el += elevation_step_deg) {
    if (el < 0 || el > kGccMaxElevationDeg) continue;
    for (int az = best_az - kGccCoarseDeg + 1; az < best_az + kGccCoarseDeg; ++az)
      if (const float s = GccScore(lags, az, el); s > best) best = s, fine_az = az, fine_el = el;
  }
  const float left = GccScore(lags, fine_az - 1, fine_el);
  const float right = GccScore(lags, fine_az + 1, fine_el);
  const float curvature = left - 2.0f * best + right;
  float offset = curvature < 0.0f ? 0.5f * (left - right) / curvature : 0.0f;
  offset = offset < -0.5f ? -0.5f : offset > 0.5f ? 0.5f : offset;
  float azimuth = static_cast<float>(Wrap360(fine_az)) + offset;
  if (azimuth < 0.0f) azimuth += 360.0f;
  if (azimuth >= 360.0f) azimuth -= 360.0f;
  return {azimuth, static_cast<float>(fine_el), best};
}

float GccPeakContrast(const GccLags lags, const GccPeak& peak) {
  if (!(peak.score > 0.0f)) return 0.0f;
  float scores[kGccCoarseAzimuths];
  GccCoarseScores(lags, static_cast<int>(peak.elevation_deg), scores);
  float sum = 0.0f;
  for (int a = 0; a < kGccCoarseAzimuths; ++a) sum += scores[a];
  const float mean = sum / static_cast<float>(kGccCoarseAzimuths);
  return mean < peak.score ? (peak.score - mean) / peak.score : 0.0f;
}

bool GccMicSilent(const float mic_power[kBfChannels]) {
  // 20 dB: a microphone that quiet is dead or unplugged (a live one in the
  // same small array hears the same sound to within a few dB).
  constexpr float kSilentRatio = 0.01f;
  float sorted[kBfChannels] = {mic_power[0], mic_power[1], mic_power[2]};
  std::sort(sorted, sorted + kBfChannels);
  return sorted[0] <= kSilentRatio * sorted[1];
}

void GccMicPowers(const GccCovariance& c, float mic_power[kBfChannels]) {
  for (int m = 0; m < kBfChannels; ++m) {
    mic_power[m] = 0.0f;
    for (int b = 0; b < kGccBins; ++b) mic_power[m] += c.power[m][b];
  }
}

float GccAngleApart(float a_deg, float b_deg) {
  const float d = std::fabs(a_deg - b_deg);
  return d > 180.0f ? 360.0f - d : d;
}

}  // namespace vorn
