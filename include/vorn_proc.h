/*
 * Vorn: speech front end for a three-microphone circular array and a
 * loudspeaker. The designed interface, kept as the compatibility layer:
 * new integrations should start from vorn.h, which drives the same
 * processing through an opaque state and named error codes.
 *
 * Per 16 ms frame the library takes the three microphones and the
 * loudspeaker reference and returns one enhanced mono channel, a speech flag
 * and the talker's azimuth. All state lives in a caller-provided buffer of
 * at least VORN_MIN_BUFF_SIZE bytes (any alignment); the library allocates
 * nothing and prints nothing. Frame format, array geometry, azimuth
 * convention, latency, threading and moving a state: see vorn_defs.h.
 *
 * Copying a state: between calls, the first VORN_MIN_BUFF_SIZE bytes of the
 * buffer may be copied to another buffer and the record pointed at it
 * (p_data); the copy goes on exactly where the original stood.
 */
#ifndef VORN_PROC_H
#define VORN_PROC_H

#include <stdint.h>

#include "vorn_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The state buffer must hold at least this many bytes. (VornGetBuffSize
 * reports the state record alone, which is less.) */
#define VORN_MIN_BUFF_SIZE 1000000

/* vorn_mode: VORN_MODE_WAKEUP, VORN_MODE_ASR, VORN_MODE_COMM, or this value
 * to run with the active switch fields exactly as the caller wrote them. */
#define VORN_MODE_CUSTOM (-1)

/* Return codes. Every entry point returns 0 on success; a nonzero code
 * leaves the state as it was (VornInit still stores its configuration's
 * warnings; and after VornInit returns 100 or a module's code the buffer
 * must be initialised again).
 *
 *   code  name                        meaning
 *      0  VORN_OK                     success
 *      1  VORN_ERR_NULL               no record or no state buffer; VornProc: no input, output or
 *                                     microphone order, or no reference while aec_flag >= 1;
 *                                     VornDoa: no input (or no order with doa_flag 1); a getter: no
 *                                     place for its value
 *      2  VORN_ERR_BUFF_SIZE          buff_size below VORN_MIN_BUFF_SIZE
 *      3  VORN_ERR_PARAM_SIZE         param_size is not sizeof(T_VornParam) of this build
 *      4  VORN_ERR_AGC_FLAG           agc_flag not 0..2
 *      5  VORN_ERR_AEC_FLAG           aec_flag not 0..3
 *      6  VORN_ERR_DOA_FLAG           doa_flag not 0..3, or doa_update_flag not 0 or 1
 *      7  VORN_ERR_NS_FLAG            ns_flag not 0..2
 *      8  VORN_ERR_BF_FLAG            bf_flag not 0..7
 *      9  VORN_ERR_AZIMUTH            bf_azimuth not 0..359, or not 0, 60 or 300 with bf_flag 3 or 4
 *     10  VORN_ERR_VAD_MODE           vad_mode not 1 or 2
 *     11  VORN_ERR_NOT_INITIALISED    the buffer has not been prepared by VornInit
 *     12  VORN_ERR_BAD_PROFILE        neither VORN_PROFILE_CLASSIC nor VORN_PROFILE_ENHANCED
 *     13  VORN_ERR_BAD_MODE           vorn_mode not VORN_MODE_CUSTOM or 0..2
 *     14  VORN_ERR_BAD_MIC_ORDER      the microphone order does not name slots 0, 1 and 2 once each
 *     15  VORN_ERR_BAD_LENGTH         VornDoa: a negative length
 *     16  VORN_ERR_NO_SEARCH          VornDoa with doa_flag 0: no direction search chosen
 *     17  VORN_ERR_OUT_OF_RANGE       VornSetAgcTarget: a target outside its range
 *     -1  VORN_ERR_CONFIG             VornInit: the configuration file cannot be read, or its
 *                                     [VORN] profile names no profile (VornGetConfigWarnings says why)
 *    100  VORN_ERR_MODULE_INIT        VornInit: the AGC or the echo canceller failed to initialise
 *    201  VORN_ERR_NO_FRAMES          VornDoa with doa_flag 1 before any frame has been processed
 *  other  (a module's own code)       a fault inside the library; report it
 *
 * The first failing check decides, in this order: the record (1, 2, 3), the
 * mode (13), the switches (4 to 10, then 6 for doa_update_flag), the
 * buffers (1), the microphone order (14), and whether VornInit prepared
 * the buffer (11). VornDoa judges no mode, and the length (15) and the
 * search (16) before the buffers. VornErrorString(code) gives the meaning
 * as text. */
