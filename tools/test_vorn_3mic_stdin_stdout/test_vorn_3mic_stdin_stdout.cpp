// Command-line driver of the front end.
//
//   test_vorn_3mic_stdin_stdout IN OUT agc bf doa aec ns azimuth vad_mode vad_file config
//
// Runs one capture (or every pair of a ".txt" list) frame by frame through
// the library and writes the mono result as WAV or raw PCM, optionally a
// per-frame speech-flag file, and with direction finding on prints the
// azimuth found over the whole capture. "stdin.wav"/"stdin.pcm" read standard
// input; an output name starting with "stdout" writes to standard output.
// The interface, its messages and exit statuses are kept as existing capture
// scripts expect them; the few additions (a missing output directory, the
// DOA pass on standard input, read and write failures, closed standard
// streams) are noted where they happen.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "audio_io/audio_io.h"
#include "audio_io/standard_streams.h"
#include "list_file.h"
#include "tool_state.h"
#include "vorn_proc.h"

namespace vorn::tool {

int32_t g_data[kStateWords];
FILE* f_input = nullptr;
FILE* f_output = nullptr;
FILE* f_vad = nullptr;
FILE* fp_list = nullptr;
char in_file_full_name[kPathLen];
char out_file_full_name[kPathLen];
char jjout_file_full_name[kPathLen];
char out_vad_full_name[kPathLen];
char config_full_name[kPathLen];
short mic_order[3] = {0, 1, 2};
bool g_input_is_stdin = false;

namespace {

constexpr int kFrameValues = 768;     // 256 samples of three microphones
constexpr int kFrameSamples = 256;
constexpr int kStdinPcmLen = 2147483610;
constexpr int kStdinWavLen = 2147483611;

void CloseStream(FILE*& f) {
  if (f != nullptr && f != stdin && f != stdout) fclose(f);
  f = nullptr;
}

[[noreturn]] void Fail(int status) {
  system_pause_win(1);
  exit(status);
}

void PrintHelp() {
  fprintf(stderr, "Lost argument!\n");
  fprintf(stderr, "*********************************VORN version : %s *************************\n", VornGetVersion());
  fprintf(stderr, "Vorn three-microphone speech front end, library version %s\n", VornGetVersion());
  fprintf(stderr, "VORN.exe  agc_flag bf_flag doa_flag aec_flag ns_flag bf_azimuth \n");
  fprintf(stderr, "agc_flag : AGC flag.  0 : disable AGC; 1 : enable AGC.  \n");
  fprintf(stderr, "bf_flag  : Beamforming flag. 0 : disable BF; 1 - 6 : enable BF.\n");
  fprintf(stderr, "doa_flag : DOA flag. 0 : disable DOA; 1 : DOA trace mode; 2 : DOA direct mode.\n");
  fprintf(stderr, "aec_flag : AEC flag. 0 : disable AEC, 1 : enable AEC.\n");
  fprintf(stderr, "ns_flag  : Noise Suppression Flag. 0 - disable NS; 1 : mono-channel NS; 2\n");
  fprintf(stderr, "           2 \xEF\xBC\x9Amulti-channel NS\n");
  fprintf(stderr, "bf_azimuth : a expected and enhanced azimuth by using BF \n");
  fprintf(stderr, "vad_flag : VAD flag. null - disable vad_flag output;\n");
  fprintf(stderr, "%s\n", std::string(78, '*').c_str());
}

// Extension of a name: the text from its last ".", or "" without one.
const char* Extension(const char* name) {
  const char* dot = strrchr(name, '.');
  return dot ? dot : "";
}

bool StartsWith(const char* s, const char* prefix) { return strncmp(s, prefix, strlen(prefix)) == 0; }

}  // namespace

void system_pause_win(int /*flag*/) {
  CloseStream(f_input);
  CloseStream(f_output);
  CloseStream(f_vad);
  CloseStream(fp_list);
  fflush(stdout);
}

// Creates every directory along path (kept for callers that want the output
// tree made; the main loop only checks that the output directory exists).
int CreatDir(char* path) {
  for (char* p = path + 1; *p != '\0'; ++p) {
    if (*p != '/' && *p != '\\') continue;
    *p = '\0';
    struct stat st;
    if (stat(path, &st) != 0 && mkdir(path, 0755) != 0) {
      printf("mkdir failed:%s!\n", path);
      const int rc = -1;
      *p = '/';
      return rc;
    }
    *p = '/';
  }
  struct stat st;
  if (stat(path, &st) != 0) {
    const int rc = mkdir(path, 0755);
    if (rc != 0) printf("mkdir failed:%s!\n", path);
    return rc;
  }
  return 0;
}

namespace {

// The output's directory must already exist: report it plainly instead of a
// failed open later.
void CheckOutputDirectory(const char* out_name) {
  const char* slash = strrchr(out_name, '/');
  if (slash == nullptr || slash == out_name) return;
  const std::string dir(out_name, static_cast<size_t>(slash - out_name));
  struct stat st;
  if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    fprintf(stderr, "Output directory does not exist:%s\n", dir.c_str());
    Fail(1);
  }
}

struct InputInfo {
  int head_len = 0;   // header bytes before the audio
  int data_len = 0;   // audio bytes
  bool is_wav = false;
};

InputInfo OpenInput() {
  InputInfo info;
  const char* ext = Extension(in_file_full_name);
  const bool stdin_wav = strcmp(in_file_full_name, "stdin.wav") == 0;
  const bool stdin_pcm = strcmp(in_file_full_name, "stdin.pcm") == 0;
  g_input_is_stdin = stdin_wav || stdin_pcm;
  if (strcmp(ext, ".wav") == 0) {
    info.is_wav = true;
    if (stdin_wav) f_input = stdin;
    hdr_t hdr{};
    int flen = 0;
    const int head = sig_wave_stream_init(&hdr, in_file_full_name, &f_input, &flen);
    if (head < 0) {
      fprintf(stderr, "Input file head is unrecognized:%s\n", in_file_full_name);
      Fail(1);
    }
    if (hdr.numchans != 3 || hdr.Fs != 16000 || hdr.nbytespersample != 6 || hdr.datsize % 3 != 0) {
      fprintf(stderr, "%s data error! \n", in_file_full_name);
      Fail(1);
    }
    info.head_len = head;
    info.data_len = stdin_wav ? kStdinWavLen : static_cast<int>(hdr.datsize);
  } else if (strcmp(ext, ".pcm") == 0) {
    if (stdin_pcm) {
      f_input = stdin;
      info.data_len = kStdinPcmLen;
    } else {
      f_input = fopen(in_file_full_name, "rb");
      if (f_input == nullptr) {
        fprintf(stderr, "Open input file failed:%s\n", in_file_full_name);
        Fail(1);
      }
      fseek(f_input, 0, SEEK_END);
      info.data_len = static_cast<int>(ftell(f_input));
      fseek(f_input, 0, SEEK_SET);
    }
  } else {
    fprintf(stderr, "Input file ext is not match(wav or pcm or txt):%s\n", in_file_full_name);
    Fail(1);
  }
  return info;
}

bool OpenOutput(const InputInfo& in, hdr_t* out_hdr) {
  const char* ext = Extension(out_file_full_name);
  const bool is_wav = strcmp(ext, ".wav") == 0;
  if (!is_wav && strcmp(ext, ".pcm") != 0) {
    fprintf(stderr, "Output file ext is not match(wav) :%s\n", out_file_full_name);
    Fail(1);
  }
  const bool to_stdout = StartsWith(out_file_full_name, "stdout");
  if (to_stdout) {
    f_output = stdout;
  } else {
    CheckOutputDirectory(out_file_full_name);
    f_output = fopen(out_file_full_name, "wb");
    if (f_output == nullptr) {
      fprintf(stderr, "Open output file failed:%s\n", out_file_full_name);
      Fail(1);
    }
  }
  *out_hdr = mono_wave_header(in.data_len);
  if (is_wav && write_wave_header(*out_hdr, f_output) != 0) {
    fprintf(stderr, "write error: %s\n", out_file_full_name);
    Fail(1);
  }
  return to_stdout;
}

void OpenVadFile() {
  const char* ext = Extension(jjout_file_full_name);
  if (strcmp(ext, ".wav") != 0) {
    fprintf(stderr, "Output file ext is not match(wav) :%s\n", out_file_full_name);
    Fail(1);
  }
  const size_t stem = static_cast<size_t>(ext - jjout_file_full_name);
  snprintf(out_vad_full_name, kPathLen, "%.*s_VornVad.txt", static_cast<int>(stem), jjout_file_full_name);
  f_vad = fopen(out_vad_full_name, "w");
  if (f_vad == nullptr) {
    fprintf(stderr, "Open output file failed:%s\n", out_vad_full_name);
    Fail(1);
  }
}

void WriteSamples(const short* out, size_t count) {
  if (fwrite(out, sizeof(short), count, f_output) != count) {
    fprintf(stderr, "write error: %s\n", out_file_full_name);
    Fail(1);
  }
}

void ProcessPair(T_VornParam* pm, bool write_vad) {
  const InputInfo in = OpenInput();
  hdr_t out_hdr{};
  const bool to_stdout = OpenOutput(in, &out_hdr);
  if (write_vad) OpenVadFile();

  static short input[kFrameValues];
  static short ref[kFrameSamples];
  static short output[kFrameSamples];
  memset(ref, 0, sizeof ref);
  short* ref_arg = pm->aec_flag != 0 ? ref : nullptr;  // the tool has no loudspeaker feed

  long frames = 0;
  long tail_values = 0;
  for (;;) {
    const size_t got = fread(input, sizeof(short), kFrameValues, f_input);
    if (got == static_cast<size_t>(kFrameValues)) {
      const int rc = VornProc(pm, input, ref_arg, output, mic_order);
      if (rc != 0) {
        fprintf(stderr, "VornProc error in %ldst frame, return :%d!\n", frames, rc);
        Fail(1);
      }
      WriteSamples(output, kFrameSamples);
      ++frames;
      if (write_vad) fprintf(f_vad, "%d\n", pm->vad_flag);
      continue;
    }
    if (got > 0 && got % 3 == 0) {
      // The tail sits at the start of the buffer; the rest still holds the
      // previous frame, and only the tail's share of output is written.
      const int rc = VornProc(pm, input, ref_arg, output, mic_order);
      if (rc != 0) {
        fprintf(stderr, "VornProc error in %ldst frame, return :%d!\n", frames, rc);
        Fail(1);
      }
      tail_values = static_cast<long>(got);
      WriteSamples(output, got / 3);
    }
    break;
  }
  // The loop also ends on a read failure (a directory given as input, an I/O
  // error); that must not pass for the end of the capture.
  if (ferror(f_input)) {
    fprintf(stderr, "read error: %s\n", in_file_full_name);
    Fail(1);
  }
  if (f_vad != nullptr && (fflush(f_vad) != 0 || ferror(f_vad))) {
    fprintf(stderr, "write error: %s\n", out_vad_full_name);
    Fail(1);
  }
  if (fflush(f_output) != 0) {
    fprintf(stderr, "write error: %s\n", out_file_full_name);
    Fail(1);
  }

  if (pm->doa_flag != 0) doaTest(pm, in.head_len, in.data_len, kRefChan);

  if (!g_input_is_stdin && !to_stdout) {
    const long out_bytes = 512 * frames + 2 * (tail_values / 3);
    if (static_cast<long>(out_hdr.datsize) != out_bytes)
      fprintf(stderr,
              "Warning: %s\nthe size of input is not same with the output, hdr_wav.datsize(%d) != frame(%d)\n",
              in_file_full_name, static_cast<int>(out_hdr.datsize), static_cast<int>(out_bytes));
    if (out_bytes + 36 != static_cast<long>(out_hdr.totsize))
      fprintf(stderr, "Warning : %s\nframe != hdr_wav.totsize\n", in_file_full_name);
  }
}

void SetPair(const char* in_name, const char* out_name) {
  memset(in_file_full_name, 0, sizeof in_file_full_name);
  memset(out_file_full_name, 0, sizeof out_file_full_name);
  memset(jjout_file_full_name, 0, sizeof jjout_file_full_name);
  snprintf(in_file_full_name, kPathLen, "%s", in_name);
  snprintf(out_file_full_name, kPathLen, "%s", out_name);
  snprintf(jjout_file_full_name, kPathLen, "%s", out_name);
}

}  // namespace
}  // namespace vorn::tool

