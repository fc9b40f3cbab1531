// Fuzz target: the locator of a tagged coefficient block, Common_FilterRead.
//
// Input layout: one byte giving the tag length (0..11, so heads longer than
// a tag occur too), that many tag bytes, a 32-bit little-endian count of
// floats (any value, negative included), then the file. The tag is handed
// over in a buffer of exactly its length, without a terminator, so reading
// past it is caught.
//
// The verdict is checked against a model that walks the same blocks in
// memory: 8-byte tag, 32-bit little-endian length, data. The first block
// whose tag matches decides; a header must start strictly before the last
// byte of the file's final 12 to be looked at.
#include <cstring>
#include <vector>

#include "common/adsp_common_util.h"
#include "target_support.h"
#include "target_bodies.h"

namespace vorn::fuzz {
namespace {

constexpr int64_t kHeaderBytes = 12;

int ModelVerdict(const uint8_t* file, int64_t size, const char* head, int head_len,
                 int32_t data_len) {
  for (int64_t start = 0; start + kHeaderBytes < size;) {
    char tag[9] = {};
    std::memcpy(tag, file + start, 8);
    const uint8_t* len_bytes = file + start + 8;
    const uint32_t block_len = len_bytes[0] | (len_bytes[1] << 8) | (len_bytes[2] << 16) |
                               (static_cast<uint32_t>(len_bytes[3]) << 24);
    const int64_t data_start = start + kHeaderBytes;
    if (std::strncmp(head, tag, static_cast<size_t>(head_len)) == 0) {
      const bool fits = data_start + block_len <= size;
      return fits && static_cast<int64_t>(block_len) == static_cast<int64_t>(data_len) * 4 ? 0 : -1;
    }
    start = data_start + block_len;
  }
  return -1;
}

}  // namespace

bool FuzzFilterRead(const uint8_t* data, size_t size) {
  InputBytes input(data, size);
  const int head_len = input.Byte() % 12;
  const uint8_t* head_start = input.Take(static_cast<size_t>(head_len));
  const std::vector<char> head(head_start, input.rest());
  const int actual_head_len = static_cast<int>(head.size());
  const int32_t data_len = static_cast<int32_t>(input.Le32());

  const char* path = WriteScratchFile(input.rest(), input.rest_size());
  std::vector<char> path_copy(path, path + std::strlen(path) + 1);
  // The reader only validates, but it is given room for what it validates
  // (up to a bound) in case it ever starts copying.
  std::vector<float> filter(data_len > 0 && data_len < 4096 ? static_cast<size_t>(data_len) : 1);

  const int verdict = Common_FilterRead(path_copy.data(), filter.data(), data_len,
                                        actual_head_len > 0 ? head.data() : "", actual_head_len);
  VORN_FUZZ_CHECK(verdict == ModelVerdict(input.rest(), static_cast<int64_t>(input.rest_size()),
                                          actual_head_len > 0 ? head.data() : "",
                                          actual_head_len, data_len));
  return verdict == 0;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzFilterRead)
