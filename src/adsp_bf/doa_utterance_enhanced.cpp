// Direction of a whole stretch of speech (a keyword of half a second, a
// sentence of ten), for the enhanced profile.
//
// The stretch is read until each bin's noise is settled (from the bin's
// quietest moment up, over the whole stretch, again where it is short), so
// that the last pass weighs every hop, the first ones too, against a
// settled estimate. The last pass pools the
// phase-transformed pair cross-spectra of every hop, each bin weighted by
// its onset above the noise (as the tracker weighs it, but with the noise
// test spread over neighbouring bins, which lets weaker speech count: a
// stretch has many votes, and in noise the speech rarely stands 9 dB
// clear) and each hop by how far its band stands above the noise (a
// speech-presence estimate of its own: the caller's is not known here).
// The same pass learns the noise's own phase-transformed cross-spectra from
// the bins that hold noise alone; what the noise added to the counted bins
// is then taken out (harder the more the learnt noise points one way), so
// that a steady interferer's swings above the test do not pull the answer
// toward it. Each counted bin is also weighted, pair by pair, by how much of
// it the pair hears as direct sound rather than diffuse (from the pair's
// coherence): in diffuse noise and in a room's late reverberation that keeps
// the bins whose phase the talker sets. A point noise is direct sound too, so
// the more the learnt noise points one way the less this weighting counts.
// Pooling the cross-spectra rather than per-hop scores
// gives the same steered response at the cost of one evaluation for the
// whole stretch, and keeps memory constant: a stretch of any length is used
// whole. The search covers elevations 0-40 degrees in 5-degree steps (a
// planar array hears a talker 30 degrees below as one 30 degrees above) and
// refines the azimuth between the 1-degree grid points.
//
// The onsets find the talker among the room's sources, but over a short
// stretch they are few and their peak wanders by several degrees. The same
// pass therefore pools every hop's spatial covariance, and the principal
// eigenvectors of what the noise leaves of it give a second, steadier
// answer (see doa_covariance.h). That answer alone follows whatever source
// is loudest, a point interferer as readily as the talker, so it only
// refines the onsets' answer where it lies near it: the answer moves toward
// it as far as its bins agree on its peak (as they do when a talker near
// the array is heard over diffuse babble) and as the onsets' own peak is
// blurred (where it is sharp, the onsets are the more precise).
//
// A longer stretch holds the talker's pauses too, and from them a second
// answer of its own: the hops that stand barely above the noise floor give
// the noise's spatial covariance, the others the talk's, and the talk's
// covariance whitened by the noise's points at the talker whatever the
// noise is (see doa_covariance.h): a point interferer louder than the talker
// in every bin, which the onsets' noise removal only partly takes out, is
// whitened away. Its evidence is pooled with the onsets', each per unit of
// its weight and in proportion to how well its own bins agree.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "adsp_bf/doa_covariance.h"
#include "adsp_bf/doa_tracker_enhanced.h"
#include "common/adsp_common_fft_rel.h"
#include "common/fft_rel_lanes.h"

