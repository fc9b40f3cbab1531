// Beamformer module: call-record checks, frame flow, the three-beam output and
// the adaptive canceller, exercised with plane waves on the array.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <tuple>
#include <vector>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beamformer.h"
#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/util.h"
#include "adsp_bf/weight_tables.h"
#include "common/adsp_common_fft_rel.h"
#include "sim/signals.h"

namespace vorn {
namespace {

using sim::Signal;
using sim::ThreeMics;

struct BfInstance {
  std::vector<float> buffer = std::vector<float>(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  explicit BfInstance(int bf_flag = 1, int azimuth = 0, int doa_flag = 0, int inner = 0, bool init = true) {
    // p_data, buff_size, param_size, agc, bf, bf_azimuth, doa, aec, ns, azimuth, ext_doa_update, inner:
    pm = {buffer.data(), kBfBuffSize, kBfParamSize, 0, bf_flag, azimuth, doa_flag, 0, 0, 0, 1, inner};
    if (init) {
      EXPECT_EQ(BFInit(&pm), 0);
    }
  }
  T_AudioDspState* st() { return static_cast<T_AudioDspState*>(pm.p_data); }
  std::vector<short> Hop(std::vector<short>& pcm, std::size_t h, short* order = nullptr) {
    std::vector<short> out(kBfHop);
    EXPECT_EQ(BfProc(&pm, pcm.data() + h * 3 * kBfHop, out.data(), order), 0);
    return out;
  }
};

TEST(BfParamCheck, CodesFollowTheRulesInOrderAndRejectedCallsChangeNothing) {
  struct Case {
    const char* name;
    int buff_size, param_size, doa_flag, bf_flag, bf_azimuth, want;
  };
  const Case cases[] = {
      {"valid fixed beam", 240000, kBfParamSize, 0, 1, 0, 0},
      {"larger buffer", 1000000, kBfParamSize, 1, 2, 359, 0},
      {"state fits, region not", 200000, kBfParamSize, 0, 1, 0, 2},
      {"one byte short", 239999, kBfParamSize, 0, 1, 0, 2},
      {"negative size", -1, kBfParamSize, 0, 1, 0, 2},
      {"record size", 240000, kBfParamSize - 4, 0, 1, 0, 2},
      {"doa flag 4", 240000, kBfParamSize, 4, 1, 0, 2},
      {"doa flag -1", 240000, kBfParamSize, -1, 1, 0, 2},
      {"doa flag 3", 240000, kBfParamSize, 3, 0, 0, 0},
      {"fixed beam at 360", 240000, kBfParamSize, 0, 1, 360, 2},
      {"mvdr at -1", 240000, kBfParamSize, 0, 2, -1, 2},
      {"sector beam at 999", 240000, kBfParamSize, 0, 5, 999, 0},
      {"beam type 8", 240000, kBfParamSize, 0, 8, 0, 2},
      {"beam type -1", 240000, kBfParamSize, 0, -1, 0, 2},
      {"gsc at 120", 240000, kBfParamSize, 0, 3, 120, 2},
      {"gsc at 60", 240000, kBfParamSize, 0, 3, 60, 0},
      {"gsc mvdr at 300", 240000, kBfParamSize, 0, 4, 300, 0},
      {"gsc mvdr at 0", 240000, kBfParamSize, 0, 4, 0, 0},
      {"type 7 at -40", 240000, kBfParamSize, 0, 7, -40, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BfInstance bf(c.bf_flag, c.bf_azimuth, c.doa_flag, 0, false);
    bf.pm.buff_size = c.buff_size;
    bf.pm.param_size = c.param_size;
    EXPECT_EQ(BfParamCheck(&bf.pm), c.want);
    EXPECT_EQ(BFInit(&bf.pm), c.want);
  }
  EXPECT_EQ(BfParamCheck(nullptr), 1);
  BfInstance missing(1, 0, 0, 0, false), bad(1, 0, 0, 2, false), dirty(1, 0, 1, 1, false), clean(1, 0, 1, 1);
  missing.pm.p_data = nullptr;
  missing.pm.param_size = 0;  // a later rule would fail too: the first decides
  EXPECT_EQ(BFInit(&missing.pm), 1);
  // Only BFInit checks the interface flag; and it leaves no trace of what the buffer held.
  EXPECT_EQ(BfParamCheck(&bad.pm), 0);
  EXPECT_EQ(BFInit(&bad.pm), 2);
  std::fill(dirty.buffer.begin(), dirty.buffer.end(), -3.5f);
  ASSERT_EQ(BFInit(&dirty.pm), 0);
  EXPECT_EQ(std::memcmp(clean.st(), dirty.st(), sizeof(T_AudioDspState)), 0);

  // BfProc refuses bad calls before it touches state or output.
  BfInstance bf(1, 30);
  std::vector<short> pcm = sim::Interleave(sim::IndependentNoise(kBfHop, 1000.0, 7));
  std::vector<short> out(kBfHop, 123);
  const std::vector<float> before = bf.buffer;
  short outside[3] = {0, 3, 1}, negative[3] = {-1, 0, 1};
  EXPECT_EQ(BfProc(nullptr, pcm.data(), out.data(), nullptr), 1);
  EXPECT_EQ(BfProc(&bf.pm, nullptr, out.data(), nullptr), 1);
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), nullptr, nullptr), 1);
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), outside), 2);
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), negative), 2);
  for (int type : {8, -1}) {
    bf.pm.bf_flag = type;
    EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), nullptr), 2);
  }
  EXPECT_EQ(std::memcmp(before.data(), bf.buffer.data(), before.size() * sizeof(float)), 0);
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](short v) { return v == 123; }));
}

