// WAV headers and channel splitting for the command-line tools.
//
// The reader walks the header field by field, keeping a running header
// length: the 36 bytes up to the bits per sample, the tail of an extended
// format chunk, an optional "fact" chunk, then the "data" identifier and its
// size. It accepts the file only when the RIFF size accounts for exactly
// that header plus the data, so any other chunk (a "LIST", a trailing tag)
// is refused rather than silently played as audio. Fields are assembled from
// little-endian bytes, so the files mean the same on any host.
#include "audio_io/audio_io.h"

#include <climits>
#include <cstring>

// getChannelK's argument check must hold in every build, optimised ones
// included: a wrong channel layout would otherwise scribble over memory.
#undef NDEBUG
#include <cassert>

namespace vorn {
namespace {

// Reads bytes of the header, adding them to the running length.
class HeaderReader {
 public:
  explicit HeaderReader(FILE* stream) : stream_(stream) {}

  bool Bytes(char* dst, size_t count) {
    const size_t got = std::fread(dst, 1, count, stream_);
    length_ += static_cast<int64_t>(got);
    return got == count;
  }
  bool Le16(int16_t* value) {
    unsigned char raw[2];
    if (!Bytes(reinterpret_cast<char*>(raw), sizeof(raw))) return false;
    *value = static_cast<int16_t>(raw[0] | (raw[1] << 8));
    return true;
  }
  bool Le32(uint32_t* value) {
    unsigned char raw[4];
    if (!Bytes(reinterpret_cast<char*>(raw), sizeof(raw))) return false;
    *value = static_cast<uint32_t>(raw[0]) | (static_cast<uint32_t>(raw[1]) << 8) |
             (static_cast<uint32_t>(raw[2]) << 16) | (static_cast<uint32_t>(raw[3]) << 24);
    return true;
  }
  bool Le32(int32_t* value) {
    uint32_t bits = 0;
    if (!Le32(&bits)) return false;
    *value = static_cast<int32_t>(bits);
    return true;
  }
  // Skips one byte at a time, so a stream that cannot seek (a pipe) works too.
  bool Skip(int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
      if (std::fgetc(stream_) == EOF) return false;
      ++length_;
    }
    return true;
  }
  int64_t length() const { return length_; }

 private:
  FILE* stream_;
  int64_t length_ = 0;
};

bool IsId(const char (&id)[4], const char* want) {
  return std::memcmp(id, want, 4) == 0;
}

// Reads the whole header; false when the stream ended inside it.
bool ReadHeaderFields(HeaderReader& in, hdr_t* h) {
  if (!(in.Bytes(h->riff, 4) && in.Le32(&h->totsize) && in.Bytes(h->wave, 4) &&
        in.Bytes(h->fmtstr, 4) && in.Le32(&h->dum1) && in.Le16(&h->dum2) &&
        in.Le16(&h->numchans) && in.Le32(&h->Fs) && in.Le32(&h->nbytespersec) &&
        in.Le16(&h->nbytespersample) && in.Le16(&h->nbitspersample))) {
    return false;
  }
  // An extended format chunk (18 bytes with its extension size, 40 for the
  // extensible format) carries nothing the tools use.
  if (!in.Skip(static_cast<int64_t>(h->dum1) - 16)) return false;
  if (!in.Bytes(h->data, 4)) return false;
  if (IsId(h->data, "fact")) {
    // Size word and the 4-byte sample count of a compressed-format leftover.
    if (!in.Skip(8) || !in.Bytes(h->data, 4)) return false;
  }
  return in.Le32(&h->datsize);
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
  HeaderReader in(stream);
  const bool complete = ReadHeaderFields(in, wave_head);
  const int64_t header_len = in.length();
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

hdr_t mono_wave_header(int input_data_bytes) {
  hdr_t header{};
  const uint32_t data_bytes = input_data_bytes > 0 ? static_cast<uint32_t>(input_data_bytes / 3) : 0;
  std::memcpy(header.riff, "RIFF", 4);
  header.totsize = static_cast<int32_t>(data_bytes + 36);
  std::memcpy(header.wave, "WAVE", 4);
  std::memcpy(header.fmtstr, "fmt ", 4);
  header.dum1 = 16;
  header.dum2 = 1;
  header.numchans = 1;
  header.Fs = 16000;
  header.nbytespersec = 32000;
  header.nbytespersample = 2;
  header.nbitspersample = 16;
  std::memcpy(header.data, "data", 4);
  header.datsize = data_bytes;
  return header;
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
