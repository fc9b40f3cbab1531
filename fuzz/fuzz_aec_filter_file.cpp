// Fuzz target: the echo canceller's stored echo-path reader, fed the input as
// the file.
//
// The planes it adds into are allocated at exactly their size and filled with
// a known pattern first. The verdict is checked against a walk over the same
// records in memory (8-byte tag, 32-bit little-endian length, payload; the
// first "AEC----_" record decides and must hold 768 taps inside the file). A
// refusal must leave the planes as they were. An acceptance must add, per
// partition, the spectrum of its 64 taps zero-padded to 128 points, compared
// here with a direct DFT in double where the taps are finite and moderate;
// partitions 12..31 and the imaginary parts of DC and Nyquist stay as they were.
#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

#include "adsp_aec/aec_filter_file.h"
#include "target_bodies.h"
#include "target_support.h"

namespace vorn::fuzz {
namespace {

constexpr int64_t kHeaderBytes = 12;

uint32_t Le32At(const uint8_t* bytes) {
  return bytes[0] | (bytes[1] << 8) | (bytes[2] << 16) | (static_cast<uint32_t>(bytes[3]) << 24);
}

// Offset of the accepted payload, or -1 when the file is to be refused.
int64_t ModelPayload(const uint8_t* file, int64_t size) {
  for (int64_t start = 0; start + kHeaderBytes < size;) {
    const uint32_t length = Le32At(file + start + 8);
    const int64_t payload = start + kHeaderBytes;
    if (std::memcmp(file + start, kAecFilterHead, sizeof(kAecFilterHead)) == 0) {
      const bool fits = payload + length <= size;
      return fits && length == static_cast<uint32_t>(kAecFilterFilePayloadBytes) ? payload : -1;
    }
    start = payload + length;
  }
  return -1;
}

float InitialValue(int plane, int index) { return 0.25f * static_cast<float>((index * 7 + plane * 3) % 11) - 1.0f; }

// cos and sin of 2 pi n / 128, in double.
struct UnitCircle {
  double cos_at[128];
  double sin_at[128];
  UnitCircle() {
    for (int n = 0; n < 128; ++n) {
      cos_at[n] = std::cos(2.0 * std::numbers::pi * n / 128.0);
      sin_at[n] = std::sin(2.0 * std::numbers::pi * n / 128.0);
    }
  }
};

void CheckPartition(const float* taps, const float* real, const float* imag, int partition) {
  double magnitude = 0.0;
  for (int t = 0; t < kAecFilterFileTaps; ++t) {
    if (!std::isfinite(taps[t]) || std::fabs(taps[t]) > 1e30f) return;
    magnitude += std::fabs(static_cast<double>(taps[t]));
  }
  const double tolerance = 1e-5 * magnitude + 1e-5;
  static const UnitCircle circle;
  const int base = partition * kAecFilterPlaneBins;
  for (int k = 0; k <= 64; ++k) {
    double cos_sum = 0.0;
    double sin_sum = 0.0;
    for (int t = 0; t < kAecFilterFileTaps; ++t) {
      cos_sum += taps[t] * circle.cos_at[(t * k) % 128];
      sin_sum += taps[t] * circle.sin_at[(t * k) % 128];
    }
    const double added_real = static_cast<double>(real[base + k]) - InitialValue(0, base + k);
    VORN_FUZZ_CHECK(std::fabs(added_real - cos_sum) <= tolerance);
    if (k == 0 || k == 64) {
      VORN_FUZZ_CHECK(imag[base + k] == InitialValue(1, base + k));
    } else {
      const double added_imag = static_cast<double>(imag[base + k]) - InitialValue(1, base + k);
      VORN_FUZZ_CHECK(std::fabs(added_imag - sin_sum) <= tolerance);
    }
  }
}

}  // namespace

bool FuzzAecFilterFile(const uint8_t* data, size_t size) {
  const char* path = WriteScratchFile(data, size);
  std::vector<float> storage(2 * kAecFilterPlaneLen);
  for (int plane = 0; plane < 2; ++plane) {
    for (int i = 0; i < kAecFilterPlaneLen; ++i) storage[plane * kAecFilterPlaneLen + i] = InitialValue(plane, i);
  }
  const std::vector<float> initial = storage;
  auto* planes = reinterpret_cast<float(*)[kAecFilterPlaneLen]>(storage.data());

  const int32_t verdict = AdspAec_FilterReadPlanes(path, planes);
  const int64_t payload = ModelPayload(data, static_cast<int64_t>(size));
  VORN_FUZZ_CHECK(verdict == (payload >= 0 ? 0 : -1));
  if (verdict != 0) {
    VORN_FUZZ_CHECK(std::memcmp(storage.data(), initial.data(), storage.size() * sizeof(float)) == 0);
    return false;
  }

  const int first_untouched = kAecFilterFilePartitions * kAecFilterPlaneBins;
  for (int plane = 0; plane < 2; ++plane) {
    VORN_FUZZ_CHECK(std::memcmp(planes[plane] + first_untouched, initial.data() + plane * kAecFilterPlaneLen + first_untouched,
                                (kAecFilterPlaneLen - first_untouched) * sizeof(float)) == 0);
  }
  for (int p = 0; p < kAecFilterFilePartitions; ++p) {
    float taps[kAecFilterFileTaps];
    for (int t = 0; t < kAecFilterFileTaps; ++t) {
      const uint32_t bits = Le32At(data + payload + 4 * (p * kAecFilterFileTaps + t));
      std::memcpy(&taps[t], &bits, sizeof(float));
    }
    CheckPartition(taps, planes[0], planes[1], p);
  }
  return true;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzAecFilterFile)
