/*
 * Vorn: speech front end for a three-microphone circular array and a
 * loudspeaker. Public, C-compatible interface.
 *
 * Per 16 ms frame (256 samples per channel at 16 kHz, 16-bit) the library
 * takes the three microphones and the loudspeaker reference and returns one
 * enhanced mono channel, a speech flag and the talker's azimuth. All state
 * lives in a caller-provided buffer of at least 1,000,000 bytes; the library
 * allocates nothing.
 */
#ifndef VORN_PROC_H
#define VORN_PROC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One operating mode's switches (540 bytes). The struct tags avoid the
 * reserved leading-underscore form; the typedef names are the interface. */
typedef struct VornKey {
  int32_t agc_flag;   /* digital AGC: 0 off, 1 or 2 on (also the AGC's wake-up/command mode) */
  int32_t bf_flag;    /* beamformer variant 0..7 */
  int32_t doa_flag;   /* direction finding: 0 none, 1 per-hop search, 2 or 3 elevation/azimuth search */
  int32_t aec_flag;   /* echo canceller: 0 off, 1 ASR output, 2 communication output, 3 both */
  int32_t ns_flag;    /* noise suppression: 0 off, 1 single channel, 2 multi-channel post filter */
  int32_t bf_azimuth; /* fixed steering azimuth, degrees 0..359 */
  int32_t vad_mode;   /* VAD operating mode, 1 or 2 */
  char preaec_filter_path[512]; /* echo-path filter file, NUL-terminated, empty when absent */
} T_VornKey;

/* The caller's parameter record (1680 bytes on a 64-bit target). */
typedef struct VornParam {
  unsigned char* p_data; /* caller's state buffer */
  int32_t buff_size;     /* its size in bytes, at least 1,000,000 */
  int32_t param_size;    /* sizeof(T_VornParam), i.e. 1680: a layout/version check */
  int32_t agc_flag;      /* active switches, copied from in_argv[vorn_mode] on every call */
  int32_t bf_flag;
  int32_t bf_azimuth;
  int32_t vad_mode;
  int32_t doa_flag;
  int32_t aec_flag;
  int32_t ns_flag;
  int32_t azimuth;         /* output: azimuth reported for the last frame, degrees */
  int32_t vad_flag;        /* output: 1 when the last frame held speech */
  int32_t doa_update_flag; /* input: 1 feeds the suppressor's noise estimate to direction finding */
  int32_t vorn_mode;       /* input: 0 wake-up, 1 recognition, 2 communication */
  T_VornKey in_argv[3];    /* per-mode switches, indexed by vorn_mode */
} T_VornParam;

/* Size of the state record plus slack. Note: the parameter check requires
 * buff_size >= 1,000,000, which is more than this figure. */
int32_t VornGetBuffSize(void);

/* The library version, "0.4.4". */
const char* VornGetVersion(void);

/* Prepares all module state in pm->p_data. config_file may be NULL (built-in
 * per-mode defaults) or the path of a configuration file. Returns 0 on
 * success, 1..10 for a failed parameter check, -1 when the configuration file
 * cannot be loaded, 100 when the AGC or the echo canceller fails to
 * initialise, otherwise a module's own code. */
int32_t VornInit(T_VornParam* pm, char* config_file);

/* Processes one frame: inp holds 3 x 256 interleaved microphone samples,
 * aec_ref 256 reference samples (needed when the echo canceller is on), out
 * receives 256 samples, mic_oder gives three channel indices. */
int32_t VornProc(T_VornParam* pm, short* inp, short* aec_ref, short* out, short* mic_oder);

/* Direction finding alone over sample_len_pre_channel samples per channel of
 * interleaved three-microphone audio; the result is left in pm->azimuth. */
int32_t VornDoa(T_VornParam* pm, short* inp, short* mic_oder, int sample_len_pre_channel);

/* Processing profiles. Classic is the front end as first designed, kept bit
 * for bit. Enhanced keeps the same calls, modes, switches, frame and buffer,
 * and does each job with the better methods described in the README. VornInit
 * selects classic unless the configuration file says otherwise:
 *   [VORN]
 *   profile = enhanced        (or classic; case-insensitive)
 * A profile value other than these two makes VornInit return -1. */
#define VORN_PROFILE_CLASSIC 0
#define VORN_PROFILE_ENHANCED 1

/* Return codes of the profile switch, beside the parameter check's 1..3. */
#define VORN_ERR_NOT_INITIALISED 11 /* the record's buffer has not been prepared by VornInit */
#define VORN_ERR_BAD_PROFILE 12     /* neither VORN_PROFILE_CLASSIC nor VORN_PROFILE_ENHANCED */

