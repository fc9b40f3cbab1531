// Beamformer and direction-of-arrival module: its call record, its state in
// the caller's buffer and its entry points.
//
// The caller fills a T_AudioDspParam whose p_data points at a region of at
// least kBfBuffSize bytes, runs BFInit once and BfProc once per 256-sample
// hop of interleaved three-microphone PCM. AudioDspDoa and VornDoaProc give
// one direction for a whole stretch of audio after the fact.
#pragma once

#include <cstddef>

namespace vorn {

constexpr int kBfHop = 256;          // new samples per channel and call
constexpr int kBfFftLen = 512;       // overlap-save block, 50 % overlap
constexpr int kBfFftOrder = 9;       // log2(kBfFftLen)
constexpr int kBfNumBins = 257;      // kBfFftLen / 2 + 1
constexpr int kBfChannels = 3;
constexpr int kBfHistory = 64;       // hops kept by the DOA histories
constexpr int kBfDoaDirections = 72; // 0, 5, ..., 355 degrees
constexpr int kBfDoaElevations = 1;  // elevation families in the utterance search
constexpr unsigned kBfFrameNumMax = 200000;
constexpr int kBfBuffSize = 240000;  // the region the front end reserves

// Return codes of the module.
constexpr int kBfOk = 0;
constexpr int kBfErrNull = 1;
constexpr int kBfErrParam = 2;
constexpr int kBfErrNotReady = 201;  // DOA asked before any hop / private suppressor failed

typedef struct AudioDspParam {
  void* p_data;              // the T_AudioDspState, caller-owned
  int buff_size;             // bytes at p_data
  int param_size;            // sizeof(T_AudioDspParam), must be kBfParamSize
  int agc_flag;              // carried for the front end; not read here
  int bf_flag;               // beam type 0..7
  int bf_azimuth;            // look direction in degrees
  int doa_flag;              // 0 none, 1 per-hop tracking, 2/3 utterance search
  int aec_flag;              // carried; not read here
  int ns_flag;               // carried; not read here
  int azimuth;               // output: latest direction in degrees
  int ext_doa_update_flag;   // caller's permission to update the DOA this hop
  int inner_interface_flag;  // 1: also produce the three multi-beam channels
} T_AudioDspParam;
using TBfParam = T_AudioDspParam;  // the front end's name for the record

// The size `param_size` must state: 56 bytes with 8-byte pointers, 48 with
// 4-byte ones.
constexpr int kBfParamSize = sizeof(T_AudioDspParam);
static_assert(kBfParamSize == (sizeof(void*) == 8 ? 56 : 48), "call record layout");
static_assert(offsetof(T_AudioDspParam, inner_interface_flag) == sizeof(void*) + 40);

// Three beams of one hop, 16-bit, for the multi-channel post filter.
struct TBfModelDataExchange {
  short mbf_au[3][kBfHop];
};

typedef struct AudioDspState {
  float noise[kBfNumBins];                   // GSC: smoothed reference power per bin
  float fd_g[kBfChannels][kBfFftLen];        // GSC: adaptive filters, packed spectra
  float td_bm_out[kBfChannels][kBfFftLen];   // GSC: blocking outputs, last two hops
  float td_fbf_out[kBfFftLen];               // GSC: fixed beam, last two hops
  float au[kBfChannels][kBfFftLen];          // last 512 input samples per microphone
  unsigned int frame_num;                    // hops processed, saturating
  float ns_psd[kBfNumBins];                  // noise power per bin for the DOA weights
  float w[kBfNumBins];                       // DOA weights of the current hop
  float long_snr;                            // GSC voice detector state
  float vad_noise;
  float long_fbf_en;
  int azimuth_buff[kBfHistory];              // DOA decisions in degrees, [63] newest
  int doa_update_flag;                       // module-side DOA enable
  TBfModelDataExchange inner_data_exchange;  // multi-beam output
  float frame_bf_en[kBfDoaDirections][kBfHistory];              // per-direction scores
  float pr_ele[kBfDoaElevations][kBfDoaDirections][kBfHistory];  // per-set scores
  float speech_noise_weight[kBfHistory][kBfNumBins];            // row 0 newest
} T_AudioDspState;

static_assert(sizeof(T_AudioDspState) == 128032, "state record layout");
static_assert(sizeof(T_AudioDspState) <= static_cast<std::size_t>(kBfBuffSize), "state must fit its region");
static_assert(offsetof(T_AudioDspState, frame_num) == 4 * (257 + 3 * 512 * 3 + 512));
static_assert(offsetof(T_AudioDspState, inner_data_exchange) == offsetof(T_AudioDspState, doa_update_flag) + 4);
static_assert(offsetof(T_AudioDspState, speech_noise_weight) + sizeof(float) * kBfHistory * kBfNumBins ==
              sizeof(T_AudioDspState));

// Checks the call record: 0, 1 (record or state missing), 2 (out of range).
int BfParamCheck(T_AudioDspParam* pm);
// Checks the record, clears the state. 0, 1 or 2.
int BFInit(T_AudioDspParam* pm);
// One hop: inp holds 256 frames of 3 interleaved samples, out receives 256
// samples; mic_order (may be null) names the input slot of microphones 0, 1, 2.
// 0, 1 (record, state or buffer missing) or 2 (bf_flag, or a slot not 0..2).
int BfProc(T_AudioDspParam* pm, const short* inp, short* out, const short* mic_order);
// The part of BfProc every beam builds on: the same checks and codes (out
// aside), the analysis buffers slid by one hop, their unwindowed spectra in
// `spectrum` (row = microphone), the multi-beam outputs and the direction
// step the record asks for. BfProc is this followed by its beam.
int BfAnalyse(T_AudioDspParam* pm, const short* inp, const short* mic_order,
              float spectrum[kBfChannels][kBfFftLen]);

// Direction of a stretch from the per-hop scores BfProc has stored (the
// samples are not read). 0, 1, 2 (doa_flag not 1..3) or 201 (no hop yet).
int AudioDspDoa(T_AudioDspParam* pm, const short* inp, const short* mic_oder, int sample_len_pre_channel);
// Direction of a stretch recomputed from its samples (at most 64 hops are
// used). 0, 1, 2 (a slot of mic_order not 0..2) or 201 (private noise
// suppressor failed to start).
int VornDoaProc(T_AudioDspParam* pm, const short* inp, const short* mic_order, int sample_len_pre_channel);

}  // namespace vorn
