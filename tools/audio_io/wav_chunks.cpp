// Chunk walking for the WAV readers. A RIFF file is a list of chunks, each
// an identifier, a 32-bit little-endian size and the body, padded to an even
// length. Fields are assembled from bytes, so files mean the same on any host.
#include "audio_io/wav_chunks.h"

#include <algorithm>
#include <cstring>

namespace vorn {
namespace {

constexpr int kFormatExtensible = 0xFFFE;

class Reader {
 public:
  Reader(FILE* stream, uint64_t* count) : stream_(stream), count_(count) {}
  bool Bytes(void* dst, size_t n) {
    const size_t got = std::fread(dst, 1, n, stream_);
    *count_ += got;
    return got == n;
  }
  // One byte at a time: a stream that cannot seek (a pipe) is skipped too.
  bool Skip(uint64_t n) {
    for (uint64_t i = 0; i < n; ++i) {
      if (std::fgetc(stream_) == EOF) return false;
      ++*count_;
    }
    return true;
  }

 private:
  FILE* stream_;
  uint64_t* count_;
};

}  // namespace

bool ParseFormatChunk(const unsigned char* bytes, uint32_t size, AudioFormat* format) {
  if (size < 16) return false;
  format->format_tag = Le16(bytes);
  format->channels = Le16(bytes + 2);
  format->sample_rate = static_cast<int>(Le32(bytes + 4));
  format->byte_rate = static_cast<int>(Le32(bytes + 8));
  format->block_align = Le16(bytes + 12);
  format->bits = Le16(bytes + 14);
  // The extensible form names its real coding by the first two bytes of the
  // sub-format GUID.
  if (format->format_tag == kFormatExtensible && size >= 26) format->format_tag = Le16(bytes + 24);
  return true;
}

bool WalkChunksToData(FILE* stream, ChunkWalk* walk) {
  Reader in(stream, &walk->bytes_read);
  for (;;) {
    unsigned char header[8];
    const uint64_t before = walk->bytes_read;
    const bool whole = in.Bytes(header, sizeof header);
    // A header cut short still shows what it held.
    std::memcpy(walk->last.id, header, static_cast<size_t>(std::min<uint64_t>(walk->bytes_read - before, 4)));
    if (!whole) return false;
    walk->last.size = Le32(header + 4);
    const uint32_t size = walk->last.size;
    if (std::memcmp(header, "data", 4) == 0) return true;
    uint64_t rest = static_cast<uint64_t>(size) + (size & 1u);
    if (std::memcmp(header, "fmt ", 4) == 0 && !walk->has_format) {
      unsigned char body[kFormatBytesUsed] = {};
      const uint32_t used = std::min(size, kFormatBytesUsed);
      if (!in.Bytes(body, used) || !ParseFormatChunk(body, size, &walk->format)) return false;
      walk->has_format = true;
      std::memcpy(walk->format_id, header, 4);
      walk->format_size = size;
      rest -= used;
    }
    if (!in.Skip(rest)) return false;
  }
}

}  // namespace vorn
