// Frame flow of the beamformer module. Each hop slides the three 512-sample
// analysis buffers by 256 and transforms them unwindowed: the beams are
// formed per bin and brought back by overlap-save, keeping the second half
// of each inverse transform. The direction finder works on a separately
// windowed copy of the same buffers, since leakage between bins would blur
// the per-bin phase it relies on.
#include "adsp_bf/audio_dsp_proc.h"

#include <cstring>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/beamformer.h"
#include "adsp_bf/util.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "common/adsp_common_util.h"
#include "common/fft_rel_lanes.h"

namespace vorn {

namespace {

constexpr int kBeamTypes = 8;  // bf_flag 0..7
constexpr float kInitPower = 1e-8f;

bool IsGscAngle(int angle) { return angle == 0 || angle == 60 || angle == 300; }

void Windowed(const float* au, float* block) {
  for (int n = 0; n < kBfFftLen; ++n) block[n] = au[n] * hanmming_win[n];
}

void WindowedSpectrum(const float* au, float* spectrum) {
  Windowed(au, spectrum);
  fft_rel(spectrum, kBfFftLen, kBfFftOrder);
}

// The three microphones' or beams' blocks of a hop go through the transform
// together.
void ForwardThree(float block[kBfChannels][kBfFftLen]) {
  float* const blocks[kBfChannels] = {block[0], block[1], block[2]};
  FftRelLanes(blocks, kBfChannels, kBfFftLen, kBfFftOrder);
}

// The multi-beam and direction steps run in functions of their own, kept
// out of line: their blocks then live on the stack only while they run, not
// through the whole hop and the adaptive beam's deeper calls.
[[gnu::noinline]] void MultiBeamOutputs(T_AudioDspState* st, float spectrum[kBfChannels][kBfFftLen], int angle) {
  float beam[kBfChannels][kBfFftLen];
  MbfCarry carry;
  for (int b = 0; b < kBfChannels; ++b) MbfBeam(spectrum, beam[b], b, angle, carry);
  float* const beams[kBfChannels] = {beam[0], beam[1], beam[2]};
  IfftRelLanes(beams, kBfChannels, kBfFftLen, kBfFftOrder);
  for (int b = 0; b < kBfChannels; ++b) Float2PCM(beam[b] + kBfHop, st->inner_data_exchange.mbf_au[b], kBfHop);
}

[[gnu::noinline]] int TrackDirection(T_AudioDspState* st) {
  float windowed[kBfChannels][kBfFftLen];
  for (int m = 0; m < kBfChannels; ++m) Windowed(st->au[m], windowed[m]);
  ForwardThree(windowed);
  return DOA(st, windowed);
}

[[gnu::noinline]] void SpeechNoiseWeights(T_AudioDspState* st) {
  for (int h = kBfHistory - 1; h > 0; --h)
    CopyData(st->speech_noise_weight[h], st->speech_noise_weight[h - 1], kBfNumBins);
  // Only microphone row 0 feeds the weights, so only its spectrum is formed.
  float windowed[kBfFftLen];
  WindowedSpectrum(st->au[0], windowed);
  float psd[kBfFftLen / 2];
  GetDoaPsd(windowed, psd, kBfFftLen);
  GetBfWeight(psd, st->ns_psd, st->speech_noise_weight[0], kBfFftLen / 2);
}

}  // namespace

int BfParamCheck(T_AudioDspParam* pm) {
  if (pm == nullptr || pm->p_data == nullptr) return kBfErrNull;
  // The first bound is the state record's own size; the second the region
  // the front end reserves. Both are part of the contract.
  if (static_cast<unsigned>(pm->buff_size) <= sizeof(T_AudioDspState) - 1) return kBfErrParam;
  if (pm->buff_size <= kBfBuffSize - 1) return kBfErrParam;
  if (pm->param_size != kBfParamSize) return kBfErrParam;
  if (pm->doa_flag < 0 || pm->doa_flag > 3) return kBfErrParam;
  if ((pm->bf_flag == 1 || pm->bf_flag == 2) && (pm->bf_azimuth < 0 || pm->bf_azimuth > 359)) return kBfErrParam;
  if (pm->bf_flag < 0 || pm->bf_flag >= kBeamTypes) return kBfErrParam;
  if ((pm->bf_flag == 3 || pm->bf_flag == 4) && !IsGscAngle(pm->bf_azimuth)) return kBfErrParam;
  return kBfOk;
}

int BFInit(T_AudioDspParam* pm) {
  const int check = BfParamCheck(pm);
  if (check != kBfOk) return check;
  if (pm->inner_interface_flag != 0 && pm->inner_interface_flag != 1) return kBfErrParam;

  auto* st = static_cast<T_AudioDspState*>(pm->p_data);
  std::memset(st, 0, sizeof(*st));
  InitData(st->ns_psd, kInitPower, kBfNumBins);
  InitData(st->w, kInitPower, kBfNumBins);
  InitData(&st->speech_noise_weight[0][0], 1.0f, kBfHistory * kBfNumBins);
  st->doa_update_flag = 1;
  return kBfOk;
}

namespace {

// BfAnalyse, with the spectra formed only when spectra_wanted: the classic
// hop reads them only for its beam and its multi-beam outputs.
int AnalyseHop(T_AudioDspParam* pm, const short* inp, const short* mic_order, float spectrum[kBfChannels][kBfFftLen],
               bool spectra_wanted) {
  short order[kBfChannels];
  const bool order_ok = TakeMicOrder(mic_order, order);
  if (pm == nullptr || pm->p_data == nullptr || inp == nullptr) return kBfErrNull;
  if (pm->bf_flag < 0 || pm->bf_flag >= kBeamTypes) return kBfErrParam;
  // A slot outside the frame would be read past the caller's buffer; refuse
  // it like any other out-of-range parameter, before the state changes.
  if (!order_ok) return kBfErrParam;

  auto* st = static_cast<T_AudioDspState*>(pm->p_data);
  st->frame_num = st->frame_num < kBfFrameNumMax ? st->frame_num + 1 : kBfFrameNumMax;

  for (int m = 0; m < kBfChannels; ++m) {
    float* au = st->au[m];
    for (int n = 0; n < kBfHop; ++n) au[n] = au[n + kBfHop];
    for (int n = 0; n < kBfHop; ++n) au[kBfHop + n] = static_cast<float>(inp[kBfChannels * n + order[m]]);
    if (spectra_wanted) CopyData(spectrum[m], au, kBfFftLen);
  }
  if (spectra_wanted) ForwardThree(spectrum);

  if (pm->inner_interface_flag == 1) MultiBeamOutputs(st, spectrum, pm->bf_azimuth);
  if (st->doa_update_flag != 0 && pm->ext_doa_update_flag != 0) {
    if (pm->doa_flag == 1) {
      pm->azimuth = TrackDirection(st);
    } else if (pm->doa_flag == 3) {
      SpeechNoiseWeights(st);
    }
  }
  return kBfOk;
}

}  // namespace

int BfAnalyse(T_AudioDspParam* pm, const short* inp, const short* mic_order,
              float spectrum[kBfChannels][kBfFftLen]) {
  return AnalyseHop(pm, inp, mic_order, spectrum, true);
}

int BfProc(T_AudioDspParam* pm, const short* inp, short* out, const short* mic_order) {
  if (out == nullptr) return kBfErrNull;
  // With the beam off and no multi-beam output asked for, nothing reads the
  // spectra and they are not formed.
  const bool spectra_wanted = pm != nullptr && (pm->bf_flag != 0 || pm->inner_interface_flag == 1);
  float spectrum[kBfChannels][kBfFftLen];
  const int rc = AnalyseHop(pm, inp, mic_order, spectrum, spectra_wanted);
  if (rc != kBfOk) return rc;

  if (pm->bf_flag != 0) {
    float beam[kBfFftLen];
    BF(static_cast<T_AudioDspState*>(pm->p_data), spectrum, beam, pm->bf_flag, pm->bf_azimuth);
    Float2PCM(beam, out, kBfHop);
  } else {
    for (int n = 0; n < kBfHop; ++n) out[n] = inp[kBfChannels * n];
  }
  return kBfOk;
}

}  // namespace vorn
