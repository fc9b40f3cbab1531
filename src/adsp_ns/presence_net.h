// The two small networks of the speech presence.
//
// The presence network judges each hop as it arrives, from the cues of this
// hop and the two before it; the suppressor and the other stages read it.
// The flag network judges the frame leaving the suppressor (384 samples
// older), from the cues of the five hops around it, two of which came after
// it; the speech flag reads it. Both normalise each input by the mean and
// spread seen in training, have one hidden layer of kNetHidden tanh units and
// a logistic output. Their weights are trained by
// bench/quality/train_presence.py, which writes presence_net_table.cpp.
#pragma once

#include <cmath>

#include "adsp_ns/ns_enhanced.h"

namespace vorn {

constexpr int kNetHidden = 20;

template <int Inputs>
struct NetTable {
  float input_mean[Inputs];
  float input_scale[Inputs];  // 1 / spread
  float hidden_weights[kNetHidden][Inputs];
  float hidden_bias[kNetHidden];
  float output_weights[kNetHidden];
  float output_bias;
};

extern const NetTable<kNetInputs> kPresenceNet;
extern const NetTable<kFlagInputs> kFlagNet;
// The speech flag's thresholds: it stays 1 above kFlagThreshold and rises
// above kFlagOnsetThreshold on two frames in a row, or on one frame above
// kFlagSureThreshold. On a frame the canceller calls echo alone it never
// rises and stays only above kFlagEchoThreshold (1: never), because the
// canceller calls many frames of a talker over the far end that too.
extern const float kFlagThreshold;
extern const float kFlagOnsetThreshold;
extern const float kFlagEchoThreshold;
extern const float kFlagSureThreshold;

// The output's logit for one set of inputs (plain float arithmetic in a
// fixed order: the same inputs give the same bits everywhere).
template <int Inputs>
float NetLogit(const NetTable<Inputs>& net, const float* inputs) {
  float out = net.output_bias;
  for (int h = 0; h < kNetHidden; ++h) {
    float a = net.hidden_bias[h];
    for (int i = 0; i < Inputs; ++i) a += net.hidden_weights[h][i] * ((inputs[i] - net.input_mean[i]) * net.input_scale[i]);
    out += net.output_weights[h] * std::tanh(a);
  }
  return out;
}

}  // namespace vorn
