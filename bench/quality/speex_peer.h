// The peer: SpeexDSP's echo canceller followed by its preprocessor (noise
// suppression, VAD, optionally AGC) on microphone 0, the way an application
// built on that library would chain them. Built only when the library is
// installed; nothing else in the tree depends on it.
#pragma once

#include <string>

#include "quality/systems.h"

namespace vorn::bench {

struct SpeexConfig {
  std::string name;
  bool echo = true;
  bool denoise = true;
  bool agc = false;
  int frame = 256;          // samples per call (16 ms)
  int filter_length = 768;  // echo tail, samples: the same 48 ms Vorn's canceller models
  float agc_level = 0.0f;   // the AGC's level setting (a sample value); 0 keeps the library's 8000
};

bool RunSpeex(const SpeexConfig& config, const sim::RenderedScene& rendered, SystemRun* run, std::string* error);

// The library's version text, for the report.
std::string SpeexVersion();

}  // namespace vorn::bench
