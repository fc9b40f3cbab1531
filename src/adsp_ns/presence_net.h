// The two small networks of the speech presence.
//
// The presence network judges each hop as it arrives, from the cues of this
// hop and the two before it; the suppressor and the other stages read it.
// The flag network judges the frame leaving the suppressor (384 samples
// older), from the cues of the kFlagContext hops ending two hops after it
// (the five around it and the syllable or pause that led up to them); the
// speech flag reads it. Both normalise each input by the mean and spread
// seen in training, have one hidden layer of tanh units and a logistic
// output. Their weights are trained by
// bench/quality/train_presence.py, which writes presence_net_table.cpp.
#pragma once

#include <cmath>

#include "adsp_ns/ns_enhanced.h"

namespace vorn {

// Hidden units of each network. The flag network reads a longer stretch of
// cues (a syllable gap, or babble's looser rhythm, spans several hops) and
// runs once per frame, not per hop, so it can afford more.
constexpr int kPresenceHidden = 20;
constexpr int kFlagHidden = 40;

template <int Inputs, int Hidden>
struct NetTable {
  float input_mean[Inputs];
  float input_scale[Inputs];  // 1 / spread
  float hidden_weights[Hidden][Inputs];
  float hidden_bias[Hidden];
  float output_weights[Hidden];
  float output_bias;
};

extern const NetTable<kNetInputs, kPresenceHidden> kPresenceNet;
extern const NetTable<kFlagInputs, kFlagHidden> kFlagNet;
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
template <int Inputs, int Hidden>
float NetLogit(const NetTable<Inputs, Hidden>& net, const float* inputs) {
  // Normalised once, not once per hidden unit: every unit reads the same.
  float normalised[Inputs];
  for (int i = 0; i < Inputs; ++i) normalised[i] = (inputs[i] - net.input_mean[i]) * net.input_scale[i];
  float out = net.output_bias;
  for (int h = 0; h < Hidden; ++h) {
    float a = net.hidden_bias[h];
    for (int i = 0; i < Inputs; ++i) a += net.hidden_weights[h][i] * normalised[i];
    out += net.output_weights[h] * std::tanh(a);
  }
  return out;
}

}  // namespace vorn
