// Tests of the echo canceller's building blocks: ring buffer, 128-point real
// FFT (against a direct DFT in double, and SSE2 against plain stages), random
// generators, resampler and skew fit, stored-filter reader, delay estimator.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <numbers>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/aec_filter_file.h"
#include "adsp_aec/aec_rdft.h"
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

TEST(RingBuffer, RejectsMissingPieces) {
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
  ASSERT_EQ(Adsp_CreateBuffer(&ring, 4, 4), 0);
  EXPECT_EQ(Adsp_WriteBuffer(&ring, nullptr, 1), 0u);
  EXPECT_EQ(Adsp_ReadBuffer(&ring, nullptr, nullptr, 1), 0u);
}

// The ring against a model that keeps the whole written stream by absolute
// index: the reader may step back over anything not yet overwritten, and
// never written places read as zeros (the canceller's far-end pre-roll).
// Random writes, reads of both kinds and moves both ways exercise every lap
// and wrap transition, including a read position parked at the storage's end.
TEST(RingBuffer, RandomTrafficMatchesAStreamModel) {
  for (size_t capacity : {1u, 5u, 8u, 13u, 384u}) {
    SCOPED_TRACE(capacity);
    std::vector<int> storage(capacity, -1);
    RingBuffer ring{};
    ring.data = reinterpret_cast<char*>(storage.data());
    ASSERT_EQ(Adsp_CreateBuffer(&ring, capacity, sizeof(int)), 0);
    std::vector<int> stream;
    long read_abs = 0;
    int zero_copy_reads = 0;  // a read that does not wrap must hand out a pointer into the ring
    std::mt19937 rng(static_cast<unsigned>(capacity));
    std::vector<int> buffer(2 * capacity + 2);
    for (int step = 0; step < 4000; ++step) {
      const long readable = static_cast<long>(stream.size()) - read_abs;
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
        for (size_t i = 0; i < read; ++i, ++read_abs) ASSERT_EQ(got[i], read_abs < 0 ? 0 : stream[read_abs]) << step;
      } else {
        const int k = n - static_cast<int>(capacity);  // backwards as often as forwards
        const int moved = Adsp_MoveReadPtr(&ring, k);
        ASSERT_EQ(moved, std::clamp<long>(k, readable - static_cast<long>(capacity), readable));
        read_abs += moved;
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

// Largest error relative to the largest value of the reference.
template <typename T>
double RelativeError(const std::array<float, 128>& got, const std::array<T, 128>& want) {
  double error = 0.0, peak = 0.0;
  for (int i = 0; i < 128; ++i) {
    error = std::max(error, std::fabs(got[i] - double{want[i]}));
    peak = std::max(peak, std::fabs(double{want[i]}));
  }
  return error / peak;
}

// Installs the plain stages while it lives; aec_rdft_init puts back the fastest.
struct PlainStages {
  PlainStages() {
    cft1st_128 = cft1st_128_C;
    cftmdl_128 = cftmdl_128_C;
    rftfsub_128 = rftfsub_128_C;
    rftbsub_128 = rftbsub_128_C;
  }
  ~PlainStages() { aec_rdft_init(); }
};

// Impulses (a unit impulse at 0 must give R[k] = 1, I[k] = 0), a tone (whose
// sine part must land in the odd slots with the sine's own sign) and noise at
// two scales, through both stage sets. Single-precision radix-4 stages over 7
// levels stay within a few float epsilons of the peak.
TEST(Rdft128, ForwardAndInverseMatchADirectDftInDouble) {
  std::vector<std::array<float, 128>> inputs(23);
  inputs[0][0] = 1.0f;
  inputs[1][77] = -3.0f;
  const test::Signal tone = test::Tone(128, 625.0, 1.0, 0.3);  // bin 5
  std::copy(tone.begin(), tone.end(), inputs[2].begin());
  for (unsigned seed = 1; seed <= 20; ++seed) {
    const test::Signal noise = test::WhiteNoise(128, seed % 2 ? 1.0 : 3000.0, seed);
    std::copy(noise.begin(), noise.end(), inputs[2 + seed].begin());
  }
  aec_rdft_init();
  double worst[2][3] = {};  // plain, installed stages x forward, inverse, round trip
  double worst_vs_plain = 0.0;
  for (const auto& input : inputs) {
    alignas(16) std::array<float, 128> spectrum[2], signal[2];
    for (int installed : {0, 1}) {
      std::optional<PlainStages> plain;
      if (installed == 0) plain.emplace();
      spectrum[installed] = input;
      aec_rdft_forward_128(spectrum[installed].data());
      signal[installed] = spectrum[installed];
      aec_rdft_inverse_128(signal[installed].data());
      double* w = worst[installed];
      w[0] = std::max(w[0], RelativeError(spectrum[installed], DirectPackedDft(input.data())));
      w[1] = std::max(w[1], RelativeError(signal[installed], DirectPackedInverse(spectrum[installed].data())));
      for (float& v : signal[installed]) v *= 2.0f / 128.0f;
      w[2] = std::max(w[2], RelativeError(signal[installed], input));
    }
    worst_vs_plain = std::max({worst_vs_plain, RelativeError(spectrum[1], spectrum[0]),
                               RelativeError(signal[1], signal[0])});
  }
  for (int installed : {0, 1}) {
    std::printf("[ figures  ] %s stages: forward %.3g, inverse %.3g, round trip %.3g (max error / peak)\n",
                installed ? "installed" : "plain", worst[installed][0], worst[installed][1], worst[installed][2]);
    for (double w : worst[installed]) EXPECT_LT(w, 1e-6);
  }
  std::printf("[ figures  ] installed vs plain stages: max difference %.3g of the peak\n", worst_vs_plain);
  EXPECT_LT(worst_vs_plain, 1e-6);
}

#if defined(__SSE2__)
// Stage by stage on the same random input. The real-data stages and every
// twiddle group without a plain shortcut round exactly like the plain code;
// the shortcut groups (cft1st's first 16 floats, cftmdl's groups 0 and 1)
// may differ by float rounding only.
TEST(Rdft128, Sse2StagesMatchThePlainStagesAndAreInstalled) {
  struct StagePair {
    const char* name;
    RdftStage128 plain, sse2;
    int exact_from;  // floats from here on must be bit-identical
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
  aec_rdft_init();
  EXPECT_EQ(cft1st_128, &cft1st_128_SSE2);
  EXPECT_EQ(cftmdl_128, &cftmdl_128_SSE2);
  EXPECT_EQ(rftfsub_128, &rftfsub_128_SSE2);
  EXPECT_EQ(rftbsub_128, &rftbsub_128_SSE2);
}
#endif

// ---------------------------------------------------------- random generators

// The 31-bit congruential step (69069, 1), computed here in 64 bits, from the
// canceller's seed; the array form continues the same sequence.
TEST(Random, UniformSequenceFollowsTheCongruentialStep) {
  uint32_t seed_single = 777, seed_array = 777;
  int16_t values[65];
  values[64] = -1;
  EXPECT_EQ(AdspSpl_RandUArray(values, 0, &seed_array), 0);
  EXPECT_EQ(seed_array, 777u);
  EXPECT_EQ(AdspSpl_RandUArray(values, 64, &seed_array), 64);
  uint64_t state = 777;
  for (int i = 0; i < 64; ++i) {
    state = (state * 69069ull + 1ull) & 0x7FFFFFFFull;
    ASSERT_EQ(values[i], static_cast<int16_t>(state >> 16)) << i;
    ASSERT_EQ(AdspSpl_RandU(&seed_single), values[i]) << i;
  }
  EXPECT_EQ(values[64], -1);
  EXPECT_EQ(seed_array, state);
  EXPECT_EQ(seed_single, state);
}

// Entry i is the normal quantile of stratum q of 512 in Q13, q = 2j + (j & 1)
// in the first half and 2j + 1 - (j & 1) in the second, j = rev8(i mod 256),
// checked with the C library's erfc: Phi(x) = erfc(-x / sqrt 2) / 2.
TEST(Random, NormalTableIsAStratifiedNormalSampleInQ13) {
  for (int i = 0; i < kRandNTableSize; ++i) {
    int j = 0;
    for (int b = 0; b < 8; ++b) j |= ((i >> b) & 1) << (7 - b);
    const double p = (2 * j + ((j & 1) ^ (i >> 8)) + 0.5) / 512.0;
    const double x = kRandNTable[i] / 8192.0;
    const double slope = std::exp(-0.5 * x * x) / std::sqrt(2.0 * kPi);  // dPhi/dx
    EXPECT_NEAR(0.5 * std::erfc(-x / std::sqrt(2.0)), p, slope * 0.6 / 8192.0) << i;  // within rounding
  }
  uint32_t seed = 777, check = 777;
  for (int n = 0; n < 1000; ++n) {
    const int16_t value = AdspSpl_RandN(&seed);
    check = (check * 69069u + 1u) & 0x7FFFFFFFu;
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

// A slow sine through the resampler over many frames: the output count follows
// 1 / (1 + skew) and every output sample sits on the input's time axis at
// g * (1 + skew) - 1, as a continuous stretch across frame boundaries would;
// without skew the output is the input exactly, one sample late.
TEST(Resampler, StretchesAndCompressesContinuouslyAcrossFrames) {
  for (float skew : {0.0f, 0.01f, -0.01f, 0.2f, -0.3f}) {
    for (int size : {64, 128}) {
      SCOPED_TRACE(testing::Message() << "skew " << skew << " size " << size);
      Resampler r;
      const double omega = 2.0 * kPi * 100.0 / 16000.0;  // linear interpolation error ~ (omega)^2 / 8
      std::vector<float> input, output;
      const int frames = 100;
      for (int f = 0; f < frames; ++f) {
        for (int i = 0; i < size; ++i) input.push_back(static_cast<float>(std::sin(omega * (f * size + i))));
        std::vector<float> out(2 * size + 4);
        int count = 0;
        AdspAec_ResampleLinear(r.handle, input.data() + f * size, size, skew, out.data(), &count);
        ASSERT_LE(count, static_cast<int>(size / (1.0f + skew)) + 2);
        output.insert(output.end(), out.begin(), out.begin() + count);
      }
      EXPECT_NEAR(static_cast<double>(output.size()), frames * size / (1.0 + skew), 2.0);
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
    float later = 123.0f;
    EXPECT_EQ(AdspAec_GetSkew(r.handle, 99, &later), 0);  // reported once, then kept
    EXPECT_EQ(later, estimate);
  }
}

// ------------------------------------------------------------ filter file

std::vector<unsigned char> Record(const char (&tag)[9], uint32_t length, const std::vector<float>& payload) {
  std::vector<unsigned char> bytes(tag, tag + 8);
  for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<unsigned char>(length >> (8 * b)));
  for (float v : payload) {
    const uint32_t bits = std::bit_cast<uint32_t>(v);
    for (int b = 0; b < 4; ++b) bytes.push_back(static_cast<unsigned char>(bits >> (8 * b)));
  }
  return bytes;
}

// The taps are transformed and added into the planes the canceller hands over
// (filled with 0.5 here); a rejected file must leave them exactly as they were.
TEST(FilterFile, AddsGoodFilesIntoThePlanesAndRejectsBadOnes) {
  std::vector<float> taps(768);
  std::mt19937 rng(11);
  std::normal_distribution<float> dist(0.0f, 0.1f);
  for (float& t : taps) t = dist(rng);
  std::vector<float> unit(768, 0.0f);
  unit[64] = 2.0f;  // tap 0 of partition 1
  const std::vector<float> other(10, 5.0f);
  auto join = [](std::vector<unsigned char> a, const std::vector<unsigned char>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
  };
  const auto good = Record("AEC----_", 3072, taps);
  const auto others = join(Record("NS-----_", 40, other), Record("AEC----x", 40, other));
  struct Case {
    const char* name;
    std::vector<unsigned char> bytes;
    const std::vector<float>* loaded;  // null: the file must be rejected
  };
  const Case cases[] = {
      {"single record", good, &taps},
      {"unit tap", Record("AEC----_", 3072, unit), &unit},
      {"after other records", join(others, good), &taps},
      {"trailing records after it", join(good, Record("NS-----_", 40, other)), &taps},
      {"length 3068", Record("AEC----_", 3068, std::vector<float>(taps.begin(), taps.end() - 1)), nullptr},
      {"length 3076", join(Record("AEC----_", 3076, taps), {0, 0, 0, 0}), nullptr},
      {"payload cut after five partitions", {good.begin(), good.begin() + 12 + 5 * 256 + 100}, nullptr},
      {"declared length beyond the file", {good.begin(), good.end() - 4}, nullptr},
      {"no filter record", others, nullptr},
      {"header only", {good.begin(), good.begin() + 12}, nullptr},
      {"empty", {}, nullptr},
  };
  // Inside this build's tree, so that builds testing side by side never share a file.
  const std::filesystem::path dir = std::filesystem::path(VORN_BINARY_DIR) / "test_aec_blocks_files";
  std::filesystem::create_directories(dir);
  std::string path = (dir / "filter.bin").string();
  auto planes = std::make_unique<float[][kAecFilterPlaneLen]>(2);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::FILE* file = std::fopen(path.c_str(), "wb");
    ASSERT_NE(file, nullptr);
    if (!c.bytes.empty()) std::fwrite(c.bytes.data(), 1, c.bytes.size(), file);
    std::fclose(file);
    for (int plane = 0; plane < 2; ++plane) std::fill_n(planes[plane], kAecFilterPlaneLen, 0.5f);
    ASSERT_EQ(AdspAec_FilterReadPlanes(path.c_str(), planes.get()), c.loaded ? 0 : -1);
    for (int p = 0; p < 32; ++p) {
      std::array<double, 128> packed{};  // a direct DFT of the zero-padded partition
      if (c.loaded != nullptr && p < kAecFilterFilePartitions) {
        std::array<float, 128> padded{};
        std::copy_n(c.loaded->begin() + 64 * p, 64, padded.begin());
        packed = DirectPackedDft(padded.data());
      }
      for (int k = 0; k <= 64; ++k) {
        const double re = packed[k == 64 ? 1 : 2 * k];
        const double im = k == 0 || k == 64 ? 0.0 : packed[2 * k + 1];
        ASSERT_NEAR(planes[0][p * 65 + k], 0.5 + re, c.loaded ? 2e-6 : 0.0) << p << " " << k;
        ASSERT_NEAR(planes[1][p * 65 + k], 0.5 + im, c.loaded ? 2e-6 : 0.0) << p << " " << k;
      }
    }
  }
  std::filesystem::remove(path);
  EXPECT_EQ(AdspAec_FilterReadPlanes(path.c_str(), planes.get()), -1);
  EXPECT_EQ(AdspAec_FilterReadPlanes(nullptr, planes.get()), -1);
  EXPECT_EQ(AdspAec_FilterRead(path.data(), static_cast<AecCore*>(nullptr)), -1);
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
  explicit Estimator(bool robust) {
    far = Adsp_CreateDelayEstimatorFarend(&far_buf, 65, kHistorySizeBlocks);
    near = Adsp_CreateDelayEstimator(&near_buf, far, kHistorySizeBlocks);
    EXPECT_EQ(Adsp_set_lookahead(near, kLookahead), kLookahead);
    EXPECT_EQ(Adsp_set_allowed_offset(near, 6), 0);
    EXPECT_EQ(Adsp_enable_robust_validation(near, robust ? 1 : 0), 0);
  }
  static constexpr int kLookahead = 15;
  DelayEstimatorFarend far_buf;
  DelayEstimator near_buf;
  void* far;
  void* near;
};

// Both fronts, float and fixed point in any Q domain, set bit k - 12 of a
// word when band k is above its running mean; a band never positive has no
// mean and no bit, and bands outside 12..43 play no part.
TEST(DelayEstimator, BinarySpectrumMarksBandsAboveTheirRunningMean) {
  for (int q : {-1, 0, 4, 7}) {  // -1: the float front; 300 in Q7 still fits 16 bits
    SCOPED_TRACE(q);
    Estimator e(false);
    std::array<float, 65> as_float;
    std::array<uint16_t, 65> as_fix;
    auto set = [&](int even_bands, int odd_bands, int band_20) {
      as_float.fill(1e9f);
      as_fix.fill(0xFFFF);
      for (int k = kBandFirst; k <= kBandLast; ++k) {
        const int power = k == 20 ? band_20 : (k - kBandFirst) % 2 == 0 ? even_bands : odd_bands;
        as_float[k] = static_cast<float>(power);
        as_fix[k] = static_cast<uint16_t>(power << std::max(q, 0));
      }
    };
    auto add_far = [&] {
      return q < 0 ? Adsp_AddFarSpectrumFloat(e.far, as_float.data(), 65)
                   : Adsp_AddFarSpectrumFix(e.far, as_fix.data(), 65, q);
    };
    const BinaryDelayEstimatorFarend& far = *e.far_buf.binary_farend;
    set(100, 100, 0);
    ASSERT_EQ(add_far(), 0);
    EXPECT_EQ(far.binary_far_history[0], ~(1u << (20 - kBandFirst)));  // every mean starts at half the power
    EXPECT_EQ(far.far_bit_counts[0], 31);
    set(300, 10, 300);
    ASSERT_EQ(add_far(), 0);
    EXPECT_EQ(far.binary_far_history[0], 0x55555555u);
    EXPECT_EQ(far.far_bit_counts[0], 16);
    EXPECT_EQ(far.binary_far_history[1], ~(1u << (20 - kBandFirst)));
    EXPECT_EQ(far.far_bit_counts[1], 31);
    // The near end builds its words the same way, with its own means; no delay yet.
    EXPECT_EQ(q < 0 ? Adsp_DelayEstimatorProcessFloat(e.near, as_float.data(), 65)
                    : Adsp_DelayEstimatorProcessFix(e.near, as_fix.data(), 65, q),
              -2);
    EXPECT_EQ(e.near_buf.binary_handle->binary_near_history[0], 0xFFFFFFFFu);
  }
}

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
  EXPECT_EQ(Adsp_AddFarSpectrumFloat(nullptr, spectrum.data(), 65), -1);
  EXPECT_EQ(Adsp_AddFarSpectrumFloat(far, nullptr, 65), -1);
  EXPECT_EQ(Adsp_AddFarSpectrumFloat(far, spectrum.data(), 64), -1);
  EXPECT_EQ(Adsp_AddFarSpectrumFix(far, spectrum_fix.data(), 65, 16), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(nullptr, spectrum.data(), 65), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(near, nullptr, 65), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFloat(near, spectrum.data(), 66), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFix(near, spectrum_fix.data(), 65, -1), -1);
  EXPECT_EQ(Adsp_DelayEstimatorProcessFix(near, nullptr, 65, 0), -1);
  ASSERT_EQ(Adsp_set_lookahead(near, 15), 15);
  ASSERT_EQ(Adsp_enable_robust_validation(near, 1), 0);
  ASSERT_EQ(Adsp_set_allowed_offset(near, 6), 0);
  EXPECT_EQ(Adsp_InitDelayEstimator(near), 0);
  EXPECT_EQ(Adsp_lookahead(near), 15);
  EXPECT_EQ(Adsp_is_robust_validation_enabled(near), 1);
  EXPECT_EQ(Adsp_get_allowed_offset(near), 6);
  EXPECT_EQ(Adsp_set_history_size(near, 40), 40);
  EXPECT_EQ(far_buf.binary_farend->history_size, 40);  // one history length for both ends
}

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

// A delay correction moves the far history by the shift (vacated places are
// empty) and the near end's lookahead absorbs what it can of it.
TEST(DelayEstimator, SoftResetsShiftTheFarHistoryAndAbsorbShiftsInTheLookahead) {
  BinaryDelayEstimatorFarend far;
  ASSERT_EQ(Adsp_CreateBinaryDelayEstimatorFarend(&far, 6), 0);
  for (uint32_t word : {0x1u, 0x3u, 0x7u, 0xFu, 0x1Fu, 0x3Fu}) Adsp_AddBinaryFarSpectrum(&far, word);
  Adsp_SoftResetBinaryDelayEstimatorFarend(&far, 2);
  EXPECT_EQ(std::vector<uint32_t>(far.binary_far_history, far.binary_far_history + 6),
            (std::vector<uint32_t>{0, 0, 0x3F, 0x1F, 0xF, 0x7}));
  EXPECT_EQ(std::vector<int>(far.far_bit_counts, far.far_bit_counts + 6), (std::vector<int>{0, 0, 6, 5, 4, 3}));
  Adsp_SoftResetBinaryDelayEstimatorFarend(&far, -3);
  EXPECT_EQ(std::vector<uint32_t>(far.binary_far_history, far.binary_far_history + 6),
            (std::vector<uint32_t>{0x1F, 0xF, 0x7, 0, 0, 0}));
  BinaryDelayEstimator near;
  ASSERT_EQ(Adsp_CreateBinaryDelayEstimator(&near, &far, 20), 0);  // lookahead 0..20
  near.lookahead = 15;
  const int cases[][3] = {{5, 10, 0}, {12, 0, 2}, {-30, 20, -10}, {0, 20, 0}, {3, 17, 0}};  // shift, lookahead, rest
  for (const auto& c : cases) {
    EXPECT_EQ(Adsp_SoftResetBinaryDelayEstimator(&near, c[0]), c[2]) << c[0];
    EXPECT_EQ(near.lookahead, c[1]) << c[0];
  }
}

// Near end: the far end delayed by delay_samples at -10 dB plus white room
// noise about 40 dB below the far end's level.
test::Signal EchoOf(const test::Signal& far, int delay_samples, uint32_t seed) {
  test::Signal near(far.size(), 0.0f);
  for (size_t i = delay_samples; i < far.size(); ++i) near[i] = 0.316f * far[i - delay_samples];
  return test::Mix(near, test::WhiteNoise(far.size(), 0.01 * 3000.0 * 0.316, seed));
}

// The settled invariants of robust validation.
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

struct RunResult {
  std::vector<int> accepted, accepted_at;  // every change of the reported delay and its block
  int candidate_at = -1;                   // first block from `from` on whose candidate was `watch`
  float final_quality = 0.0f;
};

RunResult RunEstimator(bool robust, const test::Signal& far, const test::Signal& near, int watch = -1, int from = 0) {
  Estimator e(robust);
  const BinaryDelayEstimator& binary = *e.near_buf.binary_handle;
  const auto far_spectra = BlockSpectra(far);
  const auto near_spectra = BlockSpectra(near);
  RunResult result;
  for (int b = 0; b < static_cast<int>(far_spectra.size()); ++b) {
    EXPECT_EQ(Adsp_AddFarSpectrumFloat(e.far, far_spectra[b].data(), 65), 0);
    const int d = Adsp_DelayEstimatorProcessFloat(e.near, near_spectra[b].data(), 65);
    if (d != (result.accepted.empty() ? -2 : result.accepted.back())) {
      result.accepted.push_back(d);
      result.accepted_at.push_back(b);
    }
    if (result.candidate_at < 0 && b >= from && binary.last_candidate_delay == watch) result.candidate_at = b;
    if (robust) CheckRobustBounds(binary);
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
  const int cases[][2] = {{0, 0}, {64 * 9, 9}, {64 * 9 + 20, 9}, {64 * 60, 60}, {64 * 100 + 40, 101}};
  const test::Signal far = test::PinkNoise(64 * 1000, 3000.0, 3);
  for (const auto& [delay_samples, delay_blocks] : cases) {
    const test::Signal near = EchoOf(far, delay_samples, 4);
    for (bool robust : {false, true}) {
      SCOPED_TRACE(testing::Message() << "delay " << delay_samples << (robust ? " robust" : " plain"));
      const RunResult r = RunEstimator(robust, far, near);
      ASSERT_EQ(r.accepted, (std::vector<int>{delay_blocks + Estimator::kLookahead}));
      EXPECT_LT(r.accepted_at[0], 800);
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
    SCOPED_TRACE(new_delay);
    const test::Signal after = EchoOf(far, 64 * new_delay, 4);
    test::Signal near(before.begin(), before.begin() + 64 * switch_block);
    near.insert(near.end(), after.begin() + 64 * switch_block, after.end());
    const int target = new_delay + Estimator::kLookahead;
    const RunResult plain = RunEstimator(false, far, near, target, switch_block + 1);
    const RunResult robust = RunEstimator(true, far, near, target, switch_block + 1);
    for (const RunResult* r : {&plain, &robust}) {
      ASSERT_EQ(r->accepted, (std::vector<int>{old_delay + Estimator::kLookahead, target}));
      EXPECT_GT(r->accepted_at[1], switch_block);
    }
    EXPECT_EQ(plain.candidate_at, robust.candidate_at);  // the validation does not alter the estimate itself
    EXPECT_EQ(plain.accepted_at[1], plain.candidate_at);
    const int wait = robust.accepted_at[1] - robust.candidate_at;
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
  const RunResult plain = RunEstimator(false, far, near);
  const RunResult robust = RunEstimator(true, far, near);
  std::printf("[ figures  ] delay changes on a periodic talker: plain %zu, robust %zu\n", plain.accepted.size(),
              robust.accepted.size());
  EXPECT_LT(robust.accepted.size(), plain.accepted.size());
  for (int d : robust.accepted) EXPECT_NEAR(d, 20 + Estimator::kLookahead, 2);
}

}  // namespace
}  // namespace vorn
