// Multi-channel post filter.
//
// Three fixed beams look at the talker and at two other sectors. Each beam
// runs its own noise tracker; a bin of the output (beam 0) is treated as
// speech only when beam 0's excess power over its noise floor dominates the
// excess seen by the other two beams, so diffuse noise and interferers from
// other directions are suppressed even when they are not stationary. The
// speech absence probability built from that comparison replaces the
// single-channel estimate; the gain rule and synthesis are the suppressor's.
//
// Two details differ from the single-channel suppressor on purpose and are
// kept: the frame counter toggles between 100000 and 100001 instead of
// saturating, and the gains of beam 0 are applied to the spectrum buffer as
// the last beam left it (beam 2's spectrum).
#include "adsp_ns/adsp_ns_mcpf.h"

#include "adsp_ns/adsp_ns_kernels.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"
#include "common/fft_rel_lanes.h"

namespace vorn {
namespace {

constexpr int kBeams = 3;

}  // namespace

void VornMcpfGains(T_AdspNsParam* pm, short mbf_time_signal[][256], float* spectrum, float* gain, int* p_vad_flag) {
  float psd[kNsBins];
  int votes = 0;
  NsSharedTerms terms;  // beam 0's, which the gain rule reads: beam 0 runs first

  // The three beams' blocks go through the transform together; beam 2's
  // is formed in the caller's spectrum buffer.
  float other[kBeams - 1][kNsFftLen];
  float* const spectra[kBeams] = {other[0], other[1], spectrum};
  for (int b = 0; b < kBeams; ++b) {
    auto* st = static_cast<T_AdspNsState*>(pm[b].p_data);
    SaveFrameMoveAu(st->au, mbf_time_signal[b], kNsFftLen, kNsHop);
    AddWin(st->au, hanmming_win, kNsFftLen, spectra[b]);
  }
  FftRelLanes(spectra, kBeams, kNsFftLen, kNsFftOrder);

  *p_vad_flag = 1;
  for (int b = 0; b < kBeams; ++b) {
    auto* st = static_cast<T_AdspNsState*>(pm[b].p_data);
    st->speech_interference = pm[0].speech_iterfrence_flag;
    if (st->frame < kNsFrameMax + 1)
      ++st->frame;
    else
      st->frame = kNsFrameMax;

    GetPsd(spectra[b], kNsFftLen, psd);
    NsSharedTerms other_terms;
    NoiseEst(st, psd, b == 0 ? &terms : &other_terms);
    votes += VadDet(st, -100.0f);

    if (++st->curr_trace_id > kNsTraceRows - 1) st->curr_trace_id = 0;
  }
  if (votes == 0) *p_vad_flag = 0;

  // Each beam's smoothed periodogram and noise estimate stay in its own
  // record, untouched by the other beams, so all three are compared here.
  auto* s0 = static_cast<T_AdspNsState*>(pm[0].p_data);
  NsBeamPowers powers{};
  for (int b = 0; b < kBeams; ++b) {
    const auto* st = static_cast<const T_AdspNsState*>(pm[b].p_data);
    powers.s[b] = st->s;
    powers.noise[b] = st->lambda_d;
  }
  powers.gamma0 = s0->gamma;
  float q[kNsBins];
  NsBeamAbsence(powers, q, kNsBins);

  if (s0->frame > 120) UpdateAbsenceProb(s0->lambda_dav_long, q, 0, kNsBins - 1);
  EstGain(s0, q, terms, gain, 0, kNsBins - 1);
}

void VornMcpfSynthesis(T_AdspNsParam* pm, float* spectrum, float* gain, short* mcpf_out) {
  auto* s0 = static_cast<T_AdspNsState*>(pm[0].p_data);
  NsFreqFilter(spectrum, gain, spectrum);
  ifft_rel(spectrum, kNsFftLen, kNsFftOrder);
  for (int i = 0; i < kNsFftLen; ++i) s0->ns_out[i] += spectrum[i] * hanmming_win[i] * 127.99999f;
  Float2PCM(s0->ns_out, mcpf_out, kNsHop);
  AddZero(s0->ns_out, kNsFftLen, kNsHop);
}

int VornMcpfProc(T_AdspNsParam* pm, short mbf_time_signal[][256], short* mcpf_out, int* p_vad_flag) {
  float spectrum[kNsFftLen];
  float gain[kNsBins];
  VornMcpfGains(pm, mbf_time_signal, spectrum, gain, p_vad_flag);
  VornMcpfSynthesis(pm, spectrum, gain, mcpf_out);
  return 0;
}

}  // namespace vorn
