// Noise suppressor and VAD, judged on signals a user would feed: stationary
// noise, speech-like talkers in noise, bursts separated by pauses.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <numeric>
#include <vector>

#include "adsp_ns/adsp_ns_kernels.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "common/adsp_common_rom.h"
#include "sim/ns_harness.h"
#include "sim/signals.h"
#include "support/emulation.h"

namespace vorn {
namespace {

using sim::MaskedMeanSquare;
using sim::NsInstance;
using sim::Signal;

constexpr int kLatency = kNsFftLen - kNsHop;  // 384 samples
constexpr std::size_t kSecond = sim::kSampleRate;

// Mean windowed periodogram of x (after PCM rounding, as the suppressor
// sees it) over frames starting at `from`, one per hop.
std::vector<double> MeanPeriodogram(const Signal &x, std::size_t from) {
  std::vector<double> power(kNsBins, 0.0);
  int frames = 0;
  for (std::size_t start = from; start + kNsFftLen <= x.size(); start += kNsHop, ++frames) {
    float frame[kNsFftLen];
    for (int i = 0; i < kNsFftLen; ++i) frame[i] = std::round(x[start + i]) * hanmming_win[i];
    fft_rel(frame, kNsFftLen, kNsFftOrder);
    for (int k = 0; k < kNsBins; ++k) {
      const float imag = k == 0 || k == kNsBins - 1 ? 0.0f : frame[kNsFftLen - k];
      power[k] += frame[k] * frame[k] + imag * imag;
    }
  }
  for (double &p : power) p /= frames;
  return power;
}

TEST(AdspNsInit, ChecksRecordAndRegionAndClampsTheLevel) {
  NsInstance ns;
  const auto init = [&](bool state, int buff_size, int param_size) {
    T_AdspNsParam pm{state ? ns.param().p_data : nullptr, buff_size, param_size, 0, 0, 0, 0, 0};
    return AdspNsInit(&pm);
  };
  EXPECT_EQ(AdspNsInit(nullptr), 1);
  EXPECT_EQ(init(false, kNsStateBytes, kNsParamSize), 1);
  EXPECT_EQ(init(true, kNsStateBytes - 1, kNsParamSize), 2);
  EXPECT_EQ(init(true, kNsStateBytes, sizeof(void*) == 8 ? 32 : 40), 2);  // the record of the other pointer width
  EXPECT_EQ(init(true, 256000, kNsParamSize), 0);
  EXPECT_EQ(init(true, kNsStateBytes, kNsParamSize), 0);
  // Negative levels become 0.00001, but 0 itself is allowed.
  const float requests[][2] = {{-0.5f, 0.00001f}, {2.0f, 1.0f}, {0.3f, 0.3f}, {0.0f, 0.0f}, {1.0f, 1.0f}};
  for (const auto &r : requests) {
    SetNsLevel(&ns.param(), r[0]);
    EXPECT_EQ(ns.state().external_ns_level, r[1]) << "request " << r[0];
  }
}

// Stationary noise, once settled: the estimate matches the noise's per-bin
// power, the frame SNR is 0 dB, the output lags by 384 samples at the floor
// g_f * level (in amplitude) with the lowest bins emptied. The share of hops
// each VAD rule flags is reported, not bounded: the rules decide it.
TEST(AdspNsProc, StationaryNoiseIsTrackedAndLeftAtTheGainFloor) {
  struct Case { bool pink; float level; int vad_mode; };
  for (const Case c : {Case{false, 1.0f, 1}, Case{true, 1.0f, 2}, Case{false, 0.3f, 3}}) {
    SCOPED_TRACE(testing::Message() << (c.pink ? "pink" : "white") << " level " << c.level);
    const std::size_t n = 12 * kSecond, from = 6 * kSecond, settled = from / kNsHop;
    const Signal x = c.pink ? sim::PinkNoise(n, 1000.0, 12) : sim::WhiteNoise(n, 1000.0, 11);
    NsInstance ns(c.vad_mode, c.level);
    std::vector<double> estimate(kNsBins, 0.0);
    std::vector<int> flags;
    double frame_snr = 0.0;
    const Signal y = ns.Run(x, &flags, [&](int hop) {
      if (hop < static_cast<int>(settled)) return;
      for (int k = 0; k < kNsBins; ++k) estimate[k] += ns.state().lambda_d[k];
      frame_snr += ns.state().f_snr;
    });
    const double hops = static_cast<double>(flags.size() - settled);
    const std::vector<double> in = MeanPeriodogram(x, from);
    const std::vector<double> out = MeanPeriodogram(Signal(y.begin() + kLatency, y.end()), from);
    const auto band_db = [](const std::vector<double> &power, int lo, int hi) {
      return 10.0 * std::log10(std::accumulate(power.begin() + lo, power.begin() + hi + 1, 0.0));
    };
    // Bins 1..4, where pink noise falls steepest, track less tightly; the output removes them anyway.
    double mean_db = 0.0, worst_db = 0.0, worst_kept_db = 0.0;
    for (int k = 1; k < kNsBins - 1; ++k) {
      const double db = 10.0 * std::log10(estimate[k] / hops / in[k]);
      mean_db += db / (kNsBins - 2);
      if (std::fabs(db) > std::fabs(worst_db)) worst_db = db;
      if (k >= 5 && std::fabs(db) > std::fabs(worst_kept_db)) worst_kept_db = db;
    }
    const double attenuation = band_db(out, 5, 255) - band_db(in, 5, 255);
    const double floor_db = 20.0 * std::log10(ns.state().g_f * c.level);
    std::printf("[ noise ] %s level %.1f: estimate/power %+.2f dB mean, %+.2f worst, %+.2f worst from bin 5; "
                "f_snr %+.2f dB; attenuation %.2f dB, g_f*level %.2f dB; VAD mode %d flags %.3f of hops\n",
                c.pink ? "pink" : "white", c.level, mean_db, worst_db, worst_kept_db, frame_snr / hops,
                attenuation, floor_db, c.vad_mode, std::count(flags.begin() + settled, flags.end(), 1) / hops);
    EXPECT_NEAR(mean_db, 0.0, 0.5);
    EXPECT_NEAR(worst_db, 0.0, 2.5);
    EXPECT_NEAR(worst_kept_db, 0.0, 1.5);
    EXPECT_NEAR(frame_snr / hops, 0.0, 0.5);
    EXPECT_NEAR(attenuation, floor_db, 1.0);
    // Bin 4 and Nyquist take window leakage from kept neighbours here; NsFreqFilter's test checks them.
    EXPECT_LT(band_db(out, 0, 3) - band_db(in, 0, 3), floor_db - 20.0);
    std::vector<double> corr(2 * kNsFftLen);
    for (int lag = 0; lag < 2 * kNsFftLen; ++lag)
      corr[lag] = std::inner_product(x.begin() + from, x.begin() + from + kSecond, y.begin() + from + lag, 0.0);
    EXPECT_EQ(std::max_element(corr.begin(), corr.end()) - corr.begin(), kLatency);
  }
}

TEST(NsFreqFilter, RemovesLowBinsAndNyquistAndScalesTheRest) {
  const Signal noise = sim::WhiteNoise(kNsFftLen + kNsBins, 1.0, 5);
  float spectrum[kNsFftLen], gain[kNsBins], out[kNsFftLen];
  std::copy_n(noise.begin(), kNsFftLen, spectrum);
  for (int k = 0; k < kNsBins; ++k) gain[k] = std::fabs(noise[kNsFftLen + k]);
  NsFreqFilter(spectrum, gain, out);  // zeroes the removed gains in place
  for (int i = 0; i < kNsFftLen; ++i) {
    const int bin = i < kNsBins ? i : kNsFftLen - i;  // real parts up to Nyquist, then imaginary
    const float want = bin <= 4 || bin == kNsBins - 1 ? 0.0f : spectrum[i] * std::fabs(noise[kNsFftLen + bin]);
    EXPECT_EQ(out[i], want) << "index " << i;
  }
}

// A speech-like talker in white noise: speech passes with little loss, the
// noise between syllables is pulled down, and a second run gives the same bits.
TEST(AdspNsProc, ImprovesSpeechToNoiseRatio) {
  for (const double snr_db : {5.0, 10.0}) {
    SCOPED_TRACE(snr_db);
    const std::size_t n = 12 * kSecond, from = 4 * kSecond;
    const sim::SpeechLikeOptions opt{.lead_silence_s = 3.0};
    const sim::SpeechLike talker = sim::MakeSpeechLike(n, 7, opt);
    const Signal x = sim::Mix(talker.samples, sim::WhiteNoise(n, opt.rms / std::pow(10.0, snr_db / 20.0), 3));
    const Signal y = NsInstance().Run(x);
    EXPECT_TRUE(NsInstance().Run(x) == y) << "a second instance gave other bits";
    const Signal x_in(x.begin() + from, x.end() - kLatency), y_out(y.begin() + from + kLatency, y.end());
    const std::vector<std::uint8_t> active(talker.active.begin() + from, talker.active.end() - kLatency);
    const double speech_in = MaskedMeanSquare(x_in, active, 1), gap_in = MaskedMeanSquare(x_in, active, 0);
    const double speech_out = MaskedMeanSquare(y_out, active, 1), gap_out = MaskedMeanSquare(y_out, active, 0);
    const auto db = [](double ratio) { return 10.0 * std::log10(ratio); };
    const double snr_in = db(speech_in / gap_in - 1.0), snr_out = db(speech_out / gap_out - 1.0);
    const double speech_loss = db(speech_out / speech_in), noise_drop = db(gap_out / gap_in);
    std::printf("[ speech ] %.0f dB: SNR %.2f -> %.2f dB (+%.2f), speech frames %+.2f dB, pauses %+.2f dB\n",
                snr_db, snr_in, snr_out, snr_out - snr_in, speech_loss, noise_drop);
    EXPECT_GT(snr_out - snr_in, 4.0);
    EXPECT_GT(speech_loss, -4.0);
    EXPECT_GT(speech_loss - noise_drop, 4.0);
  }
}

// The per-bin kernels' vector twins against their plain loops, bit for bit,
// on spectra a suppressor meets and on the values that take the rare branches:
// zeros, denormals, the floor 1e-10, ExpExpint's breakpoints, the ramp's
// bracket, huge and infinite ratios, NaN.
TEST(NsKernels, VectorTwinsGiveThePlainBits) {
#if defined(VORN_SIMD4)
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  const std::vector<float> specials = {0.0f,   -0.0f, 1e-40f, 1e-10f, 9e-11f, 1e-3f, 0.001f, 0.25f, 1.0f,  5.0f,
                                       4.999f, 0.0999f, 0.1f, 0.2f,   0.3165f, 0.32f, 3.0f,  1.67f, 1e30f, 3e38f,
                                       inf,    nan,   -1.0f};
  // Row r of an input: noise of its own scale with a special value every few bins.
  const auto input = [&](int r, int len) {
    std::vector<float> x = sim::WhiteNoise(len, 1.0, 300u + r);
    for (int k = 0; k < len; ++k) {
      x[k] = std::fabs(x[k]) * std::pow(10.0f, static_cast<float>((k * 7 + r) % 9) - 4.0f);
      if ((k + r) % 5 == 0) x[k] = specials[(k * 3 + r) % specials.size()];
    }
    return x;
  };
  for (int len : {kNsBins, 21, 8, 7, 3}) {  // 21: eight-lane vectors, then four, then one; 8: whole vectors
    SCOPED_TRACE(testing::Message() << len << " bins");
    const std::vector<float> psd = input(0, len), noise = input(1, len), memory = input(2, len),
                             minimum = input(3, len), smoothed = input(4, len), presence = input(5, len);
    std::vector<float> a[5], b[5];
    for (int i = 0; i < 5; ++i) a[i].assign(len, 0.0f), b[i].assign(len, 0.0f);
    for (float eta_min : {0.0001f, 0.31622776f}) {
      const NsSnrIn in{psd.data(), noise.data(), memory.data(), minimum.data(), smoothed.data(), eta_min};
      NsSnrTermsPlain(in, {a[0].data(), a[1].data(), a[2].data(), a[3].data(), a[4].data()}, len);
      NsSnrTermsSimd(in, {b[0].data(), b[1].data(), b[2].data(), b[3].data(), b[4].data()}, len);
      for (int i = 0; i < 5; ++i)
        ASSERT_EQ(std::memcmp(a[i].data(), b[i].data(), len * sizeof(float)), 0) << "SNR term " << i;
#if defined(VORN_AVX2)
      if (CpuHasAvx2()) {
        NsSnrTermsAvx2(in, {b[0].data(), b[1].data(), b[2].data(), b[3].data(), b[4].data()}, len);
        for (int i = 0; i < 5; ++i)
          ASSERT_EQ(std::memcmp(a[i].data(), b[i].data(), len * sizeof(float)), 0) << "eight-lane SNR term " << i;
      }
#endif
    }
    // The averages, from gamma_min and zeta with specials in them.
    std::vector<float> dav_a = input(6, len), dav_long_a = input(7, len), d_a(len);
    std::vector<float> dav_b = dav_a, dav_long_b = dav_long_a, d_b(len);
    NsNoiseUpdatePlain(psd.data(), input(8, len).data(), input(9, len).data(), presence.data(),
                       {dav_a.data(), dav_long_a.data(), d_a.data()}, len);
    NsNoiseUpdateSimd(psd.data(), input(8, len).data(), input(9, len).data(), presence.data(),
                      {dav_b.data(), dav_long_b.data(), d_b.data()}, len);
    EXPECT_EQ(std::memcmp(dav_a.data(), dav_b.data(), len * sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(dav_long_a.data(), dav_long_b.data(), len * sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(d_a.data(), d_b.data(), len * sizeof(float)), 0);
    // The speech-hypothesis gain over every ExpExpint branch, and the ramp.
    std::vector<float> v = input(10, len);
    const std::vector<float> eta = input(11, len), gamma = input(12, len);
    // Some bins sit on ExpExpint's breakpoints and just below them.
    const float edges[] = {0.001f, 0.25f, 1.0f, 5.0f};
    for (int k = 1; k < len; k += 3)
      v[k] = (k / 3) % 2 ? edges[(k / 6) % 4] : std::nextafter(edges[(k / 6) % 4], 0.0f);
    NsLsaGainPlain(v.data(), eta.data(), gamma.data(), a[0].data(), a[1].data(), len);
    NsLsaGainSimd(v.data(), eta.data(), gamma.data(), b[0].data(), b[1].data(), len);
    EXPECT_EQ(std::memcmp(a[0].data(), b[0].data(), len * sizeof(float)), 0) << "gain";
    EXPECT_EQ(std::memcmp(a[1].data(), b[1].data(), len * sizeof(float)), 0) << "memory";
#if defined(VORN_AVX2)
    if (CpuHasAvx2()) {
      NsLsaGainAvx2(v.data(), eta.data(), gamma.data(), b[0].data(), b[1].data(), len);
      EXPECT_EQ(std::memcmp(a[0].data(), b[0].data(), len * sizeof(float)), 0) << "eight-lane gain";
      EXPECT_EQ(std::memcmp(a[1].data(), b[1].data(), len * sizeof(float)), 0) << "eight-lane memory";
    }
#endif
    NsRampOfRatioPlain(v.data(), a[2].data(), len);
    NsRampOfRatioSimd(v.data(), b[2].data(), len);
    EXPECT_EQ(std::memcmp(a[2].data(), b[2].data(), len * sizeof(float)), 0) << "ramp";
    // The noise estimate's indicator, held ratio and presence probability.
    NsNoiseIndicatorPlain(psd.data(), smoothed.data(), minimum.data(), a[3].data(), len);
    NsNoiseIndicatorSimd(psd.data(), smoothed.data(), minimum.data(), b[3].data(), len);
    EXPECT_EQ(std::memcmp(a[3].data(), b[3].data(), len * sizeof(float)), 0) << "indicator";
    NsHeldRatioPlain(noise.data(), v.data(), memory.data(), a[4].data(), len);
    NsHeldRatioSimd(noise.data(), v.data(), memory.data(), b[4].data(), len);
    EXPECT_EQ(std::memcmp(a[4].data(), b[4].data(), len * sizeof(float)), 0) << "held ratio";
    std::vector<double> exp_a(len), exp_b(len);
    const std::vector<float> ratio_g = input(13, len), ratio_z = input(14, len);
    NsPresencePlain(ratio_g.data(), ratio_z.data(), v.data(), eta.data(), a[0].data(), exp_a.data(), len);
    NsPresenceSimd(ratio_g.data(), ratio_z.data(), v.data(), eta.data(), b[0].data(), exp_b.data(), len);
    EXPECT_EQ(std::memcmp(a[0].data(), b[0].data(), len * sizeof(float)), 0) << "presence";
    EXPECT_EQ(std::memcmp(exp_a.data(), exp_b.data(), len * sizeof(double)), 0) << "exp(-v)";
    // The gain rule's presence, with exponentials formed (those just made, and
    // some not: -1) and absence probabilities around 0.9.
    std::vector<float> absence = input(15, len);
    for (int k = 0; k < len; ++k) absence[k] = k % 4 == 1 ? 0.9f : std::fmod(absence[k], 1.0f);
    for (int k = 0; k < len; k += 6) exp_a[k] = -1.0;
    NsGainPresencePlain(absence.data(), eta.data(), v.data(), exp_a.data(), a[1].data(), len);
    NsGainPresenceSimd(absence.data(), eta.data(), v.data(), exp_a.data(), b[1].data(), len);
    EXPECT_EQ(std::memcmp(a[1].data(), b[1].data(), len * sizeof(float)), 0) << "gain presence";
#if defined(VORN_AVX2)
    if (CpuHasAvx2()) {
      NsGainPresenceAvx2(absence.data(), eta.data(), v.data(), exp_a.data(), b[1].data(), len);
      EXPECT_EQ(std::memcmp(a[1].data(), b[1].data(), len * sizeof(float)), 0) << "eight-lane gain presence";
    }
#endif
    // The post filter's absence rule. Beam 0's excess over beam 1's steps by
    // quarters and its SNR by eighths, so the knees (ratio 1 and 1.75, SNR
    // 0.5 and 2) are met exactly; every fifth bin of a beam is noise with
    // specials in it.
    std::vector<float> beam_s[3], beam_noise[3], snr(len);
    for (int beam = 0; beam < 3; ++beam) {
      const std::vector<float> raw_s = input(16 + beam, len), raw_noise = input(19 + beam, len);
      std::vector<float> &sb = beam_s[beam], &nb = beam_noise[beam];
      sb.resize(len);
      nb.resize(len);
      for (int k = 0; k < len; ++k) {
        const float excess = beam == 0 ? 0.25f * static_cast<float>(k % 11)
                             : beam == 1 ? 1.0f
                                         : 0.5f * static_cast<float>((k / 11) % 3);
        const bool special = (k + beam) % 5 == 0;
        nb[k] = special ? raw_noise[k] : 1.0f;
        sb[k] = special ? raw_s[k] : 1.0f + excess;
      }
    }
    for (int k = 0; k < len; ++k) snr[k] = k % 5 == 2 ? psd[k] : 0.125f * static_cast<float>(k % 23);
    // The last bin, compared against the other beams, would come out at 0.998.
    beam_s[0][len - 1] = 1.5f;
    beam_noise[0][len - 1] = 1.0f;
    snr[len - 1] = 1.0f;
    const NsBeamPowers powers{{beam_s[0].data(), beam_s[1].data(), beam_s[2].data()},
                              {beam_noise[0].data(), beam_noise[1].data(), beam_noise[2].data()},
                              snr.data()};
    NsBeamAbsencePlain(powers, a[2].data(), len);
    NsBeamAbsenceSimd(powers, b[2].data(), len);
    EXPECT_EQ(std::memcmp(a[2].data(), b[2].data(), len * sizeof(float)), 0) << "beam absence";
#if defined(VORN_AVX2)
    if (CpuHasAvx2()) {
      NsBeamAbsenceAvx2(powers, b[2].data(), len);
      EXPECT_EQ(std::memcmp(a[2].data(), b[2].data(), len * sizeof(float)), 0) << "eight-lane beam absence";
    }
#endif
    if (len == kNsBins) {  // every outcome of the rule is met
      EXPECT_TRUE(std::count(a[2].begin(), a[2].end(), 0.01f) > 0);
      EXPECT_TRUE(std::count_if(a[2].begin(), a[2].end(), [](float x) { return x > 0.01f && x < 0.998f; }) > 0);
    }
  }
  // The vector ramp forms its own logarithm and must round it to the float the
  // library's gives: every float of the bracket (every 97th under emulation).
  const int stride = test::UnderEmulation() ? 97 : 1;
  std::vector<float> ratios, ramp_a, ramp_b;
  for (float x = 0.0995f; x <= 0.317f;) {
    ratios.clear();
    for (; x <= 0.317f && ratios.size() < 4096; x = std::bit_cast<float>(std::bit_cast<int>(x) + stride))
      ratios.push_back(x);
    const int len = static_cast<int>(ratios.size());
    ramp_a.resize(len);
    ramp_b.resize(len);
    NsRampOfRatioPlain(ratios.data(), ramp_a.data(), len);
    NsRampOfRatioSimd(ratios.data(), ramp_b.data(), len);
    ASSERT_EQ(std::memcmp(ramp_a.data(), ramp_b.data(), len * sizeof(float)), 0) << "ramp from " << ratios[0];
  }
#if defined(VORN_AVX2)
  // The eight-lane gain presence forms a missing exponential itself and must
  // round the presence as the plain step does, over many bins of every scale.
  if (CpuHasAvx2()) {
    const int bins = test::UnderEmulation() ? 4096 : 1 << 20;
    const std::vector<float> noise_q = sim::WhiteNoise(bins, 1.0, 40u), noise_eta = sim::WhiteNoise(bins, 1.0, 41u),
                             noise_v = sim::WhiteNoise(bins, 1.0, 42u);
    std::vector<float> q(bins), eta(bins), v(bins), plain(bins), lanes(bins);
    for (int k = 0; k < bins; ++k) {
      q[k] = std::fmod(std::fabs(noise_q[k]), 0.95f);
      eta[k] = std::pow(10.0f, std::fmod(noise_eta[k], 3.0f));
      v[k] = (k % 7 == 0 ? -1.0f : 1.0f) * std::fabs(noise_v[k]) * static_cast<float>(1 << (k % 10));
    }
    v[5] = 700.0f, v[6] = -700.0f, v[9] = 699.9f, v[10] = std::numeric_limits<float>::quiet_NaN();
    v[11] = v[12] = v[13] = 800.0f, eta[11] = std::numeric_limits<float>::infinity(), eta[12] = 3e38f;
    q[13] = -std::numeric_limits<float>::infinity();
    const std::vector<double> none(bins, -1.0);
    NsGainPresencePlain(q.data(), eta.data(), v.data(), none.data(), plain.data(), bins);
    NsGainPresenceAvx2(q.data(), eta.data(), v.data(), none.data(), lanes.data(), bins);
    EXPECT_EQ(std::memcmp(plain.data(), lanes.data(), bins * sizeof(float)), 0) << "eight-lane gain presence";
    // The gain blend forms floor^(1 - p) * speech^p itself, likewise: floors
    // and gains of every scale, the weights' ends, and specials.
    std::vector<float> floors(bins), speech(bins), weights(bins);
    const float odd_values[] = {0.0f, 1e-40f, 1.0f, std::numeric_limits<float>::infinity(), -0.5f,
                              std::numeric_limits<float>::quiet_NaN()};
    for (int k = 0; k < bins; ++k) {
      floors[k] = std::fabs(noise_q[k]) * std::pow(10.0f, -static_cast<float>(k % 23));
      speech[k] = std::fmod(std::fabs(noise_eta[k]), 1.0f) + 1e-7f;
      weights[k] = std::fmod(std::fabs(noise_v[k]), 1.0f);
      if (k % 97 == 0) floors[k] = odd_values[(k / 97) % 6];
      if (k % 89 == 0) speech[k] = odd_values[(k / 89) % 6];
      if (k % 83 == 0) weights[k] = odd_values[(k / 83) % 6];
    }
    NsGainBlendPlain(floors.data(), speech.data(), weights.data(), plain.data(), bins);
    NsGainBlendAvx2(floors.data(), speech.data(), weights.data(), lanes.data(), bins);
    EXPECT_EQ(std::memcmp(plain.data(), lanes.data(), bins * sizeof(float)), 0) << "eight-lane gain blend";
    // The presence estimate likewise; where it formed the exponential itself
    // it keeps none (-1), and the gain rule forms the library's again.
    std::vector<float> gamma_min(bins), zeta(bins);
    for (int k = 0; k < bins; ++k) {
      gamma_min[k] = 0.9f + 2.2f * std::fmod(std::fabs(noise_eta[k]), 1.0f);
      zeta[k] = 1.8f * std::fmod(std::fabs(noise_q[k] + noise_v[k]), 1.0f);
      if (k % 101 == 0) eta[k] = odd_values[(k / 101) % 6];
    }
    std::vector<double> exp_plain(bins), exp_lanes(bins);
    NsPresencePlain(gamma_min.data(), zeta.data(), v.data(), eta.data(), plain.data(), exp_plain.data(), bins);
    NsPresenceAvx2(gamma_min.data(), zeta.data(), v.data(), eta.data(), lanes.data(), exp_lanes.data(), bins);
    EXPECT_EQ(std::memcmp(plain.data(), lanes.data(), bins * sizeof(float)), 0) << "eight-lane presence";
    int kept_other = 0;
    for (int k = 0; k < bins; ++k)
      if (std::memcmp(&exp_plain[k], &exp_lanes[k], sizeof(double)) != 0 && exp_lanes[k] != -1.0) ++kept_other;
    EXPECT_EQ(kept_other, 0) << "an exponential kept that is not the library's";
    NsGainPresencePlain(q.data(), eta.data(), v.data(), exp_plain.data(), plain.data(), bins);
    NsGainPresencePlain(q.data(), eta.data(), v.data(), exp_lanes.data(), lanes.data(), bins);
    EXPECT_EQ(std::memcmp(plain.data(), lanes.data(), bins * sizeof(float)), 0) << "gain presence after it";
  }
#endif
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

// A VAD instance whose output nobody reads runs without one: it forms only the
// gains its band measure reads and no synthesis, and every decision and every
// figure the front end reads from it stays the same bits, under each rule.
TEST(NsVadProc, WithoutAnOutputDecidesTheSame) {
  const std::size_t n = 10 * kSecond;
  const sim::SpeechLike talker = sim::MakeSpeechLike(n, 4, {.lead_silence_s = 2.0});
  const std::vector<std::int16_t> pcm = sim::ToPcm(sim::Mix(talker.samples, sim::PinkNoise(n, 300.0, 5)));
  for (int vad_mode : {1, 2, 3}) {
    SCOPED_TRACE(vad_mode);
    NsInstance with(vad_mode), without(vad_mode);
    with.state().t_ref_to_aec = without.state().t_ref_to_aec = 25.0f;  // the echo-aware figures move too
    int flags = 0;
    for (std::size_t h = 0; h + 1 < n / kNsHop; ++h) {
      short in[kNsHop], out[kNsHop];
      std::copy(pcm.begin() + h * kNsHop, pcm.begin() + (h + 1) * kNsHop, in);
      const int want = NsVadProc(&with.param(), nullptr, nullptr, nullptr, in, out);
      ASSERT_EQ(NsVadProc(&without.param(), nullptr, nullptr, nullptr, in, nullptr), want) << "hop " << h;
      const T_AdspNsState &a = with.state(), &b = without.state();
      const float figures_a[] = {a.f_snr, a.long_eta, a._d_ssnr, a._d_senr, a.long_ssnr, a.phat_mean, a.f_sir};
      const float figures_b[] = {b.f_snr, b.long_eta, b._d_ssnr, b._d_senr, b.long_ssnr, b.phat_mean, b.f_sir};
      ASSERT_EQ(std::memcmp(figures_a, figures_b, sizeof figures_a), 0) << "hop " << h;
      flags += want;
    }
    EXPECT_GT(flags, 0);
  }
}

// Full scale right after digital silence (noise estimate at its floor, a posteriori SNR near the float limit):
// no state value may overflow, and the square wave's Gibbs overshoot beyond 16 bits must saturate, never wrap
// to the other sign. The hop counter saturates too, as on a device after months of audio.
TEST(AdspNsProc, FullScaleOnsetAfterSilenceStaysFiniteAndSaturates) {
  const std::size_t onset = 5 * kSecond;
  Signal x(onset + 2 * kSecond, 0.0f);
  for (std::size_t i = onset; i < x.size(); ++i) x[i] = (i / 32) % 2 ? -32768.0f : 32767.0f;  // 250 Hz
  NsInstance ns;
  const T_AdspNsState &st = ns.state();
  ns.state().frame = kNsFrameMax - 3;
  int non_finite = 0;
  const Signal y = ns.Run(x, nullptr, [&](int) {
    for (int k = 0; k < kNsBins; ++k)
      non_finite += !std::isfinite(st.v[k]) + !std::isfinite(st.eta[k]) + !std::isfinite(st.gamma[k]);
  });
  EXPECT_EQ(non_finite, 0);
  EXPECT_EQ(st.frame, kNsFrameMax);
  int saturated = 0, wrapped = 0;
  for (std::size_t i = onset + kSecond; i + kLatency < x.size(); ++i) {
    const float out = y[i + kLatency];
    saturated += out == 32767.0f || out == -32768.0f;
    wrapped += std::fabs(out) > 16384.0f && (out > 0) != (x[i] > 0);
  }
  EXPECT_GT(saturated, 0);
  EXPECT_EQ(wrapped, 0);
}

// The diagonal minimum over the magnitude history, against a search over a copy of it and `au` behind it.
TEST(AdspNsProc, SpectralScaleModeTracksDiagonalMinimum) {
  NsInstance ns;
  const T_AdspNsState &st = ns.state();
  ns.Run(sim::WhiteNoise(6 * kNsHop, 300.0, 8));  // some time samples in `au`
  ns.param().data_type = kNsDataSpectralScale;
  const Signal noise = sim::WhiteNoise(25 * kNsFftLen, 10.0, 6);
  float minimum[kNsBins], scaled[kNsFftLen];
  for (int call = 0; call < 25; ++call) {
    Signal spectrum(noise.begin() + call * kNsFftLen, noise.begin() + (call + 1) * kNsFftLen);
    AdspNsProc(&ns.param(), spectrum.data(), minimum, scaled, nullptr, nullptr);
    std::vector<float> flat(st.freq_amp_buff, st.freq_amp_buff + kNsTraceRows * kNsBins);
    flat.insert(flat.end(), st.au, st.au + kNsFftLen);
    for (int k = 0; k < kNsBins; ++k) {
      float want = flat[k];
      for (int row = 1; row < kNsTraceRows; ++row) want = std::min(want, flat[k + row * (kNsBins + 1)]);
      ASSERT_EQ(minimum[k], want) << "call " << call << " bin " << k;
      // A bin is removed where row 0 stays below twice the minimum and kept well above it.
      if (k == 0 || k == kNsBins - 1) continue;
      ASSERT_TRUE(flat[k] >= 2.0f * minimum[k] || scaled[k] == 0.0f) << "bin " << k;
      const bool well_above = flat[k] > 4.0f * minimum[k] && minimum[k] > 0.0f;
      ASSERT_TRUE(!well_above || std::fabs(scaled[k]) > 0.4f * std::fabs(spectrum[k])) << "bin " << k;
    }
  }
}

// Figures clearly speech or clearly not for every rule; an echo pause's residual is far below the noise.
int Decide(int mode, T_AdspNsState &st, bool speech, bool echo = false) {
  st.f_snr = speech ? 30.0f : -5.0f;
  st.long_eta = 10.0f;
  st._d_senr = speech ? 10.0f : -10.0f;
  st._d_ssnr = speech ? 30.0f : -10.0f;
  st.long_ssnr = speech ? 20.0f : echo ? -20.0f : -5.0f;
  st.phat_mean = speech ? 0.9f : 0.0f;
  st.suppressed_noise_psd = st.long_suppressed_eng = 1.0f;
  const float energy = speech ? 10.0f : 1.0f;
  return mode == 1 ? VadDet(&st, energy) : mode == 3 ? VadDetAecWkp(&st, energy) : VadDetAsr(&st, energy);
}

// Speech hops, then pauses: speech is flagged from its first hop; once a region (six hops) has formed, the
// pause keeps the flag for hangover - 1 hops: 20 in modes 1 and 3 (wake-up), 12..20 growing with the run in
// mode 2 (recognition). In mode 3 an echo residual ends the region at once.
TEST(NsVad, HangoverLengthsFollowTheRules) {
  struct Case { int mode, speech_hops, want_flagged_pause_hops; bool echo_pause = false; };
  const Case cases[] = {{1, 5, 0}, {1, 6, 19}, {1, 40, 19}, {2, 5, 0}, {2, 6, 11}, {2, 15, 14}, {2, 40, 19},
                        {3, 5, 0}, {3, 6, 19}, {3, 40, 19}, {3, 10, 1, true}};
  for (const Case &c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << ", " << c.speech_hops << " speech hops");
    NsInstance ns(c.mode);
    for (int i = 0; i < 4; ++i) ASSERT_EQ(Decide(c.mode, ns.state(), false), 0);
    for (int i = 0; i < c.speech_hops; ++i) ASSERT_EQ(Decide(c.mode, ns.state(), true), 1) << "hop " << i;
    std::vector<int> pause_flags(60);
    for (int &flag : pause_flags) flag = Decide(c.mode, ns.state(), false, c.echo_pause);
    const auto released = std::find(pause_flags.begin(), pause_flags.end(), 0);
    EXPECT_EQ(released - pause_flags.begin(), c.want_flagged_pause_hops);
    EXPECT_EQ(std::count(released, pause_flags.end(), 1), 0) << "the flag came back";
    EXPECT_EQ(ns.state().is_speech_region, 0);
  }
}

// Bursts of a talker with steady vowels over white noise: every mode flags the first frame (two hops, as the
// front end joins them) of each burst and drops the flag once its hangover has run out, at a noise level its
// rule suits (wake-up needs a high frame SNR; recognition stays on at a high long-term SNR).
TEST(NsVad, FlagsOnsetsAndReleasesAfterHangover) {
  constexpr int kFrame = 256, kFirst = 300, kPeriod = 125, kBurst = 40, kLast = kFirst + 8 * kPeriod;
  constexpr int kRelease = (30 + 3) / 2 + 1;  // longest hangover plus the analysis window, in frames
  const std::size_t n = 22 * kSecond;
  const sim::SpeechLikeOptions opt{.syllable_hz = 0.25, .duty = 1.0};
  Signal speech = sim::MakeSpeechLike(n, 7, opt).samples;
  for (std::size_t i = 0; i < n; ++i) {
    const int frame = static_cast<int>(i / kFrame);
    if (frame < kFirst || (frame - kFirst) % kPeriod >= kBurst) speech[i] = 0.0f;
  }
  for (const auto& [mode, snr_db] : {std::pair{1, 30.0}, std::pair{2, 20.0}, std::pair{3, 30.0}}) {
    SCOPED_TRACE(testing::Message() << "mode " << mode);
    const Signal mix = sim::Mix(speech, sim::WhiteNoise(n, opt.rms / std::pow(10.0, snr_db / 20.0), 3));
    std::vector<int> flags;
    NsInstance(mode).Run(mix, &flags);
    const auto frame_flag = [&](int frame) { return flags[2 * frame] | flags[2 * frame + 1]; };
    for (int onset = kFirst; onset <= kLast; onset += kPeriod) {
      EXPECT_EQ(frame_flag(onset), 1) << "onset at frame " << onset;
      EXPECT_EQ(frame_flag(onset + kBurst - 1 + kRelease), 0) << "still flagged after the hangover, " << onset;
    }
    if (mode != 3) continue;
    // The reference-to-canceller ratio silences the wake-up rule above 500 dB and changes nothing below.
    for (const float ratio_db : {600.0f, 500.5f, 400.0f}) {
      NsInstance ns(3);
      SetNsRefToAecRatio(&ns.param(), ratio_db);
      std::vector<int> ratio_flags;
      ns.Run(mix, &ratio_flags);
      EXPECT_TRUE(ratio_flags == (ratio_db > 500.0f ? std::vector<int>(flags.size(), 0) : flags)) << ratio_db;
    }
  }
}

}  // namespace
}  // namespace vorn
