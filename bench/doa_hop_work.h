// One hop of per-frame direction finding, classic and enhanced, as
// bench_doa_enhanced times it and bench/counts/doa_hop_counts.cpp counts it:
// the analysis buffers filled from interleaved input, the classic doa_flag 1
// work (three windowed transforms and the steered search with its history)
// and the enhanced tracker's (three transforms of the buffers and the
// tracker).
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/doa_tracker_enhanced.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"

namespace vorn::bench {

// The analysis buffers of hop h of interleaved three-microphone input, as
// the beamformer keeps them.
inline void FillBuffers(const short* pcm, std::size_t h, float au[kBfChannels][kBfFftLen]) {
  const short* frame = pcm + h * kBfHop * kBfChannels;
  for (int m = 0; m < kBfChannels; ++m)
    for (int n = 0; n < kBfFftLen; ++n) au[m][n] = frame[kBfChannels * n + m];
}

// Prepares the classic direction finder in `buffer` (kBfBuffSize bytes) for
// doa_flag 1, its noise estimate set to a steady floor as the suppressor
// would have left it; null when the initialisation fails.
inline T_AudioDspState* ClassicDoaState(float* buffer) {
  T_AudioDspParam pm{buffer, kBfBuffSize, kBfParamSize, 0, 0, 0, 1, 0, 0, 0, 1, 0};
  if (BFInit(&pm) != 0) return nullptr;
  auto* st = static_cast<T_AudioDspState*>(pm.p_data);
  std::fill(st->ns_psd, st->ns_psd + kBfNumBins, 1e4f);
  return st;
}

// The classic hop over the buffers already in `st->au`.
inline float ClassicDoaHop(T_AudioDspState* st) {
  st->frame_num = st->frame_num < kBfFrameNumMax ? st->frame_num + 1 : kBfFrameNumMax;
  float windowed[kBfChannels][kBfFftLen];
  for (int m = 0; m < kBfChannels; ++m) {
    for (int n = 0; n < kBfFftLen; ++n) windowed[m][n] = st->au[m][n] * hanmming_win[n];
    fft_rel(windowed[m], kBfFftLen, kBfFftOrder);
  }
  return DOA(st, windowed);
}

// The enhanced hop over the buffers `au`.
inline DoaTrack EnhancedDoaHop(TDoaTrackerEnhanced* t, const float au[kBfChannels][kBfFftLen], const DoaHopCues& cues) {
  float spectra[kBfChannels][kBfFftLen];
  for (int m = 0; m < kBfChannels; ++m) {
    std::memcpy(spectra[m], au[m], sizeof spectra[m]);
    fft_rel(spectra[m], kBfFftLen, kBfFftOrder);
  }
  return DoaTrackerHop(t, spectra, cues);
}

}  // namespace vorn::bench
