// The DOA pass after the frame loop: the whole capture in one call.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tool_state.h"

namespace vorn::tool {

void doaTest(T_VornParam* pm, int headLen, int fLen, int /*refChan*/) {
  // Standard input cannot be rewound; the pass is skipped rather than run on
  // whatever is left of the stream.
  if (g_input_is_stdin) {
    fprintf(stderr, "DOA test skipped: standard input cannot be read twice\n");
    return;
  }
  fseek(f_input, headLen, SEEK_SET);
  const size_t bytes = fLen > 0 ? static_cast<size_t>(fLen) : 0;
  auto* samples = static_cast<short*>(malloc(bytes ? bytes : 1));
  auto* copy = static_cast<short*>(malloc(bytes ? bytes : 1));
  if (samples == nullptr || copy == nullptr) {
    printf("malloc error!\n");
    system_pause_win(1);
    free(samples);
    free(copy);
    exit(1);
  }
  const size_t want = bytes / 2;
  if (fread(samples, sizeof(short), want, f_input) != want) {
    fprintf(stderr, "DOA Read error: %s!", in_file_full_name);
    system_pause_win(1);
    free(samples);
    free(copy);
    exit(1);
  }
  memcpy(copy, samples, want * sizeof(short));
  if (VornDoa(pm, copy, mic_order, fLen / 6) != 0) {
    fprintf(stderr, "DOA error: %s!", in_file_full_name);
    free(samples);
    free(copy);
    system_pause_win(1);
    exit(1);
  }
  free(samples);
  free(copy);
  // The azimuth is the pass's only result: losing it is a failure.
  if (printf("%d\n", pm->azimuth) < 0 || fflush(stdout) != 0) {
    fprintf(stderr, "write error: stdout\n");
    system_pause_win(1);
    exit(1);
  }
}

}  // namespace vorn::tool
