// WAV headers and channel splitting for the command-line tools.
//
// The header reader walks the chunks in file order with the tools' one chunk
// walker (wav_chunks.h), so a "LIST", "fact" or any other chunk before the
// audio is skipped, and fills the canonical header record from what it
// found. It accepts the file only when the RIFF size accounts for exactly
// that header plus the data: the old tool reads audio up to the end of the
// file, so a chunk after the audio would be played as sound, and such a file
// is refused rather than silently mangled.
#include "audio_io/audio_io.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "audio_io/wav_chunks.h"

// getChannelK's argument check must hold in every build, optimised ones
// included: a wrong channel layout would otherwise scribble over memory.
#undef NDEBUG
#include <cassert>

namespace vorn {
namespace {

bool IsId(const char (&id)[4], const char* want) {
  return std::memcmp(id, want, 4) == 0;
}

// Reads the RIFF header and walks to the audio, filling `h` with whatever
// was read; returns the bytes read and whether the walk reached the data.
int64_t ReadHeader(FILE* stream, hdr_t* h, bool* complete) {
  unsigned char riff[12] = {};
  const size_t got = std::fread(riff, 1, sizeof riff, stream);
  std::memcpy(h->riff, riff, std::min<size_t>(got, 4));
  if (got >= 8) h->totsize = static_cast<int32_t>(Le32(riff + 4));
  if (got > 8) std::memcpy(h->wave, riff + 8, got - 8);
  ChunkWalk walk;
  *complete = got == sizeof riff && WalkChunksToData(stream, &walk) && walk.has_format;
  if (walk.has_format) {
    std::memcpy(h->fmtstr, walk.format_id, 4);
    h->dum1 = static_cast<int32_t>(walk.format_size);
    h->dum2 = static_cast<int16_t>(walk.format.format_tag);
    h->numchans = static_cast<int16_t>(walk.format.channels);
    h->Fs = walk.format.sample_rate;
    h->nbytespersec = walk.format.byte_rate;
    h->nbytespersample = static_cast<int16_t>(walk.format.block_align);
    h->nbitspersample = static_cast<int16_t>(walk.format.bits);
  }
  std::memcpy(h->data, walk.last.id, 4);
  h->datsize = walk.last.size;
  return static_cast<int64_t>(got) + static_cast<int64_t>(walk.bytes_read);
}

// Length of a file opened for reading, or -1 when it cannot be told. Files
// beyond 2 GiB report INT_MAX, which the callers treat as "unbounded".
int FileLength(FILE* stream) {
  if (std::fseek(stream, 0, SEEK_END) != 0) return -1;
  const long length = std::ftell(stream);
  if (std::fseek(stream, 0, SEEK_SET) != 0) return -1;
  if (length < 0) return -1;
  return length > INT_MAX ? INT_MAX : static_cast<int>(length);
}

// An identifier as printable text (the header's are not terminated).
struct IdText {
  explicit IdText(const char (&id)[4]) { std::memcpy(text, id, 4); }
  char text[5] = {};
};

}  // namespace

int32_t sig_wave_stream_init(hdr_t* wave_head, const char* filename, FILE** fn, int* flen) {
  if (wave_head == nullptr || fn == nullptr || flen == nullptr) return -1;
  const char* name = (filename != nullptr) ? filename : "(null)";
  FILE* stream = *fn;
  const bool opened_here = (stream == nullptr);
  if (opened_here) {
    stream = (filename != nullptr) ? std::fopen(filename, "rb") : nullptr;
    if (stream == nullptr) {
      std::fprintf(stderr, "sig_wave_stream_init(): cannot open file %s\n", name);
      return -1;
    }
    *flen = FileLength(stream);
  }

  *wave_head = hdr_t{};
  bool complete = false;
  const int64_t header_len = ReadHeader(stream, wave_head, &complete);
  *flen = static_cast<int>(static_cast<int64_t>(*flen) - header_len);

  // The RIFF size must cover exactly this header (less its first 8 bytes)
  // and the data; the arithmetic is modulo 2^32 like the 32-bit fields.
  const uint32_t riff_minus_data = static_cast<uint32_t>(wave_head->totsize) - wave_head->datsize;
  const bool is_wave = complete && header_len <= INT32_MAX && IsId(wave_head->riff, "RIFF") &&
                       IsId(wave_head->wave, "WAVE") && IsId(wave_head->data, "data") &&
                       riff_minus_data == static_cast<uint32_t>(header_len - 8);
  if (!is_wave) {
    std::fprintf(stderr, "sig_wave_stream_init(): stream %s is not a WAVE format\n", name);
    std::fprintf(stderr, "%s %s %s %d(%d - %d) == %d\n", IdText(wave_head->riff).text,
                 IdText(wave_head->wave).text, IdText(wave_head->data).text,
                 static_cast<int32_t>(riff_minus_data), wave_head->totsize,
                 static_cast<int32_t>(wave_head->datsize), static_cast<int32_t>(header_len));
    std::fclose(stream);
    // The caller's variable must not keep a closed stream it would close again.
    *fn = nullptr;
    return -1;
  }

  if (opened_here) {
    if (static_cast<int64_t>(*flen) < static_cast<int64_t>(wave_head->datsize)) {
      std::fprintf(stderr, "sig_wave_stream_init(): stream %s datsize error \n", name);
      std::fclose(stream);
      return -1;
    }
    if (static_cast<int64_t>(*flen) > static_cast<int64_t>(wave_head->datsize)) {
      std::fprintf(stderr, "%s contain extra information!\n", name);
    }
  }
  *fn = stream;
  return static_cast<int32_t>(header_len);
}

hdr_t pcm_wave_header(int channels, int sample_rate, uint64_t data_bytes) {
  hdr_t header{};
  std::memcpy(header.riff, "RIFF", 4);
  std::memcpy(header.wave, "WAVE", 4);
  std::memcpy(header.fmtstr, "fmt ", 4);
  std::memcpy(header.data, "data", 4);
  header.dum1 = 16;
  header.dum2 = 1;
  header.numchans = static_cast<int16_t>(channels);
  header.Fs = sample_rate;
  header.nbytespersec = sample_rate * 2 * channels;
  header.nbytespersample = static_cast<int16_t>(2 * channels);
  header.nbitspersample = 16;
  const uint64_t capped = std::min<uint64_t>(data_bytes, 0xFFFFFFFFull - 36);
  header.datsize = static_cast<uint32_t>(capped);
  header.totsize = static_cast<int32_t>(static_cast<uint32_t>(capped + 36));
  return header;
}

hdr_t mono_wave_header(int input_data_bytes) {
  return pcm_wave_header(1, 16000, input_data_bytes > 0 ? static_cast<uint64_t>(input_data_bytes / 3) : 0);
}

int write_wave_header(const hdr_t& header, FILE* out) {
  unsigned char bytes[kWaveHeaderBytes];
  unsigned char* cursor = bytes;
  const auto put_id = [&cursor](const char (&id)[4]) {
    std::memcpy(cursor, id, 4);
    cursor += 4;
  };
  const auto put_le = [&cursor](uint32_t value, int count) {
    for (int i = 0; i < count; ++i) *cursor++ = static_cast<unsigned char>(value >> (8 * i));
  };
  put_id(header.riff);
  put_le(static_cast<uint32_t>(header.totsize), 4);
  put_id(header.wave);
  put_id(header.fmtstr);
  put_le(static_cast<uint32_t>(header.dum1), 4);
  put_le(static_cast<uint16_t>(header.dum2), 2);
  put_le(static_cast<uint16_t>(header.numchans), 2);
  put_le(static_cast<uint32_t>(header.Fs), 4);
  put_le(static_cast<uint32_t>(header.nbytespersec), 4);
  put_le(static_cast<uint16_t>(header.nbytespersample), 2);
  put_le(static_cast<uint16_t>(header.nbitspersample), 2);
  put_id(header.data);
  put_le(header.datsize, 4);
  if (out == nullptr) return -1;
  return std::fwrite(bytes, 1, sizeof(bytes), out) == sizeof(bytes) ? 0 : -1;
}

void getChannelK(const short* data, short* in_data, short* ref_data, int lenOne, int numMic, int k) {
  assert(numMic > 1 && k > -1 && k < numMic && ((void *)0) != data);
  int in_index = 0;
  for (int i = 0; i < lenOne; ++i) {
    for (int channel = 0; channel < numMic; ++channel) {
      const short sample = data[static_cast<size_t>(i) * numMic + channel];
      if (channel == k) {
        if (ref_data != nullptr) ref_data[i] = sample;
      } else if (in_data != nullptr) {
        in_data[in_index++] = sample;
      }
    }
  }
}

}  // namespace vorn
