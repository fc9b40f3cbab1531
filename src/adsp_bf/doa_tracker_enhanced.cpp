// Tracks the talker's azimuth from hops that carry the talker, for a product
// that steers a beam or a camera by it.
//
// Each hop's evidence is the steered response of the phase-transformed pair
// cross-spectra of the bins that stand well above the noise and have just
// risen (onsets: the direct sound reaches the array before the room's
// reverberation builds up, so rising bins point at the talker and decaying
// ones at the walls), each pair's bin weighted by how much of it the pair
// hears as direct sound rather than diffuse (from its coherence over the
// last hops: an onset over a room still ringing, or over diffuse noise,
// holds much of either, which can hold a reverberant room's direction 10
// degrees or more off), the whole hop weighted by the speech presence and by
// the far end's silence, held over its echo tail. An onset counts when its
// bin has at least tripled: a mere doubling is too often the room's or the
// noise's own swing, and over what the room still rings with of earlier
// words, where it stands well clear of the noise, it must quadruple, as
// their reflections rise with it. The presence rises a hop or two after a
// word's first onsets, the clearest it has; those wait a few hops and count
// once the presence vouches for the talker. Those rises are the test where
// the noise comes from one place; in a diffuse noise (babble too), on a hop
// where they find onsets, the hop's bins are judged as a whole stretch
// judges them, which lets weaker speech count (see BinWeights). The
// noise's pair cross-spectra, learnt alongside its power, tell the two
// apart, and what the noise adds to a bin on average is taken out before
// the bin's phase is read. Evidence is pooled as pair
// correlations, which pool directions as vectors do: 355 and 5 degrees
// average to 0, never 180. Outside speech nothing changes, so the direction
// holds through pauses.
//
// Two pools keep the evidence. The slow one, which gives the reported
// direction, forgets by evidence rather than by time (a hop adds its bin
// weights and the pool shrinks so as to hold about a fixed amount), so a
// talker who stands still in noise keeps being averaged over many onsets.
// The fast one holds less and also forgets with time, about a quarter
// second of speech; when it keeps pointing elsewhere the slow one restarts
// from it, so a talker who walks is followed, within a second where the
// onsets come often enough. The farther off it points, up to a walk's
// worth, the less of that evidence a restart takes: a walking talker soon
// leaves the slow pool well behind, while a room's swings seldom reach as
// far. A restart finds the talker mid-walk, so for about a second of speech
// after it the slow pool is the fast one, short memory, forgetting with
// time, and all: where the walk ends the direction settles on the new place
// instead of averaging in the path that led there. Short memory may end
// before the walk does, and the slow pool then trails the talker by less
// than a restart asks for; for a while after a restart's short memory,
// a fast pool that keeps to one side of the slow one, however near, over
// several words has a talker still moving, and the slow pool restarts from
// it too, for a shorter memory.
#include "adsp_bf/doa_tracker_enhanced.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vorn {
namespace {

constexpr float kRecentKeep = 0.5f;  // smoothing of the band power from hop to hop
constexpr int kWarmUpHops = 16;      // the noise's first quarter second
// The pools hold about this much bin weight: the slow one a second or two
// of clear speech, the fast one a third of that.
constexpr float kSlowEvidence = 150.0f;
constexpr float kFastEvidence = 40.0f;
// The fast pool also forgets with time: a quarter second of speech.
constexpr float kFastSpeechHops = 16.0f;
// The fast pool must disagree by this much, with its evidence this much in
// agreement, for this much evidence, before the slow one restarts from it.
// The agreement is judged whatever the amount of evidence the fast pool
// holds: in noise it holds little, and a talker who walks there must still
// be followed.
constexpr float kMovedDeg = 20.0f;
constexpr float kMoveAgreement = 0.25f;
constexpr float kMoveEvidence = 3.5f;
// Past kMovedDeg, evidence counts towards a restart as many times over as
// the pools are kMovedDeg apart, up to this many, while they are no more
// than kWalkedDeg apart: a talker who walks leaves the slow pool behind a
// little at a time, while a fast pool that points farther off at once holds
// a hop or two of noise or of the room as often as a talker.
constexpr float kMostVotes = 2.0f;
constexpr float kWalkedDeg = 60.0f;
// Hops with evidence, after a restart, over which the slow pool forgets as
// the fast one does: about a second of speech.
constexpr int kMovingHops = 40;
// Over this many hops with evidence once a restart's short memory has run
// out, a fast pool that stays at least kAsideDeg to one side of the slow one
// for kAsideEvidence of evidence restarts it, with kAsideMovingHops of short
// memory. Only then: for a talker standing still, each word's reflections
// lean the fast pool its own way for a while.
constexpr int kAsideHops = 80;
constexpr float kAsideDeg = 8.0f;
constexpr float kAsideEvidence = 10.0f;
constexpr int kAsideMovingHops = 20;
// The rises over its recent level that make a bin an onset: over the part
// of that level the noise may account for, and over the room's sound above
// it.
constexpr float kRiseOverNoise = 3.0f;
constexpr float kRiseOverRoom = 4.0f;
// In a diffuse noise (babble too) the onsets are judged as a stretch judges
// them (see GccBinWeightsPooled): at 5 dB the hop's own test leaves a
// reverberant room's talker so few bins, mostly below 1 kHz, that the
// direction they pool to sits 10-15 degrees off. A point noise source
// would pass that test as readily as the talker, so where the learnt
// noise is coherent (GccNoiseCoherence from kDiffuseNoiseCoherence; diffuse
// noise and babble read 0.08-0.13, a point source at 2 m 0.11-0.31) the
// hop's own test stays. The stretch's test is taken only on hops where the
// hop's own finds onsets: taken on every hop it found evidence on most of
// them, and the two searches each such hop runs cost more than the classic
// tracker's whole hop.
constexpr float kDiffuseNoiseCoherence = 0.14f;
// What the noise adds to an onset's bin on average is taken out twice
// over before the phase is read: the bin counted because it stood high,
// so its noise was likely above its mean too.
constexpr float kNoiseRemoved = 2.0f;
// Onsets the presence did not vouch for keep this much of their weight per
// hop while they wait (a few hops), and are taken once it vouches for a hop
// at least this much.
constexpr float kWaitingKeep = 0.3f;
constexpr float kVouched = 0.5f;
constexpr int kEchoTailHops = 16;        // 256 ms, a room's echo tail
constexpr int kTrackElevationStep = 20;  // heights 0, 20 and 40 degrees
constexpr int kPooledElevationStep = 5;

// How much of the fast pool a hop keeps: enough that the pool holds about
// kFastEvidence of bin weight, and no more than it would keep to remember
// kFastSpeechHops hops of speech, so that sparse evidence (noise, distance)
// does not stretch its memory over seconds.
float FastKeep(float evidence, float hop_gate) {
  const float by_evidence = kFastEvidence / (kFastEvidence + evidence);
  const float by_time = 1.0f - hop_gate / kFastSpeechHops;
  return by_evidence < by_time ? by_evidence : by_time;
}

void Fade(GccLags pool, float* pool_weight, float keep) {
  for (int p = 0; p < kGccPairs; ++p)
    for (int l = 0; l < kGccLags; ++l) pool[p][l] *= keep;
  *pool_weight *= keep;
}

void Pool(GccLags pool, float* pool_weight, const GccLags hop, float hop_weight, float keep) {
  for (int p = 0; p < kGccPairs; ++p)
    for (int l = 0; l < kGccLags; ++l) pool[p][l] = keep * pool[p][l] + hop[p][l];
  *pool_weight = keep * *pool_weight + hop_weight;
}

// The hop's bin weights: the hop's own test, or, where it finds onsets in
// a diffuse noise, the stretch's more lenient one.
float BinWeights(const float power[kGccBins], const GccNoise& noise, const GccNoiseCross& noise_cross,
                 const float previous[kGccBins], float weight[kGccBins]) {
  const float strict = GccBinWeights(power, noise, previous, kRiseOverNoise, kRiseOverRoom, weight);
  if (strict > 0.0f && GccNoiseCoherence(noise, noise_cross) < kDiffuseNoiseCoherence)
    return GccBinWeightsPooled(power, noise, previous, weight);
  return strict;
}

// The hop's onsets, each pair's bins weighted by their direct share and
// cleared of the noise's mean cross-spectrum, as pair correlations scaled
// by `open`; returns their bin weight per pair (0, and `lags` untouched,
// when none).
float Onsets(const GccBand& band, const float power[kGccBins], const GccNoise& noise, const GccNoiseCross& noise_cross,
             const float previous[kGccBins], const GccCovariance& coherence, float open, GccLags lags) {
  float weight[kGccBins];
  if (!(BinWeights(power, noise, noise_cross, previous, weight) > 0.0f)) return 0.0f;
  float direct[kGccPairs][kGccBins];
  const float sum = GccDirectWeights(coherence, weight, direct);
  GccCross cross{};
  GccAddCrossPairs(band, direct, open, noise_cross, kNoiseRemoved, &cross);
  GccCrossToLags(cross, lags);
  return open * sum * (1.0f / kGccPairs);
}

// +1 when azimuth `a_deg` lies ahead of `b_deg` round the circle (the
// shorter way), -1 otherwise.
float SideOf(float a_deg, float b_deg) {
  const float d = a_deg - b_deg;
  return (d >= 0.0f) == (std::fabs(d) <= 180.0f) ? 1.0f : -1.0f;
}

// Counts the hop's evidence towards a restart while the fast pool keeps to
// one side of the slow one, at least kAsideDeg off (`apart`); a hop nearer
// or on the other side starts the count again. True when it is due.
bool KeepsAside(TDoaTrackerEnhanced* t, float apart, float side, float evidence) {
  if (apart < kAsideDeg) {
    t->aside_votes = 0.0f;
  } else if (side == t->aside_sign) {
    t->aside_votes += evidence;
  } else {
    t->aside_sign = side;
    t->aside_votes = evidence;
  }
  return t->aside_votes >= kAsideEvidence;
}

// Forms the hop's evidence from its onsets (weight `found`,
// 0 when none) and what waits: the presence's share of the onsets counts
// now, as does, once the presence vouches clearly, its share of what waits;
// the rest of the onsets joins what waits. Returns the evidence's weight.
float Vouch(DoaWaiting* waiting, const GccLags onsets, float found, float presence, GccLags hop) {
  const float release = presence >= kVouched ? presence : 0.0f;
  for (int p = 0; p < kGccPairs; ++p)
    for (int l = 0; l < kGccLags; ++l) {
      hop[p][l] = release * waiting->lags[p][l];
      waiting->lags[p][l] *= (1.0f - release) * kWaitingKeep;
    }
  float evidence = release * waiting->weight;
  waiting->weight *= (1.0f - release) * kWaitingKeep;
  if (found > 0.0f) {
    for (int p = 0; p < kGccPairs; ++p)
      for (int l = 0; l < kGccLags; ++l) {
        hop[p][l] += presence * onsets[p][l];
        waiting->lags[p][l] += (1.0f - presence) * onsets[p][l];
      }
    evidence += presence * found;
    waiting->weight += (1.0f - presence) * found;
  }
  return evidence;
}

// Whether a microphone has gone silent over the last few hops (see
// GccMicSilent).
bool OneMicSilent(const GccCovariance& coherence) {
  float mic_power[kBfChannels];
  GccMicPowers(coherence, mic_power);
  return GccMicSilent(mic_power);
}

}  // namespace

