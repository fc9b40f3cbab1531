#include "support/wav_file.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace vorn::test {
namespace {

void PutU32(std::string& s, std::uint32_t v) {
  for (int i = 0; i < 4; ++i) s.push_back(static_cast<char>((v >> (8 * i)) & 0xff));
}
void PutU16(std::string& s, std::uint16_t v) {
  s.push_back(static_cast<char>(v & 0xff));
  s.push_back(static_cast<char>(v >> 8));
}
std::uint32_t GetU32(const std::string& s, std::size_t at) {
  std::uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(s[at + static_cast<std::size_t>(i)]);
  return v;
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

bool WriteWav(const std::string& path, const std::vector<std::int16_t>& interleaved, int channels,
              int sample_rate) {
  const auto data_bytes = static_cast<std::uint32_t>(interleaved.size() * 2);
  std::string s = "RIFF";
  PutU32(s, data_bytes + 36);
  s += "WAVEfmt ";
  PutU32(s, 16);
  PutU16(s, 1);
  PutU16(s, static_cast<std::uint16_t>(channels));
  PutU32(s, static_cast<std::uint32_t>(sample_rate));
  PutU32(s, static_cast<std::uint32_t>(sample_rate * channels * 2));
  PutU16(s, static_cast<std::uint16_t>(channels * 2));
  PutU16(s, 16);
  s += "data";
  PutU32(s, data_bytes);
  for (std::int16_t v : interleaved) PutU16(s, static_cast<std::uint16_t>(v));
  return WriteBytes(path, s);
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

bool ReadWav(const std::string& path, WavData* out) {
  const std::string s = ReadText(path);
  if (s.size() < 44 || s.compare(0, 4, "RIFF") != 0 || s.compare(8, 8, "WAVEfmt ") != 0) return false;
  const std::uint32_t fmt_len = GetU32(s, 16);
  const std::size_t data_at = 20 + fmt_len;
  if (s.size() < data_at + 8 || s.compare(data_at, 4, "data") != 0) return false;
  out->channels = GetU16(s, 22);
  out->sample_rate = static_cast<int>(GetU32(s, 24));
  const std::size_t begin = data_at + 8;
  const std::size_t count = (s.size() - begin) / 2;
  out->samples.resize(count);
  for (std::size_t i = 0; i < count; ++i) out->samples[i] = static_cast<std::int16_t>(GetU16(s, begin + 2 * i));
  return true;
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
