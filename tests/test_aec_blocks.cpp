// Tests of the echo canceller's building blocks: ring buffer, 128-point real
// FFT (against a direct DFT in double, vector against plain stages, four lanes
// at once against one at a time), the filter and coherence kernels' vector twins, random
// generators, resampler and skew fit, stored-filter reader, delay estimator.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/aec_filter_file.h"
#include "adsp_aec/aec_rdft.h"
#include "adsp_aec/aec_resampler.h"
#include "adsp_aec/delay_estimator.h"
#include "adsp_aec/delay_estimator_wrapper.h"
#include "adsp_aec/randomization_functions.h"
#include "adsp_aec/ring_buffer.h"
#include "sim/signals.h"

namespace vorn {
namespace {

constexpr double kPi = std::numbers::pi;

// ---------------------------------------------------------------- ring buffer

// Random traffic against a model of the whole written stream by absolute index
// reaches every lap and wrap, and steps back over what is not yet overwritten;
// never written places read as zeros (the canceller's far-end pre-roll).
TEST(RingBuffer, RandomTrafficMatchesAStreamModel) {
  for (size_t capacity : {1u, 5u, 8u, 13u, 384u}) {
    SCOPED_TRACE(capacity);
    std::vector<int> storage(capacity, -1);
    RingBuffer ring{};
    ASSERT_EQ(Adsp_CreateBuffer(&ring, storage.data(), capacity, sizeof(int)), 0);
    std::vector<int> stream;
    long read_at = 0;  // absolute index of the next element to read
    int zero_copy_reads = 0;  // a read that does not wrap must hand out a pointer into the ring
    std::mt19937 rng(static_cast<unsigned>(capacity));
    std::vector<int> buffer(2 * capacity + 2);
    for (int step = 0; step < 4000; ++step) {
      const long readable = static_cast<long>(stream.size()) - read_at;
      ASSERT_EQ(Adsp_available_read(&ring), static_cast<size_t>(readable));
      ASSERT_EQ(Adsp_available_write(&ring), capacity - static_cast<size_t>(readable));
      const int n = static_cast<int>(rng() % (capacity + 3));
      const unsigned action = rng() % 4;
      if (action == 0) {
        for (int i = 0; i < n; ++i) buffer[i] = static_cast<int>(stream.size()) + i + 1;
        const size_t written = Adsp_WriteBuffer(&ring, buffer.data(), n);
        ASSERT_EQ(written, std::min<size_t>(n, capacity - readable));
        stream.insert(stream.end(), buffer.begin(), buffer.begin() + written);
      } else if (action < 3) {
        void* where = nullptr;
        const size_t read = Adsp_ReadBuffer(&ring, action == 1 ? &where : nullptr, buffer.data(), n);
        ASSERT_EQ(read, std::min<size_t>(n, readable));
        zero_copy_reads += where != nullptr && where != buffer.data();
        const int* got = where != nullptr ? static_cast<int*>(where) : buffer.data();
        for (size_t i = 0; i < read; ++i, ++read_at) ASSERT_EQ(got[i], read_at < 0 ? 0 : stream[read_at]);
      } else {
        const int k = n - static_cast<int>(capacity);  // backwards as often as forwards
        const int moved = Adsp_MoveReadPtr(&ring, k);
        ASSERT_EQ(moved, std::clamp<long>(k, readable - static_cast<long>(capacity), readable));
        read_at += moved;
      }
    }
    EXPECT_GT(zero_copy_reads, 100);
  }
}

// ------------------------------------------------------------- 128-point FFT

// Direct DFT in double with the transform's packing and sine sign.
std::array<double, 128> DirectPackedDft(const float* x) {
  std::array<double, 128> packed{};
  for (int k = 0; k <= 64; ++k) {
    double re = 0.0, im = 0.0;
    for (int j = 0; j < 128; ++j) {
      const double phase = 2.0 * kPi * ((j * k) % 128) / 128.0;
      re += x[j] * std::cos(phase);
      im += x[j] * std::sin(phase);
    }
    packed[k == 64 ? 1 : 2 * k] = re;
    if (k != 0 && k != 64) packed[2 * k + 1] = im;
  }
  return packed;
}

// Impulses, a tone (its sine part in the odd slots, with the sine's sign) and
// noise at two scales through the plain stages and the compiled-in ones.
TEST(Rdft128, ForwardMatchesADirectDftInDoubleAndInverseUndoesIt) {
  std::vector<sim::Signal> inputs = {sim::Signal(128), sim::Signal(128), sim::Tone(128, 625.0, 1.0, 0.3)};
  inputs[0][0] = 1.0f;
  inputs[1][77] = -3.0f;
  for (int seed = 1; seed <= 20; ++seed) inputs.push_back(sim::WhiteNoise(128, seed % 2 ? 1 : 3000, seed));
  auto relative_error = [](const float* got, const auto& want) {  // largest error over the largest value
    double error = 0.0, peak = 0.0;
    for (size_t i = 0; i < want.size(); ++i) {
      error = std::max(error, std::fabs(got[i] - double{want[i]}));
      peak = std::max(peak, std::fabs(double{want[i]}));
    }
    return error / peak;
  };
  double worst_forward = 0.0, worst_round_trip = 0.0;
  for (const RdftStages* stages : {&kRdftPlainStages, &kRdftStages}) {
    for (const sim::Signal& input : inputs) {
      alignas(16) std::array<float, 128> a;
      std::copy(input.begin(), input.end(), a.begin());
      aec_rdft_forward_128_with(*stages, a.data());
      worst_forward = std::max(worst_forward, relative_error(a.data(), DirectPackedDft(input.data())));
      aec_rdft_inverse_128_with(*stages, a.data());
      for (float& v : a) v *= 2.0f / 128.0f;  // the inverse gives n/2 times the signal
      worst_round_trip = std::max(worst_round_trip, relative_error(a.data(), input));
    }
  }
  std::printf("[ figures  ] forward %.3g, round trip %.3g of the peak\n", worst_forward, worst_round_trip);
  EXPECT_LT(worst_forward, 1e-6);  // float radix-4 stages over 7 levels: a few epsilons of the peak
  EXPECT_LT(worst_round_trip, 1e-6);
}

#if defined(VORN_SIMD4)
// Stage by stage on random input: the real-data stages and the twiddle groups
// without a plain shortcut round exactly like the plain code; the shortcut
// groups (cft1st's first 16 floats, cftmdl's first 64) may differ by rounding.
TEST(Rdft128, VectorStagesMatchThePlainStagesAndAreCompiledIn) {
  const RdftStage128 plain_stages[] = {cft1st_128_C,  cftmdl_128_C,   rftfsub_128_C,
                                       rftbsub_128_C, cftflast_128_C, cftblast_128_C};
  const RdftStage128 vector_stages[] = {cft1st_128_Simd,  cftmdl_128_Simd,   rftfsub_128_Simd,
                                        rftbsub_128_Simd, cftflast_128_Simd, cftblast_128_Simd};
  const RdftStage128 compiled_in[] = {kRdftStages.cft1st,  kRdftStages.cftmdl,   kRdftStages.rftfsub,
                                      kRdftStages.rftbsub, kRdftStages.cftflast, kRdftStages.cftblast};
  const int exact_from[] = {16, 64, 0, 0, 0, 0};
  for (int stage = 0; stage < 6; ++stage) {
    EXPECT_EQ(compiled_in[stage], vector_stages[stage]) << stage;
    for (unsigned seed = 1; seed <= 10; ++seed) {
      const sim::Signal noise = sim::WhiteNoise(128, 1000.0, seed);
      alignas(16) std::array<float, 128> plain, vector;
      std::copy(noise.begin(), noise.end(), plain.begin());
      vector = plain;
      plain_stages[stage](plain.data());
      vector_stages[stage](vector.data());
      for (int i = 0; i < 128; ++i) {
        const bool same_bits = std::bit_cast<uint32_t>(plain[i]) == std::bit_cast<uint32_t>(vector[i]);
        const bool rounding = i < exact_from[stage] && std::fabs(plain[i] - vector[i]) <= 4e-7f * 4000.0f;
        ASSERT_TRUE(same_bits || rounding) << "stage " << stage << " float " << i;
      }
    }
  }
}

bool SameBits(float a, float b) { return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b); }

// Four different inputs (noise at two scales, an impulse, signed zeros) in the
// lanes give each transform's bits, forward and back, in the four-lane batch
// and (with AVX2) the eight-lane one.
TEST(Rdft128, LaneBatchedTransformsGiveEachLanesBits) {
  alignas(16) std::array<std::array<float, 128>, 4> one;
  for (int l = 0; l < 4; ++l) {
    const sim::Signal noise = sim::WhiteNoise(128, l == 1 ? 1.0 : 3000.0, 40 + l);
    std::copy(noise.begin(), noise.end(), one[l].begin());
  }
  one[2].fill(0.0f);
  one[2][5] = 1.0f;
  for (int i = 0; i < 128; ++i) one[3][i] = i % 3 == 0 ? -0.0f : one[3][i];
  for (const bool forward : {true, false}) {
    alignas(16) simd::F4 lanes[128];
    for (int i = 0; i < 128; ++i) lanes[i] = simd::Set(one[0][i], one[1][i], one[2][i], one[3][i]);
#if defined(VORN_AVX2)
    // Eight lanes: the four inputs, then the same four in the other order.
    alignas(32) __m256 wide[128];
    if (CpuHasAvx2()) {
      for (int i = 0; i < 128; ++i) {
        alignas(32) float in[8];
        simd::Store(in, lanes[i]);
        for (int l = 0; l < 4; ++l) in[4 + l] = in[3 - l];
        std::memcpy(&wide[i], in, sizeof in);
      }
      forward ? aec_rdft_forward_128_x8(wide) : aec_rdft_inverse_128_x8(wide);
    }
#endif
    forward ? aec_rdft_forward_128_x4(lanes) : aec_rdft_inverse_128_x4(lanes);
    for (auto& a : one) forward ? aec_rdft_forward_128(a.data()) : aec_rdft_inverse_128(a.data());
    for (int i = 0; i < 128; ++i) {
      alignas(16) float got[4];
      simd::Store(got, lanes[i]);
      for (int l = 0; l < 4; ++l) ASSERT_TRUE(SameBits(got[l], one[l][i])) << forward << " lane " << l << " " << i;
#if defined(VORN_AVX2)
      if (!CpuHasAvx2()) continue;
      alignas(32) float got8[8];
      std::memcpy(got8, &wide[i], sizeof got8);
      for (int l = 0; l < 8; ++l) {
        ASSERT_TRUE(SameBits(got8[l], one[l < 4 ? l : 7 - l][i])) << forward << " eight lanes, lane " << l << " " << i;
      }
#endif
    }
  }
}

// The filter kernels' vector twins against the plain ones, for both filters,
// both filter lengths and a far history that wraps at different places.
TEST(AecFilterKernels, VectorTwinsGiveThePlainBits) {
  struct Case {
    int filter_flag, partitions, block_pos;
  };
  for (const Case& c : {Case{0, 12, 0}, Case{1, 12, 7}, Case{0, 32, 29}, Case{1, 32, 3}, Case{2, 12, 1}}) {
    auto plain = std::make_unique<AecCore>();
    std::mt19937 rng(static_cast<unsigned>(c.partitions * 10 + c.block_pos));
    std::normal_distribution<float> normal(0.0f, 100.0f);
    for (float* plane : {plain->xfBuf[0], plain->xfBuf[1], plain->wfBuf[0], plain->wfBuf[1], plain->wfBuf_main[0],
                         plain->wfBuf_main[1]}) {
      for (int i = 0; i < kFilterPlaneLen; ++i) plane[i] = normal(rng) * (i % 7 == 0 ? 1e-3f : 1.0f);
    }
    plain->filter_flag = c.filter_flag;
    plain->num_partitions = c.partitions;
    plain->xfBufBlockPos = c.block_pos;
    auto vector = std::make_unique<AecCore>(*plain);
    const auto before = std::make_unique<AecCore>(*plain);
    float yf_plain[2][kAecBins], yf_vector[2][kAecBins], ef[2][kAecBins];
    for (int k = 0; k < kAecBins; ++k) {
      yf_plain[0][k] = yf_vector[0][k] = normal(rng);
      yf_plain[1][k] = yf_vector[1][k] = normal(rng);
      ef[0][k] = normal(rng) * 1e-6f;
      ef[1][k] = normal(rng) * 1e-6f;
    }
    // The step normalisation, with far powers that send bins down both branches.
    float ef_plain[2][kAecBins], ef_vector[2][kAecBins], x_pow[kAecBins];
    for (int k = 0; k < kAecBins; ++k) {
      ef_plain[0][k] = ef_vector[0][k] = normal(rng);
      ef_plain[1][k] = ef_vector[1][k] = normal(rng);
      x_pow[k] = k % 3 == 0 ? 0.0f : std::fabs(normal(rng)) * 1e3f;
    }
    ScaleErrorBinsPlain(x_pow, 0.5f, 0.3f, ef_plain);
    ScaleErrorBinsSimd(x_pow, 0.5f, 0.3f, ef_vector);
    ASSERT_EQ(std::memcmp(ef_plain, ef_vector, sizeof ef_plain), 0);
    float yf_wide[2][kAecBins];
    std::memcpy(yf_wide, yf_vector, sizeof yf_wide);
    FilterFarPlain(plain.get(), yf_plain);
    FilterFarSimd(vector.get(), yf_vector);
#if defined(VORN_AVX2)
    if (CpuHasAvx2()) FilterFarAvx2(vector.get(), yf_wide);
    else std::memcpy(yf_wide, yf_vector, sizeof yf_wide);
#else
    std::memcpy(yf_wide, yf_vector, sizeof yf_wide);
#endif
    alignas(16) float fft[kAecBlockLen2];
    FilterAdaptationPlain(plain.get(), fft, ef);
    FilterAdaptationSimd(vector.get(), ef);
#if defined(VORN_AVX2)
    if (CpuHasAvx2()) {  // both filters in batches of eight against each adapted plainly, from the same start
      float ef_main[2][kAecBins];
      for (int k = 0; k < kAecBins; ++k) ef_main[0][k] = ef[1][k] * 3.0f, ef_main[1][k] = -ef[0][k];
      auto one_by_one = std::make_unique<AecCore>(*before);
      one_by_one->filter_flag = 1;
      FilterAdaptationPlain(one_by_one.get(), fft, ef);
      one_by_one->filter_flag = 0;
      FilterAdaptationPlain(one_by_one.get(), fft, ef_main);
      auto both = std::make_unique<AecCore>(*before);
      FilterAdaptationBothAvx2(both.get(), ef, ef_main);
      ASSERT_EQ(std::memcmp(both->wfBuf, one_by_one->wfBuf, sizeof both->wfBuf), 0) << c.partitions;
      ASSERT_EQ(std::memcmp(both->wfBuf_main, one_by_one->wfBuf_main, sizeof both->wfBuf_main), 0) << c.partitions;
    }
#endif
    for (int k = 0; k < kAecBins; ++k) {
      ASSERT_TRUE(SameBits(yf_plain[0][k], yf_vector[0][k]) && SameBits(yf_plain[1][k], yf_vector[1][k])) << k;
      ASSERT_TRUE(SameBits(yf_plain[0][k], yf_wide[0][k]) && SameBits(yf_plain[1][k], yf_wide[1][k])) << "eight lanes " << k;
    }
    for (int i = 0; i < kFilterPlaneLen; ++i) {
      ASSERT_TRUE(SameBits(plain->wfBuf[0][i], vector->wfBuf[0][i]) && SameBits(plain->wfBuf[1][i], vector->wfBuf[1][i]) &&
                  SameBits(plain->wfBuf_main[0][i], vector->wfBuf_main[0][i]) &&
                  SameBits(plain->wfBuf_main[1][i], vector->wfBuf_main[1][i]))
          << "flag " << c.filter_flag << " partitions " << c.partitions << " at " << i;
    }
  }
}

// The coherence kernels' vector twins against the plain loops, with and
// without the post filter's spectrum, far powers below the floor, ratios
// above 1, zeros, infinities and NaN among the bins.
TEST(AecCoherenceKernels, VectorTwinsGiveThePlainBits) {
#if defined(VORN_SIMD4)
  std::mt19937 rng(65);
  std::normal_distribution<float> normal(0.0f, 30.0f);
  const float specials[] = {0.0f, -0.0f, 1e-30f, std::numeric_limits<float>::infinity(),
                            std::numeric_limits<float>::quiet_NaN(), 2.0f};
  float spectra[4][2][kAecBins];
  for (auto& spectrum : spectra)
    for (auto& part : spectrum)
      for (int k = 0; k < kAecBins; ++k) part[k] = k % 11 == 3 ? specials[k % 6] : normal(rng) * (k % 3 ? 1.0f : 0.05f);
  auto plain = std::make_unique<AecCore>();
  for (int k = 0; k < kAecBins; ++k) {
    for (float* field : {plain->sd, plain->se, plain->sx, plain->sc, plain->sAEC}) field[k] = std::fabs(normal(rng));
    for (complex_t* cross : {plain->sde, plain->sxd, plain->sxe}) cross[k][0] = normal(rng), cross[k][1] = normal(rng);
  }
  plain->sd[5] = 0.0f;  // a coherence of 1e10 times the cross power: clamped to 1
  const float g[2] = {0.9f, 0.1f};
  for (bool post_filter : {false, true}) {
    auto vector = std::make_unique<AecCore>(*plain);
    const CoherenceSpectra in{spectra[0], spectra[1], spectra[2], post_filter ? spectra[3] : nullptr};
    SmoothSpectraPlain(plain.get(), in, g);
    SmoothSpectraSimd(vector.get(), in, g);
    for (const auto& [a, b] : {std::pair{plain->sd, vector->sd}, {plain->se, vector->se}, {plain->sx, vector->sx},
                               {plain->sc, vector->sc}, {plain->sAEC, vector->sAEC}})
      EXPECT_EQ(std::memcmp(a, b, sizeof(float) * kAecBins), 0) << post_filter;
    EXPECT_EQ(std::memcmp(plain->sde, vector->sde, sizeof plain->sde), 0) << post_filter;
    EXPECT_EQ(std::memcmp(plain->sxd, vector->sxd, sizeof plain->sxd), 0) << post_filter;
    EXPECT_EQ(std::memcmp(plain->sxe, vector->sxe, sizeof plain->sxe), 0) << post_filter;
    float coherence_plain[kAecBins], coherence_vector[kAecBins];
    CoherencePlain(plain->sde, plain->sd, plain->se, coherence_plain);
    CoherenceSimd(plain->sde, plain->sd, plain->se, coherence_vector);
    EXPECT_EQ(std::memcmp(coherence_plain, coherence_vector, sizeof coherence_plain), 0) << post_filter;
    EXPECT_EQ(std::count(coherence_plain, coherence_plain + kAecBins, 1.0f) > 0, true);
  }
#else
  GTEST_SKIP() << "no four-lane vectors in this build";
#endif
}

// The far end's activity over the filter span: the same decision as the float
// chain at and around the threshold (where the twin falls back to it), far
// from it on both sides, and for zeros, infinities and NaN.
TEST(AecFilterKernels, FarSpanActivityDecidesAsTheFloatSum) {
  const float inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
  for (int n : {12 * kAecBins, 32 * kAecBins, 7}) {
    std::mt19937 rng(static_cast<unsigned>(n));
    std::normal_distribution<float> normal(0.0f, 1.0f);
    std::vector<float> re(n), im(n);
    for (int i = 0; i < n; ++i) re[i] = normal(rng), im[i] = normal(rng) * (i % 5 == 0 ? 30.0f : 1.0f);
    const float divisor = static_cast<float>(n) * 128.0f;
    double mean = 0.0;
    for (int i = 0; i < n; ++i) mean += double{re[i]} * re[i] + double{im[i]} * im[i];
    mean /= divisor;
    for (double offset : {0.0, 1e-9, -1e-9, 1e-5, -1e-5, 4e-4, -4e-4, 2e-3, -2e-3, 0.5, -0.5, -1.0}) {
      const float scale = static_cast<float>(std::sqrt(100.0 * (1.0 + offset) / mean));
      std::vector<float> r = re, m = im;
      for (int i = 0; i < n; ++i) r[i] *= scale, m[i] *= scale;
      EXPECT_EQ(FarSpanAbovePlain(r.data(), m.data(), n, divisor, 100.0f),
                FarSpanAboveSimd(r.data(), m.data(), n, divisor, 100.0f))
          << n << " bins, offset " << offset;
    }
    for (float special : {inf, nan, 3e38f}) {
      std::vector<float> r = re;
      r[n / 2] = special;
      EXPECT_EQ(FarSpanAbovePlain(r.data(), im.data(), n, divisor, 100.0f),
                FarSpanAboveSimd(r.data(), im.data(), n, divisor, 100.0f))
          << n << " bins, " << special;
    }
  }
}
#endif

// The level sum the enhanced path uses: every element counted once, lanes
// and tail alike, to double precision.
TEST(FilterKernels, SquareSumCountsEveryElement) {
  for (int n : {0, 1, 3, 4, 7, 130, 1560}) {
    std::vector<float> v(static_cast<std::size_t>(n));
    long double expected = 0.0L;
    for (int i = 0; i < n; ++i) {
      v[static_cast<std::size_t>(i)] = static_cast<float>((i % 7) - 3) * 0.37f + static_cast<float>(i) * 1e-3f;
      expected += static_cast<long double>(v[static_cast<std::size_t>(i)]) * v[static_cast<std::size_t>(i)];
    }
    EXPECT_NEAR(SquareSum(v.data(), n), static_cast<double>(expected), 1e-12 * static_cast<double>(expected) + 1e-300)
        << n << " elements";
  }
}

// ---------------------------------------------------------- random generators

// The 31-bit congruential step (69069, 1), computed in 64 bits, from the
// canceller's seed; the normal generator indexes its table by the top 8 bits.
TEST(Random, UniformAndNormalFollowTheCongruentialStep) {
  uint32_t seed_single = 777, seed_array = 777, seed_normal = 777;
  int16_t values[64];
  EXPECT_EQ(AdspSpl_RandUArray(values, 64, &seed_array), 64);
  uint64_t state = 777;
  for (int i = 0; i < 64; ++i) {
    state = (state * 69069ull + 1ull) & 0x7FFFFFFFull;
    ASSERT_EQ(values[i], static_cast<int16_t>(state >> 16)) << i;
    ASSERT_EQ(AdspSpl_RandU(&seed_single), values[i]) << i;
    ASSERT_EQ(AdspSpl_RandN(&seed_normal), kRandNTable[state >> 23]) << i;
  }
  EXPECT_EQ(seed_array, state);  // the canceller's next block continues from here
}

// ------------------------------------------------------- resampler and skew

// A slow sine over many frames: output g sits at g (1 + skew) - 1 on the input's
// time axis across frame boundaries; without skew it is the input one sample late.
TEST(Resampler, StretchesAndCompressesContinuouslyAcrossFrames) {
  for (float skew : {0.0f, 0.01f, -0.01f, 0.2f, -0.3f}) {
    for (int size : {64, 128}) {
      SCOPED_TRACE(testing::Message() << "skew " << skew << " size " << size);
      AecResampler storage;
      void* resampler = AdspAec_CreateResampler(&storage);
      ASSERT_EQ(AdspAec_InitResampler(resampler, 16000), 0);
      const double omega = 2.0 * kPi * 100.0 / 16000.0;  // linear interpolation error ~ omega^2 / 8
      std::vector<float> input, output;
      for (int f = 0; f < 100; ++f) {
        for (int i = 0; i < size; ++i) input.push_back(static_cast<float>(std::sin(omega * (f * size + i))));
        std::vector<float> out(2 * size + 4);
        int count = 0;
        AdspAec_ResampleLinear(resampler, input.data() + f * size, size, skew, out.data(), &count);
        output.insert(output.end(), out.begin(), out.begin() + count);
      }
      EXPECT_NEAR(static_cast<double>(output.size()), 100 * size / (1.0 + skew), 2.0);
      EXPECT_EQ(output[0], 0.0f);
      for (size_t g = 1; g < output.size(); ++g) {
        if (skew == 0.0f) {
          ASSERT_EQ(output[g], input[g - 1]) << g;
        } else if (g >= 2) {
          ASSERT_NEAR(output[g], std::sin(omega * (static_cast<double>(g) * (1.0 + skew) - 1.0)), 2e-3) << g;
        }
      }
    }
  }
}

// The fit reports once, after 400 figures, and keeps its result after that.
TEST(Resampler, SkewFitCollectsFourHundredFiguresThenReports) {
  std::vector<int> noisy(400);
  std::mt19937 rng(5);
  for (int& x : noisy) x = 30 + static_cast<int>(rng() % 7) - 3;  // 27..33, mean 30
  std::vector<int> with_outliers = noisy;
  for (int i = 0; i < 400; i += 40) with_outliers[i] = 400;  // inside 4 % of 16 kHz, far beyond 5 MADs
  const struct {
    std::vector<int> figures;
    int fit_result;
    float estimate, tolerance;  // the slope of the cumulative sum of noisy figures sits near their mean
  } cases[] = {{std::vector<int>(400, 25), 0, 25.0f, 0.0f},
               {std::vector<int>(400, -17), 0, -17.0f, 0.0f},
               {std::vector<int>(400, 700), -1, 0.0f, 0.0f},  // all beyond 4 % of the rate
               {noisy, 0, 30.0f, 0.5f},
               {with_outliers, 0, 30.0f, 0.5f}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    AecResampler storage;
    void* resampler = AdspAec_CreateResampler(&storage);
    ASSERT_EQ(AdspAec_InitResampler(resampler, 16000), 0);
    float estimate = 123.0f, later = 123.0f;
    for (int x : c.figures) ASSERT_EQ(AdspAec_GetSkew(resampler, x, &estimate), 0);
    EXPECT_EQ(estimate, 123.0f);
    EXPECT_EQ(AdspAec_GetSkew(resampler, 0, &estimate), c.fit_result);
    EXPECT_NEAR(estimate, c.estimate, c.tolerance);
    EXPECT_EQ(AdspAec_GetSkew(resampler, 99, &later), 0);
    EXPECT_EQ(later, estimate);
  }
}

// ------------------------------------------------------------ filter file

// Appends a record (tag, little-endian length, little-endian floats) to the bytes.
std::vector<unsigned char> Record(const char (&tag)[9], uint32_t length, const std::vector<float>& payload,
                                  std::vector<unsigned char> bytes = {}) {
  bytes.insert(bytes.end(), tag, tag + 8);
  for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<unsigned char>(length >> (8 * b)));
  for (float v : payload) {
    const uint32_t bits = std::bit_cast<uint32_t>(v);
    for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<unsigned char>(bits >> (8 * b)));
  }
  return bytes;
}

