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

}  // namespace
}  // namespace vorn
