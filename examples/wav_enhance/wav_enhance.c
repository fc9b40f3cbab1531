/*
 * wav_enhance: a first Vorn integration, in C99. Reads a capture of the three
 * microphones and the loudspeaker reference (a 4-channel 16 kHz 16-bit PCM
 * WAV, the reference last), runs it through the front end one 16 ms frame at
 * a time and writes the enhanced mono WAV, as long as the capture.
 *
 *   wav_enhance [--profile enhanced|classic] [--mode wakeup|asr|comm] [--config FILE] IN.wav OUT.wav
 *
 * The configuration file gives each operating mode's switches. The echo
 * canceller works only if the mode has it on when VornInit runs, so a capture
 * with a reference wants a configuration that switches it on, such as
 * vorn.conf beside this file. `vorn process` with the same file, mode and
 * profile writes the same audio.
 */
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "vorn_proc.h"

enum { kFrame = 256, kMics = 3, kChannels = 4, kRate = 16000 };

/* VornInit refuses a state buffer under 1,000,000 bytes. Any alignment. */
static unsigned char state[1000000];

static unsigned read_le16(const unsigned char* p) { return (unsigned)p[0] | (unsigned)p[1] << 8; }

static uint32_t read_le32(const unsigned char* p) { return (uint32_t)read_le16(p) | (uint32_t)read_le16(p + 2) << 16; }

static void write_le16(unsigned char* p, unsigned v) {
  p[0] = (unsigned char)(v & 0xFF);
  p[1] = (unsigned char)(v >> 8 & 0xFF);
}

static void write_le32(unsigned char* p, uint32_t v) {
  write_le16(p, (unsigned)(v & 0xFFFF));
  write_le16(p + 2, (unsigned)(v >> 16));
}

static short sample_at(const unsigned char* p) {
  long v = (long)read_le16(p);
  return (short)(v >= 32768 ? v - 65536 : v);
}

static int skip_bytes(FILE* f, uint32_t count) {
  unsigned char sink[512];
  while (count > 0) {
    size_t step = count < sizeof sink ? count : sizeof sink;
    if (fread(sink, 1, step, f) != step) return 0;
    count -= (uint32_t)step;
  }
  return 1;
}

/* Reads the header up to the audio: checks the format and gives the size of
 * the data chunk. Chunks other than "fmt " and "data" (LIST, fact, ...) are
 * skipped, with the pad byte that follows a chunk of odd size. Returns NULL
 * when the capture is usable, otherwise what is wrong with it. */
static const char* read_wav_header(FILE* f, uint32_t* data_bytes) {
  unsigned char head[40];
  int have_format = 0;
  if (fread(head, 1, 12, f) != 12 || memcmp(head, "RIFF", 4) != 0 || memcmp(head + 8, "WAVE", 4) != 0)
    return "not a RIFF/WAVE file";
  for (;;) {
    uint32_t size;
    if (fread(head, 1, 8, f) != 8) return "no data chunk";
    size = read_le32(head + 4);
    if (memcmp(head, "fmt ", 4) == 0) {
      unsigned tag;
      uint32_t kept = size < sizeof head ? size : (uint32_t)sizeof head;
      if (size < 16 || fread(head, 1, kept, f) != kept) return "short format chunk";
      tag = read_le16(head);
      /* WAVE_FORMAT_EXTENSIBLE names its sample format in a GUID whose first two bytes are the plain tag. */
      if (tag == 0xFFFE && kept >= 26) tag = read_le16(head + 24);
      if (tag != 1 || read_le16(head + 2) != kChannels || read_le32(head + 4) != kRate ||
          read_le16(head + 14) != 16 || read_le16(head + 12) != 2 * kChannels)
        return "not 16 kHz 16-bit PCM with 4 channels (three microphones and the reference)";
      if (!skip_bytes(f, size - kept + (size & 1))) return "short format chunk";
      have_format = 1;
    } else if (memcmp(head, "data", 4) == 0) {
      if (!have_format) return "data before the format chunk";
      *data_bytes = size;
      return NULL;
    } else if (!skip_bytes(f, size + (size & 1))) {
      return "no data chunk";
    }
  }
}

/* The canonical 44-byte header of a mono 16 kHz 16-bit PCM WAV. */
static int write_wav_header(FILE* f, uint32_t samples) {
  unsigned char h[44];
  memcpy(h, "RIFF", 4);
  write_le32(h + 4, 36 + 2 * samples);
  memcpy(h + 8, "WAVEfmt ", 8);
  write_le32(h + 16, 16);
  write_le16(h + 20, 1);         /* PCM */
  write_le16(h + 22, 1);         /* channels */
  write_le32(h + 24, kRate);     /* samples per second */
  write_le32(h + 28, 2 * kRate); /* bytes per second */
  write_le16(h + 32, 2);         /* bytes per sample frame */
  write_le16(h + 34, 16);        /* bits per sample */
  memcpy(h + 36, "data", 4);
  write_le32(h + 40, 2 * samples);
  return fwrite(h, 1, sizeof h, f) == sizeof h;
}

