// The enhanced profile's speech presence, suppressor and speech flag.
//
// One analysis per 128-sample hop is shared by all three: the presence
// estimator windows and transforms the hop (the same unit-energy Hamming
// window and 512-point transform as the classic suppressor, so spectra and
// noise powers are on the classic scale), tracks the noise, and judges per
// band and per hop whether the near talker speaks. The suppressor turns those
// judgements into gains on the same spectrum and resynthesises; the speech
// flag reads the hop judgements aligned with the suppressor's output.
//
// Records live in caller memory (the enhanced region) and are prepared by
// the ...Init functions; nothing here allocates.
#pragma once

#include <array>
#include <cstdint>

#include "adsp_ns/adsp_ns_proc.h"

namespace vorn {

// ---- bands ----------------------------------------------------------------
// Bins 0..15 in bands of two; from bin 16 on, every octave of bins in four
// bands of equal width (16..31 by 4, 32..63 by 8, ..., 128..255 by 32); bin
// 256 closes the last band. Narrow where speech has its pitch harmonics and
// formants, wide where a band has to average out noise.
constexpr int kPresenceBands = 24;

constexpr std::array<int, kPresenceBands + 1> MakeBandEdges() {
  std::array<int, kPresenceBands + 1> edges{};
  int b = 0;
  for (int bin = 0; bin < 16; bin += 2) edges[b++] = bin;
  for (int octave = 16; octave < 256; octave *= 2)
    for (int q = 0; q < 4; ++q) edges[b++] = octave + q * octave / 4;
  edges[b] = kNsBins;  // the last band takes bin 256 too
  return edges;
}
constexpr std::array<int, kPresenceBands + 1> kBandEdges = MakeBandEdges();
static_assert(kBandEdges[8] == 16 && kBandEdges[12] == 32 && kBandEdges[23] == 224 && kBandEdges[24] == 257);

// ---- what the presence is judged on ----------------------------------------
// The presence may be judged on another signal than the one suppressed: the
// canceller's input (the talker as the microphones hear it, before any echo
// suppression), or behind a beam one microphone, whose noise the beam has
// not reshaped. With the canceller on, the loudspeaker's echo there is
// predicted from the reference. The suppressor's noise and gains stay on its
// own input; so, behind a beam, does the band presence that gates its bins,
// since the beam lifts the talker's bands above its own noise.
struct NsEchoCues {
  const short* reference;  // the loudspeaker's 128 samples of this hop; null when the canceller is off
  const short* near;       // the 128 samples the talker is judged on; null: the suppressor's input
  bool bands_on_input = false;  // with `near`: the band presence judged on the suppressor's input
};

// ---- the cues a hop's presence is judged by ---------------------------------
enum PresenceCue {
  kCueExcess,       // mean excess over the noise in the speech bands, dB (0..25 per band)
  kCueExcessTop,    // the same over the four bands that stand highest, dB
  kCueFrameSnr,     // excess power over noise power in the speech bands, dB (-20..40)
  kCueHarmonicity,  // energy on multiples of a pitch: about 0.6 for noise, above 1 for a voice
  kCueBelowTalker,  // dB by which the hop's excess level falls short of the talker's recent level (0..40)
  kCueDecay,        // dB by which it lies below its own peak of the last 120 ms: a dying tail (0..30)
  kCueEcho,         // 0..1: the share of the hop's power the far end's echo explains
  kPresenceCues
};
// The presence network reads the cues of this hop and the two before it;
// the flag network those of the kFlagContext hops before this one. The
// newest five of them are centred on the input frame 1.5 frames back: the
// frame the speech flag labels (the suppressor's output lags its input by as
// much); the older ones show the speech or pause that led up to it. The
// presence of at least one of those five hops must agree with the flag.
constexpr int kNetContext = 3;
constexpr int kNetInputs = kPresenceCues * kNetContext;
constexpr int kFlagContext = 13;
constexpr int kFlagAgreeHops = 5;
static_assert(kFlagAgreeHops <= kFlagContext);
constexpr int kCueHistory = kFlagContext + 1;
constexpr int kFlagInputs = kPresenceCues * kFlagContext;

// ---- one hop's analysis, handed from the presence estimate to the suppressor
struct NsHopAnalysis {
  float spectrum[kNsFftLen];  // packed spectrum of the windowed hop (classic packing)
  float power[kNsBins];
  float band_prob[kPresenceBands];  // 0..1 per band: the talker in this band
  float prob;                       // 0..1: the talker in this hop
  float echo;                       // 0..1: how much of the hop the far end's echo explains
  float snr_db;                     // speech-band excess over the noise, dB
  float cues[kPresenceCues];
};

// ---- records -------------------------------------------------------------------
constexpr int kNoiseSubWindows = 6;     // the noise floor's minimum search: 6 stretches ...
constexpr int kNoiseSubWindowHops = 32; // ... of 32 hops (1.5 s in all)
constexpr int kLevelHistory = 15;        // hops a tail is judged against (120 ms)

// One signal's noise estimate per bin, with the minimum search that backs it up.
struct NoiseTracker {
  float noise[kNsBins];                     // noise power per bin
  float spp_mean[kNsBins];                  // smoothed bin presence, for the stagnation guard
  float smooth_power[kNsBins];              // time/frequency smoothed power, for the floor search
  float stretch_min[kNsBins];               // minimum of smooth_power in the current stretch
  float window_min[kNsBins];                // minimum over the stored stretches
  float stretch_mins[kNoiseSubWindows][kNsBins];
  int32_t hops;                             // hops tracked, saturating
  int32_t stretch_hops;                     // hops into the current stretch
  int32_t stretch_index;                    // next stretch row to overwrite
  int32_t stretches_filled;
};

struct EnhancedPresenceState {
  float au[kNsFftLen];                      // the last 512 input samples
  NoiseTracker noise;                       // the suppressor's input's noise
  float band_prob[kPresenceBands];          // smoothed band presence
  float talker_level_db;                    // peak follower of the talker's excess level
  float level_history[kLevelHistory];       // the last hops' excess levels, dB (a ring)
  float prob;                               // last hop's presence (smoothed)
  int32_t level_at;                         // next slot of level_history
  int32_t voiced_run;                       // voiced hops in a row, up to the number that counts
  float recent_cues[kCueHistory][kPresenceCues];  // the last hops' cues, newest first
  float recent_prob[kCueHistory];                 // the last hops' presence, newest first
  // The far end: the canceller's input analysed as the suppressor's input
  // is, its own noise, the loudspeaker's power per bin held as its echo
  // lingers, and the power coupling per band from loudspeaker to input
  // (averages of input excess x loudspeaker and loudspeaker^2 powers).
  float near_au[kNsFftLen];
  NoiseTracker near_noise;
  float reference_au[kNsFftLen];
  float reference_held[kNsBins];
  float coupling_num[kPresenceBands];
  float coupling_den[kPresenceBands];
};

struct EnhancedSuppressorState {
  float ola[kNsFftLen];      // synthesis overlap-add buffer
  float clean_power[kNsBins];// last hop's output power per bin (decision-directed memory)
  float pause_power[kNsBins];// power per bin of the hops without the talker (other voices' level)
  float floor_gain;          // the gain floor in force, following the presence
  float talker_hold;         // the hop presence, held as the talker's reverberation dies
};

struct EnhancedVadState {
  int32_t speaking;  // the last frame's flag
  int32_t primed;    // the last frame stood above its onset bar
  int32_t echo_settled_frames;  // frames of loudspeaker play since the canceller's lead last moved
  float echo_lead_ms;           // that lead
};

// What the canceller says about the frame the flag labels. `echo_alone`: it
// hears the far end's echo and no near talker beside it. `talker_beside_echo`:
// it hears a near talker beside the echo. `echo_settled`: its lead has held
// long enough for the presence to have learnt how loud the echo comes back.
struct FlagEchoCues {
  bool echo_alone = false;
  bool talker_beside_echo = false;
  bool echo_settled = false;
};

// The three records as the enhanced region holds them.
struct EnhancedSpeechRecords {
  EnhancedPresenceState presence;
  EnhancedSuppressorState suppressor;
  EnhancedVadState vad;
};
static_assert(sizeof(EnhancedSpeechRecords) <= 38 * 1024, "speech presence, suppressor and flag share 38 KB");

// ---- presence ------------------------------------------------------------
void EnhancedPresenceInit(EnhancedPresenceState* st);
// Analyses one hop of 128 samples into `hop` and updates the noise estimate.
void EnhancedPresenceHop(EnhancedPresenceState* st, const short* in, const NsEchoCues& echo, NsHopAnalysis* hop);

// ---- suppressor ------------------------------------------------------------
void EnhancedSuppressorInit(EnhancedSuppressorState* st);
// Gains from `hop` and the presence state's noise, applied to hop->spectrum
// (changed in place); 128 output samples, 384 samples behind the input.
void EnhancedSuppressHop(EnhancedSuppressorState* st, const EnhancedPresenceState& presence, NsHopAnalysis* hop,
                         short* out);

// ---- speech flag -----------------------------------------------------------------
void EnhancedVadInit(EnhancedVadState* st);
// The presence of the frame leaving the suppressor now (384 samples behind
// the frame just analysed), from the presence state's last five hops.
float EnhancedOutputPresence(const EnhancedPresenceState& st);
// The speech flag of that frame. Over echo alone the flag stays only above
// the echo bar (kFlagEchoThreshold) and rises only on two frames in a row
// above kFlagRiseOverEchoThreshold, and only once the echo has settled; with
// a talker heard beside the echo a low presence suffices.
int EnhancedVadDecide(EnhancedVadState* st, float output_prob, const FlagEchoCues& echo = {});
// Counts the frames since the canceller's lead last moved (those with the
// loudspeaker playing) and says whether the echo has settled.
bool EnhancedVadEchoSettled(EnhancedVadState* st, float lead_ms, bool reference_active);
extern const float kFlagRiseOverEchoThreshold;

}  // namespace vorn
