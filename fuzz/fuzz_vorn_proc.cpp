// Fuzz target: the front end's entry points, VornInit then a run of VornProc
// frames (and VornDoa over the whole run when direction finding is on), with
// switch values, modes, mid-stream mode changes and sample data from the input.
//
// Input layout, every field optional (missing bytes read as zero):
//   flags byte: bit 0 switch values as raw 32-bit words instead of the
//     mostly-valid small range; bit 1 a state buffer smaller than required;
//     bit 2 VornInit reads a configuration file (the text follows, 16-bit
//     length first); bit 3 no reference buffer
//   the record's active switches, vorn_mode, doa_update_flag and azimuth
//   the switches of the three modes, written after VornInit (as a caller
//   overriding a mode's switches would)
//   the number of frames (1..16), then per frame a control byte and what it
//     announces: bit 0 a new vorn_mode, bit 1 a new doa_update_flag, bit 2 a
//     mode byte and that mode's new switches
//   the microphone order (three indices, each taken modulo 3: the order is
//     the caller's contract and is not checked by the library)
//   the rest: 16-bit samples, microphones and reference, reused cyclically.
//
// Checks: a record that fails the parameter check (judged by the record's
// own check on a copy) gets that code from VornProc and leaves the state
// buffer, the output and the record's outputs untouched; a frame processed
// without error reports a speech flag of 0 or 1.
#include <cstring>
#include <string>
#include <vector>

#include "target_bodies.h"
#include "target_support.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace vorn::fuzz {
namespace {

constexpr int kFrameSamples = 256;
constexpr int kMaxFrames = 16;

// Mostly the valid range and just past it; now and then a far-out value.
int32_t SwitchValue(InputBytes& input, bool raw_words, int32_t span) {
  if (raw_words) return static_cast<int32_t>(input.Le32());
  const uint8_t choice = input.Byte();
  static constexpr int32_t kFarOut[] = {INT32_MIN, INT32_MAX, -2, 1000, 360, 359, 300, 60};
  if (choice >= 0xF8) return kFarOut[choice & 7];
  return static_cast<int32_t>(choice % (span + 2)) - 1;
}

void ReadSwitches(InputBytes& input, bool raw_words, T_VornKey* key) {
  key->agc_flag = SwitchValue(input, raw_words, 3);
  key->bf_flag = SwitchValue(input, raw_words, 8);
  key->doa_flag = SwitchValue(input, raw_words, 4);
  key->aec_flag = SwitchValue(input, raw_words, 4);
  key->ns_flag = SwitchValue(input, raw_words, 3);
  key->vad_mode = SwitchValue(input, raw_words, 3);
  // Azimuths: mostly the multiples of 60 the fixed beams accept, else any.
  const uint8_t pick = input.Byte();
  key->bf_azimuth = pick < 0x80 ? (pick % 7) * 60 : SwitchValue(input, raw_words, 361);
}

void ActivateSwitches(const T_VornKey& key, T_VornParam* pm) {
  pm->agc_flag = key.agc_flag;
  pm->bf_flag = key.bf_flag;
  pm->doa_flag = key.doa_flag;
  pm->aec_flag = key.aec_flag;
  pm->ns_flag = key.ns_flag;
  pm->bf_azimuth = key.bf_azimuth;
  pm->vad_mode = key.vad_mode;
}

// The parameter check code VornProc must give, judged on a copy.
int32_t ExpectedCheck(const T_VornParam& pm) {
  T_VornParam copy = pm;
  SwitchMode(&copy);
  return VornParamCheck(&copy);
}

}  // namespace