// Taps are transformed and added into the given planes (0.5 here); a rejected file leaves them as they were.
TEST(FilterFile, AddsGoodFilesIntoThePlanesAndRejectsBadOnes) {
  const sim::Signal taps = sim::WhiteNoise(768, 0.1, 11);
  const std::vector<float> ten(taps.begin(), taps.begin() + 10), longer(taps.size() + 1);
  const auto others = Record("AEC----x", 40, ten, Record("NS-----_", 40, ten));
  const auto good = Record("AEC----_", 3072, taps);
  const struct {
    const char* name;
    std::vector<unsigned char> bytes;
    bool loaded;
  } cases[] = {
      {"single record", good, true},
      {"after other records", Record("AEC----_", 3072, taps, others), true},
      {"trailing records after it", Record("AEC----x", 40, ten, Record("NS-----_", 40, ten, good)), true},
      {"length 3068", Record("AEC----_", 3068, std::vector<float>(taps.begin(), taps.end() - 1)), false},
      {"length 3076", Record("AEC----_", 3076, longer), false},
      {"payload cut after five partitions", {good.begin(), good.begin() + 12 + 5 * 256 + 100}, false},
      {"declared length beyond the file", {good.begin(), good.end() - 4}, false},
      {"no filter record", others, false},
      {"header only", {good.begin(), good.begin() + 12}, false},
      {"empty", {}, false},
  };
  // Inside this build's tree, so that builds testing side by side never share a file.
  const std::filesystem::path dir = std::filesystem::path(VORN_BINARY_DIR) / "test_aec_blocks_files";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / "filter.bin").string();
  auto planes = std::make_unique<float[][kAecFilterPlaneLen]>(2);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    if (!c.bytes.empty()) std::fwrite(c.bytes.data(), 1, c.bytes.size(), file);
    std::fclose(file);
    for (int plane = 0; plane < 2; ++plane) std::fill_n(planes[plane], kAecFilterPlaneLen, 0.5f);
    ASSERT_EQ(AdspAec_FilterReadPlanes(path.c_str(), planes.get()), c.loaded ? 0 : -1);
    const double tolerance = c.loaded ? 2e-6 : 0.0;
    for (int p = 0; p < 32; ++p) {
      std::array<double, 128> packed{};  // a direct DFT of the zero-padded partition
      if (c.loaded && p < kAecFilterFilePartitions) {
        std::array<float, 128> padded{};
        std::copy_n(taps.begin() + 64 * p, 64, padded.begin());
        packed = DirectPackedDft(padded.data());
      }
      for (int k = 0; k <= 64; ++k) {
        const double im = k == 0 || k == 64 ? 0.0 : packed[2 * k + 1];
        ASSERT_NEAR(planes[0][p * 65 + k], 0.5 + packed[k == 64 ? 1 : 2 * k], tolerance) << p << " " << k;
        ASSERT_NEAR(planes[1][p * 65 + k], 0.5 + im, tolerance) << p << " " << k;
      }
    }
  }
  std::filesystem::remove(path);
}

