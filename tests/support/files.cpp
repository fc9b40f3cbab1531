#include "support/files.h"

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace vorn::test {
namespace {

void PutU16(std::string& s, std::uint16_t v) {
  s.push_back(static_cast<char>(v & 0xff));
  s.push_back(static_cast<char>(v >> 8));
}
std::uint16_t GetU16(const std::string& s, std::size_t at) {
  return static_cast<std::uint16_t>(static_cast<unsigned char>(s[at]) |
                                    (static_cast<unsigned char>(s[at + 1]) << 8));
}

}  // namespace

bool WriteBytes(const std::string& path, const std::string& bytes) {
  std::ofstream f(path, std::ios::binary);
  f.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(f);
}

bool WriteRaw(const std::string& path, const std::vector<std::int16_t>& samples) {
  std::string s;
  for (std::int16_t v : samples) PutU16(s, static_cast<std::uint16_t>(v));
  return WriteBytes(path, s);
}

std::string ReadText(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

std::vector<std::int16_t> ReadRaw(const std::string& path) {
  const std::string s = ReadText(path);
  std::vector<std::int16_t> v(s.size() / 2);
  for (std::size_t i = 0; i < v.size(); ++i) v[i] = static_cast<std::int16_t>(GetU16(s, 2 * i));
  return v;
}

std::string MakeTempDir(const std::string& tag) {
  std::random_device rd;
  const auto base = std::filesystem::temp_directory_path();
  for (;;) {
    const auto dir = base / ("vorn_" + tag + "_" + std::to_string(rd()));
    if (std::filesystem::create_directory(dir)) return dir.string();
  }
}

}  // namespace vorn::test
