// SpeexDSP as a measured peer. The echo canceller and the preprocessor share
// one frame size so that the preprocessor can also suppress the canceller's
// residual echo (its documented use). Frames of 256 samples: 16 ms, the
// library's usual operating point and Vorn's own frame.
#include "quality/speex_peer.h"

#include <speex/speex_echo.h>
#include <speex/speex_preprocess.h>

#include <vector>

#include "sim/metrics.h"

namespace vorn::bench {

bool RunSpeex(const SpeexConfig& config, const sim::RenderedScene& rendered, SystemRun* run, std::string* error) {
  if (config.frame <= 0 || sim::kFrame % static_cast<std::size_t>(config.frame) != 0) {
    *error = "the frame must divide 256";
    return false;
  }
  const std::size_t frame = static_cast<std::size_t>(config.frame);
  int rate = sim::kSampleRate;
  SpeexEchoState* echo = nullptr;
  if (config.echo) {
    echo = speex_echo_state_init(config.frame, config.filter_length);
    speex_echo_ctl(echo, SPEEX_ECHO_SET_SAMPLING_RATE, &rate);
  }
  SpeexPreprocessState* pre = speex_preprocess_state_init(config.frame, rate);
  int denoise = config.denoise ? 1 : 0, vad = 1, agc = config.agc ? 1 : 0;
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_DENOISE, &denoise);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_VAD, &vad);
  speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_AGC, &agc);
  if (config.agc_level > 0.0f) {
    float level = config.agc_level;
    speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_AGC_LEVEL, &level);
  }
  if (echo != nullptr) speex_preprocess_ctl(pre, SPEEX_PREPROCESS_SET_ECHO_STATE, echo);

  const std::size_t frames = WholeFrames(rendered);
  const sim::Signal mic0 = sim::Channel(rendered.mics, 0);
  std::vector<spx_int16_t> near(frame), far(frame), out(frame);
  *run = SystemRun{};
  run->output.reserve(frames * sim::kFrame);
  const std::size_t calls_per_frame = sim::kFrame / frame;
  for (std::size_t f = 0; f < frames; ++f) {
    bool speech = false;
    for (std::size_t c = 0; c < calls_per_frame; ++c) {
      const std::size_t at = f * sim::kFrame + c * frame;
      for (std::size_t i = 0; i < frame; ++i) {
        near[i] = static_cast<spx_int16_t>(mic0[at + i]);
        far[i] = rendered.reference[at + i];
      }
      if (echo != nullptr)
        speex_echo_cancellation(echo, near.data(), far.data(), out.data());
      else
        out = near;
      speech = speex_preprocess_run(pre, out.data()) != 0 || speech;
      run->output.insert(run->output.end(), out.begin(), out.end());
    }
    run->speech.push_back(speech ? 1 : 0);
  }
  speex_preprocess_state_destroy(pre);
  if (echo != nullptr) speex_echo_state_destroy(echo);
  return true;
}

std::string SpeexVersion() {
#ifdef VORN_SPEEXDSP_VERSION
  return VORN_SPEEXDSP_VERSION;
#else
  return "unknown";
#endif
}

}  // namespace vorn::bench
