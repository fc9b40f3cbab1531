// Loads a stored echo path as the canceller's starting filter. The file is a
// chain of tagged records (8-byte tag, 32-bit little-endian length,
// payload); the reader walks it to the "AEC----_" record, checks that it
// holds exactly 12 partitions of 64 taps, and transforms each partition
// (zero-padded to 128 samples, as the overlap-save filter expects) into the
// packed spectrum it then adds into the partition's real and imaginary
// planes. Bytes are decoded explicitly as little-endian so the reader does
// not depend on the host's byte order.
#include "adsp_aec/aec_filter_file.h"

#include <bit>
#include <cstdio>
#include <cstring>

#include "adsp_aec/aec_rdft.h"

namespace vorn {
namespace {

constexpr int kRecordHeaderBytes = 12;

uint32_t LittleEndian32(const unsigned char* bytes) {
  return static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
         static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
}

class File {
 public:
  explicit File(const char* path) : stream_(std::fopen(path, "rb")) {}
  ~File() {
    if (stream_ != nullptr) std::fclose(stream_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  std::FILE* get() const { return stream_; }

 private:
  std::FILE* stream_;
};

void ClearPlanes(float (*wf_ini)[kAecFilterPlaneLen]) {
  std::memset(wf_ini[0], 0, sizeof(float) * kAecFilterPlaneLen);
  std::memset(wf_ini[1], 0, sizeof(float) * kAecFilterPlaneLen);
}

}  // namespace

int32_t AdspAec_FilterReadPlanes(const char* path, float (*wf_ini)[kAecFilterPlaneLen]) {
  if (path == nullptr || wf_ini == nullptr) return -1;
  File file(path);
  std::FILE* stream = file.get();
  if (stream == nullptr) return -1;

  if (std::fseek(stream, 0, SEEK_END) != 0) return -1;
  const long file_size = std::ftell(stream);
  if (file_size < 0 || std::fseek(stream, 0, SEEK_SET) != 0) return -1;
  if (file_size <= kRecordHeaderBytes) return -1;

  // The length is taken as unsigned: every skipped record moves the position
  // forward, so a corrupt length can end the walk but never loop it.
  long long position = kRecordHeaderBytes;
  uint32_t length = 0;
  for (;;) {
    char tag[8];
    unsigned char length_bytes[4];
    if (std::fread(tag, 1, sizeof(tag), stream) != sizeof(tag)) return -1;
    if (std::fread(length_bytes, 1, sizeof(length_bytes), stream) != sizeof(length_bytes)) return -1;
    length = LittleEndian32(length_bytes);
    if (std::memcmp(tag, kAecFilterHead, sizeof(tag)) == 0) break;
    if (length > static_cast<uint32_t>(file_size) || std::fseek(stream, static_cast<long>(length), SEEK_CUR) != 0) {
      return -1;
    }
    position += static_cast<long long>(length) + kRecordHeaderBytes;
    if (file_size <= position) return -1;
  }
  if (file_size < position + length || length != static_cast<uint32_t>(kAecFilterFilePayloadBytes)) return -1;

  for (int p = 0; p < kAecFilterFilePartitions; ++p) {
    unsigned char tap_bytes[kAecFilterFileTaps * 4];
    if (std::fread(tap_bytes, 1, sizeof(tap_bytes), stream) != sizeof(tap_bytes)) {
      ClearPlanes(wf_ini);
      return -1;
    }
    alignas(16) float work[kRdftLength] = {};
    for (int t = 0; t < kAecFilterFileTaps; ++t) work[t] = std::bit_cast<float>(LittleEndian32(tap_bytes + 4 * t));
    aec_rdft_forward_128(work);

    float* real = wf_ini[0] + p * kAecFilterPlaneBins;
    float* imag = wf_ini[1] + p * kAecFilterPlaneBins;
    real[0] += work[0];
    real[64] += work[1];
    for (int k = 1; k < 64; ++k) {
      real[k] += work[2 * k];
      imag[k] += work[2 * k + 1];
    }
  }
  return 0;
}

}  // namespace vorn