/* Selects the profile for the following frames; call after VornInit, at any
 * frame boundary. Returns 0; 1..3 for a record the parameter check refuses
 * (missing record or buffer, buffer too small, wrong record size);
 * VORN_ERR_NOT_INITIALISED; or VORN_ERR_BAD_PROFILE. Nothing changes on a
 * nonzero return. */
int32_t VornSetProfile(T_VornParam* pm, int32_t profile);

/* The profile in force, or -1 when the record or its buffer is missing or
 * has not been prepared by VornInit. */
int32_t VornGetProfile(const T_VornParam* pm);

/* ---- Enhanced profile results ----
 * Figures of the last frame VornProc processed under the enhanced profile.
 * Each returns 0 with *value set; 1..3 for a record the parameter check
 * refuses (1 also for a null value); or VORN_ERR_NOT_INITIALISED. */

/* How likely the near talker speaks in the frame last written to out (0..1),
 * the figure the speech flag is drawn from (the flag is 1 above 0.5, held one
 * frame after a confident run). Noise and the far end's echo are not speech. */
int32_t VornGetSpeechProbability(const T_VornParam* pm, float* value);

/* Confidence, 0..1, of the azimuth last written to pm->azimuth: by VornProc
 * with per-frame tracking (doa_flag 1), or by VornDoa. It grows with how
 * well the pooled evidence agrees on one direction and with how much of it
 * there is; 0 before the talker has been heard, and under the classic
 * profile, which gives none. On the bench, frames above 0.5 are within 10
 * degrees of the talker more often than those below (see README). */
int32_t VornGetDoaConfidence(const T_VornParam* pm, float* value);

/* Share of the last frame (0..1) in which the loudspeaker reference carried
 * the far end above its floor, as the echo canceller judged it; 0 with the
 * canceller off (aec_flag 0) and under the classic profile. */
int32_t VornGetFarEndActivity(const T_VornParam* pm, float* value);

/* Echo return loss in dB: the reference's level over the echo's level at the
 * canceller's input, smoothed over the stretches where only echo is heard.
 * 99 until such a stretch has been measured (and under the classic
 * profile). */
int32_t VornGetEchoReturnLoss(const T_VornParam* pm, float* value);

/* 1 while the loudspeaker reference carries one of the microphones' own
 * signals (a miswired channel), else 0. The canceller then leaves the frame
 * as the beam gave it rather than cancel the talker. Always 0 under the
 * classic profile. */
int32_t VornGetReferenceIsMicrophone(const T_VornParam* pm, float* value);

/* Microphone warnings, a bit mask. Microphone m (0..2) is the array's
 * microphone m, i.e. input slot mic_oder[m]. The enhanced profile watches
 * every frame's samples; a faulty microphone is left out of the beams (and
 * bf_flag 0 passes the first working microphone instead of microphone 0)
 * until it has behaved for about a second. */
#define VORN_WARN_MIC_DEAD(m) (1u << (m))          /* constant (zeros) while another microphone is not */
#define VORN_WARN_MIC_CLIPPED(m) (1u << (3 + (m))) /* clipping while another microphone is not */

/* The warnings in force after the last frame; 0 under the classic profile,
 * which does not watch the microphones. */
int32_t VornGetWarnings(const T_VornParam* pm, uint32_t* warnings);

/* The enhanced profile's level control (agc_flag 1 or 2) steers the near
 * talker's active speech level at its output to a target in dBFS:
 * 10*log10 of the mean square over the talker's speech frames against
 * 32768^2. VornInit sets the default, or the configuration file's
 *   [VORN]
 *   agc_target_dbfs = -26
 * (a value that is no number or lies outside the range makes VornInit
 * return -1). The classic AGC ignores it. */
#define VORN_AGC_TARGET_DEFAULT_DBFS (-26.0f)
#define VORN_AGC_TARGET_MIN_DBFS (-40.0f)
#define VORN_AGC_TARGET_MAX_DBFS (-6.0f)
#define VORN_ERR_OUT_OF_RANGE 13 /* a value outside its documented range */

/* Sets the target, at any frame boundary: VORN_AGC_TARGET_MIN_DBFS ..
 * VORN_AGC_TARGET_MAX_DBFS, else VORN_ERR_OUT_OF_RANGE. */
int32_t VornSetAgcTarget(T_VornParam* pm, float target_dbfs);
int32_t VornGetAgcTarget(const T_VornParam* pm, float* target_dbfs);

#ifdef __cplusplus
}
#endif

#endif /* VORN_PROC_H */
