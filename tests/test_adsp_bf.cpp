// Beamformer module: call-record checks, frame flow, the overlap-save
// plumbing, the three-beam output and the adaptive canceller, exercised with
// plane waves on the array.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdio>
#include <cstring>
#include <random>
#include <vector>

#include "adsp_bf/audio_dsp_proc.h"
#include "adsp_bf/beamformer.h"
#include "adsp_bf/fixed_beamformer.h"
#include "adsp_bf/util.h"
#include "adsp_bf/weight_tables.h"
#include "common/adsp_common_fft_rel.h"
#include "support/signals.h"

namespace vorn {
namespace {

using test::Signal;
using test::ThreeMics;

// A beamformer instance in its own buffer, as the front end lays it out.
struct BfInstance {
  std::vector<float> buffer = std::vector<float>(kBfBuffSize / sizeof(float));
  T_AudioDspParam pm{};
  explicit BfInstance(int bf_flag = 1, int bf_azimuth = 0, int doa_flag = 0, int inner = 0) {
    pm.p_data = buffer.data();
    pm.buff_size = kBfBuffSize;
    pm.param_size = kBfParamSize;
    pm.bf_flag = bf_flag;
    pm.bf_azimuth = bf_azimuth;
    pm.doa_flag = doa_flag;
    pm.ext_doa_update_flag = 1;
    pm.inner_interface_flag = inner;
  }
  T_AudioDspState* st() { return static_cast<T_AudioDspState*>(pm.p_data); }
  // Runs every whole hop of the interleaved input; returns the mono output.
  std::vector<short> Run(std::vector<short>& pcm, short* order = nullptr) {
    const std::size_t hops = pcm.size() / (3 * kBfHop);
    std::vector<short> out(hops * kBfHop);
    for (std::size_t h = 0; h < hops; ++h)
      EXPECT_EQ(BfProc(&pm, pcm.data() + h * 3 * kBfHop, out.data() + h * kBfHop, order), 0);
    return out;
  }
};

Signal ToSignal(const std::vector<short>& pcm, std::size_t from = 0) {
  return Signal(pcm.begin() + static_cast<long>(from), pcm.end());
}

std::vector<float> RandomVector(std::size_t n, std::uint32_t seed, float scale = 1.0f) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> uni(-scale, scale);
  std::vector<float> v(n);
  for (float& x : v) x = uni(rng);
  return v;
}

TEST(BfParamCheck, CodesFollowTheRulesInOrder) {
  struct Case {
    const char* name;
    int buff_size, param_size, doa_flag, bf_flag, bf_azimuth, want;
  };
  const Case cases[] = {
      {"valid fixed beam", 240000, 56, 0, 1, 0, 0},
      {"buffer larger than needed", 1000000, 56, 1, 2, 359, 0},
      {"buffer above the state size but below the region", 200000, 56, 0, 1, 0, 2},
      {"one byte short", 239999, 56, 0, 1, 0, 2},
      {"negative size passes as unsigned, fails as signed", -1, 56, 0, 1, 0, 2},
      {"record size", 240000, 52, 0, 1, 0, 2},
      {"doa flag above 3", 240000, 56, 4, 1, 0, 2},
      {"doa flag negative", 240000, 56, -1, 1, 0, 2},
      {"doa flag 3", 240000, 56, 3, 0, 0, 0},
      {"fixed beam azimuth 360", 240000, 56, 0, 1, 360, 2},
      {"mvdr azimuth negative", 240000, 56, 0, 2, -1, 2},
      {"sector beam ignores the azimuth", 240000, 56, 0, 5, 999, 0},
      {"beam type 8", 240000, 56, 0, 8, 0, 2},
      {"beam type negative", 240000, 56, 0, -1, 0, 2},
      {"gsc at 120", 240000, 56, 0, 3, 120, 2},
      {"gsc at 60", 240000, 56, 0, 3, 60, 0},
      {"gsc mvdr at 300", 240000, 56, 0, 4, 300, 0},
      {"gsc at 0", 240000, 56, 0, 4, 0, 0},
      {"type 7 any azimuth", 240000, 56, 0, 7, -40, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    BfInstance bf(c.bf_flag, c.bf_azimuth, c.doa_flag);
    bf.pm.buff_size = c.buff_size;
    bf.pm.param_size = c.param_size;
    EXPECT_EQ(BfParamCheck(&bf.pm), c.want);
    EXPECT_EQ(BFInit(&bf.pm), c.want);
  }
  EXPECT_EQ(BfParamCheck(nullptr), 1);
  BfInstance bf;
  bf.pm.p_data = nullptr;
  bf.pm.param_size = 0;  // a later rule would fail too: the first decides
  EXPECT_EQ(BFInit(&bf.pm), 1);
}

TEST(BFInit, RejectsAnUnknownInterfaceFlagAndClearsTheState) {
  BfInstance bad(1, 0, 0, 2);
  EXPECT_EQ(BfParamCheck(&bad.pm), 0);
  EXPECT_EQ(BFInit(&bad.pm), 2);

  BfInstance bf(1, 0, 1, 1);
  std::memset(bf.buffer.data(), 0x5a, bf.buffer.size() * sizeof(float));
  ASSERT_EQ(BFInit(&bf.pm), 0);
  const T_AudioDspState* st = bf.st();
  EXPECT_EQ(st->frame_num, 0u);
  EXPECT_EQ(st->doa_update_flag, 1);
  for (int k = 0; k < kBfNumBins; ++k) {
    EXPECT_EQ(st->ns_psd[k], 1e-8f);
    EXPECT_EQ(st->w[k], 1e-8f);
    EXPECT_EQ(st->noise[k], 0.0f);
    for (int h = 0; h < kBfHistory; ++h) EXPECT_EQ(st->speech_noise_weight[h][k], 1.0f);
  }
  for (int j = 0; j < 3; ++j)
    for (int i = 0; i < kBfFftLen; ++i) EXPECT_EQ(st->fd_g[j][i] + st->td_bm_out[j][i] + st->au[j][i], 0.0f);
  for (int h = 0; h < kBfHistory; ++h) EXPECT_EQ(st->azimuth_buff[h], 0);
}

TEST(BfProc, RejectedCallsTouchNeitherStateNorOutput) {
  BfInstance bf(1, 30);
  ASSERT_EQ(BFInit(&bf.pm), 0);
  std::vector<short> pcm = test::Interleave(test::IndependentNoise(kBfHop, 1000.0, 7));
  std::vector<short> out(kBfHop, 123);
  const std::vector<float> before = bf.buffer;

  EXPECT_EQ(BfProc(nullptr, pcm.data(), out.data(), nullptr), 1);
  EXPECT_EQ(BfProc(&bf.pm, nullptr, out.data(), nullptr), 1);
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), nullptr, nullptr), 1);
  bf.pm.bf_flag = 8;
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), nullptr), 2);
  bf.pm.bf_flag = -1;
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), nullptr), 2);
  bf.pm.bf_flag = 1;
  short outside[3] = {0, 3, 1}, negative[3] = {-1, 0, 1};
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), outside), 2);
  EXPECT_EQ(BfProc(&bf.pm, pcm.data(), out.data(), negative), 2);
  EXPECT_EQ(std::memcmp(before.data(), bf.buffer.data(), before.size() * sizeof(float)), 0);
  EXPECT_TRUE(std::all_of(out.begin(), out.end(), [](short v) { return v == 123; }));
}