// A look-direction plane wave in scrambled slots comes out delayed by 128 + 16 samples (weights,
// generator). The multi-beam's first channel is that beam and, for white noise, beats the two
// steered 120 degrees away. Type 0 passes the first slot; the hop counter saturates.
TEST(BfProc, LookDirectionSourcePassesAsADelayedCopy) {
  Signal white = sim::WhiteNoise(40 * kBfHop, 2000.0, 3);
  // [1 2 1]/4-shaped noise for the delay check: fractional delays lose accuracy in the last kHz.
  Signal shaped(white.size(), 0.0f);
  for (std::size_t i = 2; i < white.size(); ++i)
    shaped[i] = 0.25f * white[i] + 0.5f * white[i - 1] + 0.25f * white[i - 2];
  short order[3] = {1, 2, 0};
  const std::pair<int, const Signal*> cases[] = {{40, &shaped}, {215, &shaped}, {250, &white}};
  for (const auto& [azimuth, source] : cases) {
    SCOPED_TRACE(azimuth);
    const ThreeMics mics = sim::PlaneWave(*source, azimuth);
    std::vector<short> pcm = sim::Interleave({mics[2], mics[0], mics[1]});  // slot order[m] holds mic m
    BfInstance bf(1, azimuth), multi(1, azimuth, 0, 1), raw(0);
    raw.st()->frame_num = kBfFrameNumMax - 10;
    double err = 0.0, ref = 0.0, energy[3] = {0, 0, 0};
    for (std::size_t h = 0; h < 40; ++h) {
      const std::vector<short> y = bf.Hop(pcm, h, order), first_slot = raw.Hop(pcm, h, order);
      ASSERT_EQ(multi.Hop(pcm, h, order), y);
      const auto& mbf = multi.st()->inner_data_exchange.mbf_au;
      for (int n = 0; n < kBfHop; ++n) {
        ASSERT_EQ(first_slot[n], pcm[3 * (h * kBfHop + n)]);
        ASSERT_NEAR(mbf[0][n], y[n], 1) << h << " " << n;
        for (int b = 0; b < 3; ++b) energy[b] += double(mbf[b][n]) * mbf[b][n];
        if (h < 2) continue;
        const double want = (*source)[h * kBfHop + n - (128 + 16)];
        err += (y[n] - want) * (y[n] - want);
        ref += want * want;
      }
    }
    EXPECT_EQ(raw.st()->frame_num, kBfFrameNumMax);
    const double residual_db = 10.0 * std::log10(err / ref);
    EXPECT_TRUE(source != &shaped || residual_db < -45.0) << residual_db;
    EXPECT_TRUE(source != &white || (energy[0] > 2 * energy[1] && energy[0] > 2 * energy[2])) << energy[0];
  }
}

