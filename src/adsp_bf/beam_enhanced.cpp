// The enhanced profile's beam, one hop at a time.
//
// The beam types keep their meanings (1 delay-and-sum, 2 MVDR, 3/4 the
// adaptive beam on either, 5/6 the loudest sector, 7 a fixed beam towards 300
// degrees) but their weights are designed here, at run time, for the look
// direction in force and the microphones that work (steering.cpp): the look
// direction comes out flat and in phase with microphone 0.
//
// A beam that suppresses diffuse noise also suppresses the talker's own
// reverberation, which microphone 0 hears and the listener expects, and with
// three microphones 7.8 cm apart it buys little noise reduction at the low
// frequencies where most noise power lies. So each band of 125 Hz is blended
// towards microphone 0 (moved to the beam's delay) by the talker's share of
// the reference's power there: where the talker dominates the band comes
// mostly from microphone 0, where noise does mostly from the beam. Both are
// distortionless for the look direction, so every blend is. For a
// reverberant talker in diffuse noise, the distortionless beam closest to
// microphone 0's talker is exactly this blend with weight
// talker / (talker + noise); taken hop by hop (smoothed over about 80 ms)
// rather than as a long-term figure it also follows the talker's syllables,
// and the bench measured both more noise removed and less talker distortion
// that way. Only the noise differs between the two parts, by a few dB, so the
// moving blend does not make the noise flutter.
//
// The MVDR beams without the canceller (types 2, 6, 7) learn the talker's
// transfer function from the room while all three microphones work
// (beam_learned.cpp) and, once they have heard enough of the talker and of
// the noise, are designed from that rather than from the free-field model:
// the free-field beam keeps the direct sound but bends the room's
// reflections, which are part of what microphone 0 hears. The learned beam
// is redesigned after each second of the talker's speech, or every two
// seconds whatever, and faded in like a new look direction; a redesign
// that again gives the free-field beam already in use changes nothing. A look
// direction 30 degrees away from where the talker was learned is taken as
// another talker, learned afresh, and the free-field beam holds until then.
//
// A new look direction (the tracker moved, another sector took over, a
// microphone came back) is designed into the second slot and the output
// fades from the old beam to the new one over one hop, so nothing clicks. A
// microphone that fails is dropped at once instead: its fault would sound
// through the old beam for that hop.
#include "adsp_bf/beam_enhanced.h"

#include <cmath>

#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/gsc_enhanced.h"
#include "adsp_bf/weight_tables.h"
#include "common/adsp_common_fft_rel.h"
#include "common/pcm_round.h"
#include "common/simd4.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kHalf = kBfFftLen / 2;
constexpr float kResteerDeg = 5.0f;      // tracker moves smaller than this are ignored
constexpr int kMinSteerFrames = 4;       // and followed at most every 64 ms
constexpr int kSectorVotes = 8;          // hops a new sector must lead before it is taken
constexpr int kNoiseFrames = 62;         // the noise is averaged over about a second
constexpr float kShareSmoothing = 0.2f;  // per hop
constexpr float kLookWeight = 2.0f;      // see TalkerShareUpdate
constexpr float kTalkerPresent = 0.5f;
constexpr float kFixedBeamAzimuth = 300.0f;  // beam type 7
// The learned beam is redesigned after 16 talker hops taken in (about a
// second of speech; the talker is averaged over three), or two seconds after
// the last design for the noise's sake.
constexpr int32_t kRenewTalkerHops = 16;
constexpr int kRenewHops = 128;
constexpr int kFarEndQuietHops = 62;        // a second
constexpr float kRelearnDeg = 30.0f;         // a look direction this far off is another talker
constexpr float kPi = 3.14159265f;

float AngleApart(float a, float b) {
  const float d = std::fmod(std::fabs(a - b), 360.0f);
  return d > 180.0f ? 360.0f - d : d;
}

int LowestMic(uint32_t mask) {
  for (int m = 0; m < kBfChannels; ++m)
    if ((mask >> m) & 1u) return m;
  return 0;
}

