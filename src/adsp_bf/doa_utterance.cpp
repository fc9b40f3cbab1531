// Direction of a whole stretch of speech (for example a detected keyword).
//
// AudioDspDoa re-reads the per-direction scores the running beamformer has
// stored and picks the direction with the largest sum over the stretch's
// hops. VornDoaProc rescores the stretch from its samples, with a private
// noise suppressor providing the noise floor for the bin weights, and then
// refines the choice in two passes: a mean over hops, and a mean in which
// hops that barely support the first choice count half, so that a few loud
// hops from elsewhere weigh less.
//
// The refining passes share one running accumulator that is never reset
// between directions: each direction's mean starts from the previous one's.
// That is how the search is defined and it stays that way.
#include <cstring>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/util.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "common/fft_rel_lanes.h"
#include "common/adsp_common_rom.h"

namespace vorn {

namespace {

constexpr int kNsRegionBytes = 64000;  // size the private suppressor is told it has
constexpr int kMaxStretch = 16384;       // samples after the first frame, i.e. 64 hops

// First direction with the largest score summed over the newest `hops` hops.
int CoarseBest(const T_AudioDspState* st, int hops) {
  float best = 0.0f;
  int best_dir = 0;
  for (int d = 0; d < kBfDoaDirections; ++d) {
    float sum = 0.0f;
    for (int j = 0; j < hops; ++j) sum += st->pr_ele[0][d][kBfHistory - 1 - j];
    if (sum > best) {
      best = sum;
      best_dir = d;
    }
  }
  return best_dir;
}

// Scores one frame of the stretch into the newest history entry. Kept out
// of line so that its spectra are on the stack only while it runs, not
// under the suppressor's own calls.
[[gnu::noinline]] void ScoreHop(T_AudioDspState* st, const short* frame, const short order[kBfChannels],
                                float* noise) {
  // Slot 0's spectrum is only needed for the weights, so it borrows the
  // block of microphone row 0's spectrum, formed after it.
  float spectrum[kBfChannels][kBfFftLen];
  float* spectrum0 = spectrum[0];
  for (int n = 0; n < kBfFftLen; ++n) spectrum0[n] = static_cast<float>(frame[kBfChannels * n]) * hanmming_win[n];
  fft_rel(spectrum0, kBfFftLen, kBfFftOrder);
  float psd[kBfFftLen / 2];
  GetDoaPsd(spectrum0, psd, kBfFftLen);
  float weight[kBfFftLen / 2];
  GetBfWeight(psd, noise, weight, kBfFftLen / 2);

  for (int m = 0; m < kBfChannels; ++m)
    for (int n = 0; n < kBfFftLen; ++n)
      spectrum[m][n] = static_cast<float>(frame[kBfChannels * n + order[m]]) * hanmming_win[n];
  float* const spectra[kBfChannels] = {spectrum[0], spectrum[1], spectrum[2]};
  FftRelLanes(spectra, kBfChannels, kBfFftLen, kBfFftOrder);
  DoaSelectBfElevationAzimuth(st, spectrum, weight);
}

}  // namespace

int AudioDspDoa(T_AudioDspParam* pm, const short* inp, const short* mic_oder, int sample_len_pre_channel) {
  if (pm == nullptr || pm->p_data == nullptr || inp == nullptr || mic_oder == nullptr) return kBfErrNull;
  if (pm->doa_flag < 1 || pm->doa_flag > 3) return kBfErrParam;
  auto* st = static_cast<T_AudioDspState*>(pm->p_data);
  if (st->frame_num == 0) return kBfErrNotReady;

  int hops = sample_len_pre_channel / kBfHop;
  if (hops < 1) {
    pm->azimuth = st->azimuth_buff[kBfHistory - 1];
    return kBfOk;
  }
  if (hops > kBfHistory) hops = kBfHistory;
  pm->azimuth = CoarseBest(st, hops) * 360 / kBfDoaDirections;
  return kBfOk;
}

int VornDoaProc(T_AudioDspParam* pm, const short* inp, const short* mic_order, int sample_len_pre_channel) {
  const int hops = sample_len_pre_channel - kBfFftLen < kMaxStretch ? (sample_len_pre_channel - kBfFftLen) / kBfHop
                                                                     : kBfHistory;
  if (pm == nullptr || pm->p_data == nullptr) return kBfErrNull;
  auto* st = static_cast<T_AudioDspState*>(pm->p_data);
  std::memset(st->pr_ele, 0, sizeof(st->pr_ele));
  if (inp == nullptr) return kBfErrNull;
  short order[kBfChannels];
  if (!TakeMicOrder(mic_order, order)) return kBfErrParam;  // slot outside the frame

  // The suppressor reads and writes its state record and nothing past it,
  // so the block on the stack is that record alone (56 KB), although the
  // suppressor is told of the region every instance gets.
  alignas(16) T_AdspNsState ns_block;
  std::memset(&ns_block, 0, sizeof(ns_block));
  T_AdspNsParam ns_pm;
  ns_pm.p_data = &ns_block;
  ns_pm.buff_size = kNsRegionBytes;
  ns_pm.param_size = kNsParamSize;
  ns_pm.data_type = kNsDataTimeDomain;
  ns_pm.inner_interface_flag = 0;
  ns_pm.speech_iterfrence_flag = 0;
  ns_pm.vad_flag = 0;
  ns_pm.vad_mode = 1;
  // The library never prints; the code says it all.
  if (AdspNsInit(&ns_pm) != 0) return kBfErrNotReady;
  auto* ns_st = static_cast<T_AdspNsState*>(ns_pm.p_data);

  // The newest entry of a history of `hops` is scored by the last hop, the
  // oldest stays 0: hops - 1 frames of 512 fit in the stretch.
  for (int h = 0; h + 1 < hops; ++h) {
    const short* frame = inp + static_cast<long>(h) * kBfHop * kBfChannels;

    // The suppressor sees slot 0 as the front end would feed it, each
    // 256-sample block once as the end of one frame and once as the start
    // of the next; only its noise estimate is used.
    short slot0[kBfFftLen];
    for (int n = 0; n < kBfFftLen; ++n) slot0[n] = frame[kBfChannels * n];
    short ns_audio[kBfHop];
    AdspNsProc(&ns_pm, nullptr, nullptr, nullptr, slot0, ns_audio);
    AdspNsProc(&ns_pm, nullptr, nullptr, nullptr, slot0 + kBfHop, ns_audio);

    ScoreHop(st, frame, order, ns_st->lambda_d);
  }

  // With no hop scored every sum is 0 and every search keeps direction 0;
  // the divisor only needs to stay away from 0.
  const float divisor = static_cast<float>(hops > 0 ? hops : 1);
  const int history = hops < kBfHistory ? hops : kBfHistory;
  const float(*scores)[kBfHistory] = st->pr_ele[0];

  // The plain best-sum pick of AudioDspDoa is not needed here: the averaged
  // searches below decide.
  float acc = 0.0f;
  float best = 0.0f;
  int mean_dir = 0;
  for (int d = 0; d < kBfDoaDirections; ++d) {
    for (int j = 0; j < history; ++j) acc += scores[d][kBfHistory - 1 - j];
    acc /= divisor;
    if (acc > best) {
      best = acc;
      mean_dir = d;
    }
  }

  for (int j = 0; j < history; ++j) acc += scores[mean_dir][kBfHistory - 1 - j];
  acc /= divisor;
  float mask[kBfHistory];
  for (int j = 0; j < history; ++j) mask[j] = scores[mean_dir][kBfHistory - 1 - j] / acc > 0.1f ? 1.0f : 0.5f;

  best = 0.0f;
  int masked_dir = 0;
  for (int d = 0; d < kBfDoaDirections; ++d) {
    for (int j = 0; j < history; ++j) acc += mask[j] * scores[d][kBfHistory - 1 - j];
    acc /= divisor;
    if (acc > best) {
      best = acc;
      masked_dir = d;
    }
  }

  pm->azimuth = masked_dir * 360 / kBfDoaDirections;
  st->doa_update_flag = 1;
  return kBfOk;
}

}  // namespace vorn
