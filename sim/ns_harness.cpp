#include "sim/ns_harness.h"

namespace vorn::sim {

NsInstance::NsInstance(int vad_mode, float level) : storage_(kNsStateBytes / sizeof(float), 0.0f) {
  param_.p_data = storage_.data();
  param_.buff_size = kNsStateBytes;
  param_.param_size = static_cast<int>(sizeof(T_AdspNsParam));
  param_.data_type = kNsDataTimeDomain;
  param_.vad_mode = vad_mode;
  AdspNsInit(&param_);
  SetNsLevel(&param_, level);
}

Signal NsInstance::Run(const Signal &x, std::vector<int> *vad_flags, const std::function<void(int)> &after_hop) {
  const std::vector<std::int16_t> pcm = ToPcm(x);
  Signal out(x.size(), 0.0f);
  const std::size_t hops = x.size() / kNsHop;
  for (std::size_t h = 0; h < hops; ++h) {
    short in_hop[kNsHop];
    short out_hop[kNsHop];
    for (int i = 0; i < kNsHop; ++i) in_hop[i] = pcm[h * kNsHop + i];
    NsVadProc(&param_, nullptr, nullptr, nullptr, in_hop, out_hop);
    for (int i = 0; i < kNsHop; ++i) out[h * kNsHop + i] = out_hop[i];
    if (vad_flags) vad_flags->push_back(param_.vad_flag);
    if (after_hop) after_hop(static_cast<int>(h));
  }
  return out;
}

std::vector<std::uint8_t> HopLabels(const std::vector<std::uint8_t> &active) {
  return FrameLabels(active, kNsHop);
}

}  // namespace vorn::sim
