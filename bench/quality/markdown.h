// Table cells of the bench's Markdown sections.
#pragma once

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

namespace vorn::bench {

// Appends " text |" to a table row.
inline void AddCell(std::string& row, const std::string& text) { row.append(" ").append(text).append(" |"); }

inline std::string Fixed(double value, int decimals = 1) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, value);
  return text;
}

// A figure, or a dash where there is none (NaN).
inline std::string Cell(double value, int decimals = 1) { return std::isnan(value) ? "–" : Fixed(value, decimals); }

// Writes a section's text to `path`; false with a message when it cannot.
inline bool WriteSection(const std::filesystem::path& path, const std::string& md, std::string* error) {
  std::FILE* file = std::fopen(path.c_str(), "w");
  if (file == nullptr) {
    *error = "cannot write " + path.string();
    return false;
  }
  const bool written = std::fputs(md.c_str(), file) >= 0;
  if (std::fclose(file) != 0 || !written) {
    *error = "cannot write " + path.string();
    return false;
  }
  return true;
}

}  // namespace vorn::bench
