// Fuzz target: the front end's entry points, VornInit then a run of VornProc
// frames (and VornDoa over the whole run when direction finding is on), with
// switch values, modes, mid-stream mode changes and sample data from the input.
//
// Input layout, every field optional (missing bytes read as zero):
//   flags byte: bit 0 switch values as raw 32-bit words instead of the
//     mostly-valid small range; bit 1 a state buffer smaller than required;
//     bit 2 VornInit reads a configuration file (the text follows, 16-bit
//     length first); bit 3 no reference buffer; bit 4 the whole run is made
//     twice, on fresh buffers, and must give the same bytes
//   the record's active switches, vorn_mode, doa_update_flag and azimuth
//   the switches of the three modes, written after VornInit (as a caller
//   overriding a mode's switches would)
//   the number of frames (1..16), then per frame a control byte and what it
//     announces: bit 0 a new vorn_mode, bit 1 a new doa_update_flag, bit 2 a
//     mode byte and that mode's new switches
//   the microphone order: one byte picks one of the six orders, or (from
//     0xF0 up) three more bytes give slots -1..3 as they come
//   the rest: 16-bit samples, microphones and reference, reused cyclically.
//
// Checks: a call the library must refuse (judged on a copy of the record:
// its own fields, the mode, the selected switches, a missing reference, the
// microphone order; or a buffer VornInit did not prepare) gets that code
// from VornProc and leaves the state buffer, the output and the record's
// outputs untouched; a frame processed without error reports a speech flag
// of 0 or 1; a repeated run reproduces every result, output sample, speech
// flag and azimuth (no hidden state, no read of memory that was never
// written).
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

// The code VornInit must refuse a record with, judged on a copy: its own
// fields, the mode, the selected switches.
int32_t ExpectedCheck(const T_VornParam& pm) {
  T_VornParam copy = pm;
  const int32_t record = VornCheckRecord(&copy);
  if (record != 0) return record;
  if (!VornModeKnown(copy.vorn_mode)) return VORN_ERR_BAD_MODE;
  SwitchMode(&copy);
  return VornParamCheck(&copy);
}

// ... and VornProc a frame, which also needs its reference and a valid order.
int32_t ExpectedFrameCheck(const T_VornParam& pm, bool no_reference, const short order[3]) {
  const int32_t record = ExpectedCheck(pm);
  if (record != 0) return record;
  T_VornParam copy = pm;
  SwitchMode(&copy);
  if (no_reference && copy.aec_flag >= 1) return VORN_ERR_NULL;
  return MicOrderValid(order) ? 0 : VORN_ERR_BAD_MIC_ORDER;
}

struct FrameChange {
  bool new_mode, new_update, new_keys;
  int32_t mode, update;
  int keys_mode;
  T_VornKey keys;
};

// Everything the input asks for, decoded once so that a run can be repeated.
struct Plan {
  bool raw_words, small_buffer, with_config, no_reference, twice;
  int32_t buff_size;
  T_VornKey active;
  int32_t vorn_mode, doa_update_flag, azimuth;
  std::string config_path;
  T_VornKey mode_keys[3];
  std::vector<FrameChange> changes;
  short mic_order[3];
  const uint8_t* samples;
  size_t sample_count;
};

Plan Decode(const uint8_t* data, size_t size) {
  InputBytes input(data, size);
  Plan plan{};
  const uint8_t flags = input.Byte();
  plan.raw_words = (flags & 1) != 0;
  plan.small_buffer = (flags & 2) != 0;
  plan.with_config = (flags & 4) != 0;
  plan.no_reference = (flags & 8) != 0;
  plan.twice = (flags & 16) != 0;
  plan.buff_size = plan.small_buffer ? kVornMinBuffSize - 1 - input.Le16() : kVornMinBuffSize;
  ReadSwitches(input, plan.raw_words, &plan.active);
  plan.vorn_mode = SwitchValue(input, plan.raw_words, 3);
  plan.doa_update_flag = SwitchValue(input, plan.raw_words, 2);
  plan.azimuth = SwitchValue(input, plan.raw_words, 360);
  if (plan.with_config) {
    const size_t config_len = input.Le16() % 2048;
    const uint8_t* config = input.Take(config_len);
    plan.config_path = WriteScratchFile(config, static_cast<size_t>(input.rest() - config));
  }
  for (T_VornKey& keys : plan.mode_keys) ReadSwitches(input, plan.raw_words, &keys);
  plan.changes.resize(1 + input.Byte() % kMaxFrames);
  for (FrameChange& change : plan.changes) {
    const uint8_t control = input.Byte();
    change.new_mode = (control & 1) != 0;
    change.new_update = (control & 2) != 0;
    change.new_keys = (control & 4) != 0;
    if (change.new_mode) change.mode = SwitchValue(input, plan.raw_words, 3);
    if (change.new_update) change.update = SwitchValue(input, plan.raw_words, 2);
    if (change.new_keys) {
      change.keys_mode = input.Byte() % 3;
      ReadSwitches(input, plan.raw_words, &change.keys);
    }
  }
  static constexpr short kOrders[6][3] = {{0, 1, 2}, {0, 2, 1}, {1, 0, 2}, {1, 2, 0}, {2, 0, 1}, {2, 1, 0}};
  const uint8_t order_pick = input.Byte();
  for (int i = 0; i < 3; ++i) {
    plan.mic_order[i] =
        order_pick < 0xF0 ? kOrders[order_pick % 6][i] : static_cast<short>(input.Byte() % 5 - 1);
  }
  plan.samples = input.rest();
  plan.sample_count = input.rest_size() / 2;
  return plan;
}

