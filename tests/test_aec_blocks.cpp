// Tests of the echo canceller's building blocks: ring buffer, 128-point real
// FFT (against a direct DFT in double, and SSE2 against plain stages), delay
// estimator, resampler and skew fit, stored-filter reader, random generators.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "adsp_aec/aec_filter_file.h"
#include "adsp_aec/aec_rdft.h"
#include "adsp_aec/aec_rdft_tables.h"
#include "adsp_aec/aec_resampler.h"
#include "adsp_aec/delay_estimator.h"
#include "adsp_aec/delay_estimator_wrapper.h"
#include "adsp_aec/randomization_functions.h"
#include "adsp_aec/ring_buffer.h"
#include "support/signals.h"

namespace vorn {
namespace {

constexpr double kPi = std::numbers::pi;

// ---------------------------------------------------------------- ring buffer

struct Ring {
  explicit Ring(size_t count) : storage(count, -1) {
    ring.data = reinterpret_cast<char*>(storage.data());
    EXPECT_EQ(Adsp_CreateBuffer(&ring, count, sizeof(int)), 0);
  }
  std::vector<int> storage;
  RingBuffer ring{};
};

TEST(RingBuffer, CreateRejectsMissingPieces) {
  int storage[4];
  RingBuffer ring{};
  EXPECT_EQ(Adsp_CreateBuffer(nullptr, 4, 4), -1);
  EXPECT_EQ(Adsp_CreateBuffer(&ring, 4, 4), -1);  // no storage yet
  ring.data = reinterpret_cast<char*>(storage);
  EXPECT_EQ(Adsp_CreateBuffer(&ring, 0, 4), -1);
  EXPECT_EQ(Adsp_CreateBuffer(&ring, 4, 0), -1);
  EXPECT_EQ(Adsp_available_read(nullptr), 0u);
  EXPECT_EQ(Adsp_available_write(nullptr), 0u);
  EXPECT_EQ(Adsp_WriteBuffer(nullptr, storage, 1), 0u);
  EXPECT_EQ(Adsp_CreateBuffer(&ring, 4, 4), 0);
  EXPECT_EQ(Adsp_WriteBuffer(&ring, nullptr, 1), 0u);
  EXPECT_EQ(Adsp_ReadBuffer(&ring, nullptr, nullptr, 1), 0u);
}

TEST(RingBuffer, MovingAnEmptyRingBackExposesZeros) {
  // The canceller's far-end pre-roll: 64 zeros ahead of the first samples.
  Ring r(384);
  EXPECT_EQ(Adsp_MoveReadPtr(&r.ring, -64), -64);
  EXPECT_EQ(r.ring.read_pos, 320u);
  EXPECT_EQ(r.ring.rw_wrap, DIFF_WRAP);
  EXPECT_EQ(Adsp_available_read(&r.ring), 64u);
  std::vector<int> out(64, 7);
  EXPECT_EQ(Adsp_ReadBuffer(&r.ring, nullptr, out.data(), 64), 64u);
  EXPECT_EQ(std::count(out.begin(), out.end(), 0), 64);
  EXPECT_EQ(Adsp_available_read(&r.ring), 0u);
}

TEST(RingBuffer, ReadsAndWritesAreLimitedToWhatFits) {
  Ring r(8);
  const int values[10] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  EXPECT_EQ(Adsp_WriteBuffer(&r.ring, values, 5), 5u);
  int out[10] = {};
  EXPECT_EQ(Adsp_ReadBuffer(&r.ring, nullptr, out, 9), 5u);
  EXPECT_EQ(out[4], 5);
  EXPECT_EQ(Adsp_WriteBuffer(&r.ring, values, 10), 8u);  // the last two are dropped
  EXPECT_EQ(Adsp_WriteBuffer(&r.ring, values, 1), 0u);   // full
  EXPECT_EQ(Adsp_available_write(&r.ring), 0u);
  EXPECT_EQ(Adsp_MoveReadPtr(&r.ring, 20), 8);    // limited to the readable count
  EXPECT_EQ(Adsp_MoveReadPtr(&r.ring, -20), -8);  // and back to the writable count
}

TEST(RingBuffer, ContiguousReadPointsIntoTheRingAndWrappingReadCopies) {
  Ring r(8);
  const int values[6] = {1, 2, 3, 4, 5, 6};
  ASSERT_EQ(Adsp_WriteBuffer(&r.ring, values, 6), 6u);
  int copy[8] = {-5, -5, -5, -5, -5, -5, -5, -5};
  void* where = nullptr;
  ASSERT_EQ(Adsp_ReadBuffer(&r.ring, &where, copy, 4), 4u);
  EXPECT_EQ(where, static_cast<void*>(r.storage.data()));
  EXPECT_EQ(copy[0], -5);  // untouched
  EXPECT_EQ(static_cast<int*>(where)[3], 4);

  ASSERT_EQ(Adsp_WriteBuffer(&r.ring, values, 5), 5u);  // laps: 5 6 | 1 2 3 ... wraps at 8
  ASSERT_EQ(Adsp_ReadBuffer(&r.ring, &where, copy, 5), 5u);
  EXPECT_EQ(where, static_cast<void*>(copy));
  const int expected[5] = {5, 6, 1, 2, 3};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(copy[i], expected[i]) << i;
}

// The ring against a model that keeps the whole written stream by absolute
// index: the reader may step back over anything not yet overwritten (never
// written places read as the zeroed storage). Random writes, reads (both
// kinds) and moves in both directions exercise every lap and wrap transition,
// including a read position parked exactly at the end of the storage.
TEST(RingBuffer, RandomTrafficMatchesAStreamModel) {
  for (size_t capacity : {1u, 5u, 8u, 13u, 384u}) {
    SCOPED_TRACE(capacity);
    Ring r(capacity);
    std::vector<int> stream;  // every value written, by absolute index
    long read_abs = 0;
    std::mt19937 rng(static_cast<unsigned>(capacity));
    int next_value = 1;
    std::vector<int> copy(2 * capacity + 2);
    for (int step = 0; step < 4000; ++step) {
      const long write_abs = static_cast<long>(stream.size());
      const long readable = write_abs - read_abs;
      ASSERT_EQ(Adsp_available_read(&r.ring), static_cast<size_t>(readable));
      ASSERT_EQ(Adsp_available_write(&r.ring), capacity - static_cast<size_t>(readable));
      const int n = static_cast<int>(rng() % (capacity + 3));
      switch (rng() % 4) {
        case 0: {
          std::vector<int> values(n);
          for (int& v : values) v = next_value++;
          const size_t written = Adsp_WriteBuffer(&r.ring, values.data(), n);
          ASSERT_EQ(written, std::min<size_t>(n, capacity - readable));
          stream.insert(stream.end(), values.begin(), values.begin() + written);
          break;
        }
        case 1:
        case 2: {
          void* where = nullptr;
          const size_t read = Adsp_ReadBuffer(&r.ring, rng() % 2 ? &where : nullptr, copy.data(), n);
          ASSERT_EQ(read, std::min<size_t>(n, readable));
          const int* got = where != nullptr ? static_cast<int*>(where) : copy.data();
          for (size_t i = 0; i < read; ++i) {
            const long abs = read_abs + static_cast<long>(i);
            ASSERT_EQ(got[i], abs < 0 ? 0 : stream[abs]) << "step " << step;
          }
          read_abs += static_cast<long>(read);
          break;
        }
        default: {
          const int k = n - static_cast<int>(capacity);  // backwards as often as forwards
          const int moved = Adsp_MoveReadPtr(&r.ring, k);
          ASSERT_EQ(moved, std::clamp<long>(k, -(static_cast<long>(capacity) - readable), readable));
          read_abs += moved;
          break;
        }
      }
    }
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
    if (k == 0) packed[0] = re;
    else if (k == 64) packed[1] = re;
    else {
      packed[2 * k] = re;
      packed[2 * k + 1] = im;
    }
  }
  return packed;
}

// Inverse of the packing, scaled as the inverse transform is (n/2 times).
std::array<double, 128> DirectPackedInverse(const float* packed) {
  std::array<double, 128> x{};
  for (int j = 0; j < 128; ++j) {
    double sum = 0.5 * packed[0] + 0.5 * packed[1] * ((j % 2) ? -1.0 : 1.0);
    for (int k = 1; k < 64; ++k) {
      const double phase = 2.0 * kPi * ((j * k) % 128) / 128.0;
      sum += packed[2 * k] * std::cos(phase) + packed[2 * k + 1] * std::sin(phase);
    }
    x[j] = sum;
  }
  return x;
}

enum class Stages { kPlain, kInstalled };

void SelectStages(Stages stages) {
  aec_rdft_init();
  if (stages == Stages::kPlain) {
    cft1st_128 = cft1st_128_C;
    cftmdl_128 = cftmdl_128_C;
    rftfsub_128 = rftfsub_128_C;
    rftbsub_128 = rftbsub_128_C;
  }
}

struct StagesGuard {
  explicit StagesGuard(Stages stages) { SelectStages(stages); }
  ~StagesGuard() { aec_rdft_init(); }
};

std::vector<std::array<float, 128>> FftInputs() {
  std::vector<std::array<float, 128>> inputs;
  std::array<float, 128> x{};
  x[0] = 1.0f;
  inputs.push_back(x);
  x = {};
  x[77] = -3.0f;
  inputs.push_back(x);
  for (int j = 0; j < 128; ++j) x[j] = static_cast<float>(std::sin(2.0 * kPi * 5.0 * j / 128.0 + 0.3));
  inputs.push_back(x);
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const test::Signal noise = test::WhiteNoise(128, seed % 2 ? 1.0 : 3000.0, seed);
    std::copy(noise.begin(), noise.end(), x.begin());
    inputs.push_back(x);
  }
  return inputs;
}

double MaxAbs(const std::array<double, 128>& v) {
  double m = 0.0;
  for (double e : v) m = std::max(m, std::fabs(e));
  return m;
}

// Error relative to the largest value of the exact result, over impulses
// (a unit impulse at 0 must give R[k] = 1, I[k] = 0), a tone (whose sine part
// must land in the odd slots with the sine's own sign) and noise at two
// scales, for both stage sets. Single-precision radix-4
// stages over 7 levels stay within a few float epsilons of the peak.
TEST(Rdft128, ForwardAndInverseMatchADirectDftInDouble) {
  for (Stages stages : {Stages::kPlain, Stages::kInstalled}) {
    StagesGuard guard(stages);
    double worst_forward = 0.0, worst_inverse = 0.0, worst_round_trip = 0.0;
    for (const auto& input : FftInputs()) {
      alignas(16) std::array<float, 128> a = input;
      const auto exact = DirectPackedDft(input.data());
      aec_rdft_forward_128(a.data());
      double err = 0.0;
      for (int i = 0; i < 128; ++i) err = std::max(err, std::fabs(a[i] - exact[i]));
      worst_forward = std::max(worst_forward, err / MaxAbs(exact));

      const auto exact_inverse = DirectPackedInverse(a.data());
      alignas(16) std::array<float, 128> b = a;
      aec_rdft_inverse_128(b.data());
      err = 0.0;
      for (int i = 0; i < 128; ++i) err = std::max(err, std::fabs(b[i] - exact_inverse[i]));
      worst_inverse = std::max(worst_inverse, err / MaxAbs(exact_inverse));

      double in_peak = 0.0;
      err = 0.0;
      for (int i = 0; i < 128; ++i) {
        in_peak = std::max(in_peak, std::fabs(double{input[i]}));
        err = std::max(err, std::fabs(double{b[i] * (2.0f / 128.0f)} - input[i]));
      }
      worst_round_trip = std::max(worst_round_trip, err / in_peak);
    }
    std::printf("[ figures  ] %s stages: forward %.3g, inverse %.3g, round trip %.3g (max error / peak)\n",
                stages == Stages::kPlain ? "plain" : "installed", worst_forward, worst_inverse, worst_round_trip);
    EXPECT_LT(worst_forward, 1e-6);
    EXPECT_LT(worst_inverse, 1e-6);
    EXPECT_LT(worst_round_trip, 1e-6);
  }
}

// Every table entry is its rule's value in double rounded to float,
// recomputed here with the C library's sin and cos.
TEST(Rdft128, TwiddleTablesAreTheirRuleRoundedToFloat) {
  auto rev4 = [](int m) { return ((m & 1) << 3) | ((m & 2) << 1) | ((m & 4) >> 1) | ((m & 8) >> 3); };
  auto theta = [&](int m) { return 2.0 * rev4(m) * kPi / 64.0; };
  auto f = [](double v) { return static_cast<float>(std::fabs(v) < 1e-12 ? 0.0 : v); };
  for (int m = 0; m < 16; ++m) {
    SCOPED_TRACE(m);
    EXPECT_EQ(rdft_w[2 * m], f(std::cos(theta(m))));
    EXPECT_EQ(rdft_w[2 * m + 1], f(std::sin(theta(m))));
    for (int mult = 1; mult <= 3; ++mult) {
      const auto& wkr = mult == 1 ? rdft_wk1r : mult == 2 ? rdft_wk2r : rdft_wk3r;
      const auto& wki = mult == 1 ? rdft_wk1i : mult == 2 ? rdft_wk2i : rdft_wk3i;
      EXPECT_EQ(wkr[2 * m], f(std::cos(mult * theta(m))));
      EXPECT_EQ(wkr[2 * m + 1], wkr[2 * m]);
      EXPECT_EQ(wki[2 * m], -f(std::sin(mult * theta(m))));
      EXPECT_EQ(wki[2 * m + 1], f(std::sin(mult * theta(m))));
    }
  }
  for (int m = 0; m < 8; ++m) {
    EXPECT_EQ(rdft_wk3ri_first[2 * m], f(std::cos(3 * theta(2 * m))));
    EXPECT_EQ(rdft_wk3ri_first[2 * m + 1], f(std::sin(3 * theta(2 * m))));
    EXPECT_EQ(rdft_wk3ri_second[2 * m], f(std::cos(3 * theta(2 * m + 1))));
    EXPECT_EQ(rdft_wk3ri_second[2 * m + 1], f(std::sin(3 * theta(2 * m + 1))));
  }
  const float* c = rdft_w.data() + 32;
  EXPECT_EQ(c[0], f(std::cos(kPi / 4)));
  EXPECT_EQ(c[16], 0.5f * c[0]);
  for (int j = 1; j < 16; ++j) {
    EXPECT_EQ(c[j], f(0.5 * std::cos(j * kPi / 64)));
    EXPECT_EQ(c[32 - j], f(0.5 * std::sin(j * kPi / 64)));
  }
}

#if defined(__SSE2__)
// Stage by stage on the same random input. The real-data stages and every
// twiddle group without a plain shortcut round exactly like the plain code;
// the shortcut groups (cft1st's first 16 floats, cftmdl's groups 0 and 1)
// may differ by float rounding only.
TEST(Rdft128, Sse2StagesMatchThePlainStages) {
  struct StagePair {
    const char* name;
    RdftStage128 plain, sse2;
    int exact_from;  // floats from here on must be bit-identical (128: none)
  };
  const StagePair pairs[] = {
      {"cft1st", cft1st_128_C, cft1st_128_SSE2, 16},
      {"cftmdl", cftmdl_128_C, cftmdl_128_SSE2, 64},
      {"rftfsub", rftfsub_128_C, rftfsub_128_SSE2, 0},
      {"rftbsub", rftbsub_128_C, rftbsub_128_SSE2, 0},
  };
  for (const StagePair& pair : pairs) {
    SCOPED_TRACE(pair.name);
    for (unsigned seed = 1; seed <= 10; ++seed) {
      const test::Signal noise = test::WhiteNoise(128, 1000.0, seed);
      alignas(16) std::array<float, 128> plain;
      std::copy(noise.begin(), noise.end(), plain.begin());
      alignas(16) std::array<float, 128> sse2 = plain;
      pair.plain(plain.data());
      pair.sse2(sse2.data());
      for (int i = 0; i < 128; ++i) {
        if (i >= pair.exact_from) {
          ASSERT_EQ(std::bit_cast<uint32_t>(plain[i]), std::bit_cast<uint32_t>(sse2[i])) << i;
        } else {
          ASSERT_NEAR(plain[i], sse2[i], 4e-7 * 4000.0) << i;
        }
      }
    }
  }
  // The whole transform, forward and inverse.
  double worst = 0.0;
  for (unsigned seed = 1; seed <= 10; ++seed) {
    const test::Signal noise = test::WhiteNoise(128, 1000.0, seed);
    alignas(16) std::array<float, 128> plain, sse2;
    std::copy(noise.begin(), noise.end(), plain.begin());
    sse2 = plain;
    {
      StagesGuard guard(Stages::kPlain);
      aec_rdft_forward_128(plain.data());
    }
    aec_rdft_forward_128(sse2.data());
    double peak = 0.0;
    for (float v : plain) peak = std::max(peak, std::fabs(double{v}));
    for (int i = 0; i < 128; ++i) worst = std::max(worst, std::fabs(double{plain[i]} - sse2[i]) / peak);
    {
      StagesGuard guard(Stages::kPlain);
      aec_rdft_inverse_128(plain.data());
    }
    aec_rdft_inverse_128(sse2.data());
    peak = 0.0;
    for (float v : plain) peak = std::max(peak, std::fabs(double{v}));
    for (int i = 0; i < 128; ++i) worst = std::max(worst, std::fabs(double{plain[i]} - sse2[i]) / peak);
  }
  std::printf("[ figures  ] plain vs SSE2 transform: max difference %.3g of the peak\n", worst);
  EXPECT_LT(worst, 1e-6);
}

TEST(Rdft128, InitInstallsTheSse2Stages) {
  aec_rdft_init();
  EXPECT_EQ(cft1st_128, &cft1st_128_SSE2);
  EXPECT_EQ(cftmdl_128, &cftmdl_128_SSE2);
  EXPECT_EQ(rftfsub_128, &rftfsub_128_SSE2);
  EXPECT_EQ(rftbsub_128, &rftbsub_128_SSE2);
  EXPECT_EQ(bitrv2_128, &bitrv2_128_C);
  EXPECT_EQ(cftfsub_128, &cftfsub_128_C);
  EXPECT_EQ(cftbsub_128, &cftbsub_128_C);
}
#endif

// ---------------------------------------------------------- random generators

TEST(Random, UniformSequenceFollowsTheCongruentialStep) {
  // First value from the canceller's seed, computed in 64 bits.
  uint32_t seed = 777;
  const uint64_t first_state = (777ull * 69069ull + 1ull) & 0x7FFFFFFFull;
  EXPECT_EQ(AdspSpl_RandU(&seed), static_cast<int16_t>(first_state >> 16));
  EXPECT_EQ(seed, first_state);

  // The array form is the same sequence; a length below 1 writes nothing.
  uint32_t seed_a = 777, seed_b = 777;
  int16_t values[65];
  values[64] = -1;
  EXPECT_EQ(AdspSpl_RandUArray(values, 64, &seed_a), 64);
  uint64_t state = 777;
  for (int i = 0; i < 64; ++i) {
    state = (state * 69069ull + 1ull) & 0x7FFFFFFFull;
    EXPECT_EQ(values[i], static_cast<int16_t>(state >> 16)) << i;
    EXPECT_GE(values[i], 0);
  }
  EXPECT_EQ(values[64], -1);
  EXPECT_EQ(seed_a, state);
  EXPECT_EQ(AdspSpl_RandUArray(values, 0, &seed_b), 0);
  EXPECT_EQ(seed_b, 777u);
}

TEST(Random, NormalTableIsAStratifiedNormalSampleInQ13) {
  // Entry i is the normal quantile of stratum q of 512: q = 2j + (j & 1) in
  // the first half and 2j + 1 - (j & 1) in the second, j = rev8(i mod 256).
  // Check it with the C library's erfc: Phi(x) = erfc(-x / sqrt 2) / 2.
  std::vector<int> strata;
  for (int i = 0; i < kRandNTableSize; ++i) {
    int j = 0;
    for (int b = 0; b < 8; ++b) j |= ((i >> b) & 1) << (7 - b);
    const int stratum = 2 * j + ((j & 1) ^ (i >> 8));
    strata.push_back(stratum);
    const double p = (stratum + 0.5) / 512.0;
    const double x = kRandNTable[i] / 8192.0;
    const double slope = std::exp(-0.5 * x * x) / std::sqrt(2.0 * kPi);  // dPhi/dx
    EXPECT_NEAR(0.5 * std::erfc(-x / std::sqrt(2.0)), p, slope * 0.6 / 8192.0) << i;  // within rounding
  }
  std::sort(strata.begin(), strata.end());
  for (int q = 0; q < kRandNTableSize; ++q) ASSERT_EQ(strata[q], q);  // every stratum once
  // The reachable half (indices below 256) is itself a normal sample.
  double sum = 0.0, sum2 = 0.0;
  for (int i = 0; i < 256; ++i) {
    sum += kRandNTable[i];
    sum2 += static_cast<double>(kRandNTable[i]) * kRandNTable[i];
  }
  EXPECT_NEAR(sum / 256.0, 0.0, 1.0);
  EXPECT_NEAR(std::sqrt(sum2 / 256.0) / 8192.0, 1.0, 0.02);

  uint32_t seed = 777, check = 777;
  for (int n = 0; n < 1000; ++n) {
    const int16_t value = AdspSpl_RandN(&seed);
    check = (check * 69069u + 1u) & 0x7FFFFFFFu;
    ASSERT_LT(check >> 23, 256u);
    ASSERT_EQ(value, kRandNTable[check >> 23]);
  }
}

// ------------------------------------------------------- resampler and skew

struct Resampler {
  Resampler() {
    handle = AdspAec_CreateResampler(&storage);
    EXPECT_EQ(AdspAec_InitResampler(handle, 16000), 0);
  }
  AecResampler storage;
  void* handle;
};

TEST(Resampler, ZeroSkewDelaysByOneSample) {
  Resampler r;
  std::vector<float> out(300);
  int out_count = 0;
  std::vector<float> previous(64, 0.0f);
  for (int frame = 0; frame < 3; ++frame) {
    std::vector<float> in(64);
    for (int i = 0; i < 64; ++i) in[i] = static_cast<float>(100 * frame + i + 1);
    AdspAec_ResampleLinear(r.handle, in.data(), 64, 0.0f, out.data(), &out_count);
    ASSERT_EQ(out_count, 64);
    EXPECT_EQ(out[0], previous[63]);
    for (int i = 1; i < 64; ++i) EXPECT_EQ(out[i], in[i - 1]) << i;
    previous = in;
  }
}

// A slow sine through the resampler over many frames: the output count follows
// 1 / (1 + skew) and every output sample sits on the input's time axis at
// g * (1 + skew) - 1, as a continuous stretch across frame boundaries would.
TEST(Resampler, StretchesAndCompressesContinuouslyAcrossFrames) {
  for (float skew : {0.01f, -0.01f, 0.2f, -0.3f}) {
    for (int size : {64, 128}) {
      SCOPED_TRACE(testing::Message() << "skew " << skew << " size " << size);
      Resampler r;
      const double omega = 2.0 * kPi * 100.0 / 16000.0;  // linear interpolation error ~ (omega)^2 / 8
      std::vector<float> output;
      const int frames = 100;
      for (int f = 0; f < frames; ++f) {
        std::vector<float> in(size);
        for (int i = 0; i < size; ++i) in[i] = static_cast<float>(std::sin(omega * (f * size + i)));
        std::vector<float> out(2 * size + 4);
        int count = 0;
        AdspAec_ResampleLinear(r.handle, in.data(), size, skew, out.data(), &count);
        ASSERT_LE(count, static_cast<int>(size / (1.0f + skew)) + 2);
        output.insert(output.end(), out.begin(), out.begin() + count);
      }
      EXPECT_NEAR(static_cast<double>(output.size()), frames * size / (1.0 + skew), 2.0);
      for (size_t g = 2; g < output.size(); ++g) {
        const double t = static_cast<double>(g) * (1.0 + skew) - 1.0;
        ASSERT_NEAR(output[g], std::sin(omega * t), 2e-3) << g;
      }
    }
  }
}

TEST(Resampler, SkewFitCollectsFourHundredFiguresThenReports) {
  struct Case {
    const char* name;
    std::vector<int> figures;
    int fit_result;
    float estimate;
    float tolerance;  // the slope of a cumulative sum of noisy figures sits near their mean
  };
  std::vector<int> noisy(400);
  std::mt19937 rng(5);
  for (int& x : noisy) x = 30 + static_cast<int>(rng() % 7) - 3;  // 27..33, mean 30
  std::vector<int> with_outliers = noisy;
  for (int i = 0; i < 400; i += 40) with_outliers[i] = 400;  // inside 4 % of 16 kHz, far beyond 5 MADs
  const Case cases[] = {
      {"identical figures", std::vector<int>(400, 25), 0, 25.0f, 0.0f},
      {"negative identical figures", std::vector<int>(400, -17), 0, -17.0f, 0.0f},
      {"all beyond 4 % of the rate", std::vector<int>(400, 700), -1, 0.0f, 0.0f},
      {"noisy constant", noisy, 0, 30.0f, 0.5f},
      {"noisy constant with outliers", with_outliers, 0, 30.0f, 0.5f},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Resampler r;
    float estimate = 123.0f;
    for (int i = 0; i < 400; ++i) ASSERT_EQ(AdspAec_GetSkew(r.handle, c.figures[i], &estimate), 0);
    EXPECT_EQ(estimate, 123.0f);  // untouched while collecting
    EXPECT_EQ(AdspAec_GetSkew(r.handle, 0, &estimate), c.fit_result);
    EXPECT_NEAR(estimate, c.estimate, c.tolerance);
    EXPECT_EQ(r.storage.skewDataIndex, 401);
    float later = 123.0f;
    EXPECT_EQ(AdspAec_GetSkew(r.handle, 99, &later), 0);
    EXPECT_EQ(later, estimate);
  }
}

// ------------------------------------------------------------ filter file

using Planes = std::array<std::array<float, kAecFilterPlaneLen>, 2>;

std::vector<unsigned char> Record(const char (&tag)[9], uint32_t length, const std::vector<float>& payload) {
  std::vector<unsigned char> bytes(tag, tag + 8);
  for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<unsigned char>(length >> (8 * b)));
  for (float v : payload) {
    const uint32_t bits = std::bit_cast<uint32_t>(v);
    for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<unsigned char>(bits >> (8 * b)));
  }
  return bytes;
}

