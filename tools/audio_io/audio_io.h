// The old command-line tool's audio files: the canonical 44-byte WAV header
// record, the header reader with its checks and messages, the header written
// for a mono 16 kHz result, and the splitter that separates one channel from
// interleaved audio. The header record and its writer serve every WAV the
// tools write.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace vorn {

// The canonical WAV header, little-endian, in file order.
struct hdr_t {
  char riff[4];             // "RIFF"
  int32_t totsize;          // file length - 8
  char wave[4];             // "WAVE"
  char fmtstr[4];           // "fmt "
  int32_t dum1;             // format chunk size, 16 for plain PCM
  int16_t dum2;             // format tag, 1 = PCM
  int16_t numchans;         // channels
  int32_t Fs;               // sample rate
  int32_t nbytespersec;     // byte rate
  int16_t nbytespersample;  // block alignment (bytes per sample frame)
  int16_t nbitspersample;   // bits per sample
  char data[4];             // "data"
  uint32_t datsize;         // audio bytes
};
static_assert(offsetof(hdr_t, totsize) == 4);
static_assert(offsetof(hdr_t, wave) == 8);
static_assert(offsetof(hdr_t, fmtstr) == 12);
static_assert(offsetof(hdr_t, dum1) == 16);
static_assert(offsetof(hdr_t, dum2) == 20);
static_assert(offsetof(hdr_t, numchans) == 22);
static_assert(offsetof(hdr_t, Fs) == 24);
static_assert(offsetof(hdr_t, nbytespersec) == 28);
static_assert(offsetof(hdr_t, nbytespersample) == 32);
static_assert(offsetof(hdr_t, nbitspersample) == 34);
static_assert(offsetof(hdr_t, data) == 36);
static_assert(offsetof(hdr_t, datsize) == 40);
static_assert(sizeof(hdr_t) == 44, "the canonical WAV header is 44 bytes");

constexpr int kWaveHeaderBytes = 44;

// Reads a WAV header into `*wave_head`. When `*fn` already holds a stream
// (standard input, say) the header is read from it and `*flen` is taken as
// the caller set it; otherwise `filename` is opened and `*flen` set to the
// file's length. Chunks before the audio other than the format ("LIST",
// "fact", ...) are skipped; the RIFF size must account for the header and
// the data alone. Returns the header length (>= 44: the offset of the first
// audio byte) with the stream left there in `*fn` and the header length
// subtracted from `*flen`, or -1 after a message on standard error, with the
// stream closed and `*fn` null. The format fields are not judged here.
int32_t sig_wave_stream_init(hdr_t* wave_head, const char* filename, FILE** fn, int* flen);

// The canonical header of 16-bit PCM: `channels` at `sample_rate` with
// `data_bytes` of audio. Past 4 GiB the sizes cannot be told and stop at
// their largest value; players read such files to the end.
hdr_t pcm_wave_header(int channels, int sample_rate, uint64_t data_bytes);

// The header of a mono 16 kHz 16-bit result made from `input_data_bytes`
// bytes of three-channel input: data size = input bytes / 3.
hdr_t mono_wave_header(int input_data_bytes);

// Writes `header` (44 bytes); returns 0, or -1 when the write fell short.
int write_wave_header(const hdr_t& header, FILE* out);

// Splits `lenOne` sample frames of `numMic` interleaved channels: channel
// `k` goes to `ref_data`, the others, in channel order and interleaved, to
// `in_data`; either destination may be null. Aborts the process on
// arguments that cannot describe interleaved audio.
void getChannelK(const short* data, short* in_data, short* ref_data, int lenOne, int numMic, int k);

}  // namespace vorn