TEST(BfProc, TypeZeroPassesTheFirstInterleavedSlotWhateverTheOrder) {
  BfInstance bf(0);
  ASSERT_EQ(BFInit(&bf.pm), 0);
  std::vector<short> pcm = test::Interleave(test::IndependentNoise(2 * kBfHop, 3000.0, 11));
  short order[3] = {2, 0, 1};
  const std::vector<short> out = bf.Run(pcm, order);
  for (std::size_t n = 0; n < out.size(); ++n) ASSERT_EQ(out[n], pcm[3 * n]) << n;
}

TEST(BfProc, HopCounterSaturates) {
  BfInstance bf(0);
  ASSERT_EQ(BFInit(&bf.pm), 0);
  bf.st()->frame_num = kBfFrameNumMax - 1;
  std::vector<short> pcm(3 * kBfHop * 2, 0);
  bf.Run(pcm);
  EXPECT_EQ(bf.st()->frame_num, kBfFrameNumMax);
}

// Overlap-save with the delay-and-sum weights: a plane wave from the look
// direction comes out as the source delayed by the weights' common 128
// samples plus the 16 of the plane-wave generator, for every microphone order
// that names the microphones correctly.
TEST(BfProc, LookDirectionSourcePassesAsADelayedCopy) {
  // Noise shaped by [1 2 1]/4 (falling to zero at 8 kHz): the fractional
  // delays of the weights and of the simulated array both lose accuracy in
  // the last kilohertz, which is not what this test looks at.
  const Signal white = test::WhiteNoise(40 * kBfHop, 2000.0, 3);
  Signal source(white.size(), 0.0f);
  for (std::size_t i = 2; i < white.size(); ++i) source[i] = 0.25f * white[i] + 0.5f * white[i - 1] + 0.25f * white[i - 2];
  constexpr int kDelay = 128 + 16;
  for (int azimuth : {40, 215}) {
    SCOPED_TRACE(azimuth);
    const ThreeMics mics = test::PlaneWave(source, azimuth);
    // Feed the microphones in a scrambled slot order and tell BfProc so.
    short order[3] = {1, 2, 0};
    ThreeMics slots;
    for (int m = 0; m < 3; ++m) slots[static_cast<std::size_t>(order[m])] = mics[static_cast<std::size_t>(m)];
    std::vector<short> pcm = test::Interleave(slots);
    BfInstance bf(1, azimuth);
    ASSERT_EQ(BFInit(&bf.pm), 0);
    const Signal y = ToSignal(bf.Run(pcm, order));
    double err = 0.0, ref = 0.0;
    for (std::size_t n = 2 * kBfHop; n < y.size(); ++n) {
      const double d = y[n] - source[n - kDelay];
      err += d * d;
      ref += static_cast<double>(source[n - kDelay]) * source[n - kDelay];
    }
    EXPECT_LT(10.0 * std::log10(err / ref), -45.0);
  }
}