// ------------------------------------------------------------ delay estimator

constexpr int kLookahead = 15;  // blocks, as the canceller sets it

// Bit k - 12 of a word is set when band k is above its running mean; a band
// never positive has no mean and no bit, and bands outside 12..43 play no part.
TEST(DelayEstimator, BitCountIsThePopulationCount) {
  std::mt19937 rng(5);
  for (uint32_t x : {0u, 1u, 0x80000000u, 0xffffffffu, 0x55555555u, 0xaaaaaaaau}) EXPECT_EQ(BitCount(x), std::popcount(x));
  for (int i = 0; i < 100000; ++i) {
    const uint32_t x = static_cast<uint32_t>(rng());
    ASSERT_EQ(BitCount(x), std::popcount(x)) << x;
  }
}

TEST(DelayEstimator, BinarySpectraMarkBandsAboveTheirMeanAndShiftOnACorrection) {
  DelayEstimatorFarend far_buf;
  DelayEstimator near_buf;
  void* far = Adsp_CreateDelayEstimatorFarend(&far_buf, 65, 4);  // a short history, all of it in view
  void* near = Adsp_CreateDelayEstimator(&near_buf, far, kHistorySizeBlocks);
  std::array<float, 65> spectrum;
  auto add_far = [&](float even_bands, float odd_bands, float band_20) {
    spectrum.fill(1e9f);
    for (int k = kBandFirst; k <= kBandLast; ++k) spectrum[k] = (k - kBandFirst) % 2 ? odd_bands : even_bands;
    spectrum[20] = band_20;
    return Adsp_AddFarSpectrumFloat(far, spectrum.data(), 65);
  };
  ASSERT_EQ(add_far(1.0f, 1.0f, 0.0f), 0);
  ASSERT_EQ(add_far(2.0f, 0.1f, 2.0f), 0);
  const BinaryDelayEstimatorFarend& words = far_buf.binary_farend;
  using Words = std::pair<std::vector<uint32_t>, std::vector<int>>;  // newest first, with their bit counts
  auto newest = [&](int n) {
    return Words{{words.binary_far_history, words.binary_far_history + n},
                 {words.far_bit_counts, words.far_bit_counts + n}};
  };
  const uint32_t first = ~(1u << (20 - kBandFirst));  // every mean starts at half the first power
  EXPECT_EQ(newest(2), (Words{{0x55555555u, first}, {16, 31}}));
  // The near end builds its words the same way, with its own means; no delay yet.
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(near, spectrum.data(), 65), -2);
  EXPECT_EQ(near_buf.binary_handle.binary_near_history[0], 0xFFFFFFFFu);
  // A delay correction shifts the far words both ways, emptying the places it vacates.
  Adsp_SoftResetDelayEstimatorFarend(far, 2);
  EXPECT_EQ(newest(4), (Words{{0, 0, 0x55555555u, first}, {0, 0, 16, 31}}));
  Adsp_SoftResetDelayEstimatorFarend(far, -3);
  EXPECT_EQ(newest(4), (Words{{first, 0, 0, 0}, {31, 0, 0, 0}}));
  // The near end's lookahead absorbs what it can of a correction, within 0..20
  // here, and returns the rest.
  BinaryDelayEstimator binary_near;
  ASSERT_EQ(Adsp_CreateBinaryDelayEstimator(&binary_near, &far_buf.binary_farend, 20), 0);
  binary_near.lookahead = 15;
  // shift, lookahead after it, rest returned
  const int corrections[][3] = {{5, 10, 0}, {12, 0, 2}, {-30, 20, -10}, {0, 20, 0}, {3, 17, 0}};
  for (const auto& [shift, lookahead, rest] : corrections) {
    EXPECT_EQ(Adsp_SoftResetBinaryDelayEstimator(&binary_near, shift), rest) << shift;
    EXPECT_EQ(binary_near.lookahead, lookahead) << shift;
  }
}

