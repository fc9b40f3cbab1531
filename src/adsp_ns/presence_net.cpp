// Inference of the presence network: plain float arithmetic in a fixed
// order, so the same inputs give the same bits everywhere.
#include "adsp_ns/presence_net.h"

#include <cmath>

namespace vorn {

float PresenceNetLogit(const float inputs[kNetInputs]) {
  const PresenceNetTable& net = kPresenceNet;
  float x[kNetInputs];
  for (int i = 0; i < kNetInputs; ++i) x[i] = (inputs[i] - net.input_mean[i]) * net.input_scale[i];
  float out = net.output_bias;
  for (int h = 0; h < kNetHidden; ++h) {
    float a = net.hidden_bias[h];
    for (int i = 0; i < kNetInputs; ++i) a += net.hidden_weights[h][i] * x[i];
    out += net.output_weights[h] * std::tanh(a);
  }
  return out;
}

}  // namespace vorn
