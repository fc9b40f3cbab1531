// Fuzz target: the configuration reader, fed the input as the file.
//
// Besides memory safety (the scratch area is allocated at exactly its size,
// so a write past it is caught) the reader must not care where its
// 1024-byte window happens to cut the file. The input is therefore parsed a
// second time behind a comment line of an input-dependent length, closed by
// LF CR so that the input's first byte starts a fresh line exactly as at the
// start of a file; the three result records must come out byte for byte the
// same, and so must the profile the file asks for and the number of warnings.
// Read as text from memory instead of from a file (when it holds no NUL, which
// ends a text), the input must give the same results and the same warnings.
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
  int32_t rc;
  int32_t profile;
  int32_t warnings;
};

ParsedKeys ParseFrom(const ConfSource& source, ConfWarnings* warnings) {
  std::vector<char> area(sizeof(ini_read_t));
  VORN_FUZZ_CHECK(LoadConfFileInit(area.data(), static_cast<int>(area.size())) == 0);
  FrontEndConf front_end;
  ParsedKeys parsed{};
  parsed.rc = LoadConf(source, area.data(), &front_end, warnings);
  VORN_FUZZ_CHECK(parsed.rc == 0 || parsed.rc == -2);
  std::memcpy(parsed.key, area.data() + offsetof(ini_read_t, tKey), sizeof(parsed.key));
  for (const T_VornKey& mode : parsed.key) {
    VORN_FUZZ_CHECK(std::memchr(mode.preaec_filter_path, '\0', sizeof(mode.preaec_filter_path)) !=
                    nullptr);
  }
  parsed.profile = front_end.profile;
  VORN_FUZZ_CHECK(parsed.profile >= kConfProfileAbsent && parsed.profile <= 1);
  parsed.warnings = warnings->count;
  VORN_FUZZ_CHECK(std::memchr(warnings->text, '\0', sizeof(warnings->text)) != nullptr);
  return parsed;
}

ParsedKeys Parse(const uint8_t* data, size_t size) {
  const char* path = WriteScratchFile(data, size);
  ConfWarnings from_file;
  const ParsedKeys parsed = ParseFrom(ConfSource{path, nullptr}, &from_file);
  if (std::memchr(data, '\0', size) == nullptr) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    ConfWarnings from_text;
    const ParsedKeys again = ParseFrom(ConfSource{nullptr, text.c_str()}, &from_text);
    VORN_FUZZ_CHECK(std::memcmp(&parsed, &again, sizeof(parsed)) == 0);
    VORN_FUZZ_CHECK(std::strcmp(from_file.text, from_text.text) == 0);
  }
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

  static const ParsedKeys kUntouched{{}, 0, kConfProfileAbsent, 0};
  return std::memcmp(&plain, &kUntouched, sizeof(plain)) != 0;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzConfRead)