bool IsAdaptive(int bf_flag) { return bf_flag == 3 || bf_flag == 4; }

// Microphone `ref` (not microphone 0, whose delay BlendTowardsMic0 takes on
// the fly) as microphone 0's position hears the look direction, delayed like
// the beams.
void ReferenceSpectrum(int ref, float azimuth, float x[kBfChannels][kBfFftLen], float* r) {
  const float* xr = x[ref];
  float phase[kBfNumBins][2];
  AlignmentPhases(ref, 0, azimuth, kBeamDelay, phase);
  r[0] = xr[0];
  r[kHalf] = xr[kHalf] * phase[kHalf][0];
  for (int k = 1; k < kHalf; ++k) {
    const float re = xr[k], im = xr[kBfFftLen - k];
    r[k] = phase[k][0] * re - phase[k][1] * im;
    r[kBfFftLen - k] = phase[k][1] * re + phase[k][0] * im;
  }
}

void BandPowers(const float* spectrum, float power[kBlendBands]) {
#if defined(VORN_SIMD4)
  BandPowersSimd4(spectrum, power);
#else
  BandPowersPlain(spectrum, power);
#endif
}

// The talker's share of the reference's power in each band this hop, from
// two views. The reference's power beyond its noise is all that is not noise,
// wherever it comes from. The beam's power beyond its noise is what comes
// from the look direction, counted at most twice over: the beam also takes
// off part of the talker's own reverberation, and the share must not drop
// for that. A source off the look direction reaches the beam weakened and
// earns little share however loud it is. The noises are learned in hops where
// the talker is silent. Smoothed over about 80 ms; 0 until noise was heard.
void TalkerShareUpdate(TalkerShare* ts, const float* reference, const float* beam, bool talker) {
  float ref_power[kBlendBands], beam_power[kBlendBands];
  BandPowers(reference, ref_power);
  BandPowers(beam, beam_power);
  if (!talker) {
    // A plain mean over the first hops, then an exponential one.
    ts->noise_frames = ts->noise_frames < kNoiseFrames ? ts->noise_frames + 1 : kNoiseFrames;
    const float a = 1.0f / static_cast<float>(ts->noise_frames);
    for (int b = 0; b < kBlendBands; ++b) {
      ts->noise_ref[b] += a * (ref_power[b] - ts->noise_ref[b]);
      ts->noise_beam[b] += a * (beam_power[b] - ts->noise_beam[b]);
    }
  }
  const float known = ts->noise_frames > 0 ? 1.0f : 0.0f;
  for (int b = 0; b < kBlendBands; ++b) {
    const float not_noise = ref_power[b] - ts->noise_ref[b];
    const float from_look = kLookWeight * (beam_power[b] - ts->noise_beam[b]);
    float talker_power = from_look < not_noise ? from_look : not_noise;
    talker_power = talker_power > 0.0f ? talker_power : 0.0f;
    talker_power = talker_power < ref_power[b] ? talker_power : ref_power[b];
    const float now = known * talker_power / (ref_power[b] + 1e-20f);
    ts->share[b] += kShareSmoothing * (now - ts->share[b]);
  }
}

// y += share * (reference - y), band by band: bins 1..3 with DC's band, then
// whole bands of four.
void Blend(const float share[kBlendBands], const float* reference, float* y) {
  y[0] += share[0] * (reference[0] - y[0]);
  y[kHalf] += share[kBlendBands - 1] * (reference[kHalf] - y[kHalf]);
  for (int k = 1; k < kBlendBandBins; ++k) {
    y[k] += share[0] * (reference[k] - y[k]);
    y[kBfFftLen - k] += share[0] * (reference[kBfFftLen - k] - y[kBfFftLen - k]);
  }
  for (int b = 1; b + 1 < kBlendBands; ++b) {
    const float s = share[b];
    float* re = y + b * kBlendBandBins;
    float* im = y + kBfFftLen - b * kBlendBandBins - (kBlendBandBins - 1);  // bins 4b+3 .. 4b, backwards
    const float* ref_re = reference + b * kBlendBandBins;
    const float* ref_im = reference + kBfFftLen - b * kBlendBandBins - (kBlendBandBins - 1);
    for (int j = 0; j < kBlendBandBins; ++j) {
      re[j] += s * (ref_re[j] - re[j]);
      im[j] += s * (ref_im[j] - im[j]);
    }
  }
}

