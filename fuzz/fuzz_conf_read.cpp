// Fuzz target: the configuration reader, fed the input as the file.
//
// Besides memory safety (the scratch area is allocated at exactly its size,
// so a write past it is caught) the reader must not care where its
// 1024-byte window happens to cut the file. The input is therefore parsed a
// second time behind a comment line of an input-dependent length, closed by
// LF CR so that the input's first byte starts a fresh line exactly as at the
// start of a file; the three result records must come out byte for byte the
// same, and so must the profile the file asks for.
#include <cstring>
#include <string>
#include <vector>

#include "conf_read/conf_read.h"
#include "target_support.h"
#include "target_bodies.h"

namespace vorn::fuzz {
namespace {

struct ParsedKeys {
  T_VornKey key[3];
  int32_t profile_rc;
  int32_t profile;
};

ParsedKeys Parse(const uint8_t* data, size_t size) {
  const char* path = WriteScratchFile(data, size);
  std::vector<char> area(sizeof(ini_read_t));
  VORN_FUZZ_CHECK(LoadConfFileInit(area.data(), static_cast<int>(area.size())) == 0);
  T_VornKey* keys = nullptr;
  VORN_FUZZ_CHECK(LoadConfFileProc(path, area.data(), &keys) == 0);
  VORN_FUZZ_CHECK(reinterpret_cast<char*>(keys) == area.data() + offsetof(ini_read_t, tKey));
  ParsedKeys parsed;
  std::memcpy(parsed.key, keys, sizeof(parsed.key));
  for (const T_VornKey& mode : parsed.key) {
    VORN_FUZZ_CHECK(std::memchr(mode.preaec_filter_path, '\0', sizeof(mode.preaec_filter_path)) !=
                    nullptr);
  }
  // The profile pass shares the scratch area's text buffers, never its results.
  parsed.profile_rc = LoadConfFileProfile(path, area.data(), &parsed.profile);
  VORN_FUZZ_CHECK(parsed.profile_rc == 0 || parsed.profile_rc == -2);
  VORN_FUZZ_CHECK(parsed.profile >= kConfProfileAbsent && parsed.profile <= 1);
  VORN_FUZZ_CHECK(std::memcmp(parsed.key, area.data() + offsetof(ini_read_t, tKey), sizeof(parsed.key)) == 0);
  return parsed;
}

}  // namespace

bool FuzzConfRead(const uint8_t* data, size_t size) {
  const ParsedKeys plain = Parse(data, size);

  // Any shift of the window boundaries will do; deriving it from the input
  // lets the fuzzer steer it.
  size_t shift = 0;
  for (size_t i = 0; i < size; ++i) shift = shift * 31 + data[i];
  std::string shifted(1 + shift % (2 * kIniWindowBytes), 'x');
  shifted[0] = '#';
  shifted += "\n\r";
  shifted.append(reinterpret_cast<const char*>(data), size);
  const ParsedKeys behind_comment =
      Parse(reinterpret_cast<const uint8_t*>(shifted.data()), shifted.size());
  VORN_FUZZ_CHECK(std::memcmp(&plain, &behind_comment, sizeof(plain)) == 0);

  static const ParsedKeys kUntouched{{}, 0, kConfProfileAbsent};
  return std::memcmp(&plain, &kUntouched, sizeof(plain)) != 0;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzConfRead)