static int usage(void) {
  fputs("usage: wav_enhance [--profile enhanced|classic] [--mode wakeup|asr|comm] [--config FILE] IN.wav OUT.wav\n",
        stderr);
  return 2;
}

static int fail(FILE* in, FILE* out, const char* out_path, const char* what, const char* problem) {
  fprintf(stderr, "wav_enhance: %s: %s\n", what, problem);
  if (in != NULL) fclose(in);
  if (out != NULL) {
    fclose(out);
    remove(out_path); /* no half-written result */
  }
  return 1;
}

int main(int argc, char** argv) {
  static const char* const mode_names[] = {"wakeup", "asr", "comm"};
  T_VornParam pm;
  short mic_order[kMics] = {0, 1, 2};
  int32_t profile = VORN_PROFILE_ENHANCED;
  int mode = 0;
  char* config = NULL;
  const char* in_path;
  const char* out_path;
  FILE* in;
  FILE* out;
  uint32_t data_bytes = 0;
  uint32_t samples;
  uint32_t done;
  const char* problem;
  int32_t code;
  int arg = 1;

  for (; arg + 1 < argc && strncmp(argv[arg], "--", 2) == 0; arg += 2) {
    const char* value = argv[arg + 1];
    if (strcmp(argv[arg], "--profile") == 0 && strcmp(value, "enhanced") == 0) {
      profile = VORN_PROFILE_ENHANCED;
    } else if (strcmp(argv[arg], "--profile") == 0 && strcmp(value, "classic") == 0) {
      profile = VORN_PROFILE_CLASSIC;
    } else if (strcmp(argv[arg], "--mode") == 0) {
      mode = 0;
      while (mode < 3 && strcmp(value, mode_names[mode]) != 0) ++mode;
      if (mode == 3) return usage();
    } else if (strcmp(argv[arg], "--config") == 0) {
      config = argv[arg + 1];
    } else {
      return usage();
    }
  }
  if (argc - arg != 2) return usage();
  in_path = argv[arg];
  out_path = argv[arg + 1];

  memset(&pm, 0, sizeof pm);
  pm.p_data = state;
  pm.buff_size = (int32_t)sizeof state;
  pm.param_size = (int32_t)sizeof pm;
  pm.vorn_mode = mode;
  pm.doa_update_flag = 1; /* the suppressor's noise estimate steers direction finding */
  code = VornInit(&pm, config);
  if (code == -1) return fail(NULL, NULL, out_path, config, "cannot read the configuration");
  if (code != 0) {
    fprintf(stderr, "wav_enhance: VornInit failed with code %d\n", (int)code);
    return 1;
  }
  if (VornSetProfile(&pm, profile) != 0) return fail(NULL, NULL, out_path, "VornSetProfile", "failed");

  in = fopen(in_path, "rb");
  if (in == NULL) return fail(NULL, NULL, out_path, in_path, "cannot open");
  problem = read_wav_header(in, &data_bytes);
  if (problem != NULL) return fail(in, NULL, out_path, in_path, problem);
  samples = data_bytes / (2 * kChannels);
  if (pm.in_argv[mode].aec_flag == 0)
    fprintf(stderr, "wav_enhance: mode %s has the echo canceller off: the reference is not used\n",
            mode_names[mode]);
  out = fopen(out_path, "wb");
  if (out == NULL) return fail(in, NULL, out_path, out_path, "cannot create");
  if (!write_wav_header(out, samples)) return fail(in, out, out_path, out_path, "write failed");

  /* Frame by frame; the last, partial frame is completed with silence for the
   * library and only its own samples are written. */
  for (done = 0; done < samples;) {
    unsigned char bytes[kFrame * kChannels * 2];
    short mics[kFrame * kMics] = {0};
    short ref[kFrame] = {0};
    short enhanced[kFrame];
    size_t count = samples - done < kFrame ? samples - done : kFrame;
    size_t n, m;
    if (fread(bytes, 2 * kChannels, count, in) != count)
      return fail(in, out, out_path, in_path, "the file ends before the audio its header announces");
    for (n = 0; n < count; ++n) {
      for (m = 0; m < kMics; ++m) mics[kMics * n + m] = sample_at(bytes + 2 * (kChannels * n + m));
      ref[n] = sample_at(bytes + 2 * (kChannels * n + kMics));
    }
    code = VornProc(&pm, mics, ref, enhanced, mic_order);
    if (code != 0) {
      fprintf(stderr, "wav_enhance: VornProc failed with code %d at sample %lu\n", (int)code, (unsigned long)done);
      return fail(in, out, out_path, in_path, "processing failed");
    }
    for (n = 0; n < count; ++n) write_le16(bytes + 2 * n, (unsigned)(uint16_t)enhanced[n]);
    if (fwrite(bytes, 2, count, out) != count) return fail(in, out, out_path, out_path, "write failed");
    done += (uint32_t)count;
  }
  fclose(in);
  if (fclose(out) != 0) {
    remove(out_path);
    fprintf(stderr, "wav_enhance: %s: write failed\n", out_path);
    return 1;
  }
  return 0;
}