TEST(BfUtil, WrappersMatchDirectComputation) {
  std::vector<float> f = RandomVector(kBfFftLen, 1), g = RandomVector(kBfFftLen, 2);
  std::vector<float> out(kBfFftLen);
  FreqFilter(f.data(), g.data(), out.data());
  EXPECT_FLOAT_EQ(out[0], f[0] * g[0]);
  EXPECT_FLOAT_EQ(out[256], f[256] * g[256]);
  for (int k = 1; k < 256; ++k) {
    const std::complex<double> p =
        std::complex<double>(f[k], f[512 - k]) * std::complex<double>(g[k], g[512 - k]);
    EXPECT_NEAR(out[k], p.real(), 1e-6);
    EXPECT_NEAR(out[512 - k], p.imag(), 1e-6);
  }
  // In place on f gives the same.
  std::vector<float> in_place = f;
  FreqFilter(in_place.data(), g.data(), in_place.data());
  EXPECT_EQ(in_place, out);

  // FFT and IFFT leave their input alone (the canceller transforms its
  // histories through them) and invert each other.
  const std::vector<float> x = RandomVector(kBfFftLen, 3, 1000.0f);
  std::vector<float> x_copy = x, spectrum(kBfFftLen), back(kBfFftLen);
  FFT(x_copy.data(), spectrum.data());
  EXPECT_EQ(x_copy, x);
  std::vector<float> spectrum_copy = spectrum;
  IFFT(spectrum_copy.data(), back.data());
  EXPECT_EQ(spectrum_copy, spectrum);
  for (int n = 0; n < kBfFftLen; ++n) EXPECT_NEAR(back[n], x[n], 1e-3);
}

