// The RIFF/WAVE structure as every WAV reader of the tools sees it: the
// format chunk's fields, and a walk over the chunks in file order up to the
// audio that skips whatever else a writer put before it ("LIST", "fact",
// "bext", padding).
#pragma once

#include <cstdint>
#include <cstdio>

namespace vorn {

inline uint16_t Le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t Le32(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

// What a format chunk says (for raw input: what is assumed).
struct AudioFormat {
  int format_tag = 1;  // 1 PCM; the extensible form is resolved to its sub-format
  int channels = 0;
  int sample_rate = 16000;
  int byte_rate = 0;
  int block_align = 0;
  int bits = 16;
};

// The part of a format chunk the readers use: the plain 16 bytes, the
// extension size and the extensible form's fields up to its sub-format.
constexpr uint32_t kFormatBytesUsed = 40;

// Reads the fields of a format chunk of `size` bytes from its first
// min(size, kFormatBytesUsed) bytes. False when the chunk is shorter than
// the plain 16 bytes.
bool ParseFormatChunk(const unsigned char* bytes, uint32_t size, AudioFormat* format);

struct ChunkHeader {
  char id[4] = {};
  uint32_t size = 0;  // body bytes, not counting the pad byte of an odd size
};

// What a walk in file order found.
struct ChunkWalk {
  AudioFormat format;
  bool has_format = false;
  char format_id[4] = {};    // the identifier of the chunk taken as the format
  uint32_t format_size = 0;
  ChunkHeader last;          // the "data" chunk's header when the walk reached it
  uint64_t bytes_read = 0;   // from where the walk began, a partial last read included
};

// Reads chunks from the current position of `stream`, which is just past
// "RIFF", its size and "WAVE", until the header of the "data" chunk,
// leaving the stream at the first audio byte. The first "fmt " chunk before
// the audio is parsed; every other chunk is skipped by reading, never by
// seeking, so that a pipe works too. False when the stream ends first, or
// when a format chunk is too short to read.
bool WalkChunksToData(FILE* stream, ChunkWalk* walk);

}  // namespace vorn
