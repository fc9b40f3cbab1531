// Peak stack use of the front end's entry points. Device threads have small
// stacks, so VornProc must stay under 64 KB; VornDoa holds a private
// suppressor instance for the length of the call. Each measurement runs the
// call on a thread whose stack we painted beforehand and reports how deep
// the paint was disturbed (reported as counters; the timing is incidental).
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <cstring>
#include <vector>

#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace {

using namespace vorn;

constexpr std::size_t kStackBytes = 1 << 20;
constexpr unsigned char kPaint = 0xA5;

struct Job {
  int doa_flag = 0;
  bool utterance = false;
  int bf = 4, aec = 3, ns = 2;
  int profile = VORN_PROFILE_CLASSIC;
};

void* RunJob(void* arg) {
  const Job& job = *static_cast<const Job*>(arg);
  const std::size_t n = 2 * sim::kSampleRate;
  static std::vector<unsigned char> buffer(kVornMinBuffSize);
  static std::vector<short> mics;
  mics = sim::Interleave(sim::Mix(sim::PlaneWave(sim::MakeSpeechLike(n, 3).samples, 60),
                                    sim::IndependentNoise(n, 100.0, 4)));
  static std::vector<short> ref(n, 0);
  const sim::Switches switches{.agc = 1, .bf = job.bf, .doa = job.doa_flag, .aec = job.aec,
                               .ns = job.ns, .azimuth = 60, .vad_mode = 1};
  T_VornParam pm = sim::ParamKeeping(buffer.data(), switches, 1);
  VornInit(&pm, nullptr);
  VornSetProfile(&pm, job.profile);
  short out[256], order[3] = {0, 1, 2};
  if (job.utterance) {
    VornDoa(&pm, mics.data(), order, static_cast<int>(n));
  } else {
    for (std::size_t f = 0; f + 1 < n / 256; ++f) VornProc(&pm, &mics[3 * 256 * f], &ref[256 * f], out, order);
  }
  return nullptr;
}

// Bytes of the painted stack that the job touched (init included).
std::size_t PeakStack(const Job& job) {
  static std::vector<unsigned char> stack(kStackBytes);
  std::memset(stack.data(), kPaint, stack.size());
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setstack(&attr, stack.data(), stack.size());
  pthread_t thread;
  pthread_create(&thread, &attr, RunJob, const_cast<Job*>(&job));
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attr);
  std::size_t untouched = 0;
  while (untouched < stack.size() && stack[untouched] == kPaint) ++untouched;
  return stack.size() - untouched;
}

void BM_StackVornProcHeaviest(benchmark::State& state) {
  std::size_t peak = 0;
  for (auto _ : state) peak = PeakStack(Job{1, false});
  state.counters["stack_bytes"] = static_cast<double>(peak);
}
BENCHMARK(BM_StackVornProcHeaviest)->Iterations(1)->Unit(benchmark::kMillisecond);

// The same switches through the enhanced frame: its adaptive beam keeps its
// blocking outputs and their filtered sum on the stack.
void BM_StackVornProcHeaviestEnhanced(benchmark::State& state) {
  std::size_t peak = 0;
  for (auto _ : state) peak = PeakStack(Job{1, false, 4, 3, 2, VORN_PROFILE_ENHANCED});
  state.counters["stack_bytes"] = static_cast<double>(peak);
}
BENCHMARK(BM_StackVornProcHeaviestEnhanced)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_StackVornProcDefault(benchmark::State& state) {
  std::size_t peak = 0;
  for (auto _ : state) peak = PeakStack(Job{0, false, 0, 0, 1});
  state.counters["stack_bytes"] = static_cast<double>(peak);
}
BENCHMARK(BM_StackVornProcDefault)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_StackVornDoa(benchmark::State& state) {
  std::size_t peak = 0;
  for (auto _ : state) peak = PeakStack(Job{static_cast<int>(state.range(0)), true});
  state.counters["stack_bytes"] = static_cast<double>(peak);
}
BENCHMARK(BM_StackVornDoa)->Arg(1)->Arg(2)->Iterations(1)->Unit(benchmark::kMillisecond);

// The enhanced profile: the heaviest frame (direction tracking included) and
// the search over a stretch, which holds its pooled evidence on the stack.
void BM_StackEnhanced(benchmark::State& state) {
  std::size_t peak = 0;
  for (auto _ : state) {
    Job job{static_cast<int>(state.range(0)), state.range(0) == 2};
    job.profile = VORN_PROFILE_ENHANCED;
    peak = PeakStack(job);
  }
  state.counters["stack_bytes"] = static_cast<double>(peak);
}
BENCHMARK(BM_StackEnhanced)->ArgName("doa")->Arg(1)->Arg(2)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