#define VORN_ERR_NULL 1
#define VORN_ERR_BUFF_SIZE 2
#define VORN_ERR_PARAM_SIZE 3
#define VORN_ERR_AGC_FLAG 4
#define VORN_ERR_AEC_FLAG 5
#define VORN_ERR_DOA_FLAG 6
#define VORN_ERR_NS_FLAG 7
#define VORN_ERR_BF_FLAG 8
#define VORN_ERR_AZIMUTH 9
#define VORN_ERR_VAD_MODE 10
#define VORN_ERR_NOT_INITIALISED 11
#define VORN_ERR_BAD_PROFILE 12
#define VORN_ERR_BAD_MODE 13
#define VORN_ERR_BAD_MIC_ORDER 14
#define VORN_ERR_BAD_LENGTH 15
#define VORN_ERR_NO_SEARCH 16
#define VORN_ERR_OUT_OF_RANGE 17
#define VORN_ERR_CONFIG (-1)
#define VORN_ERR_MODULE_INIT 100
#define VORN_ERR_NO_FRAMES 201

/* One operating mode's switches (540 bytes). The struct tags avoid the
 * reserved leading-underscore form; the typedef names are the interface. */
typedef struct VornKey {
  int32_t agc_flag;   /* digital AGC: 0 off, 1 wake-up curve, 2 command curve */
  int32_t bf_flag;    /* beam: 0 microphone 0 alone, 1 delay-and-sum, 2 MVDR, 3/4 adaptive (bf_azimuth
                         0, 60 or 300), 5/6 strongest sector, 7 fixed set */
  int32_t doa_flag;   /* direction finding: 0 none, 1 per-frame tracking, 2 or 3 utterance search */
  int32_t aec_flag;   /* echo canceller: 0 off, 1 recognition output, 2 communication output, 3 both
                         (recognition to the output, communication to the speech detector) */
  int32_t ns_flag;    /* noise suppression: 0 off, 1 single channel, 2 multi-channel post filter */
  int32_t bf_azimuth; /* steering azimuth, degrees 0..359 (see vorn_defs.h) */
  int32_t vad_mode;   /* speech detector: 1 wake-up rules, 2 recognition rules */
  char preaec_filter_path[512]; /* echo-path file seeding the canceller (mode 0's is used),
                                   NUL-terminated, empty when absent */
} T_VornKey;

/* The caller's parameter record: 1680 bytes with 8-byte pointers, 1676 with
 * 4-byte ones. */
typedef struct VornParam {
  unsigned char* p_data; /* caller's state buffer, any alignment */
  int32_t buff_size;     /* its size in bytes, at least VORN_MIN_BUFF_SIZE */
  int32_t param_size;    /* sizeof(T_VornParam): a layout check */
  int32_t agc_flag;      /* active switches, copied from in_argv[vorn_mode] on every call */
  int32_t bf_flag;       /* (unless vorn_mode is VORN_MODE_CUSTOM) */
  int32_t bf_azimuth;
  int32_t vad_mode;
  int32_t doa_flag;
  int32_t aec_flag;
  int32_t ns_flag;
  int32_t azimuth;         /* output: talker azimuth after the last frame, degrees 0..359 */
  int32_t vad_flag;        /* output: 1 when the last frame held speech, else 0 */
  int32_t doa_update_flag; /* input: 1 feeds the suppressor's noise estimate to direction finding */
  int32_t vorn_mode;       /* input: VORN_MODE_WAKEUP, _ASR, _COMM or VORN_MODE_CUSTOM */
  T_VornKey in_argv[3];    /* per-mode switches, indexed by vorn_mode */
} T_VornParam;

/* Size of the state record plus slack: 961,584 bytes with 8-byte pointers.
 * The buffer must nevertheless hold VORN_MIN_BUFF_SIZE bytes. */
int32_t VornGetBuffSize(void);

/* The library version, "0.4.4". */
const char* VornGetVersion(void);