// Nothing else sees a wrong DC or Nyquist bin of the packed product.
TEST(BfUtil, FreqFilterIsTheBinProductAndMayWorkInPlace) {
  Signal f = sim::WhiteNoise(512, 0.5, 1), g = sim::WhiteNoise(512, 0.5, 2), out(512);
  FreqFilter(f.data(), g.data(), out.data());
  EXPECT_FLOAT_EQ(out[0], f[0] * g[0]);
  EXPECT_FLOAT_EQ(out[256], f[256] * g[256]);
  for (int k = 1; k < 256; ++k) {
    EXPECT_NEAR(out[k], double(f[k]) * g[k] - double(f[512 - k]) * g[512 - k], 1e-6);
    EXPECT_NEAR(out[512 - k], double(f[k]) * g[512 - k] + double(f[512 - k]) * g[k], 1e-6);
  }
  FreqFilter(f.data(), g.data(), f.data());
  EXPECT_EQ(f, out);
}

// The detector's noise level follows the mean blocking-output power; the scene tests only see
// its decisions.
TEST(GscVad, SilentFixedBeamCountsAsNoiseALoudOneAsSpeech) {
  BfInstance bf(3, 0);
  T_AudioDspState* st = bf.st();
  st->frame_num = 50;
  st->vad_noise = 1.0f;
  float refs[3][512] = {}, silent[512] = {}, loud[512] = {};
  for (int j = 0; j < 3; ++j) refs[j][10] = 3.0f;  // band power 9 per output
  EXPECT_EQ(GscVad(st, refs, silent), 0);
  EXPECT_FLOAT_EQ(st->vad_noise, (1.0f - 0.9f) * 9.0f + 0.9f);
  EXPECT_EQ(st->long_snr, 0.0f);  // the silent hop's -inf stays out of the average
  loud[20] = 1000.0f;
  EXPECT_EQ(GscVad(st, refs, loud), 1);
}

