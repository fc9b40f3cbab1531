// The small network that turns a hop's presence cues into a probability.
//
// Inputs: the cues of this hop and the two before it (kNetInputs values),
// each normalised by the mean and spread seen in training; one hidden layer
// of kNetHidden tanh units; a logistic output. The weights are designed by
// bench/quality/fit_presence.cpp, which writes presence_net_table.cpp.
#pragma once

#include "adsp_ns/ns_enhanced.h"

namespace vorn {

constexpr int kNetHidden = 12;

struct PresenceNetTable {
  float input_mean[kNetInputs];
  float input_scale[kNetInputs];  // 1 / spread
  float hidden_weights[kNetHidden][kNetInputs];
  float hidden_bias[kNetHidden];
  float output_weights[kNetHidden];
  float output_bias;
  float flag_threshold;  // the speech flag's threshold on the frame presence
};

extern const PresenceNetTable kPresenceNet;

// The output's logit for one hop's inputs (newest hop's cues first).
float PresenceNetLogit(const float inputs[kNetInputs]);

}  // namespace vorn
