// The library as `vorn` drives it: one instance, its mode and switches, one
// frame at a time, and the utterance direction search.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/switches.h"
#include "vorn_proc.h"

namespace vorn::cli {

constexpr int kFrameSamples = 256;  // per channel, 16 ms at 16 kHz
constexpr int kMics = 3;

class FrontEnd {
 public:
  FrontEnd();

  // Reads the modes' switches: the built-in ones, or those of the
  // configuration file when `config_path` is not empty.
  bool LoadModes(int mode, const std::string& config_path, std::string* error);
  // The mistakes LoadModes' configuration file holds, one "line N: ..."
  // sentence each (also when LoadModes failed).
  const std::vector<std::string>& config_warnings() const { return config_warnings_; }
  // The selected mode's switches as loaded.
  sim::Switches ModeSwitches() const;
  // Prepares every module with `switches` in force for the mode, in the
  // processing profile `profile` (0 classic, 1 enhanced).
  bool Start(const sim::Switches& switches, int profile, std::string* error);

  // One frame: kMics x kFrameSamples interleaved values, kFrameSamples of
  // reference (null without one) and kFrameSamples out. Returns the
  // library's code.
  int Process(const int16_t* mics, const int16_t* reference, int16_t* out);
  int vad_flag() const { return pm_.vad_flag; }
  int azimuth() const { return pm_.azimuth; }
  // The library's microphone warnings after the last frame (VORN_WARN_...).
  uint32_t warnings() const;

  // Direction of the talker over `samples_per_channel` interleaved samples
  // with the direction search `doa_flag` (1 reads the per-frame history, 2
  // and 3 search the samples). The per-frame switches stay as they were.
  int UtteranceDirection(int doa_flag, const int16_t* mics, int samples_per_channel, int* azimuth_deg);
  // Confidence (0..1) of the direction last found (enhanced profile; 0
  // with the classic one).
  double DirectionConfidence() const;
  // Whether the last frame's reference was a copy of a microphone (enhanced
  // profile with the canceller on).
  bool ReferenceIsMicrophone() const;

 private:
  std::string Explain(int code, const char* stage) const;

  std::vector<unsigned char> state_;
  T_VornParam pm_{};
  short mic_order_[kMics] = {0, 1, 2};
  int mode_ = 0;
  std::string config_path_;
  std::vector<std::string> config_warnings_;
  float agc_target_dbfs_ = VORN_AGC_TARGET_DEFAULT_DBFS;  // the configuration file's, kept across inits
};

}  // namespace vorn::cli