// Out-of-range arguments are refused; a restart clears the estimate but keeps
// the owner's settings, and both ends share one history length.
TEST(DelayEstimator, RejectsBadArgumentsAndKeepsSettingsOverARestart) {
  DelayEstimatorFarend far_buf;
  DelayEstimator near_buf;
  EXPECT_EQ(Adsp_CreateDelayEstimatorFarend(&far_buf, 64, 125), nullptr);
  EXPECT_EQ(Adsp_CreateDelayEstimatorFarend(&far_buf, 65, 1), nullptr);
  EXPECT_EQ(Adsp_CreateDelayEstimatorFarend(&far_buf, 65, 126), nullptr);
  void* far = Adsp_CreateDelayEstimatorFarend(&far_buf, 65, 125);
  ASSERT_EQ(far, &far_buf);
  EXPECT_EQ(Adsp_CreateDelayEstimator(&near_buf, nullptr, 125), nullptr);
  EXPECT_EQ(Adsp_CreateDelayEstimator(&near_buf, far, 126), nullptr);
  void* near = Adsp_CreateDelayEstimator(&near_buf, far, 125);
  ASSERT_EQ(near, &near_buf);
  EXPECT_EQ(Adsp_last_delay(near), -2);
  EXPECT_EQ(Adsp_last_delay(nullptr), -1);
  EXPECT_EQ(Adsp_set_lookahead(near, 126), -1);
  EXPECT_EQ(Adsp_enable_robust_validation(near, 2), -1);
  EXPECT_EQ(Adsp_set_history_size(near, 126), -1);
  std::array<float, 65> spectrum{};
  std::array<uint16_t, 65> spectrum_fix{};
  const int refused[] = {
      Adsp_AddFarSpectrumFloat(nullptr, spectrum.data(), 65),
      Adsp_AddFarSpectrumFloat(far, nullptr, 65),
      Adsp_AddFarSpectrumFloat(far, spectrum.data(), 64),
      Adsp_AddFarSpectrumFix(far, spectrum_fix.data(), 65, 16),
      Adsp_DelayEstimatorProcessFloat(nullptr, spectrum.data(), 65),
      Adsp_DelayEstimatorProcessFloat(near, nullptr, 65),
      Adsp_DelayEstimatorProcessFloat(near, spectrum.data(), 66),
      Adsp_DelayEstimatorProcessFix(near, spectrum_fix.data(), 65, -1),
      Adsp_DelayEstimatorProcessFix(near, nullptr, 65, 0)};
  for (std::size_t i = 0; i < std::size(refused); ++i) EXPECT_EQ(refused[i], -1) << "call " << i;
  ASSERT_EQ(Adsp_set_lookahead(near, 15), 15);
  ASSERT_EQ(Adsp_enable_robust_validation(near, 1), 0);
  ASSERT_EQ(Adsp_set_allowed_offset(near, 6), 0);
  EXPECT_EQ(Adsp_InitDelayEstimator(near), 0);
  EXPECT_EQ(Adsp_lookahead(near), 15);
  EXPECT_EQ(Adsp_is_robust_validation_enabled(near), 1);
  EXPECT_EQ(Adsp_get_allowed_offset(near), 6);
  EXPECT_EQ(Adsp_set_history_size(near, 40), 40);
  EXPECT_EQ(far_buf.binary_farend.history_size, 40);
}

