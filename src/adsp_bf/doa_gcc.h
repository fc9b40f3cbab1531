// The enhanced direction finder's shared steps: the hop's microphone bins,
// their weights, the phase-transformed cross-spectra of the three microphone
// pairs, the pairs' generalised cross-correlations on a grid of fractional
// lags, and the search for the direction those correlations point to.
//
// Steered response power with the phase transform is a sum over microphone
// pairs of their cross-correlations at the delays a direction implies, and
// it is linear in the cross-spectra. So evidence is pooled as the pairs'
// correlations on a lag grid (a few hundred numbers, whatever the number of
// directions searched) or, where a whole stretch is known, as the pooled
// cross-spectra, turned into correlations once. Any direction, at any
// elevation, is then scored by three interpolated look-ups.
#pragma once

#include "adsp_bf/audio_dsp_proc.h"
#include "common/cpu_avx2.h"

namespace vorn {

// Band of the evidence: 250 Hz to 6.25 kHz. Below it the 7.8 cm array sees
// almost no phase difference; above it speech carries little energy.
constexpr int kGccLowBin = 8;
constexpr int kGccHighBin = 200;
constexpr int kGccBins = kGccHighBin - kGccLowBin + 1;
constexpr int kGccPairs = 3;  // microphones (0, 1), (0, 2), (1, 2)

// Lag grid: (l - kGccLagZero) / kGccLagsPerSample samples, l = 0..kGccLags-1,
// covering the largest pair delay (3.18 samples) with a step fine enough
// for linear interpolation of a correlation band-limited to 6.25 kHz.
constexpr int kGccLagsPerSample = 10;
constexpr int kGccLagZero = 33;
constexpr int kGccLags = 68;

// The hop's band of the three microphones' Hann-windowed spectra.
struct GccBand {
  float re[kBfChannels][kGccBins];
  float im[kBfChannels][kGccBins];
};

// Pair correlations on the lag grid.
using GccLags = float[kGccPairs][kGccLags];

// Phase-transformed pair cross-spectra over the band.
struct GccCross {
  float re[kGccPairs][kGccBins];
  float im[kGccPairs][kGccBins];
};

// The band of unwindowed packed 512-point spectra (one per microphone row),
// windowed in the frequency domain with a periodic Hann window: each bin
// becomes half itself less a quarter of each neighbour.
void GccBandOf(const float spectra[kBfChannels][kBfFftLen], GccBand* band);

// Mean power over the microphones, per band bin.
void GccBandPower(const GccBand& band, float power[kGccBins]);

// The noise under the band: its mean power per bin.
struct GccNoise {
  float power[kGccBins];
};

// Follows the noise with the hop's band power. A bin within a few times the
// estimate counts as noise and is averaged in, so a steady noise is
// estimated near its mean (not at its minimum, which would let its peaks
// pass for speech); a louder bin leaves the estimate alone but for a slow
// climb, which lets it reach a noise that has grown. `learnt` counts the
// hops followed before this one: over the first few the estimate is their
// plain mean.
void GccFollowNoise(const float power[kGccBins], int learnt, GccNoise* noise);
constexpr int kGccNoiseStartHops = 10;  // hops of plain mean before the estimate is followed

// The noise's pair cross-spectra, a * conj(b) per band bin (not
// phase-transformed).
struct GccNoiseCross {
  float re[kGccPairs][kGccBins];
  float im[kGccPairs][kGccBins];
};

// The same, and the noise's cross-spectra learnt from the bins the power's
// estimate takes in, at the same pace.
void GccFollowNoise(const GccBand& band, const float power[kGccBins], int learnt, GccNoise* noise,
                    GccNoiseCross* cross);

// How coherent the learnt noise is between the microphones above 1.5 kHz:
// the pairs' squared coherence, averaged over pairs and bins. A diffuse
// field or babble reads about 0.1 there (the estimate's own scatter), a
// point noise source more, the drier the room and the louder the source
// (0.11-0.31 at 2 m in rooms of RT60 0.8-0.2 s).
float GccNoiseCoherence(const GccNoise& noise, const GccNoiseCross& cross);

// Per-bin weight of the evidence. Only onsets count: the direct sound
// reaches the array a few milliseconds before the room's reflections build
// up, so a bin whose power has risen well above its recent (smoothed) level
// carries the talker's direction, while steady and decaying sound carries
// the walls'; the steeper the rise asked for, the less of the room is in
// the bins that pass. How steep depends on what the recent level held. Up
// to 24 times the noise (three times the noise test's floor) it may be the
// noise alone, whose swings the noise test already bounds, and the bin must
// rise to `rise_over_noise` times that part; what stood above it is the room's
// sound, earlier words and their reverberation, over which a new word's
// reflections rise too, and the bin must rise to `rise_over_room` times
// that part. The weight grows with the rise and with a Wiener-like gain of
// the smoothed power over the noise, which is 0 up to 8 times the noise.
// `recent` is the smoothed power before this hop. Returns the sum of the
// weights.
float GccBinWeights(const float power[kGccBins], const GccNoise& noise, const float recent[kGccBins],
                    float rise_over_noise, float rise_over_room, float weight[kGccBins]);

// The same weights for a whole stretch, where evidence is scarce and a
// wrong vote costs less (the stretch has many): the noise test looks at the
// smoothed power summed over each bin and its two neighbours, against the
// noise summed likewise, which averages three times as many samples of the
// noise, so a margin of 4 (6 dB) lets through about as few noise bins as 8
// on one bin does, and speech 3 dB weaker counts. The rise is judged on the
// sound above the noise, which a stretch knows (it learns the noise over
// its whole length first): what the bin holds above the noise must be at
// least four times what it held above it of late. A rise out of the noise
// alone passes as it would on the whole power (the noise test is the
// stricter there), but one over the room's tail of earlier sound, or over
// a reflection of it, must stand well clear of that tail itself rather
// than of the tail and the noise together.
float GccBinWeightsPooled(const float power[kGccBins], const GccNoise& noise, const float recent[kGccBins],
                          float weight[kGccBins]);

// cross += scale * weight * the pairs' cross-spectra reduced to unit
// magnitude (bins where a microphone is silent add nothing).
void GccAddCross(const GccBand& band, const float weight[kGccBins], float scale, GccCross* cross);

// The same with a weight per pair and bin.
void GccAddCrossPairs(const GccBand& band, const float weight[kGccPairs][kGccBins], float scale, GccCross* cross);

// The same with `times` the learnt noise's cross-spectrum taken out of each
// bin before it is reduced to unit magnitude: what the noise adds to a bin
// on average, which would otherwise pull its phase toward the noise's.
void GccAddCrossPairs(const GccBand& band, const float weight[kGccPairs][kGccBins], float scale,
                      const GccNoiseCross& noise, float times, GccCross* cross);

// The microphones' powers and the pairs' products a * conj(b) per band bin,
// smoothed over recent hops (a coherence is read from them) or pooled over
// a stretch (a spatial covariance).
struct GccCovariance {
  float power[kBfChannels][kGccBins];
  float re[kGccPairs][kGccBins];
  float im[kGccPairs][kGccBins];
};

// Smooths the hop's spectra into `c` over about 80 ms; the first hop of a
// run starts it.
void GccFollowCoherence(const GccBand& band, bool first, GccCovariance* c);

// How much of each pair's bin is direct sound rather than diffuse (0..1),
// from the pair's smoothed coherence against that of a diffuse field, which
// for two omnidirectional microphones is real and a sinc of the spacing:
// the coherent-to-diffuse power ratio r, read without knowing the direction,
// gives r / (1 + r). Sound from any one direction counts as direct, a noise
// source's as much as the talker's.
void GccDirectShare(const GccCovariance& c, float share[kGccPairs][kGccBins]);

// Bin weights scaled, pair by pair, by that direct share: weight times
// (kGccDirectFloor plus the rest times the share), so that a bin the
// coherence reads as diffuse still votes a little (the coherence of a few
// hops is itself noisy). Only bins with weight are read. Returns the sum of
// the scaled weights over pairs and bins.
constexpr float kGccDirectFloor = 0.3f;
float GccDirectWeights(const GccCovariance& c, const float weight[kGccBins], float direct[kGccPairs][kGccBins]);

// lags[p][l] = sum over band bins k of Re(cross_p(k) exp(-i w_k tau_l)).
// The eight-lane AVX2 twin is taken where the processor has it; both give
// the same bits.
void GccCrossToLags(const GccCross& cross, GccLags lags);
void GccCrossToLagsPlain(const GccCross& cross, GccLags lags);
#if defined(VORN_AVX2)
void GccCrossToLagsAvx2(const GccCross& cross, GccLags lags);
#endif

// Where the pooled correlations point.
struct GccPeak {
  float azimuth_deg;    // [0, 360), refined between the 1-degree grid points
  float elevation_deg;  // the best of the searched heights (a planar array
                        // cannot tell above from below: 0..kGccMaxElevationDeg)
  float score;          // the summed correlations there
};
constexpr int kGccMaxElevationDeg = 40;

// Searches azimuth (a 5-degree pass, then 1 degree round the winner and a
// parabola through the best three) at elevations 0..40 degrees in
// `elevation_step_deg` steps (a divisor of 40).
GccPeak GccSearch(const GccLags lags, int elevation_step_deg);

// The 5-degree pass at one elevation: scores[a] is GccScore at azimuth
// kGccCoarseDeg * a. The eight-lane AVX2 twin is taken where the processor
// has it; both give the same bits.
constexpr int kGccCoarseDeg = 5;
constexpr int kGccCoarseAzimuths = 360 / kGccCoarseDeg;
void GccCoarseScores(const GccLags lags, int elevation_deg, float scores[kGccCoarseAzimuths]);
void GccCoarseScoresPlain(const GccLags lags, int elevation_deg, float scores[kGccCoarseAzimuths]);
#if defined(VORN_AVX2)
void GccCoarseScoresAvx2(const GccLags lags, int elevation_deg, float scores[kGccCoarseAzimuths]);
#endif

// How much pooled evidence agrees on its peak (0..1): the peak's score
// against the largest it could reach (every weighted bin of every pair in
// phase, `weight` being the bin weights pooled).
float GccAgreement(float score, float weight);

// The agreement, scaled down while little evidence has been pooled.
float GccConfidence(float score, float weight);

// How far the peak stands out of the score swept round the array at the
// peak's height (every 5 degrees): the peak over the sweep's mean, relative
// to the peak (0 when the peak does not stand above the mean).
float GccPeakContrast(const GccLags lags, const GccPeak& peak);

// Whether a microphone has gone silent: its power over the band
// (`mic_power`, any common scale) 20 dB or more under the middle
// microphone's. Only one pair then hears anything, and a pair cannot tell
// a source from its mirror image across the pair's axis, so the direction
// found is a guess between two.
bool GccMicSilent(const float mic_power[kBfChannels]);

// The microphones' smoothed powers summed over the band, for GccMicSilent.
void GccMicPowers(const GccCovariance& c, float mic_power[kBfChannels]);

// How far apart two azimuths in [0, 360) lie round the circle (0..180).
float GccAngleApart(float a_deg, float b_deg);

// The summed correlations at one direction (integer degrees).
float GccScore(const GccLags lags, int azimuth_deg, int elevation_deg);

}  // namespace vorn
