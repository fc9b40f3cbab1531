// Process-wide state of the command-line driver: the library's state buffer,
// the open streams and the path buffers.
#pragma once

#include <cstdint>
#include <cstdio>

#include "vorn_proc.h"

namespace vorn::tool {

constexpr int kPathLen = 4096;
constexpr int kStateWords = 1000000;  // 4,000,000 bytes, of which the library is told 1,000,000
constexpr int kRefChan = 3;

extern int32_t g_data[kStateWords];
extern FILE* f_input;
extern FILE* f_output;
extern FILE* f_vad;
extern FILE* fp_list;
extern char in_file_full_name[kPathLen];
extern char out_file_full_name[kPathLen];
extern char jjout_file_full_name[kPathLen];
extern char out_vad_full_name[kPathLen];
extern char config_full_name[kPathLen];
extern short mic_order[3];
extern bool g_input_is_stdin;

// Closes every open stream before an exit.
void system_pause_win(int flag);

// Rereads the whole capture and runs direction finding over it.
void doaTest(T_VornParam* pm, int headLen, int fLen, int refChan);

}  // namespace vorn::tool
