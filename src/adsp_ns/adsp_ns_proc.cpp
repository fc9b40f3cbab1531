// Frame flow of the noise suppressor.
//
// Each call takes a 128-sample hop, analyses the last 512 samples under a
// unit-energy Hamming window (75 % overlap), tracks the noise, applies a
// per-bin gain and resynthesises by windowed overlap-add. The window is
// applied twice (analysis and synthesis), and four overlapping squared
// unit-energy windows at hop 128 sum to 1/128, hence the synthesis factor
// 127.99999. Output lags input by 512 - 128 = 384 samples.
//
// The spectral-scale mode serves callers that already hold a spectrum: it
// keeps 20 hops of bin magnitudes and turns each bin's ratio to its recent
// minimum into a scale, without the noise tracker.
#include <cmath>
#include <cstddef>

#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"

namespace vorn {
namespace {

constexpr float kOverlapAddGain = 127.99999f;
constexpr int kAbsenceUpdateStart = 120;  // the long-term statistics need a full minimum window
constexpr int kVadBandLow = 6;            // about 190 Hz ..
constexpr int kVadBandHigh = 150;         // .. 4.7 kHz

// Farthest tap of the diagonal minimum search: bin 256 of the oldest row.
constexpr std::size_t kTraceLastTap = (kNsBins - 1) + (kNsTraceRows - 1) * (kNsBins + 1);
static_assert(kTraceLastTap < kNsTraceRows * kNsBins + kNsFftLen, "minimum search must stay inside au");

// The minimum search reads its last taps from `au`, which the header pins
// directly behind `freq_amp_buff`. The pointer is derived from the record's
// own bytes so the reads address one object, not past the end of an array.
const float *TraceHistory(const T_AdspNsState *st) {
  return reinterpret_cast<const float *>(reinterpret_cast<const unsigned char *>(st) +
                                         offsetof(T_AdspNsState, freq_amp_buff));
}

void AdvanceTrace(T_AdspNsState *st) { st->curr_trace_id = (st->curr_trace_id + 1) % kNsTraceRows; }

void SpectralScale(T_AdspNsState *st, const float *inp, float *out, float *ns_out) {
  float *row = st->freq_amp_buff + st->curr_trace_id * kNsBins;
  const int half = kNsFftLen / 2;
  row[0] = std::fabs(inp[0]);
  for (int k = 1; k < half; ++k) row[k] = std::sqrt(inp[k] * inp[k] + inp[kNsFftLen - k] * inp[kNsFftLen - k]);
  row[half] = std::fabs(inp[half]);

  MinTrace(TraceHistory(st), kNsTraceRows, kNsBins, out);
  float scale[kNsBins];
  // Always row 0, whichever row was written: the oldest-is-first assumption
  // of the caller this mode was built for.
  GetNsScale(st->freq_amp_buff, kNsBins, out, scale);

  ns_out[0] = scale[0] * inp[0];
  ns_out[half] = scale[half] * inp[half];
  for (int k = 1; k < half; ++k) {
    ns_out[k] = scale[k] * inp[k];
    ns_out[kNsFftLen - k] = scale[k] * inp[kNsFftLen - k];
  }
}

// One time-domain hop; returns the mean bin power of bins 6..150 after
// suppression when asked to (the VAD's measure), else 0. Without an output
// only the gains that measure reads are formed, and nothing is resynthesised.
float SuppressHop(T_AdspNsState *st, const short *au, short *ns_au, bool measure_band) {
  float frame[kNsFftLen];
  float psd[kNsBins];
  float absence[kNsBins];
  float gain[kNsBins];
  NsSharedTerms terms;

  SaveFrameMoveAu(st->au, au, kNsFftLen, kNsHop);
  AddWin(st->au, hanmming_win, kNsFftLen, frame);
  fft_rel(frame, kNsFftLen, kNsFftOrder);
  GetPsd(frame, kNsFftLen, psd);

  NoiseEst(st, psd, &terms);
  const bool synthesise = ns_au != nullptr;
  // An empty range still runs the absence estimate for the state it keeps;
  // the synthesis passes only the bins the frequency filter keeps.
  static_assert(kNsFirstPassedBin <= kVadBandLow && kNsLastPassedBin >= kVadBandHigh, "the VAD band must be formed");
  const int first = synthesise ? kNsFirstPassedBin : (measure_band ? kVadBandLow : 1);
  const int last = synthesise ? kNsLastPassedBin : (measure_band ? kVadBandHigh : 0);
  EstAbsenceProb(st, absence, first, last);
  if (!synthesise && !measure_band) return 0.0f;
  if (st->frame > kAbsenceUpdateStart) UpdateAbsenceProb(st->lambda_dav_long, absence, first, last);
  EstGain(st, absence, terms, gain, first, last);
  if (!synthesise) {
    for (int k = kVadBandLow; k <= kVadBandHigh; ++k) {
      frame[k] = frame[k] * gain[k];
      frame[kNsFftLen - k] = frame[kNsFftLen - k] * gain[k];
    }
    return GetSubbandEng(frame, kNsFftLen, kVadBandLow, kVadBandHigh);
  }
  NsFreqFilter(frame, gain, frame);
  const float band_energy = measure_band ? GetSubbandEng(frame, kNsFftLen, kVadBandLow, kVadBandHigh) : 0.0f;

  ifft_rel(frame, kNsFftLen, kNsFftOrder);
  AddWin(frame, hanmming_win, kNsFftLen, frame);
  for (int i = 0; i < kNsFftLen; ++i) st->ns_out[i] += kOverlapAddGain * frame[i];
  Float2PCM(st->ns_out, ns_au, kNsHop);
  AddZero(st->ns_out, kNsFftLen, kNsHop);
  return band_energy;
}

void CountCall(T_AdspNsParam *pm, T_AdspNsState *st) {
  st->frame = st->frame + 1 < kNsFrameMax ? st->frame + 1 : kNsFrameMax;
  st->speech_interference = pm->speech_iterfrence_flag;
}

void NormalisedHanning(int len, float *win) {
  const float sum = GetHanningWin(len, win);
  for (int i = 0; i < len; ++i) win[i] /= sum;
}

}  // namespace

int AdspNsInit(T_AdspNsParam *pm) {
  if (pm == nullptr || pm->p_data == nullptr) return 1;
  if (pm->buff_size < kNsStateBytes || pm->param_size != kNsParamSize) return 2;
  T_AdspNsState &st = *static_cast<T_AdspNsState *>(pm->p_data);

  st.frame = 0;
  st.curr_trace_id = 0;
  st.eta_min = 0.31622776f;
  InitData(st.freq_amp_buff, 0.0f, kNsTraceRows * kNsBins);
  InitData(st.au, 0.0f, kNsFftLen);
  NormalisedHanning(3, st.b);
  InitData(st.ns_out, 0.0f, kNsFftLen);
  InitData(st.s, 0.0f, kNsBins);
  InitData(st.st, 0.0f, kNsBins);
  InitData(st.lambda_dav, 0.0f, kNsBins);
  InitData(st.lambda_d, 1e-10f, kNsBins);
  InitData(st.s_min, 0.0f, kNsBins);
  InitData(st.s_mact, 0.0f, kNsBins);
  InitData(st.s_min_t, 0.0f, kNsBins);
  InitData(st.s_mact_t, 0.0f, kNsBins);
  InitData(st.eta, 0.0f, kNsBins);
  InitData(st.gamma, 0.0f, kNsBins);
  InitData(st.eta_2term, 1.0f, kNsBins);
  InitData(st.v, 0.0f, kNsBins);
  InitData(st.sw, 0.0f, kNsSubWindows * kNsBins);
  InitData(st.swt, 0.0f, kNsSubWindows * kNsBins);
  st.l_mod_lswitch = 0;
  st.sw_idx = 0;
  st.long_eta = 1.0f;
  st.spec_centroid = 0.5f;
  st.phat_mean = 0.0f;
  st.external_ns_level = 1.0f;
  NormalisedHanning(3, st.b_xi_local);
  NormalisedHanning(31, st.b_xi_global);
  InitData(st.xi, 0.0f, kNsBins);
  st.xi_frame = 0.0f;
  st.xi_m_db = 0.0f;
  st.g_f = std::sqrt(st.eta_min);
  InitData(st.lambda_dav_long, 0.0f, kNsBins);
  st.f_snr = 0.0f;
  st.f_sir = 0.0f;
  st.speech_hangover = 0;
  st.speech_interference = 0;
  st.continuous_speech = 0;
  st.continuous_sil_num = 0;
  st.is_speech_region = 0;
  st.speech_interference_eng = -1.0f;
  st.t_ref_to_aec = -100.0f;
  st.suppressed_noise_psd = -100.0f;
  st.long_suppressed_eng = 0.0f;
  st.noise_spec_centroid = 0.5f;
  st.long_ssnr = 1.0f;
  st._d_senr = 0.0f;
  st.long_eta_high = 3.5f;
  // mean_corr_far_near, _d_ssnr and inner_data_exchange are written by their
  // producers before anything reads them.
  return 0;
}

int AdspNsProc(T_AdspNsParam *pm, float *inp, float *out, float *ns_out, const short *au, short *ns_au) {
  T_AdspNsState *st = static_cast<T_AdspNsState *>(pm->p_data);
  CountCall(pm, st);
  if (pm->data_type == kNsDataSpectralScale) {
    SpectralScale(st, inp, out, ns_out);
  } else if (pm->data_type == kNsDataTimeDomain) {
    SuppressHop(st, au, ns_au, false);
  }
  AdvanceTrace(st);
  return 0;
}

int NsVadProc(T_AdspNsParam *pm, float *inp, float *out, float *ns_out, const short *au, short *ns_au) {
  T_AdspNsState *st = static_cast<T_AdspNsState *>(pm->p_data);
  CountCall(pm, st);
  float suppressed_energy = 0.0f;
  if (pm->data_type == kNsDataSpectralScale) {
    SpectralScale(st, inp, out, ns_out);
  } else if (pm->data_type == kNsDataTimeDomain) {
    suppressed_energy = SuppressHop(st, au, ns_au, true);
  }
  AdvanceTrace(st);

  EstSnr(st, suppressed_energy);
  if (pm->vad_mode == 1) {
    pm->vad_flag = VadDet(st, suppressed_energy);
  } else if (pm->vad_mode == 3) {
    pm->vad_flag = VadDetAecWkp(st, suppressed_energy);
  } else {
    pm->vad_flag = VadDetAsr(st, suppressed_energy);
  }
  return pm->vad_flag;
}

void SetNsLevel(TNsParam *pm, float ns_level) {
  // A level of exactly 0 is allowed; only negative requests are lifted to a
  // tiny positive level.
  if (ns_level < 0.0f) ns_level = 0.00001f;
  if (ns_level > 1.0f) ns_level = 1.0f;
  static_cast<T_AdspNsState *>(pm->p_data)->external_ns_level = ns_level;
}

void SetNsRefToAecRatio(TNsParam *pm, float ratio_db) {
  static_cast<T_AdspNsState *>(pm->p_data)->t_ref_to_aec = ratio_db;
}

void SetNsMeanCorr(TNsParam *pm, float mean_corr) {
  static_cast<T_AdspNsState *>(pm->p_data)->mean_corr_far_near = mean_corr;
}

}  // namespace vorn
