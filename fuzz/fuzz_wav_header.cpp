// Fuzz target: the tools' WAV header reader, fed the input as the file.
//
// The header is read twice: by file name, and from a stream the caller has
// already opened (the way standard input is read). Both must give the same
// header and remaining length, and the same verdict except for one case:
// only a file opened by name knows its length, so only it refuses a data size
// beyond the end of the file. An accepted header leaves the stream exactly at
// the first audio byte, a refused one closes the stream (a leak would show in
// the leak checker).
#include <cstring>

#include "audio_io/audio_io.h"
#include "target_support.h"
#include "target_bodies.h"

namespace vorn::fuzz {
namespace {

struct Verdict {
  int32_t header_len;
  int remaining;
  hdr_t header;
};

Verdict Read(const char* path, FILE* open_stream, int stream_len) {
  Verdict v{};
  FILE* stream = open_stream;
  v.remaining = stream_len;
  v.header_len = sig_wave_stream_init(&v.header, path, &stream, &v.remaining);
  if (v.header_len < 0) {
    VORN_FUZZ_CHECK(v.header_len == -1);
    VORN_FUZZ_CHECK(stream == nullptr);
    return v;
  }
  VORN_FUZZ_CHECK(v.header_len >= kWaveHeaderBytes);
  VORN_FUZZ_CHECK(stream != nullptr);
  VORN_FUZZ_CHECK(std::ftell(stream) == v.header_len);
  VORN_FUZZ_CHECK(std::memcmp(v.header.riff, "RIFF", 4) == 0);
  VORN_FUZZ_CHECK(std::memcmp(v.header.wave, "WAVE", 4) == 0);
  VORN_FUZZ_CHECK(std::memcmp(v.header.data, "data", 4) == 0);
  std::fclose(stream);
  return v;
}

}  // namespace

bool FuzzWavHeader(const uint8_t* data, size_t size) {
  const char* path = WriteScratchFile(data, size);
  const Verdict by_name = Read(path, nullptr, 0);
  if (by_name.header_len >= 0) {
    VORN_FUZZ_CHECK(static_cast<size_t>(by_name.remaining) + static_cast<size_t>(by_name.header_len) ==
                    size);
  }

  FILE* stream = std::fopen(path, "rb");
  VORN_FUZZ_CHECK(stream != nullptr);
  const Verdict from_stream = Read(nullptr, stream, static_cast<int>(size));
  VORN_FUZZ_CHECK(from_stream.remaining == by_name.remaining);
  VORN_FUZZ_CHECK(std::memcmp(&from_stream.header, &by_name.header, sizeof(hdr_t)) == 0);
  const bool data_fits = from_stream.remaining >= static_cast<int64_t>(from_stream.header.datsize);
  if (from_stream.header_len >= 0 && !data_fits) {
    VORN_FUZZ_CHECK(by_name.header_len == -1);
  } else {
    VORN_FUZZ_CHECK(from_stream.header_len == by_name.header_len);
  }
  return by_name.header_len >= 0;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzWavHeader)
