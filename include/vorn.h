/*
 * Vorn: speech front end for a three-microphone circular array and a
 * loudspeaker. The recommended interface.
 *
 * Every 16 ms frame the front end takes the three microphones and the
 * loudspeaker reference and returns one enhanced mono channel and a small
 * result: whether the frame held speech, where the talker is, how sure that
 * direction is, how active the loudspeaker was. Frame format, array
 * geometry, azimuth convention, latency, threading and moving a state: see
 * vorn_defs.h.
 *
 * Memory. A VornState is opaque memory of exactly vorn_state_size() bytes,
 * aligned to VORN_STATE_ALIGN bytes (as malloc's memory is), owned by the
 * caller: static, on the heap, wherever. The library allocates nothing,
 * except in vorn_create, for callers who would rather it did. Between calls
 * a state may be copied (memcpy of vorn_state_size() bytes, to memory
 * aligned the same way) and the copy used in its place.
 *
 * Errors. Every function returning int returns VORN_OK (0) or one of the
 * negative codes below; vorn_error_string() gives each as text. A call that
 * fails changes nothing in the state.
 *
 * A minimal integration:
 *
 *   static uint64_t memory[VORN_STATE_SIZE_MAX / 8];    (or malloc(vorn_state_size()))
 *   VornState* st = (VornState*)memory;
 *   VornSettings settings;
 *   vorn_settings_default(&settings);
 *   settings.mode = VORN_MODE_COMM;
 *   if (vorn_init(st, sizeof memory, &settings) != VORN_OK) ...
 *   while (read_frame(mics, ref)) {
 *     VornResult result;
 *     if (vorn_process(st, mics, ref, out, &result) == VORN_OK) use(out, &result);
 *   }
 *
 * This interface and the designed one (vorn_proc.h, kept for compatibility)
 * drive the same processing.
 */
#ifndef VORN_H
#define VORN_H

#include <stddef.h>
#include <stdint.h>

#include "vorn_defs.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An instance: opaque caller memory of vorn_state_size() bytes. */
typedef struct VornState VornState;

/* Never less than vorn_state_size(): for memory sized at compile time. */
#define VORN_STATE_SIZE_MAX 1004000
/* The alignment a state's memory needs, in bytes. */
#define VORN_STATE_ALIGN 8

/* Error codes. */
#define VORN_E_NULL (-1)            /* a required pointer argument is NULL */
#define VORN_E_SIZE (-2)            /* the memory is smaller than vorn_state_size() */
#define VORN_E_NOT_READY (-3)       /* the state has not been initialised by vorn_init */
#define VORN_E_BAD_MODE (-4)        /* not VORN_MODE_WAKEUP, VORN_MODE_ASR or VORN_MODE_COMM */
#define VORN_E_BAD_PROFILE (-5)     /* not VORN_PROFILE_CLASSIC or VORN_PROFILE_ENHANCED (or _AUTO in settings) */
#define VORN_E_BAD_AGC (-6)         /* VornSwitches.agc not 0..2 */
#define VORN_E_BAD_BEAM (-7)        /* VornSwitches.beam not 0..7 */
#define VORN_E_BAD_DOA (-8)         /* VornSwitches.doa not 0..3 */
#define VORN_E_BAD_AEC (-9)         /* VornSwitches.aec not 0..3 */
#define VORN_E_BAD_NS (-10)         /* VornSwitches.ns not 0..2 */
#define VORN_E_BAD_AZIMUTH (-11)    /* azimuth_deg not 0..359, or not 0, 60 or 300 with beam 3 or 4 */
#define VORN_E_BAD_VAD_MODE (-12)   /* VornSwitches.vad_mode not 1 or 2 */
#define VORN_E_BAD_DOA_UPDATE (-13) /* doa_update not 0 or 1 */
#define VORN_E_BAD_MIC_ORDER (-14)  /* the microphone order does not name slots 0, 1 and 2 once each */
#define VORN_E_BAD_LENGTH (-15)     /* a negative number of samples */
#define VORN_E_BAD_SEARCH (-16)     /* not a VORN_SEARCH_... value */
#define VORN_E_NO_REFERENCE (-17)   /* the echo canceller is on but no reference was given */
#define VORN_E_NO_FRAMES (-18)      /* VORN_SEARCH_FRAMES before any frame has been processed */
#define VORN_E_CONFIG (-19)         /* the configuration cannot be read, names no profile, or both text and
                                       file were given (vorn_get_config_warnings says more) */