// The sector beam types 5 and 6 use: the loudest of three, taken over only
// when another has led for kSectorVotes hops in a row.
float SectorAzimuth(EnhancedBeamState* st, float spectrum[kBfChannels][kBfFftLen]) {
  const int loudest = SelectBf(spectrum);
  if (st->sector < 0) {
    st->sector = loudest;
  } else if (loudest == st->sector) {
    st->sector_votes = 0;
  } else if (loudest == st->sector_candidate && ++st->sector_votes >= kSectorVotes) {
    st->sector = loudest;
    st->sector_votes = 0;
  } else if (loudest != st->sector_candidate) {
    st->sector_candidate = loudest;
    st->sector_votes = 1;
  }
  return static_cast<float>(mbf_angles[st->sector]);
}

BeamDesign WantedDesign(EnhancedBeamState* st, const BeamRequest& rq, uint32_t live,
                        float spectrum[kBfChannels][kBfFftLen], bool* following) {
  BeamDesign d{static_cast<float>(rq.bf_azimuth), kBeamMvdr, live};
  if (rq.bf_flag == 1 || rq.bf_flag == 3 || rq.bf_flag == 5) d.kind = kBeamDelayAndSum;
  *following = false;
  if (rq.bf_flag == 7) {
    d.azimuth_deg = kFixedBeamAzimuth;
  } else if (rq.bf_flag == 5 || rq.bf_flag == 6) {
    d.azimuth_deg = SectorAzimuth(st, spectrum);
  } else if (rq.doa_flag == 1 && rq.tracked_confidence >= kFollowConfidence) {
    d.azimuth_deg = rq.tracked_azimuth;
    *following = true;
  }
  return d;
}

bool NeedsResteer(const BeamDesign& now, const BeamDesign& wanted, bool following, int frames_since_steer) {
  if (now.kind != wanted.kind || now.live_mask != wanted.live_mask) return true;
  const float apart = AngleApart(now.azimuth_deg, wanted.azimuth_deg);
  if (following) return apart >= kResteerDeg && frames_since_steer >= kMinSteerFrames;
  return apart > 0.5f;
}

// The beam of `slot` as a packed spectrum.
void BeamSpectrum(EnhancedBeamState* st, const BeamSlot& slot, bool adaptive, bool may_adapt,
                  float spectrum[kBfChannels][kBfFftLen], float* y) {
  if (adaptive) {
    GscEnhancedBeam(&st->gsc, slot, slot.design.live_mask, spectrum, may_adapt, y);
  } else {
    ApplyBeam(slot.weights, spectrum, y);
  }
}

// The beam spectrum blended towards the reference, as 256 samples in
// y[kHalf..]: microphone 0 itself when it works, otherwise `moved`.
void BlendToTime(const float share[kBlendBands], int ref, const float* x0, const float* moved, float* y) {
  if (ref != 0) {
    Blend(share, moved, y);
  } else {
#if defined(VORN_SIMD4)
    BlendTowardsMic0Simd4(share, x0, y);
#else
    BlendTowardsMic0Plain(share, x0, y);
#endif
  }
  ifft_rel(y, kBfFftLen, kBfFftOrder);
}

// The MVDR beam without the adaptive canceller learns from the room while
// all three microphones work; anything else starts the learning afresh.
// In front of the echo canceller it learns only while the loudspeaker has
// been silent for a second: while it plays, the echo would be learned as
// part of the room, and every redesign would change the echo path the
// canceller is converging on. It then holds what it learned and the beam in
// use. When the far end comes back after a redesign the canceller meets the
// new path once, as it meets any change of the room.
enum class Learning { kOff, kHeld, kOn };

