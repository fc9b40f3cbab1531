// Single-channel spectral noise suppressor and voice activity detector.
//
// One instance is one `T_AdspNsState` record in caller memory (at most
// kNsStateBytes bytes), described to the module by a `T_AdspNsParam`. The
// caller runs `AdspNsInit` once and then `AdspNsProc` (or `NsVadProc`, which
// adds the speech/non-speech decision) once per 128-sample hop. The noise
// tracker, gain rule and VAD rules are exposed as well because the
// multi-channel post filter and the front-end core drive them directly.
#pragma once

#include <cstddef>

namespace vorn {

constexpr int kNsFftLen = 512;       // analysis frame, 75 % overlap
constexpr int kNsFftOrder = 9;       // log2(kNsFftLen)
constexpr int kNsBins = 257;         // kNsFftLen / 2 + 1
constexpr int kNsHop = 128;          // new samples per call
constexpr int kNsTraceRows = 20;     // magnitude history of the spectral-scale mode
constexpr int kNsSubWindows = 8;     // minimum-statistics window: 8 sub-windows ...
constexpr int kNsSubWindowLen = 15;  // ... of 15 frames (120 frames in all)
constexpr int kNsFrameMax = 100000;  // `frame` saturates here
constexpr int kNsStateBytes = 64000; // the region every instance gets

// `data_type` values of T_AdspNsParam; any other value only advances counters.
constexpr int kNsDataTimeDomain = 1;
constexpr int kNsDataSpectralScale = 2;

// Three beams of one 256-sample frame, handed in by the core for the
// multi-channel post filter.
struct TNsModelDataExchange {
  short mbf_au[3][256];
};

typedef struct AdspNsParam {
  void *p_data;                // the instance's T_AdspNsState
  int buff_size;               // bytes at p_data, at least kNsStateBytes
  int param_size;              // sizeof(T_AdspNsParam), must be kNsParamSize
  int data_type;               // kNsDataTimeDomain, kNsDataSpectralScale, or other
  int inner_interface_flag;    // carried for the core's exchange; unused here
  int speech_iterfrence_flag;  // copied into the state on every call
  int vad_flag;                // decision of NsVadProc: 1 speech, 0 not
  int vad_mode;                // 1: VadDet, 3: VadDetAecWkp, else VadDetAsr
} T_AdspNsParam;

// The size `param_size` must state: 40 bytes with 8-byte pointers, 32 with
// 4-byte ones.
constexpr int kNsParamSize = sizeof(T_AdspNsParam);
static_assert(kNsParamSize == (sizeof(void *) == 8 ? 40 : 32), "parameter record layout");

// The field order is part of the contract: the spectral-scale minimum search
// runs diagonally through `freq_amp_buff` and reads its last taps from the
// start of `au`, which must therefore follow it directly.
struct state_struct_t {
  int frame;                        // calls made, saturating at kNsFrameMax
  int curr_trace_id;                // row of freq_amp_buff written this call
  float eta_min;                    // floor of the a priori SNR (gain floor squared)
  float freq_amp_buff[kNsTraceRows * kNsBins];
  float au[kNsFftLen];              // analysis buffer: last 512 input samples
  float b[3];                       // frequency smoothing kernel
  float ns_out[kNsFftLen];          // synthesis overlap-add buffer
  float s[kNsBins];                 // smoothed periodogram
  float st[kNsBins];                // smoothed periodogram over noise-only bins
  float lambda_dav[kNsBins];        // noise average before bias compensation
  float lambda_d[kNsBins];          // noise power estimate
  float s_min[kNsBins];
  float s_mact[kNsBins];
  float s_min_t[kNsBins];
  float s_mact_t[kNsBins];
  float eta[kNsBins];               // a priori SNR
  float gamma[kNsBins];             // a posteriori SNR
  float eta_2term[kNsBins];         // previous gain^2 * gamma (decision-directed memory)
  float v[kNsBins];                 // gamma * eta / (1 + eta)
  float sw[kNsSubWindows * kNsBins];   // sub-window minima of s
  float swt[kNsSubWindows * kNsBins];  // sub-window minima of st
  int l_mod_lswitch;                // frames inside the current sub-window
  int sw_idx;                       // current sub-window row
  float long_eta;                   // long-term frame SNR, dB
  float spec_centroid;              // unused: the rules read no spectral centroid (kept for the layout)
  float phat_mean;                  // mean speech presence over bins 7..149
  float external_ns_level;          // suppression level set by the core, 0..1
  float b_xi_local[3];
  float b_xi_global[31];
  float xi[kNsBins];                // smoothed a priori SNR
  float xi_frame;                   // its frame average
  float xi_m_db;                    // peak of the frame average, dB
  float g_f;                        // gain floor (amplitude)
  float lambda_dav_long[kNsBins];   // long-term noise average (tonal peak detection)
  float f_snr;                      // frame SNR, dB
  float f_sir;                      // frame signal-to-interference ratio
  int speech_hangover;
  int speech_interference;
  int continuous_speech;
  int continuous_sil_num;
  int is_speech_region;
  float speech_interference_eng;    // negative while unset
  float t_ref_to_aec;               // reference-to-canceller ratio, dB, set by the core
  float suppressed_noise_psd;       // residual noise power, negative while unset
  float long_suppressed_eng;
  float mean_corr_far_near;         // set by the core; not read by the rules
  float noise_spec_centroid;        // unused, as spec_centroid
  float long_ssnr;
  float _d_ssnr;                    // segmental SNR of the frame after suppression, dB
  float _d_senr;                    // frame energy over its long-term mean, dB
  float long_eta_high;
  TNsModelDataExchange inner_data_exchange;
};
typedef state_struct_t T_AdspNsState;

// The names the front-end core uses for the same records.
using TNsParam = T_AdspNsParam;
using TNsState = T_AdspNsState;

static_assert(sizeof(T_AdspNsState) <= kNsStateBytes, "suppressor state must fit its region");
static_assert(offsetof(T_AdspNsState, au) ==
                  offsetof(T_AdspNsState, freq_amp_buff) + sizeof(float) * kNsTraceRows * kNsBins,
              "au must follow freq_amp_buff directly");
static_assert(offsetof(T_AdspNsState, eta_min) == 8 && offsetof(T_AdspNsState, freq_amp_buff) == 12);
static_assert(offsetof(T_AdspNsState, inner_data_exchange) + sizeof(TNsModelDataExchange) ==
                  sizeof(T_AdspNsState),
              "the beam exchange closes the record");
static_assert(sizeof(T_AdspNsState) == 57296, "no padding, no field missing");

// ---- frame flow -----------------------------------------------------------
// 0, or 1 (null record or state), 2 (region below kNsStateBytes or wrong param_size).
int AdspNsInit(T_AdspNsParam *pm);
// One hop. Time domain: 128 samples from `au`, 128 (delayed by 384) to
// `ns_au`; with `ns_au` null the hop is analysed but not resynthesised (the
// synthesis buffer is left as it was), for an instance whose output nobody
// reads. Spectral scale: packed spectrum `inp` (512), per-bin minimum to
// `out` (257), scaled spectrum to `ns_out` (512). Unused pointers may be null.
int AdspNsProc(T_AdspNsParam *pm, float *inp, float *out, float *ns_out, const short *au, short *ns_au);
// AdspNsProc plus the VAD decision in pm->vad_flag; returns that decision too.
int NsVadProc(T_AdspNsParam *pm, float *inp, float *out, float *ns_out, const short *au, short *ns_au);

// ---- settings written by the core between calls ---------------------------
void SetNsLevel(TNsParam *pm, float ns_level);  // clamped to 0.00001..1
void SetNsRefToAecRatio(TNsParam *pm, float ratio_db);
void SetNsMeanCorr(TNsParam *pm, float mean_corr);

// ---- noise estimation -----------------------------------------------------
// Per-bin terms of one hop that the noise estimate forms and the gain rule
// needs again, so that they are formed once.
struct NsSharedTerms {
  float lsa_gain[kNsBins];    // gain under the speech hypothesis: ExpExpint(v) * eta / (eta + 1), 1 for v <= 0
  double exp_neg_v[kNsBins];  // exp(-v) where the presence estimate formed it, else -1
};
void NoiseEst(T_AdspNsState *ns_st, float *psd, NsSharedTerms *terms);
void UpdatePsd(T_AdspNsState *ns_st);
// Per-bin minimum over `rows` rows of history, read diagonally with stride
// len + 1. With 20 rows of 257 the last taps lie past freq_amp_buff, in au.
void MinTrace(const float *x, int rows, int len, float *out);
void GetNsScale(const float *amp, int len, const float *min, float *scale);

// ---- speech presence and gain ---------------------------------------------
// The three fill q[first_bin..last_bin] (and g likewise) and leave the rest
// alone: a caller that reads only some bins asks only for those. The state
// they update is the same whatever the range.
void EstAbsenceProb(T_AdspNsState *ns_st, float *q, int first_bin, int last_bin);
void UpdateAbsenceProb(float *lambda_dav_long, float *q, int first_bin, int last_bin);
void EstGain(T_AdspNsState *ns_st, float *q, const NsSharedTerms &terms, float *g, int first_bin, int last_bin);
// Zeroes gain[0 .. kNsFirstPassedBin - 1] and gain[256] in place, then out =
// spectrum * gain; out may be spectrum. The gains of those bins are never
// read, so a caller need not form them.
constexpr int kNsFirstPassedBin = 5;
constexpr int kNsLastPassedBin = kNsBins - 2;
void NsFreqFilter(float *spectrum, float *gain, float *out);

// ---- voice activity detection ---------------------------------------------
void EstSnr(T_AdspNsState *ns_st, float supperessed_eng);
int VadDet(T_AdspNsState *ns_st, float supperessed_eng);
int VadDetAsr(T_AdspNsState *ns_st, float supperessed_eng);
int VadDetAecWkp(T_AdspNsState *ns_st, float supperessed_eng);

}  // namespace vorn
