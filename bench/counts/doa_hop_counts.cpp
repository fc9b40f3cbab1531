// Runs N hops of per-frame direction finding between two marker functions,
// so that an instruction counter can count exactly those hops:
// bench/doa_hop_counts.sh runs it under qemu-aarch64 and under callgrind.
//
//   vorn_doa_hop_counts classic|evidence|pause N
//
// classic: the classic doa_flag 1 work of a hop (three windowed transforms
// and the steered search with its history). evidence and pause: the
// enhanced tracker's hop (three transforms of the analysis buffers and the
// tracker), with the speech presence at 1 or 0. A time under emulation says
// nothing about a device and a time on a shared machine wanders by a fifth
// from run to run; an instruction count does neither (it counts the work,
// not the cycles). The input is bench_doa_enhanced's: a talker at 70 degrees
// over sensor noise, 100 hops in before the count starts, so the noise is
// learnt and the pools hold evidence.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/doa_tracker_enhanced.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "count_markers.h"
#include "sim/signals.h"

namespace {

using namespace vorn;

constexpr std::size_t kWarmHops = 100;

struct Input {
  std::vector<short> pcm;
  std::size_t hops;
};

Input Talker(std::size_t hops) {
  const std::size_t n = hops * kBfHop + kBfFftLen;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, 5u);
  return {sim::Interleave(sim::Mix(sim::PlaneWave(talker.samples, 70.0), sim::IndependentNoise(n, 100.0, 6u))), hops};
}

// The analysis buffers of hop h, as the beamformer keeps them.
void FillBuffers(const Input& in, std::size_t h, float au[kBfChannels][kBfFftLen]) {
  const short* frame = in.pcm.data() + h * kBfHop * kBfChannels;
  for (int m = 0; m < kBfChannels; ++m)
    for (int n = 0; n < kBfFftLen; ++n) au[m][n] = frame[kBfChannels * n + m];
}

float ClassicHop(T_AudioDspState* st) {
  st->frame_num = st->frame_num < kBfFrameNumMax ? st->frame_num + 1 : kBfFrameNumMax;
  float windowed[kBfChannels][kBfFftLen];
  for (int m = 0; m < kBfChannels; ++m) {
    for (int n = 0; n < kBfFftLen; ++n) windowed[m][n] = st->au[m][n] * hanmming_win[n];
    fft_rel(windowed[m], kBfFftLen, kBfFftOrder);
  }
  return DOA(st, windowed);
}

float EnhancedHop(TDoaTrackerEnhanced* t, const float au[kBfChannels][kBfFftLen], const DoaHopCues& cues) {
  float spectra[kBfChannels][kBfFftLen];
  for (int m = 0; m < kBfChannels; ++m) {
    std::memcpy(spectra[m], au[m], sizeof spectra[m]);
    fft_rel(spectra[m], kBfFftLen, kBfFftOrder);
  }
  return DoaTrackerHop(t, spectra, cues).azimuth_deg;
}

// The counted hops, from kWarmHops on; the sum of the azimuths keeps them
// from being dropped.
__attribute__((noinline)) double CountedClassicHops(const Input& in, T_AudioDspState* st) {
  double sum = 0.0;
  vorn_count_begin();
  for (std::size_t h = kWarmHops; h < in.hops; ++h) {
    FillBuffers(in, h, st->au);
    sum += ClassicHop(st);
  }
  vorn_count_end();
  return sum;
}

__attribute__((noinline)) double CountedEnhancedHops(const Input& in, TDoaTrackerEnhanced* t, const DoaHopCues& cues) {
  double sum = 0.0;
  float au[kBfChannels][kBfFftLen];
  vorn_count_begin();
  for (std::size_t h = kWarmHops; h < in.hops; ++h) {
    FillBuffers(in, h, au);
    sum += EnhancedHop(t, au, cues);
  }
  vorn_count_end();
  return sum;
}

double Classic(const Input& in) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{buffer.data(), kBfBuffSize, kBfParamSize, 0, 0, 0, 1, 0, 0, 0, 1, 0};
  if (BFInit(&pm) != 0) return -1.0;
  auto* st = static_cast<T_AudioDspState*>(pm.p_data);
  for (std::size_t h = 0; h < kWarmHops; ++h) {
    FillBuffers(in, h, st->au);
    ClassicHop(st);
  }
  return CountedClassicHops(in, st);
}

double Enhanced(const Input& in, float presence) {
  static TDoaTrackerEnhanced tracker;
  DoaTrackerInit(&tracker);
  const DoaHopCues cues{presence, 0.0f, false, true};
  float au[kBfChannels][kBfFftLen];
  for (std::size_t h = 0; h < kWarmHops; ++h) {
    FillBuffers(in, h, au);
    EnhancedHop(&tracker, au, cues);
  }
  return CountedEnhancedHops(in, &tracker, cues);
}

}  // namespace

int main(int argc, char** argv) {
  const std::string which = argc == 3 ? argv[1] : "";
  const int n = argc == 3 ? std::atoi(argv[2]) : 0;
  if ((which != "classic" && which != "evidence" && which != "pause") || n < 1) {
    std::fprintf(stderr, "usage: %s classic|evidence|pause N\n", argv[0]);
    return 2;
  }
  const Input in = Talker(kWarmHops + static_cast<std::size_t>(n));
  const double seen = which == "classic" ? Classic(in) : Enhanced(in, which == "evidence" ? 1.0f : 0.0f);
  std::printf("%s %d hops, %g\n", which.c_str(), n, seen);
  return 0;
}