std::string WriteFile(const std::string& name, const std::vector<unsigned char>& bytes) {
  // Inside this build's tree, so that builds testing side by side never share a file.
  const std::filesystem::path dir = std::filesystem::path(VORN_BINARY_DIR) / "test_aec_blocks_files";
  std::filesystem::create_directories(dir);
  const std::string path = (dir / name).string();
  std::FILE* f = std::fopen(path.c_str(), "wb");
  EXPECT_NE(f, nullptr);
  if (f != nullptr) {
    if (!bytes.empty()) std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  return path;
}

int ReadInto(const std::string& path, Planes& planes) {
  float (*wf)[kAecFilterPlaneLen] = reinterpret_cast<float (*)[kAecFilterPlaneLen]>(planes.data());
  return AdspAec_FilterReadPlanes(path.c_str(), wf);
}

// Expected planes from a direct DFT in double of each zero-padded partition.
Planes ExpectedPlanes(const std::vector<float>& taps) {
  Planes planes{};
  for (int p = 0; p < kAecFilterFilePartitions; ++p) {
    for (int k = 0; k <= 64; ++k) {
      double re = 0.0, im = 0.0;
      for (int t = 0; t < 64; ++t) {
        const double phase = 2.0 * kPi * t * k / 128.0;
        re += taps[p * 64 + t] * std::cos(phase);
        im += taps[p * 64 + t] * std::sin(phase);
      }
      planes[0][p * 65 + k] = static_cast<float>(re);
      planes[1][p * 65 + k] = (k == 0 || k == 64) ? 0.0f : static_cast<float>(im);
    }
  }
  return planes;
}

TEST(FilterFile, LoadsGoodFilesAndRejectsBadOnes) {
  std::vector<float> taps(768);
  std::mt19937 rng(11);
  std::normal_distribution<float> dist(0.0f, 0.1f);
  for (float& t : taps) t = dist(rng);
  std::vector<float> unit(768, 0.0f);
  unit[0] = 1.0f;
  const std::vector<float> other(10, 5.0f);

  auto join = [](std::vector<unsigned char> a, const std::vector<unsigned char>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const auto good = Record("AEC----_", 3072, taps);
  const auto truncated = std::vector<unsigned char>(good.begin(), good.begin() + 12 + 5 * 256 + 100);
  std::vector<float> taps_short(taps.begin(), taps.begin() + 767);

  struct Case {
    const char* name;
    std::vector<unsigned char> bytes;
    int result;
    const std::vector<float>* loaded;  // null: the planes must end up all zero
  };
  const Case cases[] = {
      {"single record", good, 0, &taps},
      {"unit tap", Record("AEC----_", 3072, unit), 0, &unit},
      {"after other records", join(join(Record("NS-----_", 40, other), Record("AEC----x", 40, other)), good), 0, &taps},
      {"trailing records after it", join(good, Record("NS-----_", 40, other)), 0, &taps},
      {"length 3068", Record("AEC----_", 3068, taps_short), -1, nullptr},
      {"length 3076", join(Record("AEC----_", 3076, taps), {0, 0, 0, 0}), -1, nullptr},
      {"payload cut after five partitions", truncated, -1, nullptr},
      {"declared length beyond the file", std::vector<unsigned char>(good.begin(), good.end() - 4), -1, nullptr},
      {"no filter record", join(Record("NS-----_", 40, other), Record("AEC----x", 40, other)), -1, nullptr},
      {"header only", std::vector<unsigned char>(good.begin(), good.begin() + 12), -1, nullptr},
      {"empty", {}, -1, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const std::string path = WriteFile("filter.bin", c.bytes);
    auto planes = std::make_unique<Planes>();
    // A failing read leaves the cleared filter of a fresh canceller as it is,
    // and a short payload clears whatever had been added already.
    ASSERT_EQ(ReadInto(path, *planes), c.result);
    const Planes expected = c.loaded ? ExpectedPlanes(*c.loaded) : Planes{};
    for (int plane = 0; plane < 2; ++plane) {
      for (int i = 0; i < kAecFilterPlaneLen; ++i) {
        ASSERT_NEAR((*planes)[plane][i], expected[plane][i], 2e-6) << plane << " " << i;
      }
    }
    std::filesystem::remove(path);
  }
}

// The transform is added into the planes (the canceller hands over cleared
// ones); a file rejected before its payload is read leaves them as they were.
TEST(FilterFile, AddsIntoThePlanes) {
  std::vector<float> unit(768, 0.0f);
  unit[64] = 2.0f;  // tap 0 of partition 1
  const auto bytes = Record("AEC----_", 3072, unit);
  const std::string path = WriteFile("add.bin", bytes);
  auto planes = std::make_unique<Planes>();
  for (auto& plane : *planes) plane.fill(0.5f);
  ASSERT_EQ(ReadInto(path, *planes), 0);
  const std::string cut = WriteFile("cut.bin", std::vector<unsigned char>(bytes.begin(), bytes.end() - 1));
  ASSERT_EQ(ReadInto(cut, *planes), -1);
  for (int k = 0; k <= 64; ++k) {
    EXPECT_FLOAT_EQ((*planes)[0][65 + k], 2.5f) << k;  // real bins of partition 1
    EXPECT_FLOAT_EQ((*planes)[0][k], 0.5f) << k;       // partition 0 unchanged
    EXPECT_FLOAT_EQ((*planes)[1][65 + k], 0.5f) << k;  // no imaginary part added
  }
  std::filesystem::remove(path);
  std::filesystem::remove(cut);
}

TEST(FilterFile, EntryPointRejectsMissingArguments) {
  struct FakeCore {
    float wfBuf_ini[2][kAecFilterPlaneLen];
  };
  auto core = std::make_unique<FakeCore>();
  char missing[] = "/nonexistent/vorn/filter.bin";
  EXPECT_EQ(AdspAec_FilterRead(missing, core.get()), -1);
  EXPECT_EQ(AdspAec_FilterRead(static_cast<char*>(nullptr), core.get()), -1);
  EXPECT_EQ(AdspAec_FilterRead(missing, static_cast<FakeCore*>(nullptr)), -1);
}

// ------------------------------------------------------------ delay estimator

// Power spectra (65 bins) of 128-sample frames advancing by 64, as the
// canceller forms them for each 64-sample block.
std::vector<std::array<float, 65>> BlockSpectra(const test::Signal& x) {
  std::vector<std::array<float, 65>> spectra;
  for (size_t start = 0; start + 128 <= x.size(); start += 64) {
    alignas(16) std::array<float, 128> a;
    std::copy(x.begin() + start, x.begin() + start + 128, a.begin());
    aec_rdft_forward_128(a.data());
    std::array<float, 65> power{};
    power[0] = a[0] * a[0];
    power[64] = a[1] * a[1];
    for (int k = 1; k < 64; ++k) power[k] = a[2 * k] * a[2 * k] + a[2 * k + 1] * a[2 * k + 1];
    spectra.push_back(power);
  }
  return spectra;
}

struct Estimator {
  explicit Estimator(bool robust, int allowed_offset = 6) {
    farend = Adsp_CreateDelayEstimatorFarend(&farend_buf, 65, kHistorySizeBlocks);
    near = Adsp_CreateDelayEstimator(&near_buf, farend, kHistorySizeBlocks);
    EXPECT_NE(farend, nullptr);
    EXPECT_NE(near, nullptr);
    EXPECT_EQ(Adsp_set_lookahead(near, kLookahead), kLookahead);
    EXPECT_EQ(Adsp_set_allowed_offset(near, allowed_offset), 0);
    EXPECT_EQ(Adsp_enable_robust_validation(near, robust ? 1 : 0), 0);
  }
  int Step(const std::array<float, 65>& far, const std::array<float, 65>& near_spectrum) {
    EXPECT_EQ(Adsp_AddFarSpectrumFloat(farend, far.data(), 65), 0);
    return Adsp_DelayEstimatorProcessFloat(near, near_spectrum.data(), 65);
  }
  static constexpr int kLookahead = 15;
  DelayEstimatorFarend farend_buf;
  DelayEstimator near_buf;
  void* farend;
  void* near;
};

// Near end: the far end delayed by delay_samples at -10 dB plus white room
// noise about 40 dB below the far end's level.
test::Signal EchoOf(const test::Signal& far, int delay_samples, uint32_t seed) {
  test::Signal near(far.size(), 0.0f);
  for (size_t i = delay_samples; i < far.size(); ++i) near[i] = 0.316f * far[i - delay_samples];
  return test::Mix(near, test::WhiteNoise(far.size(), 0.01 * 3000.0 * 0.316, seed));
}

TEST(DelayEstimator, BinarySpectrumMarksBandsAboveTheirRunningMean) {
  Estimator e(false);
  std::array<float, 65> spectrum;
  spectrum.fill(1e9f);  // bands outside 12..43 play no part
  for (int k = kBandFirst; k <= kBandLast; ++k) spectrum[k] = 1.0f;
  spectrum[20] = 0.0f;  // never positive: no mean, no bit
  ASSERT_EQ(Adsp_AddFarSpectrumFloat(e.farend, spectrum.data(), 65), 0);
  const BinaryDelayEstimatorFarend& far = *e.farend_buf.binary_farend;
  // First spectrum: every mean starts at half the power, so every positive band is above it.
  EXPECT_EQ(far.binary_far_history[0], 0xFFFFFFFFu & ~(1u << (20 - kBandFirst)));
  EXPECT_EQ(far.far_bit_counts[0], 31);

  for (int k = kBandFirst; k <= kBandLast; ++k) spectrum[k] = (k - kBandFirst) % 2 == 0 ? 2.0f : 0.1f;
  ASSERT_EQ(Adsp_AddFarSpectrumFloat(e.farend, spectrum.data(), 65), 0);
  EXPECT_EQ(far.binary_far_history[0], 0x55555555u);  // bit k - 12 for band k
  EXPECT_EQ(far.far_bit_counts[0], 16);
  EXPECT_EQ(far.binary_far_history[1], 0xFFFFFFFFu & ~(1u << 8));
  EXPECT_EQ(far.far_bit_counts[1], 31);

  // The near end builds its words the same way, with its own means.
  ASSERT_EQ(Adsp_DelayEstimatorProcessFloat(e.near, spectrum.data(), 65), -2);  // no delay yet
  EXPECT_EQ(e.near_buf.binary_handle->binary_near_history[0], 0xFFFFFFFFu);

  EXPECT_EQ(Adsp_AddFarSpectrumFloat(nullptr, spectrum.data(), 65), -1);
  EXPECT_EQ(Adsp_AddFarSpectrumFloat(e.farend, nullptr, 65), -1);
  EXPECT_EQ(Adsp_AddFarSpectrumFloat(e.farend, spectrum.data(), 64), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(nullptr, spectrum.data(), 65), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(e.near, nullptr, 65), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(e.near, spectrum.data(), 66), -1);
}

// The fixed-point front builds the same words from the same spectra given in
// any Q domain, and rejects a domain beyond Q15.
TEST(DelayEstimator, FixedPointFrontBuildsTheSameWords) {
  for (int q : {0, 4, 7}) {  // 300 in Q7 still fits 16 bits
    SCOPED_TRACE(q);
    Estimator e(false);
    std::array<uint16_t, 65> spectrum{};
    auto fill = [&](auto value_of_band) {
      for (int k = kBandFirst; k <= kBandLast; ++k) spectrum[k] = static_cast<uint16_t>(value_of_band(k) << q);
    };
    fill([](int k) { return k == 20 ? 0 : 100; });
    ASSERT_EQ(Adsp_AddFarSpectrumFix(e.farend, spectrum.data(), 65, q), 0);
    fill([](int k) { return (k - kBandFirst) % 2 == 0 ? 300 : 10; });
    ASSERT_EQ(Adsp_AddFarSpectrumFix(e.farend, spectrum.data(), 65, q), 0);
    const BinaryDelayEstimatorFarend& far = *e.farend_buf.binary_farend;
    EXPECT_EQ(far.binary_far_history[1], 0xFFFFFFFFu & ~(1u << (20 - kBandFirst)));
    EXPECT_EQ(far.binary_far_history[0], 0x55555555u);
    ASSERT_EQ(Adsp_DelayEstimatorProcessFix(e.near, spectrum.data(), 65, q), -2);
    EXPECT_EQ(e.near_buf.binary_handle->binary_near_history[0], 0xFFFFFFFFu);
    EXPECT_EQ(Adsp_AddFarSpectrumFix(e.farend, spectrum.data(), 65, 16), -1);
    EXPECT_EQ(Adsp_DelayEstimatorProcessFix(e.near, spectrum.data(), 65, -1), -1);
    EXPECT_EQ(Adsp_DelayEstimatorProcessFix(e.near, nullptr, 65, q), -1);
  }
}

TEST(DelayEstimator, CreationChecksSizesAndSettingsKeepTheirRanges) {
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
  EXPECT_EQ(Adsp_lookahead(near), 125);
  EXPECT_EQ(Adsp_set_lookahead(near, 126), -1);
  EXPECT_EQ(Adsp_set_lookahead(near, 15), 15);
  EXPECT_EQ(Adsp_enable_robust_validation(near, 2), -1);
  EXPECT_EQ(Adsp_enable_robust_validation(near, 1), 0);
  EXPECT_EQ(Adsp_set_allowed_offset(near, 6), 0);
  // A restart clears the estimate but keeps the owner's settings.
  EXPECT_EQ(Adsp_InitDelayEstimator(near), 0);
  EXPECT_EQ(Adsp_lookahead(near), 15);
  EXPECT_EQ(Adsp_is_robust_validation_enabled(near), 1);
  EXPECT_EQ(Adsp_get_allowed_offset(near), 6);
  EXPECT_EQ(Adsp_set_history_size(near, 40), 40);
  EXPECT_EQ(Adsp_history_size(near), 40);
  EXPECT_EQ(far_buf.binary_farend->history_size, 40);
  EXPECT_EQ(Adsp_set_history_size(near, 126), -1);
  EXPECT_EQ(Adsp_last_delay(nullptr), -1);
}

TEST(DelayEstimator, MeanEstimatorShiftsTheDifferenceMagnitude) {
  struct Case {
    int32_t new_value, factor, mean, expected;
  };
  const Case cases[] = {
      {1000, 3, 0, 125},      {0, 3, 1000, 875},   // symmetric steps
      {0, 3, 1001, 876},                           // -1001 >> 3 would give -126; the magnitude gives -125
      {5, 3, 0, 0},           {0, 3, 5, 5},        // steps below one unit do not move the mean
      {16384, 7, 10240, 10288}, {0, 13, 8191, 8191}, {0, 13, 8192, 8191},
  };
  for (const Case& c : cases) {
    int32_t mean = c.mean;
    Adsp_MeanEstimatorFix(c.new_value, c.factor, &mean);
    EXPECT_EQ(mean, c.expected) << c.new_value << " " << c.factor << " " << c.mean;
  }
}

TEST(DelayEstimator, SoftResetsShiftTheFarHistoryAndAbsorbShiftsInTheLookahead) {
  BinaryDelayEstimatorFarend far;
  ASSERT_EQ(Adsp_CreateBinaryDelayEstimatorFarend(&far, 6), 0);
  for (uint32_t word : {0x1u, 0x3u, 0x7u, 0xFu, 0x1Fu, 0x3Fu}) Adsp_AddBinaryFarSpectrum(&far, word);
  // Newest first: 0x3F 0x1F 0xF 0x7 0x3 0x1.
  Adsp_SoftResetBinaryDelayEstimatorFarend(&far, 2);
  const uint32_t after_forward[6] = {0, 0, 0x3F, 0x1F, 0xF, 0x7};
  const int counts_forward[6] = {0, 0, 6, 5, 4, 3};
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(far.binary_far_history[i], after_forward[i]) << i;
    EXPECT_EQ(far.far_bit_counts[i], counts_forward[i]) << i;
  }
  Adsp_SoftResetBinaryDelayEstimatorFarend(&far, -3);
  const uint32_t after_back[6] = {0x1F, 0xF, 0x7, 0, 0, 0};
  for (int i = 0; i < 6; ++i) EXPECT_EQ(far.binary_far_history[i], after_back[i]) << i;

  BinaryDelayEstimator near;
  ASSERT_EQ(Adsp_CreateBinaryDelayEstimator(&near, &far, 20), 0);  // lookahead 0..20
  near.lookahead = 15;
  struct Case {
    int shift, lookahead, unabsorbed;
  };
  const Case cases[] = {{5, 10, 0}, {12, 0, 2}, {-30, 20, -10}, {0, 20, 0}, {3, 17, 0}};
  for (const Case& c : cases) {
    EXPECT_EQ(Adsp_SoftResetBinaryDelayEstimator(&near, c.shift), c.unabsorbed) << c.shift;
    EXPECT_EQ(near.lookahead, c.lookahead) << c.shift;
  }
}

struct RunResult {
  std::vector<int> accepted;  // every delay value taken, in order
  int first_correct_block = -1;
  float final_quality = 0.0f;
};

// The settled invariants of robust validation, checked after every block.
void CheckRobustBounds(const BinaryDelayEstimator& e) {
  for (int i = 0; i < e.history_size; ++i) {
    ASSERT_GE(e.histogram[i], 0.0f);
    ASSERT_LE(e.histogram[i], 3000.0f);
  }
  if (e.last_delay >= 0) {
    ASSERT_EQ(e.last_delay_histogram, std::min(e.histogram[e.last_delay], 250.0f));
  }
  if (e.compare_delay >= 0) {
    ASSERT_EQ(Adsp_binary_last_delay_quality(&e), e.histogram[e.compare_delay] / 3000.0f);
  }
}

RunResult RunEstimator(Estimator& e, const test::Signal& far, const test::Signal& near, int correct) {
  const auto far_spectra = BlockSpectra(far);
  const auto near_spectra = BlockSpectra(near);
  RunResult result;
  int last = -2;
  for (size_t b = 0; b < far_spectra.size(); ++b) {
    const int d = e.Step(far_spectra[b], near_spectra[b]);
    if (d != last) result.accepted.push_back(d);
    if (d == correct && result.first_correct_block < 0) result.first_correct_block = static_cast<int>(b);
    last = d;
    if (e.near_buf.binary_handle->robust_validation_enabled) CheckRobustBounds(*e.near_buf.binary_handle);
  }
  result.final_quality = Adsp_last_delay_quality(e.near);
  return result;
}

// Echo of pink noise at known delays. The estimator reports the delay plus
// its 15-block lookahead. Its smoothing is slow by design (a far word with
// about 12 of 32 bits set moves its mean by 1/2048 of the difference per
// block), so a first estimate within 800 blocks (3.2 s) is the bound; a delay
// that is not a whole number of blocks still lands on the nearer block. The
// only delay ever reported must be the right one, and with robust validation
// the quality must end above the 0.07 the canceller requires before it trusts
// a later correction.
TEST(DelayEstimator, ConvergesOnAKnownEchoDelay) {
  struct Case {
    int delay_samples, expected_blocks;
  };
  const Case cases[] = {{0, 0}, {64 * 9, 9}, {64 * 9 + 20, 9}, {64 * 60, 60}, {64 * 100 + 40, 101}};
  const test::Signal far = test::PinkNoise(64 * 1000, 3000.0, 3);
  for (const Case& c : cases) {
    const test::Signal near = EchoOf(far, c.delay_samples, 4);
    for (bool robust : {false, true}) {
      SCOPED_TRACE(testing::Message() << "delay " << c.delay_samples << (robust ? " robust" : " plain"));
      Estimator e(robust);
      const RunResult r = RunEstimator(e, far, near, c.expected_blocks + Estimator::kLookahead);
      ASSERT_EQ(r.accepted, (std::vector<int>{c.expected_blocks + Estimator::kLookahead}));
      EXPECT_LT(r.first_correct_block, 800);
      EXPECT_GT(r.final_quality, robust ? 0.07f : 0.3f);
      EXPECT_LE(r.final_quality, 1.0f);
    }
  }
}

// The echo path jumps from 8 blocks to a nearby (12) or distant (40) delay.
// The plain rule takes the new delay as soon as it becomes the candidate;
// robust validation waits for its histogram to outweigh the old delay's
// capped value, longer for the jump beyond the allowed offset, but within
// 200 blocks (0.8 s) of the candidate change.
TEST(DelayEstimator, RobustValidationFollowsAPathChangeAfterConfirmingIt) {
  const int old_delay = 8, switch_block = 1200;
  const test::Signal far = test::PinkNoise(64 * 2900, 3000.0, 3);
  const test::Signal before = EchoOf(far, 64 * old_delay, 4);
  int robust_wait[2] = {};
  for (int new_delay : {12, 40}) {
    const test::Signal after = EchoOf(far, 64 * new_delay, 4);
    test::Signal near(before.begin(), before.begin() + 64 * switch_block);
    near.insert(near.end(), after.begin() + 64 * switch_block, after.end());
    int candidate_block[2] = {-1, -1}, accepted_block[2] = {-1, -1};
    for (bool robust : {false, true}) {
      SCOPED_TRACE(testing::Message() << "to " << new_delay << (robust ? " robust" : " plain"));
      Estimator e(robust);
      const auto far_spectra = BlockSpectra(far);
      const auto near_spectra = BlockSpectra(near);
      const int target = new_delay + Estimator::kLookahead;
      for (int b = 0; b < static_cast<int>(far_spectra.size()); ++b) {
        const int d = e.Step(far_spectra[b], near_spectra[b]);
        const BinaryDelayEstimator& binary = *e.near_buf.binary_handle;
        if (robust) CheckRobustBounds(binary);
        if (b == switch_block) {
          ASSERT_EQ(d, old_delay + Estimator::kLookahead);
        }
        if (candidate_block[robust] < 0 && b > switch_block && binary.last_candidate_delay == target) {
          candidate_block[robust] = b;
        }
        if (accepted_block[robust] < 0 && d == target) accepted_block[robust] = b;
      }
      ASSERT_GE(candidate_block[robust], 0);
      ASSERT_GE(accepted_block[robust], 0);
      EXPECT_EQ(Adsp_last_delay(e.near), target);
    }
    EXPECT_EQ(candidate_block[0], candidate_block[1]);  // the validation does not alter the estimate itself
    EXPECT_EQ(accepted_block[0], candidate_block[0]);
    const int wait = accepted_block[1] - candidate_block[1];
    EXPECT_GE(wait, 11);  // at least the hits a histogram-only takeover needs
    EXPECT_LE(wait, 200);
    robust_wait[new_delay == 40] = wait;
  }
  EXPECT_GT(robust_wait[1], robust_wait[0]);  // the distant jump is weighed down
}

// A strongly periodic talker makes neighbouring delays nearly equally good
// (the pitch period is about two blocks), so the candidate wanders between
// them; robust validation must change the reported delay less often than the
// plain rule.
TEST(DelayEstimator, RobustValidationStaysSteadierOnAPeriodicTalker) {
  const test::Signal far = test::MakeSpeechLike(64 * 3000, 3).samples;
  const test::Signal near = EchoOf(far, 64 * 20 + 10, 4);
  Estimator plain(false), robust(true);
  const RunResult plain_run = RunEstimator(plain, far, near, -1);
  const RunResult robust_run = RunEstimator(robust, far, near, -1);
  std::printf("[ figures  ] delay changes on a periodic talker: plain %zu, robust %zu\n", plain_run.accepted.size(),
              robust_run.accepted.size());
  EXPECT_LT(robust_run.accepted.size(), plain_run.accepted.size());
  for (int d : robust_run.accepted) EXPECT_NEAR(d, 20 + Estimator::kLookahead, 2);
}

}  // namespace
}  // namespace vorn
