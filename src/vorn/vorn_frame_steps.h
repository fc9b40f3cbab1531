// The steps of one frame that both profiles share: refreshing the module
// call records from the caller's switches, keeping the canceller ready for
// the outputs the frame needs, running it over a frame in blocks, and
// handing the VAD suppressor's figures to the AGC.
#pragma once

#include <cstdint>

#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace vorn {

constexpr int kFrameLen = VORN_FRAME_SAMPLES;
constexpr int kHalfLen = 128;
constexpr int kAecBlock = 64;
constexpr int kCohLen = 130;    // the canceller's sub-band coherence output
constexpr int kVadCohLen = 65;  // of which the VAD reads the first band
constexpr int kSampleRate = VORN_SAMPLE_RATE_HZ;

// The beamformer's call record from the caller's active switches, asking
// for the multi-beam channels only when the post filter runs.
void FillBfParam(const T_VornParam* pm, TVornState* st);
// The part of it the direction search reads (the azimuth and the inner
// interface flag are left as they are).
void FillBfParamForDoa(const T_VornParam* pm, TVornState* st);
// A suppressor's call record over its region.
void FillNsParam(TNsParam* ns, unsigned char* region);
// The main path's three suppressor records, refreshed every frame.
void RefreshNsParams(const T_VornParam* pm, TVornState* st);

// Before a frame: prepares the canceller for the outputs `aec_flag` asks
// for when it does not produce them yet (the flag may change between
// frames), and restarts it when it resumes after frames without it. Returns
// 0 or the canceller's code.
int32_t KeepCancellerReady(const T_VornParam* pm, TVornState* st);

// Runs the canceller over one frame in 64-sample blocks and writes the
// outputs `aec_flag` selects into `out` (and the communication output into
// `vad_in` for aec_flag 3). `subcoh` keeps the last block's coherence.
// Returns a nonzero canceller result at once.
int CancelEcho(const T_VornParam* pm, TVornState* st, const short* near, const short* ref, short* out, short* vad_in,
               float* subcoh);

// The AGC over one frame, steered by the VAD suppressor's three SNR figures.
int32_t RunDigitalAgc(const T_VornParam* pm, TVornState* st, short* in, short* out);

}  // namespace vorn