// The running means step by the difference's magnitude shifted right, so a
// falling mean moves as far as a rising one and a step below one unit of the
// shift leaves the mean where it is.
TEST(DelayEstimator, MeanEstimatorShiftsTheDifferenceMagnitude) {
  const int32_t cases[][4] = {
      // new value, factor, mean, expected
      {1000, 3, 0, 125}, {0, 3, 1000, 875},  // symmetric steps
      {0, 3, 1001, 876},                     // -1001 >> 3 would give -126; the magnitude gives -125
      {5, 3, 0, 0},      {0, 3, 5, 5},       // steps below one unit do not move the mean
      {16384, 7, 10240, 10288}, {0, 13, 8191, 8191}, {0, 13, 8192, 8191},
  };
  for (const auto& c : cases) {
    int32_t mean = c[2];
    Adsp_MeanEstimatorFix(c[0], static_cast<int>(c[1]), &mean);
    EXPECT_EQ(mean, c[3]) << c[0] << " " << c[1] << " " << c[2];
  }
}

// Near end: the far end 10 dB down and delay_samples late, over room noise 40 dB below the far end.
sim::Signal EchoOf(const sim::Signal& far, int delay_samples) {
  sim::Signal near(far.size(), 0.0f);
  for (size_t i = delay_samples; i < far.size(); ++i) near[i] = 0.316f * far[i - delay_samples];
  return sim::Mix(near, sim::WhiteNoise(far.size(), 0.01 * 3000.0 * 0.316, 4));
}