// Beam b of the three is the fixed beam of set doa_tab[sets[b]], except that its DC bin starts
// from beam b-1's real part of bin 255 and its Nyquist bin sums those of beams 0..b.
TEST(VornMbf, ThreeBeamsWithTheirEdgeBinCarries) {
  const std::pair<int, std::array<int, 3>> cases[] = {{0, {0, 24, 48}},   {250, {50, 2, 26}},
                                                      {359, {71, 23, 47}}, {125, {25, 49, 1}},
                                                      {365, {1, 25, 49}},  {-115, {49, 1, 25}}};
  float f[3][512];
  const Signal r = sim::WhiteNoise(3 * 512, 100.0, 10);
  for (int m = 0; m < 3; ++m) std::copy_n(r.begin() + 512 * m, 512, f[m]);
  for (const auto& [angle, sets] : cases) {
    SCOPED_TRACE(angle);
    float beams[3][512], fixed[3][512];
    double nyquist_sum = 0.0;
    VornMbf(f, beams, angle);
    for (int b = 0; b < 3; ++b) {
      FixedBF(f, fixed[b], 1, 5 * sets[b]);
      for (int k = 1; k < 256; ++k) ASSERT_EQ(beams[b][k], fixed[b][k]) << b << " " << k;
      for (int k = 257; k < 512; ++k) ASSERT_EQ(beams[b][k], fixed[b][k]) << b << " " << k;
      EXPECT_NEAR(beams[b][0], (b > 0 ? fixed[b - 1][255] : 0.0) + fixed[b][0], 1e-3) << b;
      nyquist_sum += fixed[b][256];
      EXPECT_NEAR(beams[b][256], nyquist_sum, 1e-3) << b;
    }
  }
#if defined(VORN_SIMD4)
  // The vector twins give the plain bits, carries included, for every set,
  // with signed zeros (a sum of -0 terms that starts from +0), infinities and
  // NaN in some bins.
  const float specials[] = {0.0f, -0.0f, std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN(), 1e-30f};
  for (int k = 3; k < 512; k += 37)
    for (int m = 0; m < 3; ++m) f[m][k] = specials[(k / 37 + m) % 5];
  // Bin 17 of the first beam at 0 degrees: every product of the real part -0.
  for (int m = 0; m < 3; ++m) {
    f[m][17] = std::copysign(0.0f, -doa_tab[0][6 * 17 + 2 * m]);
    f[m][512 - 17] = std::copysign(0.0f, doa_tab[0][6 * 17 + 2 * m + 1]);
  }
  for (int angle = -5; angle <= 365; angle += 5) {
    float plain[3][512], vector[3][512];
    MbfCarry plain_carry, vector_carry;
    for (int b = 0; b < 3; ++b) {
      MbfBeamPlain(f, plain[b], b, angle, plain_carry);
      MbfBeamSimd(f, vector[b], b, angle, vector_carry);
    }
    ASSERT_EQ(std::memcmp(plain, vector, sizeof plain), 0) << angle;
    for (int type = 0; type <= 8; ++type) {  // and the fixed beam's, which shares its four bins
      FixedBFPlain(f, plain[0], type, angle);
      FixedBFSimd(f, vector[0], type, angle);
      ASSERT_EQ(std::memcmp(plain[0], vector[0], sizeof plain[0]), 0) << "type " << type << " at " << angle;
    }
  }
#endif
}

// The dispatch hands the canceller one block as fixed beam and output: all must be exactly as with
// separate blocks, over hops that adapt and do not. With the filters still zero (first hop) the
// output is the fixed beam a quarter block late.
TEST(AdaptGsc, OutputMayShareTheFixedBeamBlock) {
  constexpr int kHops = 40;
  Signal noise = sim::WhiteNoise(kHops * kBfHop, 200.0, 61);
  for (std::size_t i = 20 * kBfHop; i < 24 * kBfHop; ++i) noise[i] *= 30.0f;
  const ThreeMics mics =
      sim::Mix(sim::PlaneWave(noise, 120.0), sim::IndependentNoise(kHops * kBfHop, 20.0, 62));
  std::vector<short> pcm = sim::Interleave(mics);
  BfInstance shared(4, 0), separate(4, 0);
  for (int h = 0; h < kHops; ++h) {
    float f[3][512];
    for (int m = 0; m < 3; ++m) {
      for (int n = 0; n < 512; ++n) f[m][n] = n < 256 && h == 0 ? 0.0f : pcm[3 * ((h - 1) * kBfHop + n) + m];
      fft_rel(f[m], 512, 9);
    }
    float block[512], fixed[512], out[512];
    FixedBF(f, block, 4, 0);
    std::copy_n(block, 512, fixed);
    Adapt_GSC(shared.st(), f, block, 0, block);
    Adapt_GSC(separate.st(), f, fixed, 0, out);
    ASSERT_EQ(std::memcmp(block, out, kBfHop * sizeof(float)), 0) << "hop " << h;
    if (h > 0) continue;
    ifft_rel(fixed, 512, 9);
    for (int n = 0; n < kBfHop; ++n) EXPECT_EQ(out[n], n < 128 ? 0.0f : fixed[n + 128]) << n;
  }
  EXPECT_EQ(std::memcmp(shared.st(), separate.st(), sizeof(T_AudioDspState)), 0);
  EXPECT_GT(std::fabs(shared.st()->fd_g[0][5]) + std::fabs(shared.st()->fd_g[1][5]), 0.0f);  // it did adapt
}

