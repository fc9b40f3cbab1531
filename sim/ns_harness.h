// Drives one noise-suppressor instance over a whole signal, hop by hop,
// the way the front end does, so tests and benchmarks look at the results a
// user would get rather than at single calls.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "adsp_ns/adsp_ns_proc.h"
#include "sim/signals.h"

namespace vorn::sim {

class NsInstance {
 public:
  // vad_mode selects the decision rule of NsVadProc; level goes through SetNsLevel.
  explicit NsInstance(int vad_mode = 1, float level = 1.0f);

  T_AdspNsParam &param() { return param_; }
  T_AdspNsState &state() { return *static_cast<T_AdspNsState *>(param_.p_data); }

  // Runs NsVadProc over every complete 128-sample hop of x (rounded to PCM).
  // Returns the output as float, same length as x (the last partial hop is
  // left at 0); the output lags x by 384 samples. vad_flags, when given,
  // receives one decision per hop; after_hop runs after every hop.
  Signal Run(const Signal &x, std::vector<int> *vad_flags = nullptr,
             const std::function<void(int hop)> &after_hop = nullptr);

 private:
  std::vector<float> storage_;  // the 64000-byte region, float-aligned
  T_AdspNsParam param_{};
};

// Per-hop labels from per-sample activity: 1 when more than half of the
// hop's 128 samples are active.
std::vector<std::uint8_t> HopLabels(const std::vector<std::uint8_t> &active);

}  // namespace vorn::sim