#define VORN_E_ALLOC (-20)          /* vorn_create could not allocate */
#define VORN_E_INTERNAL (-21)       /* a processing module failed inside the library; please report it */
#define VORN_E_MISALIGNED (-22)     /* the state's memory is not aligned to VORN_STATE_ALIGN bytes */
#define VORN_E_OUT_OF_RANGE (-23)   /* a setting outside its documented range */

/* The meaning of a code, as a constant English sentence (never NULL). */
const char* vorn_error_string(int code);

/* The library version, "0.4.4". */
const char* vorn_version(void);

/* One operating mode's switches. */
typedef struct VornSwitches {
  int32_t agc;         /* digital AGC: 0 off, 1 wake-up curve, 2 command curve */
  int32_t beam;        /* 0 microphone 0 alone, 1 delay-and-sum, 2 MVDR, 3/4 adaptive (azimuth 0, 60 or 300),
                          5/6 strongest sector, 7 fixed set */
  int32_t doa;         /* direction finding: 0 none, 1 per-frame tracking, 2 or 3 utterance search */
  int32_t aec;         /* echo canceller: 0 off, 1 recognition output, 2 communication output, 3 both */
  int32_t ns;          /* noise suppression: 0 off, 1 single channel, 2 multi-channel post filter */
  int32_t azimuth_deg; /* steering azimuth, degrees 0..359 */
  int32_t vad_mode;    /* speech detector: 1 wake-up rules, 2 recognition rules */
} VornSwitches;

/* settings.profile: the configuration's [VORN] profile, else enhanced. */
#define VORN_PROFILE_AUTO (-1)

typedef struct VornSettings {
  int32_t mode;                 /* VORN_MODE_WAKEUP (default), VORN_MODE_ASR or VORN_MODE_COMM */
  int32_t profile;              /* VORN_PROFILE_AUTO (default), _CLASSIC or _ENHANCED */
  const VornSwitches* switches; /* NULL (default): the mode's switches from the configuration, or built in;
                                   else these replace the selected mode's */
  int32_t doa_update;           /* 1 (default): the noise estimate steers direction finding; 0 not */
  int16_t mic_order[3];         /* interleaved slots of the microphones at 0, 120 and 240 degrees; {0, 1, 2} */
  const char* config_text;      /* NULL (default), or configuration text in the file's format */
  const char* config_file;      /* NULL (default), or the path of a configuration file (not both) */
} VornSettings;

/* The defaults marked above. */
void vorn_settings_default(VornSettings* settings);

/* Exact size of a VornState, in bytes (about 1 MB). */
size_t vorn_state_size(void);

/* Prepares a state in `size` bytes at `st`. `settings` NULL means the
 * defaults. The configuration (text or file) gives every mode's switches:
 *   [VORN_WKP] / [VORN_ASR] / [VORN_COM]   agc_flag, bf_flag, doa_flag, aec_flag,
 *       ns_flag, bf_zaimuth, vad_mode, preaec_filter_path (echo path file)
 *   [VORN]   profile = classic | enhanced
 * a key it lacks reads 0. Mistakes it can skip are warnings
 * (vorn_get_config_warnings), kept also when the init fails. On any error
 * the state is left as it was: a working state keeps working. */
int vorn_init(VornState* st, size_t size, const VornSettings* settings);

/* What one frame gave. */
typedef struct VornResult {
  int32_t speech;             /* 1 when the frame held speech, else 0 */
  int32_t azimuth_deg;        /* talker direction after this frame, 0..359 */
  float speech_probability;   /* 0..1: how likely the near talker speaks in the frame written to out; noise
                                 and the loudspeaker's echo are not speech (enhanced profile; the classic
                                 profile has only its flag, so 0 or 1 there) */
  float direction_confidence; /* 0..1 (enhanced profile; 0 in classic) */
  float echo_activity;        /* 0..1: how much of the frame the loudspeaker played (enhanced profile,
                                 canceller on; else 0) */
} VornResult;