// With a zero error the gradient is zero and only the constraint acts.
// The adaptive beam's blocking outputs and filter step against their plain
// loops, bit for bit: spectra of noise over several decades with zeros,
// infinities and NaN among them, and noise powers below, at and above the floor.
TEST(AdaptiveBeam, VectorStepsGiveThePlainBits) {
#if defined(VORN_SIMD4)
  const float specials[] = {0.0f, -0.0f, 1e-8f, 5e-9f, 1e-40f, std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN()};
  const auto values = [&](int n, std::uint32_t seed) {
    const sim::Signal x = sim::WhiteNoise(n, 1.0, seed);
    std::vector<float> v(n);
    for (int i = 0; i < n; ++i)
      v[i] = i % 13 == 5 ? specials[(i / 13) % 7] : x[i] * std::pow(10.0f, static_cast<float>(i % 9) - 4.0f);
    return v;
  };
  const std::vector<float> err = values(kBfFftLen, 41), refs = values(3 * kBfFftLen, 42);
  float fd_ref[3][512];
  std::copy_n(refs.begin(), 3 * kBfFftLen, &fd_ref[0][0]);
  std::vector<float> noise_a = values(kBfFftLen / 2 + 1, 43);
  for (float& n : noise_a) n = std::fabs(n) * 1e-4f;  // many below the floor
  std::vector<float> noise_b = noise_a;
  const std::vector<float> taps = values(3 * kBfFftLen, 44);
  std::vector<float> a = taps, b = taps;
  float* const fa[3] = {a.data(), a.data() + kBfFftLen, a.data() + 2 * kBfFftLen};
  float* const fb[3] = {b.data(), b.data() + kBfFftLen, b.data() + 2 * kBfFftLen};
  // The blocking outputs of every matrix, from the same spectra.
  for (const float* bm : {bm_0, bm_60, bm_300})
    for (int j = 0; j < 3; ++j) {
      std::vector<float> plain(kBfFftLen), fast(kBfFftLen);
      GscBlockingPlain(bm, j, fd_ref, plain.data());
      GscBlockingSimd(bm, j, fd_ref, fast.data());
      EXPECT_EQ(std::memcmp(plain.data(), fast.data(), plain.size() * sizeof(float)), 0) << "blocking output " << j;
    }
  GscStepPlain(err.data(), fd_ref, noise_a.data(), fa);
  GscStepSimd(err.data(), fd_ref, noise_b.data(), fb);
  EXPECT_EQ(std::memcmp(noise_a.data(), noise_b.data(), noise_a.size() * sizeof(float)), 0) << "noise";
  EXPECT_EQ(std::memcmp(a.data(), b.data(), a.size() * sizeof(float)), 0) << "filters";
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

TEST(UpdateFilter, CapsTheJointTapNormOfAllThreeFilters) {
  for (const auto& [per_filter_norm, capped] : {std::pair{0.5, true}, std::pair{0.3, false}}) {
    SCOPED_TRACE(per_filter_norm);
    BfInstance bf(3, 0);
    float taps[3][512] = {}, refs[3][512], zero_out[256] = {};
    for (int j = 0; j < 3; ++j) {
      const Signal r = sim::WhiteNoise(256, 1.0, 30 + j), ref = sim::WhiteNoise(512, 1.0, 40 + j);
      for (int n = 0; n < 256; ++n) taps[j][n] = float(r[n] * per_filter_norm / (sim::Rms(r) * 16.0));
      FFT(taps[j], bf.st()->fd_g[j]);
      std::copy(ref.begin(), ref.end(), refs[j]);
    }
    UpdateFilter(bf.st(), zero_out, refs);
    const double scale = capped ? 0.7071 / (std::sqrt(3.0) * per_filter_norm) : 1.0;
    for (int j = 0; j < 3; ++j) {
      float back[512];
      IFFT(bf.st()->fd_g[j], back);
      for (int n = 0; n < 256; ++n) ASSERT_NEAR(back[n], taps[j][n] * scale, 1e-5) << j << " " << n;
      for (int n = 256; n < 512; ++n) ASSERT_NEAR(back[n], 0.0f, 1e-6) << j << " " << n;
    }
    float power5 = 0.0f;
    for (int j = 0; j < 3; ++j) power5 += refs[j][5] * refs[j][5] + refs[j][507] * refs[j][507];
    EXPECT_NEAR(bf.st()->noise[5], 0.1f * power5, 1e-6f);  // step normaliser: 0.1 of the reference power
  }
}

// A white-noise interferer after digital silence: once adapted, each canceller takes 6 dB more off
// it than its fixed beam (a margin the joint tap cap bounds too). A talker 10 degrees off the look
// keeps its level within 2 dB: a shadow instance carries it alone through the same filters.
TEST(AdaptGsc, CancelsAnInterfererAndKeepsTheTalker) {
  constexpr std::size_t kHops = 500;  // 8 s
  const std::size_t n = kHops * kBfHop;
  const Signal noise_source = sim::WhiteNoise(n, 1000.0, 51);
  const Signal talk_source = sim::MakeSpeechLike(n, 53, {.rms = 1000.0}).samples;
  // Type 3 at 60 and 300 degrees keeps its 20- and 260-degree fixed sets, type 4 its 0- and 240-degree ones.
  const std::tuple<int, int, double> cases[] = {{3, 0, 120.0},  {4, 0, 120.0},  {3, 60, 180.0},
                                                {4, 60, 180.0}, {3, 300, 60.0}, {4, 300, 60.0}};
  for (const auto& [bf_flag, look, interferer_az] : cases) {
    SCOPED_TRACE(testing::Message() << "bf_flag " << bf_flag << " look " << look);
    ThreeMics interferer =
        sim::Mix(sim::PlaneWave(noise_source, interferer_az), sim::IndependentNoise(n, 3.0, 52));
    for (Signal& mic : interferer) std::fill(mic.begin(), mic.begin() + 20 * kBfHop, 0.0f);
    const ThreeMics talker = sim::PlaneWave(talk_source, look + 10.0);
    std::vector<short> pcm_noise = sim::Interleave(interferer), pcm_talker = sim::Interleave(talker);
    std::vector<short> pcm_mix = sim::Interleave(sim::Mix(interferer, talker));
    BfInstance alone(bf_flag, look), mixed(bf_flag, look), shadow(bf_flag, look);
    double out_en[2] = {0, 0}, fixed_en[2] = {0, 0};  // interferer, talker
    for (std::size_t h = 0; h < kHops; ++h) {
      const std::vector<short> y_noise = alone.Hop(pcm_noise, h);
      std::memcpy(shadow.st()->fd_g, mixed.st()->fd_g, sizeof(shadow.st()->fd_g));
      mixed.Hop(pcm_mix, h);
      const std::vector<short> y_talker = shadow.Hop(pcm_talker, h);
      for (int i = 0; h >= kHops / 2 && i < kBfHop; ++i) {
        out_en[0] += double(y_noise[i]) * y_noise[i];
        out_en[1] += double(y_talker[i]) * y_talker[i];
        // Each fixed beam as the canceller aligns it with its output.
        fixed_en[0] += std::pow(alone.st()->td_fbf_out[i + 128], 2);
        fixed_en[1] += std::pow(shadow.st()->td_fbf_out[i + 128], 2);
      }
    }
    EXPECT_GT(10.0 * std::log10(fixed_en[0] / out_en[0]), 6.0);  // interferer taken off beyond the fixed beam
    EXPECT_LT(std::fabs(10.0 * std::log10(out_en[1] / fixed_en[1])), 2.0);  // talker level change
  }
}

}  // namespace
}  // namespace vorn
