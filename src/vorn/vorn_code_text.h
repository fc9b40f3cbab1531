// A return code with the sentence that explains it, and the lookup that both
// interfaces' code tables (the designed one and the modern one) share.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn {

struct CodeText {
  int32_t code;
  const char* text;
};

template <std::size_t N>
const char* TextOfCode(const CodeText (&table)[N], int32_t code, const char* unknown) {
  for (const CodeText& entry : table) {
    if (entry.code == code) return entry.text;
  }
  return unknown;
}

}  // namespace vorn