// Power spectra (65 bins) of 128-sample frames advancing by 64, as the canceller forms them.
std::vector<std::array<float, 65>> BlockSpectra(const sim::Signal& x) {
  std::vector<std::array<float, 65>> spectra;
  for (size_t start = 0; start + 128 <= x.size(); start += 64) {
    alignas(16) std::array<float, 128> a;
    std::copy(x.begin() + start, x.begin() + start + 128, a.begin());
    aec_rdft_forward_128(a.data());
    std::array<float, 65>& power = spectra.emplace_back();
    power[0] = a[0] * a[0];
    power[64] = a[1] * a[1];
    for (int k = 1; k < 64; ++k) power[k] = a[2 * k] * a[2 * k] + a[2 * k + 1] * a[2 * k + 1];
  }
  return spectra;
}

struct RunResult {
  std::vector<int> accepted, accepted_at;  // every change of the reported delay and its block
  int candidate_at = -1;                   // first block from `from` on whose candidate was `watch`
  float final_quality = 0.0f;
};

// With robust validation its settled bounds are checked after every block.
RunResult RunEstimator(bool robust, const sim::Signal& far, const sim::Signal& near, int watch = -1,
                       int from = 0) {
  DelayEstimatorFarend far_buf;
  DelayEstimator near_buf;
  void* far_handle = Adsp_CreateDelayEstimatorFarend(&far_buf, 65, kHistorySizeBlocks);
  void* near_handle = Adsp_CreateDelayEstimator(&near_buf, far_handle, kHistorySizeBlocks);
  EXPECT_EQ(Adsp_set_lookahead(near_handle, kLookahead), kLookahead);
  EXPECT_EQ(Adsp_set_allowed_offset(near_handle, 6), 0);
  EXPECT_EQ(Adsp_enable_robust_validation(near_handle, robust ? 1 : 0), 0);
  const BinaryDelayEstimator& h = near_buf.binary_handle;
  const auto far_spectra = BlockSpectra(far);
  const auto near_spectra = BlockSpectra(near);
  RunResult result;
  bool bounded = true;
  for (int b = 0; b < static_cast<int>(far_spectra.size()); ++b) {
    EXPECT_EQ(Adsp_AddFarSpectrumFloat(far_handle, far_spectra[b].data(), 65), 0);
    const int d = Adsp_DelayEstimatorProcessFloat(near_handle, near_spectra[b].data(), 65);
    if (d != (result.accepted.empty() ? -2 : result.accepted.back())) {
      result.accepted.push_back(d);
      result.accepted_at.push_back(b);
    }
    if (result.candidate_at < 0 && b >= from && h.last_candidate_delay == watch) result.candidate_at = b;
    if (!robust) continue;
    for (int i = 0; i < h.history_size; ++i) bounded &= h.histogram[i] >= 0.0f && h.histogram[i] <= 3000.0f;
    bounded &= h.last_delay < 0 || h.last_delay_histogram == std::min(h.histogram[h.last_delay], 250.0f);
    bounded &= h.compare_delay < 0 ||
               Adsp_binary_last_delay_quality(&h) == h.histogram[h.compare_delay] / 3000.0f;
  }
  EXPECT_TRUE(bounded);
  result.final_quality = Adsp_last_delay_quality(near_handle);
  return result;
}