void DoaTrackerInit(TDoaTrackerEnhanced* t) { std::memset(t, 0, sizeof(*t)); }

DoaTrack DoaTrackerHop(TDoaTrackerEnhanced* t, const float spectra[kBfChannels][kBfFftLen], const DoaHopCues& cues) {
  GccBand band;
  GccBandOf(spectra, &band);
  float power[kGccBins];
  GccBandPower(band, power);

  // The first hop's frame is half silence; the noise is learnt from the
  // second on, and no evidence is taken until it has had a quarter second.
  if (t->hops == 0) {
    ++t->hops;
    return {t->azimuth_deg, t->confidence, false};
  }
  if (t->hops == 1) std::memcpy(t->recent_power, power, sizeof power);
  GccFollowCoherence(band, t->hops == 1, &t->coherence);
  float previous[kGccBins];
  std::memcpy(previous, t->recent_power, sizeof previous);
  for (int b = 0; b < kGccBins; ++b)
    t->recent_power[b] = kRecentKeep * t->recent_power[b] + (1.0f - kRecentKeep) * power[b];
  GccFollowNoise(band, power, t->hops - 1, &t->noise, &t->noise_cross);
  const bool warm = t->hops > kWarmUpHops;
  if (t->hops < 1000000) ++t->hops;

  // The far end's activity is held at its peak for the echo's tail after it
  // falls.
  const float far_now = cues.reference_audible ? cues.far_activity : 0.0f;
  if (far_now >= t->far_hold) {
    t->far_hold = far_now;
    t->far_tail_hops = kEchoTailHops;
  } else if (t->far_tail_hops > 0) {
    --t->far_tail_hops;
  } else {
    t->far_hold = far_now;
  }
  // The hop may carry the talker unless the caller holds the direction or
  // the far end plays; how much it does is the speech presence's word.
  const float open = cues.update_allowed && warm ? 1.0f - t->far_hold : 0.0f;
  const float hop_gate = open * cues.presence;
  if (!(open > 0.0f)) std::memset(&t->waiting, 0, sizeof t->waiting);
  GccLags onsets, hop;
  const float found =
      open > 0.0f ? Onsets(band, power, t->noise, t->noise_cross, previous, t->coherence, open, onsets) : 0.0f;
  const float evidence = Vouch(&t->waiting, onsets, found, cues.presence, hop);
  if (evidence <= 0.0f && hop_gate > 0.0f) {
    // Speech without usable bins: the fast pool still ages, so that what
    // the next onset says counts against the last quarter second of speech
    // rather than against everything heard since the last onset.
    Fade(t->fast, &t->fast_weight, 1.0f - hop_gate / kFastSpeechHops);
    if (t->moving_hops > 0) Fade(t->slow, &t->slow_weight, 1.0f - hop_gate / kFastSpeechHops);
  }
  if (evidence > 0.0f) {
    const float fast_keep = FastKeep(evidence, hop_gate);
    const bool moving = t->moving_hops > 0;
    if (moving) --t->moving_hops;
    Pool(t->slow, &t->slow_weight, hop, evidence, moving ? fast_keep : kSlowEvidence / (kSlowEvidence + evidence));
    Pool(t->fast, &t->fast_weight, hop, evidence, fast_keep);
    Pool(t->since_asked, &t->since_asked_weight, hop, evidence, 1.0f);

    GccPeak slow = GccSearch(t->slow, kTrackElevationStep);
    const GccPeak fast = GccSearch(t->fast, kTrackElevationStep);
    const float apart = GccAngleApart(fast.azimuth_deg, slow.azimuth_deg);
    if (apart > kMovedDeg && GccAgreement(fast.score, t->fast_weight) > kMoveAgreement) {
      t->move_votes += evidence * (apart > kWalkedDeg ? 1.0f : std::min(apart / kMovedDeg, kMostVotes));
    } else {
      t->move_votes = t->move_votes > evidence ? t->move_votes - evidence : 0.0f;
    }
    if (!moving && t->aside_hops > 0) --t->aside_hops;
    const bool aside =
        !moving && t->aside_hops > 0 && KeepsAside(t, apart, SideOf(fast.azimuth_deg, slow.azimuth_deg), evidence);
    const bool restart = t->move_votes >= kMoveEvidence;
    if (restart || aside) {
      std::memcpy(t->slow, t->fast, sizeof t->slow);
      t->slow_weight = t->fast_weight;
      slow = fast;
    }
    if (restart || aside) t->aside_votes = 0.0f;
    if (restart) {
      t->aside_hops = kAsideHops;
      t->move_votes = 0.0f;
      t->moving_hops = kMovingHops;
    } else if (aside) {
      t->moving_hops = kAsideMovingHops;
    }
    t->azimuth_deg = slow.azimuth_deg;
    t->elevation_deg = slow.elevation_deg;
    t->confidence = GccConfidence(slow.score, t->slow_weight) * (OneMicSilent(t->coherence) ? 0.0f : 1.0f);
    t->has_direction = 1;
  }
  t->reported_confidence = t->confidence;
  return {t->azimuth_deg, t->confidence, t->has_direction != 0};
}

DoaTrack DoaTrackerPooled(TDoaTrackerEnhanced* t) {
  if (!(t->since_asked_weight > 0.0f)) return {t->azimuth_deg, 0.0f, false};
  const GccPeak peak = GccSearch(t->since_asked, kPooledElevationStep);
  const float confidence = OneMicSilent(t->coherence) ? 0.0f : GccConfidence(peak.score, t->since_asked_weight);
  const DoaTrack found{peak.azimuth_deg, confidence, true};
  std::memset(t->since_asked, 0, sizeof t->since_asked);
  t->since_asked_weight = 0.0f;
  return found;
}

}  // namespace vorn
