// Runs the front end's classic frame over the peer bench's echo scene in one
// configuration, for bench/profile: with --time it prints the thread CPU time
// per 16 ms frame (the least of several passes, so a busy machine inflates it
// as little as it can), otherwise it runs the frames once inside
// ProfiledFrames, the function the profile script counts instructions in.
//
//   vorn_profile_chain CONFIG [--time] [--frames N]
//   CONFIG: wakeup | recognition | heaviest | agc,bf,doa,aec,ns,azimuth,vad_mode
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "quality/grid.h"
#include "sim/front_end_param.h"
#include "sim/switches.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace {

using vorn::sim::Switches;

constexpr int kFrame = 256;

struct Input {
  std::vector<short> mics, reference;
  std::size_t frames = 0;
};

bool LoadScene(Input* in) {
  vorn::sim::RenderedScene rendered;
  std::string error;
  if (!vorn::sim::RenderScene(vorn::bench::EchoScenes().front().scene, &rendered, &error)) {
    std::fprintf(stderr, "vorn_profile_chain: %s\n", error.c_str());
    return false;
  }
  in->frames = rendered.reference.size() / kFrame;
  in->mics.assign(rendered.mics.begin(), rendered.mics.end());
  in->reference.assign(rendered.reference.begin(), rendered.reference.end());
  return true;
}

bool ParseConfig(const char* text, Switches* s) {
  if (std::strcmp(text, "wakeup") == 0) return *s = {1, 0, 0, 0, 1, 0, 1}, true;
  if (std::strcmp(text, "recognition") == 0) return *s = {2, 0, 1, 1, 1, 0, 2}, true;
  if (std::strcmp(text, "heaviest") == 0) return *s = {2, 4, 1, 3, 2, 60, 2}, true;
  return std::sscanf(text, "%d,%d,%d,%d,%d,%d,%d", &s->agc, &s->bf, &s->doa, &s->aec, &s->ns, &s->azimuth,
                     &s->vad_mode) == 7;
}

double ThreadSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

struct Chain {
  std::vector<unsigned char> buffer = std::vector<unsigned char>(vorn::kVornMinBuffSize);
  T_VornParam pm{};
  std::size_t next = 0;
};

void RunFrames(Chain& c, Input& in, std::size_t count) {
  short out[kFrame], order[3] = {0, 1, 2};
  for (std::size_t i = 0; i < count; ++i, ++c.next) {
    const std::size_t f = c.next % in.frames;
    VornProc(&c.pm, &in.mics[3 * kFrame * f], &in.reference[kFrame * f], out, order);
  }
}

// The frames the profile counts; kept out of line so the profiler can find it.
[[gnu::noinline]] void ProfiledFrames(Chain& c, Input& in, std::size_t count) { RunFrames(c, in, count); }

}  // namespace

int main(int argc, char** argv) {
  Switches s;
  bool time_it = false;
  std::size_t frames = 500;
  if (argc < 2 || !ParseConfig(argv[1], &s)) {
    std::fprintf(stderr, "usage: vorn_profile_chain wakeup|recognition|heaviest|a,b,d,e,n,az,v [--time] [--frames N]\n");
    return 2;
  }
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--time") == 0) {
      time_it = true;
    } else if (std::strcmp(argv[i], "--frames") == 0 && i + 1 < argc) {
      frames = static_cast<std::size_t>(std::strtoul(argv[++i], nullptr, 10));
    } else {
      std::fprintf(stderr, "vorn_profile_chain: unknown argument %s\n", argv[i]);
      return 2;
    }
  }
  if (frames == 0) frames = 1;
  Input in;
  if (!LoadScene(&in)) return 1;
  Chain c;
  c.pm = vorn::sim::ParamKeeping(c.buffer.data(), s, s.doa != 0 ? 1 : 0);
  if (VornInit(&c.pm, nullptr) != 0) {
    std::fprintf(stderr, "vorn_profile_chain: VornInit refused the configuration\n");
    return 1;
  }
  // Settle the trackers and the canceller first, as the peer bench does.
  RunFrames(c, in, in.frames / 2);
  if (!time_it) {
    ProfiledFrames(c, in, frames);
    return 0;
  }
  double best = 1e30;
  for (int pass = 0; pass < 7; ++pass) {
    const double start = ThreadSeconds();
    RunFrames(c, in, frames);
    const double per_frame = (ThreadSeconds() - start) / static_cast<double>(frames);
    if (per_frame < best) best = per_frame;
  }
  std::printf("%.2f\n", best * 1e6);
  return 0;
}