namespace vorn {
namespace {

constexpr float kRecentKeep = 0.5f;
// The noise follower runs over the stretch, as many times as it takes,
// for at least this many hops (2 s): from a start at the quietest moment it
// needs a few dozen hops of noise to settle.
constexpr int kSettleHops = 128;
constexpr int kElevationStep = 5;
// Band SNR (power over floor) at which a hop starts to count, and at which
// it counts fully. With the talker as loud as the noise the talk's hops
// stand only 2-3 times over the floor, and a gate from twice the floor kept
// most of them out. Over a stretch of a second or more every hop above the
// floor counts, in proportion to how far it stands above it: the 10 s
// search at 0 dB, on the bench grid's two draws and on two more (--draw
// 13100,13700,29,59,5,140 and 17100,17700,11,47,2,200), found 92, 67, 58
// and 42 % of talkers within 10 degrees gated from 2 to 8 times the floor,
// 92, 67, 75 and 58 % from 1 to 6. Over a shorter stretch (a keyword) the
// hops barely above the floor are as many as the talker's own and would
// move its few onsets' peak, so a hop counts from 1.2 times the floor
// (keyword mean errors 5.8, 12.3, 10.0 and 12.5 degrees before, 5.1, 9.5,
// 7.3 and 11.4 with this gate).
constexpr float kHopSnrLow = 1.0f, kHopSnrHigh = 6.0f;
constexpr float kShortHopSnrLow = 1.2f, kShortHopSnrHigh = 5.0f;
// A bin under kNoiseLike times the noise is taken as noise alone when the
// noise's cross-spectrum is learnt. Its part in a counted bin is removed
// more than once over: the noise's share of a counted bin's power (noise
// over power) understates it, the bin having been counted because it stood
// high, and the more so the steeper the rise a counted bin needs. How much
// more depends on what the learnt cross-spectrum is. When it points one
// way as firmly as a lone source's direct sound does (its agreement,
// searched as the talker's evidence is, near kPointAgreement), it is the
// noise's and is removed kNoiseRemovedPoint times over. When it is loose
// (diffuse noise, babble, or a source heard mostly through the room's
// reflections: agreement at kLooseAgreement or below) the noise-like bins
// also hold the talker's own reverberant sound, which the learnt
// cross-spectrum then partly points toward; removing it as hard takes the
// talker's evidence with it, so it is removed kNoiseRemovedLoose times.
// Between the two the factor follows the agreement linearly.
constexpr float kNoiseLike = 2.0f;
constexpr float kNoiseRemovedLoose = 2.0f;
constexpr float kNoiseRemovedPoint = 3.0f;
constexpr float kLooseAgreement = 0.6f;
constexpr float kPointAgreement = 0.9f;

// The evidence weighted by each pair's direct share (GccDirectWeights) is
// pooled apart from the unweighted one and the two are mixed by the learnt
// noise's agreement: all of the weighted below kDiffuseAgreement (diffuse
// noise and babble measure 0.06-0.26 there), none of it from
// kLooseAgreement on, where a noise source's own direct sound would gain as
// much as the talker's.
constexpr float kDiffuseAgreement = 0.3f;

// The evidence can agree well and still not tell directions apart: bins
// below about 1 kHz see phase differences across this small array too
// small to change much with azimuth, so a stretch whose counted bins are
// all low (diffuse noise in a reverberant room leaves little else) scores
// nearly the same all round, and its peak is as much the noise's as the
// talker's. The confidence is therefore also scaled by how far the peak
// stands out of the score swept round the array: a contrast of
// kFlatContrast or less (measured 1-1.3 % on such stretches, some of them
// wrong by half a circle) gives nothing, one of kSharpContrast or more
// (stretches holding speech above 1 kHz: 2.3-4 % in diffuse noise and
// reverberation, 20-40 % in a quiet or babbling room) leaves the
// agreement's figure as it is; linear between.
constexpr float kFlatContrast = 0.01f;
constexpr float kSharpContrast = 0.03f;

// Over a stretch shorter than kShortHops (a second) the covariance's answer
// refines the onsets' where it lies within kRefineNearDeg of it and its
// peak stands out of the sweep round the array by kRefineContrast or more.
// Over half a second of diffuse noise at 0 dB few onsets count and their
// peak can wander 25-30 degrees, which the covariance's answer corrects;
// one the covariance takes from a point interferer (100 degrees or more
// from the talker) lands 70 degrees or more from the onsets', so the limit
// sits between. How far the answer moves toward the covariance's depends
// on how far each can be trusted:
// - the covariance's bins must agree on its peak: it counts not at all
//   where the peak scores kRefineLoose of the most it could, fully from
//   kRefineFirm. Reverberant rooms with noise leave bins that disagree
//   (0.45-0.53), and there the covariance's answer and the onsets' were
//   each the nearer about as often; a talker in diffuse noise or babble
//   gives 0.52-0.81;
// - the onsets' own peak must not stand out sharply (a contrast from
//   kOnsetsFlat, where the covariance counts fully, up to kOnsetsSharp,
//   where it counts not at all). A sharp peak comes from onsets that stand
//   clear of the noise, and they are precise; the covariance would only
//   blend in the talker's coherent early reflections (the eigenvector
//   mixes the two directions), which in reverberant rooms at 20 dB moved
//   keywords 5-8 degrees off where the onsets erred by 0-3.
// Between those limits the answer moves that share of the way. On the
// bench grid's two draws and two more (--draw 13100,13700,29,59,5,140 and
// 17100,17700,11,47,2,200) the keyword's mean error went from 5.1, 9.5,
// 7.3 and 11.4 degrees (taking the covariance's answer whole from an
// agreement of 0.54, whatever the onsets' peak) to 4.8, 8.6, 6.8 and 10.9,
// at 20 dB from 3.9, 3.6, 2.2 and 3.9 to 2.5, 1.7, 1.2 and 2.5.
//
// A longer stretch never swaps the onsets' answer for this one: its onsets
// are many and already precise, and a strong early reflection, coherent
// with the direct sound, is not split off by the covariance (the
// eigenvector blends the two directions, up to 20 degrees from the talker
// for a reflection 1 dB down), while the onsets resist it (the whitened
// answer it pools instead is held back for the same reason where the noise
// is quiet). The noise's covariance, learnt from the bins that hold noise
// alone, is taken out kCovarianceNoiseRemoved times: those bins are the
// quieter ones, and also hold some of the talker's own reverberant sound,
// which a full removal would take from the talker's bins.
constexpr int kShortHops = 62;
constexpr float kRefineNearDeg = 45.0f;
constexpr float kRefineContrast = 0.1f;
constexpr float kRefineLoose = 0.48f;
constexpr float kRefineFirm = 0.56f;
constexpr float kOnsetsFlat = 0.4f;
constexpr float kOnsetsSharp = 0.7f;
constexpr float kCovarianceNoiseRemoved = 0.5f;

// Over a longer stretch a hop whose band stands under kPauseSnr times the
// noise floor is taken as a pause in the talk (the floor is the noise's
// mean, and speech lifts the band well past half as much again), the rest
// as talk. The whitened answer needs kMinPauseHops of pauses (a quarter of
// a second) to learn the noise's covariance from. It counts in proportion
// to how well its bins agree, and less still, down to nothing:
// - where they agree loosely (from kWhitenedFirm down to kWhitenedLoose):
//   babble whose talkers took turns otherwise in the pauses than in the talk
//   leaves one of them standing after the whitening, and such an answer,
//   agreeing at 0.32-0.38, erred by 41 and 61 degrees;
// - where its peak barely stands out of the sweep round the array (a
//   contrast from kWhitenedSharp down to kWhitenedFlat): in reverberant
//   rooms whose pauses still hold the talk's tail the whitening takes part
//   of the talker out with the noise, and two such flat answers pulled the
//   search 86 and 159 degrees aside;
// - where the pauses are quiet against the talk (a power ratio from
//   kNoisyPauses down to kQuietPauses, 13 to 17 dB down): there the onsets
//   stand clear of the noise, and the whitened answer would only add the
//   talker's coherent reflections, which the principal eigenvector blends
//   with the direct sound (a reflection 40 ms late and nearly as loud pulled
//   the search 15 degrees).
// On the bench grid's two draws and two more rendered with other seeds
// (--draw 13100,13700,29,59,5,140 and 17100,17700,11,47,2,200), pooling it
// took the 10 s search at 0 dB from 92, 67, 75 and 58 % of talkers within
// 10 degrees to 92, 83, 92 and 83 %, and its mean error there from 6.4,
// 9.3, 22.8 and 10.7 degrees to 2.8, 5.8, 7.1 and 6.3: a point interferer
// that drew the onsets' peak 30 degrees and more aside no longer does.
// Splitting at 1.2 or 2 times the floor did worse.
constexpr float kPauseSnr = 1.5f;
constexpr int kMinPauseHops = 16;
constexpr float kWhitenedLoose = 0.35f;
constexpr float kWhitenedFirm = 0.55f;
constexpr float kWhitenedFlat = 0.1f;
constexpr float kWhitenedSharp = 0.3f;
constexpr float kQuietPauses = 0.02f;
constexpr float kNoisyPauses = 0.05f;

// The unwindowed spectra of hop h's 512-sample frame, microphone rows in order.
void FrameBand(const short* inp, const short order[kBfChannels], int hop, GccBand* band) {
  float spectra[kBfChannels][kBfFftLen];
  const short* frame = inp + static_cast<long>(hop) * kBfHop * kBfChannels;
  for (int m = 0; m < kBfChannels; ++m)
    for (int n = 0; n < kBfFftLen; ++n) spectra[m][n] = static_cast<float>(frame[kBfChannels * n + order[m]]);
  float* const blocks[kBfChannels] = {spectra[0], spectra[1], spectra[2]};
  FftRelLanes(blocks, kBfChannels, kBfFftLen, kBfFftOrder);
  GccBandOf(spectra, band);
}

// 0 at or below `from`, 1 at or above `to`, linear between.
float Ramp(float x, float from, float to) {
  const float t = (x - from) / (to - from);
  return t < 0.0f ? 0.0f : t > 1.0f ? 1.0f : t;
}

// Where pooled evidence points, and how far that peak stands out of the
// sweep round the array.
struct Clarity {
  GccPeak peak;
  float contrast;
};
Clarity ClarityOf(const GccCross& cross) {
  GccLags lags;
  GccCrossToLags(cross, lags);
  const GccPeak peak = GccSearch(lags, kElevationStep);
  return {peak, GccPeakContrast(lags, peak)};
}

// The share of the most it could score that evidence of pooled weight
// `weight` scores at its peak.
float ShareOfMost(const Clarity& clarity, float weight) { return clarity.peak.score / (kGccPairs * weight); }

// How firmly the noise's learnt cross-spectrum points one way (0 when no
// bin was learnt).
float NoiseAgreement(const GccCross& noise_cross, const float noise_hops[kGccBins]) {
  float learnt = 0.0f;
  for (int b = 0; b < kGccBins; ++b) learnt += noise_hops[b];
  if (!(learnt > 0.0f)) return 0.0f;
  return GccAgreement(ClarityOf(noise_cross).peak.score, learnt);
}

// The onsets' azimuth over a short stretch, moved toward the covariance
// evidence's as far as the two can be trusted (see kShortHops).
float Refined(const Clarity& onsets, const GccCovariance& pooled, const GccCovariance& noise,
              const float noise_hops[kGccBins], int hops) {
  float noise_scale[kGccBins];
  for (int b = 0; b < kGccBins; ++b)
    noise_scale[b] = noise_hops[b] > 0.0f ? kCovarianceNoiseRemoved * static_cast<float>(hops) / noise_hops[b] : 0.0f;
  GccCross cross{};
  const float weight = GccAddPrincipal(pooled, noise, noise_scale, &cross);
  const float from = onsets.peak.azimuth_deg;
  if (!(weight > 0.0f)) return from;
  const Clarity clarity = ClarityOf(cross);
  const float to = clarity.peak.azimuth_deg;
  if (GccAngleApart(to, from) > kRefineNearDeg || clarity.contrast < kRefineContrast) return from;
  const float share = Ramp(ShareOfMost(clarity, weight), kRefineLoose, kRefineFirm) *
                      (1.0f - Ramp(onsets.contrast, kOnsetsFlat, kOnsetsSharp));
  // The signed way round from the onsets' answer to the covariance's.
  const float azimuth = from + share * std::remainder(to - from, 360.0f);
  return azimuth < 0.0f ? azimuth + 360.0f : azimuth >= 360.0f ? azimuth - 360.0f : azimuth;
}

// Mean power per hop over the band and the microphones.
double BandPowerPerHop(const GccCovariance& c, float hops) {
  double sum = 0.0;
  for (int m = 0; m < kBfChannels; ++m)
    for (int b = 0; b < kGccBins; ++b) sum += c.power[m][b];
  return sum / hops;
}

// Pools the whitened answer's evidence into the onsets' (`cross`, of pooled
// weight `weight`), each per unit of its weight and in proportion to how
// well its own bins agree, the whitened one less where that agreement is
// loose, its peak flat or the pauses quiet (see kWhitenedLoose). The result
// keeps the onsets' pooled weight.
void PoolWhitened(const GccCovariance& talk, float talk_hops, const GccCovariance& pauses, float pause_hops,
                  float weight, GccCross* cross) {
  GccCross whitened{};
  const float whitened_weight = GccAddWhitenedPrincipal(talk, talk_hops, pauses, pause_hops, &whitened);
  if (!(whitened_weight > 0.0f)) return;
  const Clarity clarity = ClarityOf(whitened);
  const float agreement = ShareOfMost(clarity, whitened_weight);
  const float pauses_to_talk =
      static_cast<float>(BandPowerPerHop(pauses, pause_hops) / BandPowerPerHop(talk, talk_hops));
  const float share = agreement * Ramp(agreement, kWhitenedLoose, kWhitenedFirm) *
                      Ramp(clarity.contrast, kWhitenedFlat, kWhitenedSharp) *
                      Ramp(pauses_to_talk, kQuietPauses, kNoisyPauses);
  if (!(share > 0.0f)) return;
  const float onsets = std::max(0.0f, ShareOfMost(ClarityOf(*cross), weight));
  const float onsets_gain = onsets / (onsets + share);
  const float whitened_gain = share / (onsets + share) * weight / whitened_weight;
  for (int p = 0; p < kGccPairs; ++p)
    for (int b = 0; b < kGccBins; ++b) {
      cross->re[p][b] = onsets_gain * cross->re[p][b] + whitened_gain * whitened.re[p][b];
      cross->im[p][b] = onsets_gain * cross->im[p][b] + whitened_gain * whitened.im[p][b];
    }
}

}  // namespace

DoaTrack DoaUtteranceEnhanced(const short* inp, const short order[kBfChannels], int samples_per_channel) {
  if (samples_per_channel < kBfFftLen) return {0.0f, 0.0f, false};
  const int hops = (samples_per_channel - kBfFftLen) / kBfHop + 1;

  // The noise estimate is settled over the stretch before any evidence is
  // weighted by it. A stretch often opens with the talk (a keyword handed
  // over by a detector), and a follower started on its first hops takes the
  // first syllable for noise and, over half a second, never unlearns it: in
  // babble as loud as the talker the talker's bins then rarely stand clear
  // and the keyword's direction goes to the babble. So a first pass finds
  // each bin's quietest moment (its power smoothed over neighbouring hops),
  // and the follower starts there and rises, averaging in what stays near
  // its estimate, toward the noise of the pauses whatever the stretch opens
  // with; a short stretch is followed over again until it settles. A bin
  // silent at its quietest (zero samples) starts from a follower run the
  // usual way instead, since an estimate of zero never rises.
  GccNoise noise{}, quietest;
  GccBand band;
  float power[kGccBins], smoothed[kGccBins];
  for (int h = 0; h < hops; ++h) {
    FrameBand(inp, order, h, &band);
    GccBandPower(band, power);
    GccFollowNoise(power, h, &noise);
    for (int b = 0; b < kGccBins; ++b) {
      smoothed[b] = h == 0 ? power[b] : kRecentKeep * smoothed[b] + (1.0f - kRecentKeep) * power[b];
      if (h == 0 || smoothed[b] < quietest.power[b]) quietest.power[b] = smoothed[b];
    }
  }
  for (int b = 0; b < kGccBins; ++b)
    if (quietest.power[b] > 0.0f) noise.power[b] = quietest.power[b];
  const int rounds = (kSettleHops + hops - 1) / hops;
  for (int r = 0; r < rounds; ++r)
    for (int h = 0; h < hops; ++h) {
      FrameBand(inp, order, h, &band);
      GccBandPower(band, power);
      GccFollowNoise(power, kGccNoiseStartHops + h, &noise);
    }

  const bool short_stretch = hops < kShortHops;
  GccCross cross{}, direct{}, noise_cross{};
  GccCovariance coherence;
  // Over a short stretch: every hop's covariance, and the noise-like bins'.
  // Over a longer one: the talk's hops' and the pauses'.
  GccCovariance pooled_cov{}, noise_cov{};
  float pause_hops = 0.0f;
  float recent[kGccBins], weight[kGccBins], noise_like[kGccBins], direct_weight[kGccPairs][kGccBins];
  float noise_hops[kGccBins] = {}, noise_share[kGccBins] = {}, direct_noise_share[kGccPairs][kGccBins] = {};
  float pooled_weight = 0.0f, pooled_direct = 0.0f;
  for (int h = 0; h < hops; ++h) {
    FrameBand(inp, order, h, &band);
    GccBandPower(band, power);
    GccFollowCoherence(band, h == 0, &coherence);
    if (h == 0) std::memcpy(recent, power, sizeof recent);
    const float bin_sum = GccBinWeightsPooled(power, noise, recent, weight);
    float band_power = 0.0f, band_floor = 0.0f;
    for (int b = 0; b < kGccBins; ++b) band_power += power[b], band_floor += noise.power[b];
    const float snr = band_floor > 0.0f ? band_power / band_floor : kHopSnrHigh;
    const float hop_gate =
        short_stretch ? Ramp(snr, kShortHopSnrLow, kShortHopSnrHigh) : Ramp(snr, kHopSnrLow, kHopSnrHigh);
    if (hop_gate > 0.0f && bin_sum > 0.0f) {
      GccAddCross(band, weight, hop_gate, &cross);
      pooled_weight += hop_gate * bin_sum;
      for (int b = 0; b < kGccBins; ++b)
        if (weight[b] > 0.0f) noise_share[b] += hop_gate * weight[b] * std::min(1.0f, noise.power[b] / power[b]);
      const float direct_sum = GccDirectWeights(coherence, weight, direct_weight);
      for (int p = 0; p < kGccPairs; ++p)
        for (int b = 0; b < kGccBins; ++b)
          if (const float w = direct_weight[p][b]; w > 0.0f)
            direct_noise_share[p][b] += hop_gate * w * std::min(1.0f, noise.power[b] / power[b]);
      GccAddCrossPairs(band, direct_weight, hop_gate, &direct);
      pooled_direct += hop_gate * direct_sum * (1.0f / kGccPairs);
    }
    for (int b = 0; b < kGccBins; ++b) {
      noise_like[b] = power[b] < kNoiseLike * noise.power[b] ? 1.0f : 0.0f;
      noise_hops[b] += noise_like[b];
    }
    GccAddCross(band, noise_like, 1.0f, &noise_cross);
    if (short_stretch) {
      GccAddCovariance(band, nullptr, &pooled_cov);
      GccAddCovariance(band, noise_like, &noise_cov);
    } else if (snr < kPauseSnr) {
      GccAddCovariance(band, nullptr, &noise_cov);
      pause_hops += 1.0f;
    } else {
      GccAddCovariance(band, nullptr, &pooled_cov);
    }
    for (int b = 0; b < kGccBins; ++b) recent[b] = kRecentKeep * recent[b] + (1.0f - kRecentKeep) * power[b];
  }
  if (!(pooled_weight > 0.0f)) return {0.0f, 0.0f, false};
  // What the noise put into the pooled bins: its mean phase-transformed
  // cross-spectrum, times the share of each counted bin's power it held.
  const float agreement = NoiseAgreement(noise_cross, noise_hops);
  const float removed =
      kNoiseRemovedLoose + Ramp(agreement, kLooseAgreement, kPointAgreement) * (kNoiseRemovedPoint - kNoiseRemovedLoose);
  for (int b = 0; b < kGccBins; ++b) {
    if (!(noise_hops[b] > 0.0f)) continue;
    const float scale = removed * noise_share[b] / noise_hops[b];
    for (int p = 0; p < kGccPairs; ++p) {
      const float scale_direct = removed * direct_noise_share[p][b] / noise_hops[b];
      cross.re[p][b] -= scale * noise_cross.re[p][b];
      cross.im[p][b] -= scale * noise_cross.im[p][b];
      direct.re[p][b] -= scale_direct * noise_cross.re[p][b];
      direct.im[p][b] -= scale_direct * noise_cross.im[p][b];
    }
  }
  // The two pools, each per unit of its weight, mixed; the weight the
  // confidence reads is mixed likewise.
  const float mix = 1.0f - Ramp(agreement, kDiffuseAgreement, kLooseAgreement);
  const float mixed_weight = (1.0f - mix) * pooled_weight + mix * pooled_direct;
  const float plain_gain = mixed_weight * (1.0f - mix) / pooled_weight, direct_gain = mixed_weight * mix / pooled_direct;
  for (int p = 0; p < kGccPairs; ++p)
    for (int b = 0; b < kGccBins; ++b) {
      cross.re[p][b] = plain_gain * cross.re[p][b] + direct_gain * direct.re[p][b];
      cross.im[p][b] = plain_gain * cross.im[p][b] + direct_gain * direct.im[p][b];
    }
  pooled_weight = mixed_weight;
  if (!short_stretch && pause_hops >= kMinPauseHops && pause_hops < static_cast<float>(hops))
    PoolWhitened(pooled_cov, static_cast<float>(hops) - pause_hops, noise_cov, pause_hops, pooled_weight, &cross);
  const Clarity clarity = ClarityOf(cross);
  const GccPeak& peak = clarity.peak;
  const float sharpness = Ramp(clarity.contrast, kFlatContrast, kSharpContrast);
  float mic_power[kBfChannels];
  GccMicPowers(pooled_cov, mic_power);
  if (!short_stretch) {
    float pause_power[kBfChannels];
    GccMicPowers(noise_cov, pause_power);
    for (int m = 0; m < kBfChannels; ++m) mic_power[m] += pause_power[m];
  }
  const float trust = GccMicSilent(mic_power) ? 0.0f : 1.0f;
  return {short_stretch ? Refined(clarity, pooled_cov, noise_cov, noise_hops, hops) : peak.azimuth_deg,
          GccConfidence(peak.score, pooled_weight) * sharpness * trust, true};
}

}  // namespace vorn
