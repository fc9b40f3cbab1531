// Fuzz target: the driver's list-file reader, fed the input as the list.
//
// Every entry must be what the reader promises: two names (the second
// possibly empty) that lie inside the line buffer, hold no separator or
// newline, and appear in the line in order. The reader must stop, whatever
// the lines (long lines are read in pieces), and a line with more than two
// names must be the one that stops it.
#include <cstring>

#include "target_bodies.h"
#include "target_support.h"
#include "test_vorn_3mic_stdin_stdout/list_file.h"

namespace vorn::fuzz {
namespace {

// A carriage return is only cut where it ends a line: "a\r\tb" names "a\r".
bool IsName(const char* name) { return *name != '\0' && std::strpbrk(name, " \t\n") == nullptr; }

}  // namespace

bool FuzzListFile(const uint8_t* data, size_t size) {
  FILE* list = std::fopen(WriteScratchFile(data, size), "rb");
  VORN_FUZZ_CHECK(list != nullptr);
  static char line[tool::kListLineLen + 1];
  const char* const line_end = line + sizeof line;
  size_t pairs = 0;
  tool::ListEntry kind = tool::ListEntry::kPair;
  // Each entry takes at least one byte of the input, so the reader must have
  // stopped within size + 1 entries.
  for (size_t entry = 0; entry <= size && kind == tool::ListEntry::kPair; ++entry) {
    const char* in = nullptr;
    const char* out = nullptr;
    kind = tool::NextListEntry(list, line, &in, &out);
    if (kind != tool::ListEntry::kPair) break;
    VORN_FUZZ_CHECK(in >= line && in < line_end && IsName(in));
    if (*out != '\0') {
      VORN_FUZZ_CHECK(out > in + std::strlen(in) && out < line_end && IsName(out));
    }
    ++pairs;
  }
  std::fclose(list);
  VORN_FUZZ_CHECK(kind != tool::ListEntry::kPair);
  return kind == tool::ListEntry::kEnd && pairs > 0;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzListFile)
