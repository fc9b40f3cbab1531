// The designed interface's return codes as text (the table in vorn_proc.h).
#include "vorn/vorn_code_text.h"
#include "vorn_proc.h"

namespace {

using vorn::CodeText;

constexpr CodeText kCodeTexts[] = {
    {VORN_OK, "success"},
    {VORN_ERR_NULL, "a required pointer is null (record, state buffer, input, output, microphone order, or the "
                    "reference while the echo canceller is on)"},
    {VORN_ERR_BUFF_SIZE, "the state buffer is smaller than VORN_MIN_BUFF_SIZE"},
    {VORN_ERR_PARAM_SIZE, "param_size is not sizeof(T_VornParam) of this library"},
    {VORN_ERR_AGC_FLAG, "agc_flag is not 0, 1 or 2"},
    {VORN_ERR_AEC_FLAG, "aec_flag is not 0..3"},
    {VORN_ERR_DOA_FLAG, "doa_flag is not 0..3, or doa_update_flag is not 0 or 1"},
    {VORN_ERR_NS_FLAG, "ns_flag is not 0, 1 or 2"},
    {VORN_ERR_BF_FLAG, "bf_flag is not 0..7"},
    {VORN_ERR_AZIMUTH, "bf_azimuth is not 0..359, or not 0, 60 or 300 with bf_flag 3 or 4"},
    {VORN_ERR_VAD_MODE, "vad_mode is not 1 or 2"},
    {VORN_ERR_NOT_INITIALISED, "the state buffer has not been prepared by VornInit"},
    {VORN_ERR_BAD_PROFILE, "the profile is neither VORN_PROFILE_CLASSIC nor VORN_PROFILE_ENHANCED"},
    {VORN_ERR_BAD_MODE, "vorn_mode is not VORN_MODE_CUSTOM, VORN_MODE_WAKEUP, VORN_MODE_ASR or VORN_MODE_COMM"},
    {VORN_ERR_BAD_MIC_ORDER, "the microphone order does not name slots 0, 1 and 2 once each"},
    {VORN_ERR_BAD_LENGTH, "the length is negative"},
    {VORN_ERR_NO_SEARCH, "doa_flag is 0: no direction search is chosen"},
    {VORN_ERR_OUT_OF_RANGE, "the value lies outside its documented range"},
    {VORN_ERR_CONFIG, "the configuration cannot be read, names no known profile, or its level target is refused"},
    {VORN_ERR_MODULE_INIT, "the AGC or the echo canceller failed to initialise"},
    {VORN_ERR_NO_FRAMES, "no frame has been processed yet to take a direction from"},
};

}  // namespace

extern "C" const char* VornErrorString(int32_t code) {
  return vorn::TextOfCode(kCodeTexts, code, "a processing module failed inside the library (its own code)");
}