// Echo of pink noise at known delays; a delay between blocks lands on the nearer
// one. The smoothing is slow by design (about 1/2048 of the difference per
// block), hence 800 blocks (3.2 s); the canceller needs a quality above 0.07.
TEST(DelayEstimator, ConvergesOnAKnownEchoDelay) {
  const int cases[][2] = {{0, 0}, {64 * 9, 9}, {64 * 9 + 20, 9}, {64 * 60, 60}, {64 * 100 + 40, 101}};
  const sim::Signal far = sim::PinkNoise(64 * 1000, 3000.0, 3);
  for (const auto& [delay_samples, delay_blocks] : cases) {
    const sim::Signal near = EchoOf(far, delay_samples);
    for (bool robust : {false, true}) {
      SCOPED_TRACE(testing::Message() << "delay " << delay_samples << (robust ? " robust" : " plain"));
      const RunResult r = RunEstimator(robust, far, near);
      ASSERT_EQ(r.accepted, (std::vector<int>{delay_blocks + kLookahead}));
      EXPECT_LT(r.accepted_at[0], 800);
      EXPECT_GT(r.final_quality, robust ? 0.07f : 0.3f);
    }
  }
}

// The echo path jumps from 8 blocks to a near (12) or a distant (40) delay.
// The plain rule takes the new delay as soon as it becomes the candidate;
// robust validation follows once the new delay's histogram outweighs the old
// one's capped value, within 200 blocks (0.8 s) of the candidate change.
TEST(DelayEstimator, RobustValidationFollowsAPathChangeAfterConfirmingIt) {
  const int old_delay = 8, switch_block = 1200;
  const sim::Signal far = sim::PinkNoise(64 * 2900, 3000.0, 3);
  const sim::Signal before = EchoOf(far, 64 * old_delay);
  int robust_wait[2] = {};
  for (int new_delay : {12, 40}) {
    SCOPED_TRACE(new_delay);
    const sim::Signal after = EchoOf(far, 64 * new_delay);
    sim::Signal near(before.begin(), before.begin() + 64 * switch_block);
    near.insert(near.end(), after.begin() + 64 * switch_block, after.end());
    const RunResult plain = RunEstimator(false, far, near, new_delay + kLookahead, switch_block + 1);
    const RunResult robust = RunEstimator(true, far, near, new_delay + kLookahead, switch_block + 1);
    for (const RunResult* r : {&plain, &robust})
      ASSERT_EQ(r->accepted, (std::vector<int>{old_delay + kLookahead, new_delay + kLookahead}));
    ASSERT_GT(robust.candidate_at, switch_block);
    EXPECT_EQ(plain.candidate_at, robust.candidate_at);  // the validation leaves the estimate itself alone
    EXPECT_EQ(plain.accepted_at[1], plain.candidate_at);
    int& wait = robust_wait[new_delay == 40];
    wait = robust.accepted_at[1] - robust.candidate_at;
    EXPECT_GE(wait, 11);  // at least the hits a histogram-only takeover needs
    EXPECT_LE(wait, 200);
  }
  EXPECT_GT(robust_wait[1], robust_wait[0]);  // the distant jump is weighed down
}

}  // namespace
}  // namespace vorn