int main(int argc, char** argv) {
  using namespace vorn::tool;
  vorn::GuardStandardStreams();
  if (argc < 12) {
    PrintHelp();
    exit(1);
  }
  snprintf(config_full_name, kPathLen, "%s", argv[11]);
  const bool write_vad = atoi(argv[10]) == 1;

  static T_VornParam pm;
  pm.p_data = reinterpret_cast<unsigned char*>(g_data);
  pm.buff_size = 1000000;
  pm.param_size = sizeof(T_VornParam);
  pm.agc_flag = atoi(argv[3]);
  pm.bf_flag = atoi(argv[4]);
  pm.doa_flag = atoi(argv[5]);
  pm.aec_flag = atoi(argv[6]);
  pm.ns_flag = atoi(argv[7]);
  pm.bf_azimuth = atoi(argv[8]);
  pm.vad_mode = atoi(argv[9]);
  pm.doa_update_flag = 1;
  pm.vorn_mode = -1;  // keep the command-line switches on every frame
  if (VornInit(&pm, nullptr) != 0) {
    fprintf(stderr, "Init error!\n");
    Fail(1);
  }

  if (strcmp(Extension(argv[1]), ".txt") != 0) {
    SetPair(argv[1], argv[2]);
    ProcessPair(&pm, write_vad);
    system_pause_win(0);
    return 0;
  }

  fp_list = fopen(argv[1], "r");
  if (fp_list == nullptr) {
    fprintf(stderr, "Failed open input file %s\n", argv[1]);
    Fail(-1);
  }
  static char line[kListLineLen + 1];
  for (;;) {
    const char* in_name = nullptr;
    const char* out_name = nullptr;
    const ListEntry entry = NextListEntry(fp_list, line, &in_name, &out_name);
    if (entry == ListEntry::kTooManyColumns) {
      fprintf(stderr, "Input file %s more two column!\n", argv[1]);
      Fail(-1);
    }
    if (entry == ListEntry::kEnd) break;
    SetPair(in_name, out_name);
    ProcessPair(&pm, write_vad);
  }
  system_pause_win(0);
  return 0;
}