Learning LearningFor(const BeamDesign& wanted, bool adaptive, bool echo_in_play) {
  if (wanted.kind != kBeamMvdr || adaptive || wanted.live_mask != kAllMics) return Learning::kOff;
  return echo_in_play ? Learning::kHeld : Learning::kOn;
}

// Whether the echo canceller behind the beam has an echo to follow: the
// loudspeaker played within the last second, as long as a room's echo lingers.
bool EchoInPlay(EnhancedBeamState* st, const BeamRequest& rq) {
  if (rq.far_end_audible != 0) st->far_end_quiet_hops = 0;
  else if (st->far_end_quiet_hops < kFarEndQuietHops) ++st->far_end_quiet_hops;
  return rq.echo_follows != 0 && st->far_end_quiet_hops < kFarEndQuietHops;
}

void LearnHop(EnhancedBeamState* st, const BeamDesign& wanted, Learning learning,
              float spectrum[kBfChannels][kBfFftLen], float presence) {
  LearnedBeam* lb = &st->learned;
  if (learning == Learning::kHeld) return;
  if (learning == Learning::kOff) {
    if (lb->noise_hops != 0 || lb->noisy_hops != 0) LearnedBeamReset(lb);
    return;
  }
  if (lb->noisy_hops != 0 && AngleApart(lb->azimuth_deg, wanted.azimuth_deg) > kRelearnDeg)
    LearnedBeamForgetTalker(lb);
  if (lb->noisy_hops == 0) lb->azimuth_deg = wanted.azimuth_deg;
  LearnedBeamObserve(lb, spectrum, presence);
}

bool SameDesign(const BeamDesign& a, const BeamDesign& b) {
  return a.kind == b.kind && a.live_mask == b.live_mask && a.azimuth_deg == b.azimuth_deg;
}

// Designs `wanted` into `slot`: learned where it may be and the learned
// talker is in the look direction, free-field otherwise. Returns false, with
// nothing designed, where that gives the free-field weights `in_use` (if
// given) holds already, as every renewal does while the learned talker is
// not found: the free-field design costs more than the learned one.
bool DesignSlot(EnhancedBeamState* st, const BeamDesign& wanted, bool learned, const BeamSlot* in_use,
                BeamSlot* slot) {
  const bool found = learned && LearnedBeamDesign(&st->learned, wanted.azimuth_deg, &slot->weights);
  if (!found && in_use != nullptr && in_use->learned == 0 && SameDesign(in_use->design, wanted)) return false;
  slot->design = wanted;
  slot->learned = found ? 1 : 0;
  if (!found) DesignBeam(wanted, &slot->weights);
  return true;
}

}  // namespace

void EnhancedBeamInit(EnhancedBeamState* st) {
  *st = EnhancedBeamState{};
  st->active = -1;
  st->sector = -1;
  st->sector_candidate = -1;
  st->far_end_quiet_hops = kFarEndQuietHops;
  GscEnhancedInit(&st->gsc);
  MicHealthInit(&st->health);
}