bool FuzzVornProc(const uint8_t* data, size_t size) {
  InputBytes input(data, size);
  const uint8_t flags = input.Byte();
  const bool raw_words = (flags & 1) != 0;
  const bool small_buffer = (flags & 2) != 0;
  const bool with_config = (flags & 4) != 0;
  const bool no_reference = (flags & 8) != 0;

  T_VornParam pm{};
  const int32_t buff_size = small_buffer ? kVornMinBuffSize - 1 - input.Le16() : kVornMinBuffSize;
  std::vector<unsigned char> state(static_cast<size_t>(buff_size));
  pm.p_data = state.data();
  pm.buff_size = buff_size;
  pm.param_size = sizeof(T_VornParam);
  T_VornKey active{};
  ReadSwitches(input, raw_words, &active);
  ActivateSwitches(active, &pm);
  pm.vorn_mode = SwitchValue(input, raw_words, 3);
  pm.doa_update_flag = SwitchValue(input, raw_words, 2);
  pm.azimuth = SwitchValue(input, raw_words, 360);

  std::string config_path;
  if (with_config) {
    const size_t config_len = input.Le16() % 2048;
    const uint8_t* config = input.Take(config_len);
    config_path = WriteScratchFile(config, static_cast<size_t>(input.rest() - config));
  }
  const int32_t init = VornInit(&pm, with_config ? config_path.data() : nullptr);
  if (init == 0) VORN_FUZZ_CHECK(ExpectedCheck(pm) == 0);
  if (init >= 1 && init <= 10) VORN_FUZZ_CHECK(ExpectedCheck(pm) == init);

  for (T_VornKey& mode_keys : pm.in_argv) ReadSwitches(input, raw_words, &mode_keys);
  const int frames = 1 + input.Byte() % kMaxFrames;
  struct FrameChange {
    bool new_mode, new_update, new_keys;
    int32_t mode, update;
    int keys_mode;
    T_VornKey keys;
  };
  std::vector<FrameChange> changes(static_cast<size_t>(frames));
  for (FrameChange& change : changes) {
    const uint8_t control = input.Byte();
    change.new_mode = (control & 1) != 0;
    change.new_update = (control & 2) != 0;
    change.new_keys = (control & 4) != 0;
    if (change.new_mode) change.mode = SwitchValue(input, raw_words, 3);
    if (change.new_update) change.update = SwitchValue(input, raw_words, 2);
    if (change.new_keys) {
      change.keys_mode = input.Byte() % 3;
      change.keys = pm.in_argv[change.keys_mode];
      ReadSwitches(input, raw_words, &change.keys);
    }
  }
  short mic_order[3];
  for (short& index : mic_order) index = static_cast<short>(input.Byte() % 3);

  // Samples: the rest of the input, reused cyclically (zeros if there is none).
  const uint8_t* samples = input.rest();
  const size_t sample_count = input.rest_size() / 2;
  size_t next_sample = 0;
  auto fill = [&](short* dst, int count) {
    for (int i = 0; i < count; ++i) {
      if (sample_count == 0) {
        dst[i] = 0;
        continue;
      }
      const uint8_t* at = samples + 2 * (next_sample++ % sample_count);
      dst[i] = static_cast<short>(at[0] | (at[1] << 8));
    }
  };

  std::vector<short> capture(static_cast<size_t>(frames) * 3 * kFrameSamples);
  bool any_processed = false;
  for (int f = 0; f < frames; ++f) {
    const FrameChange& change = changes[static_cast<size_t>(f)];
    if (change.new_mode) pm.vorn_mode = change.mode;
    if (change.new_update) pm.doa_update_flag = change.update;
    if (change.new_keys) pm.in_argv[change.keys_mode] = change.keys;

    short* frame = capture.data() + static_cast<size_t>(f) * 3 * kFrameSamples;
    fill(frame, 3 * kFrameSamples);
    std::vector<short> reference(kFrameSamples);
    fill(reference.data(), kFrameSamples);
    std::vector<short> out(kFrameSamples, 0x5a5a);

    const int32_t expected = ExpectedCheck(pm);
    // Processing over a state VornInit never prepared is the caller's fault;
    // only the parameter check, which comes first, is exercised then.
    if (init != 0 && expected == 0) continue;
    const T_VornParam before = pm;
    const std::vector<unsigned char> state_before = expected != 0 ? state : std::vector<unsigned char>();
    const int32_t result = VornProc(&pm, frame, no_reference ? nullptr : reference.data(), out.data(), mic_order);
    if (expected != 0) {
      VORN_FUZZ_CHECK(result == expected);
      VORN_FUZZ_CHECK(state == state_before);
      VORN_FUZZ_CHECK(pm.azimuth == before.azimuth && pm.vad_flag == before.vad_flag);
      for (short sample : out) VORN_FUZZ_CHECK(sample == 0x5a5a);
      continue;
    }
    if (result == 0) {
      VORN_FUZZ_CHECK(pm.vad_flag == 0 || pm.vad_flag == 1);
      any_processed = true;
    }
  }

  if (init == 0 && any_processed && pm.doa_flag != 0) {
    VornDoa(&pm, capture.data(), mic_order, frames * kFrameSamples);
  }
  return any_processed;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzVornProc)