/* The meaning of a return code of this interface, as a constant English
 * sentence (never NULL). */
const char* VornErrorString(int32_t code);

/* Prepares all state in pm->p_data. Each mode's switches come from
 * config_file (which replaces them wholesale: a key it lacks reads 0) or,
 * for NULL, the built-in defaults; the selected mode's switches (or, for
 * VORN_MODE_CUSTOM, the active fields) are then checked. Mistakes in the
 * file that it can skip (unknown section or key, a value that is not a
 * number) are warnings: VornGetConfigWarnings. Returns 0 or a code of the
 * table; on a check failure the buffer is left as it was. Calling it again
 * restarts every module. */
int32_t VornInit(T_VornParam* pm, const char* config_file);

/* Processes one frame: inp holds VORN_MIC_FRAME_VALUES interleaved
 * microphone samples, aec_ref VORN_FRAME_SAMPLES reference samples (may be
 * NULL while aec_flag is 0), out receives VORN_FRAME_SAMPLES samples,
 * mic_oder holds the three slots of the microphones at 0, 120 and 240
 * degrees. The mode and every switch may change between frames: switching
 * the echo canceller on (or to other outputs) prepares it as needed, from
 * the echo-path file VornInit read. Sets pm->vad_flag and pm->azimuth.
 * Returns 0 or a code of the table; nothing is touched on a refused call. */
int32_t VornProc(T_VornParam* pm, const short* inp, const short* aec_ref, short* out, const short* mic_oder);

/* Direction of the talker over a stretch of sample_len_pre_channel
 * interleaved three-microphone samples per channel, by the active doa_flag:
 * 1 from the per-frame scores of the frames processed so far (the samples
 * are not read), 2 or 3 by searching the samples (at most the first 64
 * frames' worth are used; fewer than 768 samples give azimuth 0). The
 * result is left in pm->azimuth. mic_oder may be NULL for doa_flag 2 or 3
 * (slots 0, 1, 2). Returns 0 or a code of the table. */
int32_t VornDoa(T_VornParam* pm, const short* inp, const short* mic_oder, int sample_len_pre_channel);

/* The warnings the last VornInit collected from its configuration file:
 * *count receives their number and *text (which may be NULL) a pointer to
 * them as text inside the state buffer, one "line N: ..." sentence per line
 * (empty without warnings), valid until the next VornInit. Returns 0, 1..3
 * for a record the checks refuse, or VORN_ERR_NOT_INITIALISED before any
 * VornInit. */
int32_t VornGetConfigWarnings(const T_VornParam* pm, int32_t* count, const char** text);

/* The processing profile. VornInit selects classic unless the
 * configuration file says otherwise:
 *   [VORN]
 *   profile = enhanced        (or classic; case-insensitive)
 * A profile value other than these two makes VornInit return -1. */

/* Selects the profile for the following frames; call after VornInit, at any
 * frame boundary. Returns 0; 1..3 for a record the checks refuse;
 * VORN_ERR_NOT_INITIALISED; or VORN_ERR_BAD_PROFILE. Nothing changes on a
 * nonzero return. */
int32_t VornSetProfile(T_VornParam* pm, int32_t profile);

/* The profile in force, or -1 when the record or its buffer is missing or
 * has not been prepared by VornInit. */
int32_t VornGetProfile(const T_VornParam* pm);

/* ---- Enhanced profile results ----
 * Figures of the last frame VornProc processed under the enhanced profile.
 * Each returns 0 with *value set; VORN_ERR_NULL, VORN_ERR_BUFF_SIZE or
 * VORN_ERR_PARAM_SIZE for a record the parameter check refuses (VORN_ERR_NULL
 * also for a null value); or VORN_ERR_NOT_INITIALISED. They only read, so a
 * copied buffer answers before its first call as the original would. */

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

/* Sets the target, at any frame boundary: VORN_AGC_TARGET_MIN_DBFS ..
 * VORN_AGC_TARGET_MAX_DBFS, else VORN_ERR_OUT_OF_RANGE. */
int32_t VornSetAgcTarget(T_VornParam* pm, float target_dbfs);
int32_t VornGetAgcTarget(const T_VornParam* pm, float* target_dbfs);

#ifdef __cplusplus
}
#endif

#endif /* VORN_PROC_H */