// Direct per-bin product of one weight set with the three spectra, in double.
std::complex<double> SetProduct(const float* w, const float f[3][512], int k) {
  std::complex<double> y = 0.0;
  for (int m = 0; m < 3; ++m) {
    const std::complex<double> wm(w[(3 * k + m) * 2], (k == 0 || k == 256) ? 0.0 : w[(3 * k + m) * 2 + 1]);
    const std::complex<double> xm(f[m][k], (k == 0 || k == 256) ? 0.0 : f[m][512 - k]);
    y += wm * xm;
  }
  return y;
}

TEST(VornMbf, ThreeBeamsWithTheirEdgeBinCarries) {
  struct Case {
    int angle;
    int sets[3];
  };
  const Case cases[] = {{0, {0, 24, 48}},   {250, {50, 2, 26}},  {359, {71, 23, 47}},
                        {125, {25, 49, 1}}, {365, {1, 25, 49}},  {-115, {49, 1, 25}}};
  float f[3][512];
  for (int m = 0; m < 3; ++m) {
    const std::vector<float> r = RandomVector(512, 10 + static_cast<std::uint32_t>(m), 100.0f);
    std::copy(r.begin(), r.end(), f[m]);
  }
  for (const Case& c : cases) {
    SCOPED_TRACE(c.angle);
    float beams[3][512];
    VornMbf(f, beams, c.angle);
    double carry_re = 0.0, nyquist_sum = 0.0;
    for (int b = 0; b < 3; ++b) {
      const float* w = doa_tab[c.sets[b]];
      for (int k = 1; k < 256; ++k) {
        const std::complex<double> y = SetProduct(w, f, k);
        ASSERT_NEAR(beams[b][k], y.real(), 1e-3) << b << " " << k;
        ASSERT_NEAR(beams[b][512 - k], y.imag(), 1e-3) << b << " " << k;
      }
      EXPECT_NEAR(beams[b][0], carry_re + SetProduct(w, f, 0).real(), 1e-3) << b;
      nyquist_sum += SetProduct(w, f, 256).real();
      EXPECT_NEAR(beams[b][256], nyquist_sum, 1e-3) << b;
      carry_re = SetProduct(w, f, 255).real();
    }
  }
}

// The first multi-beam channel is the delay-and-sum beam of type 1 at the
// same azimuth, and it beats the other two for a source it points at.
TEST(BfProc, MultiBeamChannelsForThePostFilter) {
  const ThreeMics mics = test::PlaneWave(test::WhiteNoise(30 * kBfHop, 3000.0, 21), 250.0);
  std::vector<short> pcm = test::Interleave(mics);
  BfInstance multi(1, 250, 0, 1), single(1, 250);
  ASSERT_EQ(BFInit(&multi.pm), 0);
  ASSERT_EQ(BFInit(&single.pm), 0);
  double energy[3] = {0, 0, 0};
  std::vector<short> out_multi(kBfHop), out_single(kBfHop);
  for (std::size_t h = 0; h < 30; ++h) {
    ASSERT_EQ(BfProc(&multi.pm, pcm.data() + h * 3 * kBfHop, out_multi.data(), nullptr), 0);
    ASSERT_EQ(BfProc(&single.pm, pcm.data() + h * 3 * kBfHop, out_single.data(), nullptr), 0);
    const auto& mbf = multi.st()->inner_data_exchange.mbf_au;
    for (int n = 0; n < kBfHop; ++n) {
      ASSERT_NEAR(mbf[0][n], out_single[static_cast<std::size_t>(n)], 1) << h << " " << n;
      for (int b = 0; b < 3; ++b) energy[b] += static_cast<double>(mbf[b][n]) * mbf[b][n];
    }
    EXPECT_EQ(out_multi, out_single);
  }
  EXPECT_GT(energy[0], 2.0 * energy[1]);
  EXPECT_GT(energy[0], 2.0 * energy[2]);
}