/* One frame: `mics` VORN_MIC_FRAME_VALUES interleaved samples, `reference`
 * VORN_FRAME_SAMPLES loudspeaker samples (may be NULL while the mode's
 * canceller is off), `out` receives VORN_FRAME_SAMPLES samples, `result`
 * (may be NULL) what the frame gave. */
int vorn_process(VornState* st, const int16_t* mics, const int16_t* reference, int16_t* out, VornResult* result);

/* Restarts every module as vorn_init did, keeping the mode, switches,
 * profile, microphone order and warnings in force (no file is read but the
 * echo path's). */
int vorn_reset(VornState* st);

/* Direction searches over a stretch of audio. */
#define VORN_SEARCH_FRAMES 1  /* from the frames processed so far (the samples are not read) */
#define VORN_SEARCH_SAMPLES 2 /* from the samples (at most the first 64 frames' worth) */
#define VORN_SEARCH_SAMPLES_WEIGHTED 3 /* the same, weighting bins by speech over noise */

/* The talker's azimuth over `samples_per_channel` interleaved microphone
 * samples per channel; fewer than 768 give 0 for the sample searches. The
 * frames' output is not affected; a sample search does replace the scores a
 * later VORN_SEARCH_FRAMES reads until new frames bring their own. */
int vorn_direction(VornState* st, const int16_t* mics, int32_t samples_per_channel, int32_t search,
                   int32_t* azimuth_deg);

/* Settings that may change at any frame boundary. A mode's switches take
 * effect on the next frame of that mode; switching the canceller on prepares
 * it (from the echo path file, if the configuration named one). */
int vorn_set_mode(VornState* st, int32_t mode);
int vorn_get_mode(const VornState* st, int32_t* mode);
int vorn_set_switches(VornState* st, int32_t mode, const VornSwitches* switches);
int vorn_get_switches(const VornState* st, int32_t mode, VornSwitches* switches);
int vorn_set_profile(VornState* st, int32_t profile);
int vorn_get_profile(const VornState* st, int32_t* profile);
int vorn_set_mic_order(VornState* st, const int16_t mic_order[3]);
int vorn_get_mic_order(const VornState* st, int16_t mic_order[3]);
int vorn_set_doa_update(VornState* st, int32_t doa_update);
int vorn_get_doa_update(const VornState* st, int32_t* doa_update);
/* The enhanced level control's target, dBFS of the near talker's active
 * speech at the output: VORN_AGC_TARGET_MIN_DBFS .. VORN_AGC_TARGET_MAX_DBFS
 * (vorn_proc.h), else VORN_E_OUT_OF_RANGE. A reset keeps it. */
int vorn_set_agc_target(VornState* st, float target_dbfs);
int vorn_get_agc_target(const VornState* st, float* target_dbfs);

/* The last vorn_init's configuration warnings: *count their number, *text
 * (may be NULL) one "line N: ..." sentence per line inside the state, valid
 * until the next vorn_init. VORN_E_NOT_READY when no vorn_init has run. */
int vorn_get_config_warnings(const VornState* st, int32_t* count, const char** text);

/* Per-frame figures beyond VornResult, after the last vorn_process. Each
 * has the shape int vorn_get_<figure>(const VornState* st, float* value). */
int vorn_get_speech_probability(const VornState* st, float* value);   /* 0..1 */
int vorn_get_direction_confidence(const VornState* st, float* value); /* 0..1, also after vorn_direction */
int vorn_get_echo_activity(const VornState* st, float* value);         /* 0..1 */
/* The microphones the enhanced beam has found dead or clipping and left out,
 * a mask of VORN_WARN_MIC_DEAD(m) and VORN_WARN_MIC_CLIPPED(m) (vorn_proc.h);
 * 0 under the classic profile. */
int vorn_get_mic_warnings(const VornState* st, uint32_t* warnings);

/* For callers who want the library to allocate: a state on the heap,
 * initialised with `settings` (NULL: defaults). NULL on failure, with the
 * code in *error when error is not NULL. vorn_destroy(NULL) does nothing. */
VornState* vorn_create(const VornSettings* settings, int* error);
void vorn_destroy(VornState* st);

#ifdef __cplusplus
}
#endif

#endif /* VORN_H */
