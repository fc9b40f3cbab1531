// Voice activity decisions on top of the noise suppressor.
//
// The suppressor already knows the frame SNR, its long-term mean and the
// speech-presence probability; the VAD adds the energy left after
// suppression in the speech band (bins 6..150), tracked against its
// noise-only level and its long-term level. Three rules turn these figures
// into a decision: a threshold rule (mode 1), a linear score tuned for
// recognition (default) and one tuned for wake-up with echo (mode 3).
// Every rule answers 1 on the first speech-like hop (no onset delay); a run
// of six opens a speech region, whose hangover keeps the flag up through
// short pauses.
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr int kRegionStartRun = 6;  // consecutive speech hops that open a region
// Run counters only meet thresholds of a few dozen hops; capping them keeps a
// device that runs for months from overflowing an int.
constexpr int kRunCap = kNsFrameMax;
constexpr float kEchoDominatedRatioDb = 500.0f;

int Clamp(int x, int lo, int hi) { return x < lo ? lo : (x > hi ? hi : x); }

void CountSpeech(T_AdspNsState &st) {
  st.continuous_sil_num = 0;
  if (st.continuous_speech < kRunCap) ++st.continuous_speech;
}

void CountSilence(T_AdspNsState &st) {
  st.continuous_speech = 0;
  if (st.continuous_sil_num < kRunCap) ++st.continuous_sil_num;
}

// Energy far below its long-term level while the long-term SNR is good: a
// pause inside otherwise clean speech.
bool DeepPause(const T_AdspNsState &st, float suppressed_eng) {
  return st.long_suppressed_eng > 20.0f * suppressed_eng && st.long_eta > 4.0f;
}

// Inside a region a non-speech hop keeps the flag while the silence run is
// shorter than the hangover.
int HangOver(T_AdspNsState &st) {
  if (st.continuous_sil_num < st.speech_hangover) return 1;
  st.is_speech_region = 0;
  return 0;
}

}  // namespace

void EstSnr(T_AdspNsState *ns_st, float supperessed_eng) {
  T_AdspNsState &st = *ns_st;
  const float energy = supperessed_eng;
  if (st.frame < 2) st.suppressed_noise_psd = energy;
  if (st.phat_mean < 0.4f) {
    st.suppressed_noise_psd =
        st.suppressed_noise_psd < 0.0f ? energy : 0.9f * st.suppressed_noise_psd + 0.1f * energy;
  }
  st.long_suppressed_eng = st.frame < 2 ? energy : 0.99f * st.long_suppressed_eng + 0.01f * energy;
  st._d_senr = CalcDB(energy, st.long_suppressed_eng);
  st._d_ssnr = CalcDB(energy, st.suppressed_noise_psd);
  st.long_ssnr = 0.7f * st.long_ssnr + 0.3f * st._d_ssnr;
}

int VadDet(T_AdspNsState *ns_st, float supperessed_eng) {
  T_AdspNsState &st = *ns_st;
  const float long_snr = st.long_eta;
  const float frame_snr = st.f_snr;

  // Non-speech needs every figure to be unremarkable. (A further test of the
  // frame SNR against max(4 * long SNR, 20 dB) can never pass once the frame
  // SNR is at most 20 dB, so it is left out.)
  bool speech_like = !(frame_snr <= long_snr && st._d_senr <= 0.0f && st._d_ssnr <= long_snr &&
                       frame_snr <= 20.0f && long_snr <= 20.0f);
  if (frame_snr > 0.8f * long_snr || st.phat_mean > 0.5f) speech_like = true;
  if (st.suppressed_noise_psd > 0.0f && st._d_ssnr > long_snr) speech_like = true;

  if (DeepPause(st, supperessed_eng) || !speech_like) {
    CountSilence(st);
    return st.is_speech_region ? HangOver(st) : 0;
  }
  CountSpeech(st);
  if (!st.is_speech_region) {
    if (st.continuous_speech >= kRegionStartRun) {
      st.is_speech_region = 1;
      st.speech_hangover = Clamp(st.continuous_speech, 20, 30);
    }
  } else if (st.speech_hangover <= 0) {
    st.is_speech_region = 0;
    st.speech_hangover = 0;
  }
  return 1;
}

int VadDetAsr(T_AdspNsState *ns_st, float /*supperessed_eng*/) {
  T_AdspNsState &st = *ns_st;
  const float score = (st.f_snr * 0.00778f - 0.15148f) + st.long_eta * 0.03766f + st.long_ssnr * 0.004628f +
                      st.phat_mean * 0.408229f + st._d_senr * 0.014181f;
  if (!(score > 0.4f)) {
    CountSilence(st);
    return st.is_speech_region ? HangOver(st) : 0;
  }
  CountSpeech(st);
  if (st.continuous_speech >= kRegionStartRun) {
    // Re-entered on every hop of a long run, so the hangover grows with it.
    st.is_speech_region = 1;
    st.speech_hangover = Clamp(st.continuous_speech, 12, 20);
  } else if (st.is_speech_region && st.speech_hangover <= 0) {
    st.is_speech_region = 0;
  }
  return 1;
}

int VadDetAecWkp(T_AdspNsState *ns_st, float supperessed_eng) {
  T_AdspNsState &st = *ns_st;
  const float score = (st.f_snr * 0.017274784f - 0.045664504f) + st.long_eta * 0.020304827f +
                      st.long_ssnr * 0.005897771f + st._d_senr * 0.0060850987f;
  const bool was_in_region = st.is_speech_region != 0;
  int result;
  if (DeepPause(st, supperessed_eng) || score <= 0.5f) {
    CountSilence(st);
    result = was_in_region ? HangOver(st) : 0;
  } else {
    CountSpeech(st);
    result = 1;
    if (!was_in_region) {
      if (st.continuous_speech >= kRegionStartRun) {
        st.is_speech_region = 1;
        st.speech_hangover = Clamp(st.continuous_speech, 20, 30);
      }
    } else if (st.speech_hangover < 1) {
      st.is_speech_region = 0;
    }
  }
  // A region whose residual sits far below the noise level is echo, not a talker.
  if (was_in_region && st.long_ssnr < -10.0f && st.f_snr < 0.0f) st.is_speech_region = 0;
  // The loudspeaker dominates the microphone completely: nothing here is near-end speech.
  if (st.t_ref_to_aec > kEchoDominatedRatioDb) result = 0;
  return result;
}

}  // namespace vorn