// With the filters still zero (first hop after init) the canceller's output
// is its fixed reference delayed by a quarter block: the sector beam at 0
// degrees, which type 5 also picks for a source at 0 degrees.
TEST(AdaptGsc, StartsAsTheDelayedFixedBeam) {
  const ThreeMics mics = test::PlaneWave(test::WhiteNoise(2 * kBfHop, 3000.0, 8), 0.0);
  std::vector<short> pcm = test::Interleave(mics);
  BfInstance gsc(3, 0), sector(5, 0);
  ASSERT_EQ(BFInit(&gsc.pm), 0);
  ASSERT_EQ(BFInit(&sector.pm), 0);
  std::vector<short> y_gsc(kBfHop), y_fixed(kBfHop);
  ASSERT_EQ(BfProc(&gsc.pm, pcm.data() + 3 * kBfHop, y_gsc.data(), nullptr), 0);
  ASSERT_EQ(BfProc(&sector.pm, pcm.data() + 3 * kBfHop, y_fixed.data(), nullptr), 0);
  for (int n = 0; n < 128; ++n) EXPECT_EQ(y_gsc[static_cast<std::size_t>(n)], 0);
  for (int n = 128; n < kBfHop; ++n) EXPECT_NEAR(y_gsc[static_cast<std::size_t>(n)], y_fixed[static_cast<std::size_t>(n - 128)], 1);
}

// The beam dispatch hands the canceller one block as both its fixed-beam
// spectrum and its output. The result, the adaptation and the detector must
// be exactly those of separate blocks, over hops that adapt and hops that
// do not (a loud noise burst after a quiet start).
TEST(AdaptGsc, OutputMayShareTheFixedBeamBlock) {
  constexpr int kHops = 40;
  Signal noise = test::WhiteNoise(kHops * kBfHop, 200.0, 61);
  for (std::size_t i = 20 * kBfHop; i < 24 * kBfHop; ++i) noise[i] *= 30.0f;
  std::vector<short> pcm =
      test::Interleave(test::Mix(test::PlaneWave(noise, 120.0), test::IndependentNoise(kHops * kBfHop, 20.0, 62)));
  BfInstance shared(4, 0), separate(4, 0);
  ASSERT_EQ(BFInit(&shared.pm), 0);
  ASSERT_EQ(BFInit(&separate.pm), 0);
  for (int h = 0; h < kHops; ++h) {
    float f[3][512];
    for (int m = 0; m < 3; ++m) {
      for (int n = 0; n < 512; ++n) {
        const int at = (h - 1) * kBfHop + n;
        f[m][n] = at < 0 ? 0.0f : pcm[static_cast<std::size_t>(3 * at + m)];
      }
      fft_rel(f[m], 512, 9);
    }
    float block[512], fixed[512], out[512];
    FixedBF(f, block, 4, 0);
    std::copy(block, block + 512, fixed);
    Adapt_GSC(shared.st(), f, block, 0, block);
    Adapt_GSC(separate.st(), f, fixed, 0, out);
    ASSERT_EQ(std::memcmp(block, out, kBfHop * sizeof(float)), 0) << "hop " << h;
  }
  EXPECT_EQ(std::memcmp(shared.st(), separate.st(), sizeof(T_AudioDspState)), 0);
  EXPECT_GT(std::fabs(shared.st()->fd_g[0][5]) + std::fabs(shared.st()->fd_g[1][5]), 0.0f);  // it did adapt
}

