// Steps of a frame shared by both processing profiles. See vorn_proc.cpp for
// the order they run in.
#include "vorn/vorn_frame_steps.h"

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/analog_agc.h"
#include "common/adsp_common_util.h"
#include "vorn/vorn_housekeeping.h"
#include "vorn/vorn_proc_internal.h"

namespace vorn {

void FillBfParam(const T_VornParam* pm, TVornState* st) {
  TBfParam& bf = st->bf_pm;
  bf.p_data = st->bf_buff;
  bf.buff_size = kRegionBfBuffSize;
  bf.param_size = kBfParamSize;
  bf.agc_flag = pm->agc_flag;
  bf.bf_flag = pm->bf_flag;
  bf.bf_azimuth = pm->bf_azimuth;
  bf.doa_flag = pm->doa_flag;
  bf.aec_flag = pm->aec_flag;
  bf.ns_flag = pm->ns_flag;
  bf.azimuth = pm->azimuth;
  bf.ext_doa_update_flag = pm->doa_update_flag;
  // The three multi-beam channels are read by the post filter alone, later in
  // the same frame, so they are formed only on frames it runs.
  bf.inner_interface_flag = pm->ns_flag == 2 ? 1 : 0;
}

void FillBfParamForDoa(const T_VornParam* pm, TVornState* st) {
  TBfParam& bf = st->bf_pm;
  bf.bf_flag = pm->bf_flag;
  bf.aec_flag = pm->aec_flag;
  bf.agc_flag = pm->agc_flag;
  bf.buff_size = kRegionBfBuffSize;
  bf.doa_flag = pm->doa_flag;
  bf.ns_flag = pm->ns_flag;
  bf.param_size = kBfParamSize;
  bf.p_data = st->bf_buff;
  bf.ext_doa_update_flag = pm->doa_update_flag;
}

void FillNsParam(TNsParam* ns, unsigned char* region) {
  ns->p_data = region;
  ns->buff_size = kRegionNsBuffSize;
  ns->param_size = kNsParamSize;
  ns->data_type = kNsDataTimeDomain;
  ns->inner_interface_flag = 0;
}

void RefreshNsParams(const T_VornParam* pm, TVornState* st) {
  // A wake-up VAD listens with its echo-aware rule while the canceller runs.
  const int vad_mode = (pm->aec_flag > 0 && pm->vad_mode == 1) ? 3 : pm->vad_mode;
  for (int i = 0; i < 3; ++i) {
    FillNsParam(&st->ns_pm[i], st->ns_buff[i]);
    st->ns_pm[i].speech_iterfrence_flag = 1;
    st->ns_pm[i].vad_mode = vad_mode;
  }
}

int32_t KeepCancellerReady(const T_VornParam* pm, TVornState* st) {
  CancellerBook& book = HousekeepingOf(st)->canceller;
  if (pm->aec_flag == 0) {
    if (book.ran) book.idle = 1;
    return 0;
  }
  int32_t rc = 0;
  if (book.idle) {
    // Its far-end history and alignment stopped with it; start afresh from
    // the echo path VornInit read.
    rc = AdspAec_Reset(AecInstanceOf(st), pm->aec_flag);
  } else if (book.outputs != pm->aec_flag) {
    rc = AdspAec_SetOutputs(AecInstanceOf(st), pm->aec_flag);
  }
  if (rc != 0) return rc;
  book = {pm->aec_flag, 1, 0};
  return 0;
}

int CancelEcho(const T_VornParam* pm, TVornState* st, const short* near, const short* ref, short* out, short* vad_in,
               float* subcoh) {
  void* aec = AecInstanceOf(st);
  // KeepCancellerReady has made the canceller produce the outputs aec_flag
  // selects.
  float near_f[kAecBlock], far_f[kAecBlock], asr[kAecBlock] = {}, com[kAecBlock] = {};
  for (int block = 0; block < kFrameLen / kAecBlock; ++block) {
    const int at = block * kAecBlock;
    for (int i = 0; i < kAecBlock; ++i) {
      near_f[i] = static_cast<float>(near[at + i]);
      far_f[i] = static_cast<float>(ref[at + i]);
    }
    int rc = AdspAec_BufferFarend(aec, far_f, kAecBlock);
    if (rc != 0) return rc;
    const float* near_bands[1] = {near_f};
    float* asr_bands[1] = {asr};
    float* com_bands[1] = {com};
    rc = AdspAec_Process(aec, near_bands, 1, asr_bands, com_bands, subcoh, kCohLen, kAecBlock, 0, 0);
    if (rc != 0) return rc;
    switch (pm->aec_flag) {
      case 1:
        Float2PCM(asr, out + at, kAecBlock);
        break;
      case 2:
        Float2PCM(com, out + at, kAecBlock);
        break;
      default:
        Float2PCM(asr, out + at, kAecBlock);
        Float2PCM(com, vad_in + at, kAecBlock);
        break;
    }
  }
  return 0;
}

int32_t RunDigitalAgc(const T_VornParam* pm, TVornState* st, short* in, short* out) {
  const auto* vad_st = static_cast<const T_AdspNsState*>(st->ns_vad_pm.p_data);
  const float fSNR[3] = {vad_st->f_snr, vad_st->long_eta, vad_st->_d_ssnr};
  int32_t agcSNR[3];
  Float2int32_SNR(fSNR, agcSNR, 128, -128, 3);
  return DigitalAgc_Process(st->agc_buff, in, kFrameLen, out, -1, static_cast<int16_t>(pm->agc_flag), agcSNR, 1);
}

}  // namespace vorn
