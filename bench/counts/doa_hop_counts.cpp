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
// not the cycles). 100 hops run before the count starts, so the noise is
// learnt and the pools hold evidence.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "count_markers.h"
#include "doa_hop_work.h"

namespace {

using namespace vorn;

constexpr std::size_t kWarmHops = 100;

struct Input {
  std::vector<short> pcm;
  std::size_t hops;
};

// A talker the counter can afford: bursts of low-passed noise (0.2 s on,
// 0.1 s off, sharp onsets as syllables have) arriving from 70 degrees, each
// microphone hearing them a whole number of samples early or late as the
// plane wave's delay rounds, over sensor noise 40 dB down. The benches'
// speech-like voice costs twenty times the counted hops to make, more than
// qemu's log of every instruction can carry.
Input Talker(std::size_t hops) {
  constexpr double kAzimuthDeg = 70.0, kRadiusSamples = 0.039 * 16000.0 / 340.0, kPi = 3.14159265358979323846;
  constexpr std::size_t kMargin = 4, kPeriod = 4800, kOn = 3200;
  const std::size_t n = hops * kBfHop + kBfFftLen;
  unsigned state = 12345u;
  const auto uniform = [&state] {  // in [-0.5, 0.5)
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) * (1.0f / 16777216.0f) - 0.5f;
  };
  std::vector<float> source(n + 2 * kMargin);
  float low = 0.0f;  // falling 6 dB an octave above 250 Hz or so, as speech does
  for (std::size_t i = 0; i < source.size(); ++i) {
    low = 0.9f * low + (i % kPeriod < kOn ? 3200.0f * uniform() : 0.0f);
    source[i] = low;
  }
  Input in{std::vector<short>(kBfChannels * n), hops};
  for (int m = 0; m < kBfChannels; ++m) {
    const long lead = std::lround(kRadiusSamples * std::cos((kAzimuthDeg - 120.0 * m) * kPi / 180.0));
    for (std::size_t i = 0; i < n; ++i)
      in.pcm[kBfChannels * i + static_cast<std::size_t>(m)] =
          static_cast<short>(source[i + kMargin + static_cast<std::size_t>(lead)] + 160.0f * uniform());
  }
  return in;
}

// The counted hops, from kWarmHops on; the sum of the azimuths keeps them
// from being dropped.
__attribute__((noinline)) double CountedClassicHops(const Input& in, T_AudioDspState* st) {
  double sum = 0.0;
  vorn_count_begin();
  for (std::size_t h = kWarmHops; h < in.hops; ++h) {
    bench::FillBuffers(in.pcm.data(), h, st->au);
    sum += bench::ClassicDoaHop(st);
  }
  vorn_count_end();
  return sum;
}

__attribute__((noinline)) double CountedEnhancedHops(const Input& in, TDoaTrackerEnhanced* t, const DoaHopCues& cues) {
  double sum = 0.0;
  float au[kBfChannels][kBfFftLen];
  vorn_count_begin();
  for (std::size_t h = kWarmHops; h < in.hops; ++h) {
    bench::FillBuffers(in.pcm.data(), h, au);
    sum += bench::EnhancedDoaHop(t, au, cues).azimuth_deg;
  }
  vorn_count_end();
  return sum;
}

double Classic(const Input& in) {
  std::vector<float> buffer(kBfBuffSize / sizeof(float));
  T_AudioDspState* st = bench::ClassicDoaState(buffer.data());
  if (st == nullptr) return -1.0;
  for (std::size_t h = 0; h < kWarmHops; ++h) {
    bench::FillBuffers(in.pcm.data(), h, st->au);
    bench::ClassicDoaHop(st);
  }
  return CountedClassicHops(in, st);
}

double Enhanced(const Input& in, float presence) {
  static TDoaTrackerEnhanced tracker;
  DoaTrackerInit(&tracker);
  const DoaHopCues cues{presence, 0.0f, false, true};
  float au[kBfChannels][kBfFftLen];
  for (std::size_t h = 0; h < kWarmHops; ++h) {
    bench::FillBuffers(in.pcm.data(), h, au);
    bench::EnhancedDoaHop(&tracker, au, cues);
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