TEST(UpdateFilter, CapsTheJointTapNormOfAllThreeFilters) {
  struct Case {
    double per_filter_norm;
    bool capped;
  };
  const Case cases[] = {{0.5, true}, {0.3, false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.per_filter_norm);
    BfInstance bf(3, 0);
    ASSERT_EQ(BFInit(&bf.pm), 0);
    T_AudioDspState* st = bf.st();
    float taps[3][512] = {};
    for (int j = 0; j < 3; ++j) {
      const std::vector<float> r = RandomVector(256, 30 + static_cast<std::uint32_t>(j));
      const double norm = test::Rms(r.data(), r.size()) * std::sqrt(256.0);
      for (int n = 0; n < 256; ++n) taps[j][n] = static_cast<float>(r[static_cast<std::size_t>(n)] * c.per_filter_norm / norm);
      FFT(taps[j], st->fd_g[j]);
    }
    // A zero error leaves the gradient at zero, so only the constraint acts.
    float zero_out[256] = {};
    float refs[3][512];
    for (int j = 0; j < 3; ++j) {
      const std::vector<float> r = RandomVector(512, 40 + static_cast<std::uint32_t>(j));
      std::copy(r.begin(), r.end(), refs[j]);
    }
    UpdateFilter(st, zero_out, refs);
    const double joint = std::sqrt(3.0) * c.per_filter_norm;
    const double scale = c.capped ? 0.7071 / joint : 1.0;
    for (int j = 0; j < 3; ++j) {
      float back[512];
      IFFT(st->fd_g[j], back);
      for (int n = 0; n < 256; ++n) ASSERT_NEAR(back[n], taps[j][n] * scale, 1e-5) << j << " " << n;
      for (int n = 256; n < 512; ++n) ASSERT_NEAR(back[n], 0.0f, 1e-6);
    }
    // The reference power entered the step normaliser with weight 0.1.
    const float p5 = refs[0][5] * refs[0][5] + refs[0][507] * refs[0][507] + refs[1][5] * refs[1][5] +
                     refs[1][507] * refs[1][507] + refs[2][5] * refs[2][5] + refs[2][507] * refs[2][507];
    EXPECT_NEAR(st->noise[5], 0.1f * p5, 1e-6f);
  }
}

TEST(GscVad, SilentFixedBeamCountsAsNoise) {
  BfInstance bf(3, 0);
  ASSERT_EQ(BFInit(&bf.pm), 0);
  T_AudioDspState* st = bf.st();
  st->frame_num = 50;
  st->vad_noise = 1.0f;
  float refs[3][512] = {};
  for (int j = 0; j < 3; ++j) refs[j][10] = 3.0f;  // band power 9 per output
  float silent[512] = {};
  EXPECT_EQ(GscVad(st, refs, silent), 0);
  EXPECT_FLOAT_EQ(st->vad_noise, (1.0f - 0.9f) * 9.0f + 0.9f);
  EXPECT_EQ(st->long_snr, 0.0f);  // the silent hop's -inf stays out of the average

  // A fixed beam far above the tracked noise is speech.
  BfInstance fresh(3, 0);
  ASSERT_EQ(BFInit(&fresh.pm), 0);
  fresh.st()->frame_num = 50;
  fresh.st()->vad_noise = 1.0f;
  float loud[512] = {};
  loud[20] = 1000.0f;
  EXPECT_EQ(GscVad(fresh.st(), refs, loud), 1);
}