// What a run produced, compared between repeated runs.
struct RunLog {
  std::vector<int32_t> values;  // codes, speech flags, azimuths
  std::vector<short> audio;
  bool any_processed = false;
  bool operator==(const RunLog&) const = default;
};

RunLog Run(const Plan& plan) {
  RunLog log;
  T_VornParam pm{};
  std::vector<unsigned char> state(static_cast<size_t>(plan.buff_size));
  pm.p_data = state.data();
  pm.buff_size = plan.buff_size;
  pm.param_size = sizeof(T_VornParam);
  ApplyKey(plan.active, &pm);
  pm.vorn_mode = plan.vorn_mode;
  pm.doa_update_flag = plan.doa_update_flag;
  pm.azimuth = plan.azimuth;

  std::string config_path = plan.config_path;
  const int32_t init = VornInit(&pm, plan.with_config ? config_path.data() : nullptr);
  log.values.push_back(init);
  if (init == 0) VORN_FUZZ_CHECK(ExpectedCheck(pm) == 0);
  if ((init >= 1 && init <= 10) || init == VORN_ERR_BAD_MODE) VORN_FUZZ_CHECK(ExpectedCheck(pm) == init);
  std::memcpy(pm.in_argv, plan.mode_keys, sizeof(pm.in_argv));

  // Samples: the rest of the input, reused cyclically (zeros if there is none).
  size_t next_sample = 0;
  auto fill = [&](short* dst, int count) {
    for (int i = 0; i < count; ++i) {
      if (plan.sample_count == 0) {
        dst[i] = 0;
        continue;
      }
      const uint8_t* at = plan.samples + 2 * (next_sample++ % plan.sample_count);
      dst[i] = static_cast<short>(at[0] | (at[1] << 8));
    }
  };

  const int frames = static_cast<int>(plan.changes.size());
  std::vector<short> capture(static_cast<size_t>(frames) * 3 * kFrameSamples);
  short mic_order[3] = {plan.mic_order[0], plan.mic_order[1], plan.mic_order[2]};
  for (int f = 0; f < frames; ++f) {
    const FrameChange& change = plan.changes[static_cast<size_t>(f)];
    if (change.new_mode) pm.vorn_mode = change.mode;
    if (change.new_update) pm.doa_update_flag = change.update;
    if (change.new_keys) {
      ApplyKey(change.keys, &pm);  // a caller may also write the active fields
      T_VornKey& keys = pm.in_argv[change.keys_mode];
      const T_VornKey path_kept = keys;
      keys = change.keys;
      std::memcpy(keys.preaec_filter_path, path_kept.preaec_filter_path, sizeof(keys.preaec_filter_path));
    }

    short* frame = capture.data() + static_cast<size_t>(f) * 3 * kFrameSamples;
    fill(frame, 3 * kFrameSamples);
    std::vector<short> reference(kFrameSamples);
    fill(reference.data(), kFrameSamples);
    std::vector<short> out(kFrameSamples, 0x5a5a);

    int32_t expected = ExpectedFrameCheck(pm, plan.no_reference, mic_order);
    // Each run has a fresh buffer: a failed VornInit never prepared it.
    if (init != 0 && expected == 0) expected = VORN_ERR_NOT_INITIALISED;
    const T_VornParam before = pm;
    const std::vector<unsigned char> state_before = expected != 0 ? state : std::vector<unsigned char>();
    const int32_t result =
        VornProc(&pm, frame, plan.no_reference ? nullptr : reference.data(), out.data(), mic_order);
    log.values.push_back(result);
    if (expected != 0) {
      VORN_FUZZ_CHECK(result == expected);
      VORN_FUZZ_CHECK(state == state_before);
      VORN_FUZZ_CHECK(pm.azimuth == before.azimuth && pm.vad_flag == before.vad_flag);
      for (short sample : out) VORN_FUZZ_CHECK(sample == 0x5a5a);
      continue;
    }
    log.values.push_back(pm.vad_flag);
    log.values.push_back(pm.azimuth);
    log.audio.insert(log.audio.end(), out.begin(), out.end());
    if (result == 0) {
      VORN_FUZZ_CHECK(pm.vad_flag == 0 || pm.vad_flag == 1);
      log.any_processed = true;
    }
  }

  if (init == 0 && log.any_processed && pm.doa_flag != 0) {
    log.values.push_back(VornDoa(&pm, capture.data(), mic_order, frames * kFrameSamples));
    log.values.push_back(pm.azimuth);
  }
  return log;
}

}  // namespace

bool FuzzVornProc(const uint8_t* data, size_t size) {
  const Plan plan = Decode(data, size);
  const RunLog first = Run(plan);
  if (plan.twice) VORN_FUZZ_CHECK(Run(plan) == first);
  return first.any_processed;
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzVornProc)