void EnhancedBeamProc(EnhancedBeamState* st, const BeamRequest& rq, const float* const latest[kBfChannels],
                      float spectrum[kBfChannels][kBfFftLen], short* out) {
  MicHealthUpdate(&st->health, latest);
  const uint32_t live = MicHealthLive(&st->health);
  const int ref = LowestMic(live);
  if (rq.bf_flag == 0) {
    RoundToPcm(latest[ref], out, kBfHop);  // whole numbers: exactly the input
    return;
  }

  bool following = false;
  const BeamDesign wanted = WantedDesign(st, rq, live, spectrum, &following);
  st->frames_since_steer = st->frames_since_steer < kMinSteerFrames ? st->frames_since_steer + 1 : kMinSteerFrames;
  const bool adaptive = IsAdaptive(rq.bf_flag);
  const Learning learning = LearningFor(wanted, adaptive, EchoInPlay(st, rq));
  LearnHop(st, wanted, learning, spectrum, rq.talker_presence);
  const bool learned = learning == Learning::kOn && LearnedBeamReady(&st->learned);
  st->hops_since_learned = st->hops_since_learned < kRenewHops ? st->hops_since_learned + 1 : kRenewHops;
  const bool renew =
      learned && (st->learned.fresh_talker >= kRenewTalkerHops || st->hops_since_learned >= kRenewHops);
  int faded_from = -1;
  if (st->active < 0) {
    st->active = 0;
    DesignSlot(st, wanted, learned, nullptr, &st->slot[0]);
  } else if (const bool resteer = NeedsResteer(st->slot[st->active].design, wanted, following, st->frames_since_steer);
             resteer || renew) {
    // A microphone that has just failed is not faded out: the old beam would
    // carry its fault for another hop. Renewed learned weights fade in like
    // a new look direction.
    const bool lost_mic = (st->slot[st->active].design.live_mask & ~wanted.live_mask) != 0;
    faded_from = lost_mic ? -1 : st->active;
    if (resteer) st->frames_since_steer = 0;
    const int old = st->active;
    if (DesignSlot(st, wanted, learned, resteer ? nullptr : &st->slot[old], &st->slot[1 - old]))
      st->active = 1 - old;
    else
      faded_from = -1;  // the same free-field weights: nothing to fade
    if (learned) st->hops_since_learned = 0;
  }
  const BeamSlot& slot = st->slot[st->active];

  // The reference's band powers are microphone 0's own: its delay only turns
  // phases. Another microphone is moved to microphone 0's position first.
  float moved[kBfFftLen];
  const float* reference = spectrum[ref];
  if (ref != 0) {
    ReferenceSpectrum(ref, slot.design.azimuth_deg, spectrum, moved);
    reference = moved;
  }
  const bool talker = rq.talker_presence >= kTalkerPresent;
  // The canceller learns only while the talker is silent, and not while the
  // beam changes under it.
  const bool may_adapt = !talker && faded_from < 0;
  float y[kBfFftLen];
  BeamSpectrum(st, slot, adaptive, may_adapt, spectrum, y);
  TalkerShareUpdate(&st->share, reference, y, talker);
  BlendToTime(st->share.share, ref, spectrum[0], moved, y);
  if (faded_from < 0) {
    RoundToPcm(y + kHalf, out, kBfHop);
    return;
  }
  // The old beam, blended alike, fades out with a raised cosine while the new
  // one fades in.
  float old[kBfFftLen];
  BeamSpectrum(st, st->slot[faded_from], adaptive, false, spectrum, old);
  BlendToTime(st->share.share, ref, spectrum[0], moved, old);
  for (int n = 0; n < kBfHop; ++n) {
    const float fade_in = 0.5f - 0.5f * std::cos(kPi * (static_cast<float>(n) + 0.5f) / kBfHop);
    y[kHalf + n] = old[kHalf + n] + fade_in * (y[kHalf + n] - old[kHalf + n]);
  }
  RoundToPcm(y + kHalf, out, kBfHop);
}

void EnhancedBeamReference(const EnhancedBeamState* st, int32_t bf_flag, const float* const latest[kBfChannels],
                           short* out) {
  // The analysis buffer holds the previous hop ahead of `latest`.
  const float* mic = latest[LowestMic(MicHealthLive(&st->health))];
  RoundToPcm(bf_flag == 0 ? mic : mic - kBeamDelay, out, kBfHop);
}

void EnhancedBeamExclude(EnhancedBeamState* st, uint32_t mask) { st->health.excluded_mask = mask & kAllMics; }

uint32_t EnhancedBeamWarnings(const EnhancedBeamState* st) {
  uint32_t warnings = 0;
  for (int m = 0; m < kBfChannels; ++m) {
    if ((st->health.dead_mask >> m) & 1u) warnings |= VORN_WARN_MIC_DEAD(m);
    if ((st->health.clipped_mask >> m) & 1u) warnings |= VORN_WARN_MIC_CLIPPED(m);
  }
  return warnings;
}

}  // namespace vorn