// A white-noise interferer 120 degrees off the look direction, after a
// stretch of digital silence, and no talker: once adapted, the canceller
// takes at least 6 dB more off the interferer than its fixed beam, for both
// canceller types at every look direction. A talker near the look direction
// meanwhile keeps its level within 2 dB: a shadow instance carries the
// talker alone through the same filters.
//
// The margin is bounded by the joint tap cap (0.7071) as much as by
// adaptation, so it measures how strong the blocking outputs are against the
// interferer's leak into the fixed beam.
TEST(AdaptGsc, CancelsAnInterfererAndKeepsTheTalker) {
  constexpr std::size_t kHops = 500;  // 8 s
  const std::size_t n = kHops * kBfHop;
  const Signal noise_source = test::WhiteNoise(n, 1000.0, 51);
  test::SpeechLikeOptions opt;
  opt.rms = 1000.0;
  const Signal talk_source = test::MakeSpeechLike(n, 53, opt).samples;
  struct Case {
    int bf_flag, look;
    double interferer_az;
  };
  // Type 3 at 60 and 300 degrees keeps its 20- and 260-degree fixed sets,
  // type 4 its delay-and-sum sets at 0 and 240 degrees.
  const Case cases[] = {{3, 0, 120.0},  {4, 0, 120.0},  {3, 60, 180.0},
                        {4, 60, 180.0}, {3, 300, 60.0}, {4, 300, 60.0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << "bf_flag " << c.bf_flag << " look " << c.look);
    ThreeMics interferer =
        test::Mix(test::PlaneWave(noise_source, c.interferer_az), test::IndependentNoise(n, 3.0, 52));
    // The device starts on digital silence, as a muted or just-opened input does.
    for (Signal& mic : interferer) std::fill(mic.begin(), mic.begin() + 20 * kBfHop, 0.0f);
    // The talker stands 10 degrees off the look direction, a steering error
    // that lets some of it leak into the blocking outputs.
    const ThreeMics talker = test::PlaneWave(talk_source, c.look + 10.0);
    std::vector<short> pcm_noise = test::Interleave(interferer);
    std::vector<short> pcm_mix = test::Interleave(test::Mix(interferer, talker));
    std::vector<short> pcm_talker = test::Interleave(talker);

    BfInstance alone(c.bf_flag, c.look), mixed(c.bf_flag, c.look), shadow(c.bf_flag, c.look);
    ASSERT_EQ(BFInit(&alone.pm), 0);
    ASSERT_EQ(BFInit(&mixed.pm), 0);
    ASSERT_EQ(BFInit(&shadow.pm), 0);
    double out_en = 0, fixed_en = 0, talker_out = 0, talker_fixed = 0;
    std::vector<short> y(kBfHop);
    for (std::size_t h = 0; h < kHops; ++h) {
      const std::size_t at = h * 3 * kBfHop;
      const bool adapted = h >= kHops / 2;
      ASSERT_EQ(BfProc(&alone.pm, pcm_noise.data() + at, y.data(), nullptr), 0);
      for (int i = 0; adapted && i < kBfHop; ++i) {
        out_en += static_cast<double>(y[static_cast<std::size_t>(i)]) * y[static_cast<std::size_t>(i)];
        // The fixed beam of this hop, as the canceller aligns it.
        const double fixed = alone.st()->td_fbf_out[i + 128];
        fixed_en += fixed * fixed;
      }
      std::memcpy(shadow.st()->fd_g, mixed.st()->fd_g, sizeof(shadow.st()->fd_g));
      ASSERT_EQ(BfProc(&mixed.pm, pcm_mix.data() + at, y.data(), nullptr), 0);
      ASSERT_EQ(BfProc(&shadow.pm, pcm_talker.data() + at, y.data(), nullptr), 0);
      for (int i = 0; adapted && i < kBfHop; ++i) {
        talker_out += static_cast<double>(y[static_cast<std::size_t>(i)]) * y[static_cast<std::size_t>(i)];
        const double fixed = shadow.st()->td_fbf_out[i + 128];
        talker_fixed += fixed * fixed;
      }
    }
    const double extra_reduction_db = 10.0 * std::log10(fixed_en / out_en);
    const double talker_change_db = 10.0 * std::log10(talker_out / talker_fixed);
    std::printf("bf_flag %d look %d: interferer %.1f dB below the fixed beam; talker changed by %.2f dB\n",
                c.bf_flag, c.look, extra_reduction_db, talker_change_db);
    EXPECT_GT(extra_reduction_db, 6.0);
    EXPECT_LT(std::fabs(talker_change_db), 2.0);
  }
}

}  // namespace
}  // namespace vorn
