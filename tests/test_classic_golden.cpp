// The classic profile's output, pinned.
//
// Existing integrations depend on the classic profile bit for bit, so every
// byte it produces is pinned here: each operating mode with its built-in
// switches, the heaviest switch set, every beam type, each canceller output,
// both direction searches, with and without a reference. The inputs are made
// with integer arithmetic only, so they are the same on every machine and do
// not move when the shared signal generators change. A failure prints the
// configuration and the hash it got; a classic output that changes on purpose
// is a decision for the whole team, never a re-recording in passing.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <vector>

#include "sim/switches.h"
#include "vorn_proc.h"

namespace {

constexpr int kFrame = 256;
constexpr int kMics = 3;
constexpr int kFrames = 180;  // 2.9 s: the suppressor's and canceller's start-up and some steady state
constexpr int kStateBytes = 1000000;

// 64-bit FNV-1a over everything a caller can observe.
struct Hash {
  uint64_t value = 1469598103934665603ull;
  void Add(int64_t x) {
    for (int byte = 0; byte < 8; ++byte) {
      value ^= static_cast<uint64_t>(x >> (8 * byte)) & 0xffu;
      value *= 1099511628211ull;
    }
  }
};

struct Lcg {
  uint32_t state;
  int32_t Next() {  // uniform in -32768..32767
    state = state * 1664525u + 1013904223u;
    return static_cast<int32_t>(state >> 16) - 32768;
  }
};

// A voiced talker: a pulse train whose period glides, through a two-pole
// resonance, gated into syllables. Integer arithmetic throughout.
std::vector<int32_t> Talker(int n, int period0, uint32_t seed) {
  std::vector<int32_t> out(static_cast<size_t>(n));
  Lcg lcg{seed};
  int32_t y1 = 0, y2 = 0;
  int phase = 0;
  for (int i = 0; i < n; ++i) {
    const int period = period0 + (i / 800) % 17;
    const int32_t excitation = (++phase >= period) ? (phase = 0, 12000) : lcg.Next() / 64;
    // y = x + 1.6 y1 - 0.81 y2, in Q10
    const int32_t y = excitation + (1638 * y1 - 829 * y2) / 1024;
    y2 = y1;
    y1 = y;
    const bool voiced = (i / 3200) % 3 != 2;  // 0.2 s syllables, a pause every third
    out[static_cast<size_t>(i)] = voiced ? y / 4 : 0;
  }
  return out;
}

int16_t Clip(int64_t v) { return static_cast<int16_t>(v > 32767 ? 32767 : v < -32768 ? -32768 : v); }

// Three microphones and a loudspeaker reference: the talker reaches the
// microphones with whole-sample delays (a direction off the array's axes), the
// reference reaches them through a decaying echo path, and each microphone
// has its own noise.
struct Capture {
  std::vector<short> mics, ref;
};

Capture MakeCapture(int frames, bool echo) {
  const int n = frames * kFrame;
  const std::vector<int32_t> talker = Talker(n + 8, 95, 7u);
  const std::vector<int32_t> far = Talker(n, 71, 99u);
  Capture c{std::vector<short>(static_cast<size_t>(n * kMics)), std::vector<short>(static_cast<size_t>(n))};
  for (int i = 0; i < n; ++i) c.ref[static_cast<size_t>(i)] = Clip(far[static_cast<size_t>(i)]);
  Lcg path_lcg{2024u};
  std::vector<int32_t> path(200);
  for (int k = 0; k < 200; ++k) path[static_cast<size_t>(k)] = k < 24 ? 0 : path_lcg.Next() * (200 - k) / (200 * 8);
  Lcg noise{31u};
  const int delays[kMics] = {0, 3, 5};
  for (int i = 0; i < n; ++i) {
    int64_t echo_sample = 0;
    if (echo)
      for (int k = 24; k < 200 && k <= i; ++k)
        echo_sample += static_cast<int64_t>(path[static_cast<size_t>(k)]) * c.ref[static_cast<size_t>(i - k)];
    for (int m = 0; m < kMics; ++m) {
      const int64_t v = talker[static_cast<size_t>(i + 8 - delays[m])] + echo_sample / 32768 + noise.Next() / 128;
      c.mics[static_cast<size_t>(i * kMics + m)] = Clip(v);
    }
  }
  return c;
}

using vorn::sim::Switches;

struct Case {
  const char* name;
  int mode;           // 0..2 with that mode's built-in switches, or -1 for `switches`
  Switches switches;  // used when mode is -1
  int doa_update;
  bool with_ref;
  uint64_t want;
};

// Runs one configuration over the capture and hashes outputs, flags,
// azimuths and return codes frame by frame.
uint64_t RunCase(const Case& c, const Capture& cap) {
  std::vector<unsigned char> state(kStateBytes);
  T_VornParam pm{};
  pm.p_data = state.data();
  pm.buff_size = kStateBytes;
  pm.param_size = static_cast<int32_t>(sizeof(T_VornParam));
  pm.vorn_mode = c.mode;
  pm.doa_update_flag = c.doa_update;
  if (c.mode < 0) vorn::sim::CopySwitches(c.switches, &pm);
  Hash h;
  h.Add(VornInit(&pm, nullptr));
  short order[kMics] = {0, 1, 2};
  std::vector<short> mics = cap.mics;
  std::vector<short> ref = cap.ref;
  short out[kFrame];
  for (int f = 0; f < kFrames; ++f) {
    const int rc = VornProc(&pm, mics.data() + f * kFrame * kMics, c.with_ref ? ref.data() + f * kFrame : nullptr,
                            out, order);
    h.Add(rc);
    h.Add(pm.vad_flag);
    h.Add(pm.azimuth);
    for (short s : out) h.Add(s);
  }
  // The utterance searches over the last two seconds, then the per-hop one.
  const int stretch = 125 * kFrame;
  short* tail = mics.data() + (kFrames * kFrame - stretch) * kMics;
  for (int doa : {2, 3, 1}) {
    pm.doa_flag = doa;
    h.Add(VornDoa(&pm, tail, order, stretch));
    h.Add(pm.azimuth);
  }
  return h.value;
}

TEST(ClassicGolden, EveryOutputByteIsPinned) {
  const Capture echo_capture = MakeCapture(kFrames, true);
  const Capture quiet_capture = MakeCapture(kFrames, false);
  const Switches none{};
  const Case cases[] = {
      {"wake-up mode, built-in switches", 0, none, 1, false, 0x3d5c3e97cd9df28cull},
      {"recognition mode, built-in switches", 1, none, 1, true, 0x2281cf1115d0ec34ull},
      {"communication mode, built-in switches", 2, none, 0, true, 0x2281cf1115d0ec34ull},
      {"heaviest: adaptive beam, tracking, both canceller outputs, post filter, AGC", -1, {2, 4, 1, 3, 2, 60, 1}, 1,
       true, 0xdba689f120be4e9dull},
      {"delay-and-sum, ASR output, suppressor", -1, {1, 1, 1, 1, 1, 30, 1}, 1, true, 0xca38c3fdd4ae7078ull},
      {"MVDR, communication output, post filter", -1, {2, 2, 3, 2, 2, 135, 2}, 1, true, 0xcdaac64fac0cda27ull},
      {"adaptive beam at 300, no suppressor, tracking", -1, {0, 3, 1, 0, 0, 300, 2}, 1, false, 0x95d7c469fbfdb652ull},
      {"strongest sector, both outputs", -1, {1, 5, 0, 3, 1, 90, 1}, 0, true, 0xab2e384537d80579ull},
      {"strongest sector (other), tracking without updates", -1, {2, 6, 1, 1, 2, 180, 2}, 0, true, 0xf559719d3fd04972ull},
      {"fixed set, communication output", -1, {1, 7, 2, 2, 0, 270, 1}, 1, true, 0x623e2d9fa9e3fb57ull},
      {"everything off", -1, {0, 0, 0, 0, 0, 0, 1}, 0, false, 0x2f9e5ed1e8106a56ull},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const uint64_t got = RunCase(c, c.with_ref ? echo_capture : quiet_capture);
    EXPECT_EQ(got, c.want) << "got 0x" << std::hex << got;
  }
}

}  // namespace
