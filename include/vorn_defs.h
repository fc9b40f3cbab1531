/*
 * Vorn: facts shared by both public interfaces (vorn.h, the recommended
 * one, and vorn_proc.h, the compatibility layer).
 *
 * Audio. Every call takes one frame: VORN_FRAME_SAMPLES samples per channel
 * (16 ms) at VORN_SAMPLE_RATE_HZ, signed 16-bit. The microphones arrive
 * interleaved sample by sample, VORN_MICS values per sample instant (mic 0,
 * mic 1, mic 2, mic 0, ...: VORN_MIC_FRAME_VALUES values); the loudspeaker
 * reference and the output are mono.
 *
 * Array geometry (vorn_array.h). Three omnidirectional microphones on a
 * circle of radius VORN_ARRAY_RADIUS_M (3.9 cm; 6.75 cm apart), at 0, 120
 * and 240 degrees. The microphone order handed to the library says which
 * interleaved slot holds the microphone at 0, at 120 and at 240 degrees
 * ({0, 1, 2} when the slots are in that order); it must name each slot once.
 *
 * Azimuth convention. Integer degrees 0..359 in the plane of the array,
 * counted counter-clockwise seen from above from microphone 0's direction
 * (so microphone 1 is at 120): the direction the talker is heard from, seen
 * from the array's centre. The steering azimuth (bf_azimuth) uses the same
 * convention.
 *
 * Latency. A frame's output comes back from the call that takes the frame
 * in, so the caller's buffering is one frame (16 ms). Inside the signal the
 * stages add a fixed delay: the beamformers (bf_flag 1..7) 128 samples
 * (8 ms), the echo canceller 64 samples (4 ms), the noise suppressor or post
 * filter 384 samples (24 ms); with everything on, 576 samples (36 ms). The
 * enhanced profile adds none.
 *
 * Threading. An instance (one state buffer) is used by one thread at a
 * time; the library keeps no writable global state, so separate instances
 * may run on separate threads at once. Functions that take no instance may
 * be called from any thread at any time.
 *
 * Moving a state. Between calls, an instance's memory may be copied to
 * other memory (a designed buffer to any alignment, a VornState to memory
 * aligned as vorn.h asks) and the copy used in its place: the state holds
 * no pointer to itself or to the caller's buffers.
 */
#ifndef VORN_DEFS_H
#define VORN_DEFS_H

#include "vorn_array.h"

/* Every entry point of both interfaces returns 0 on success. */
#define VORN_OK 0

#define VORN_FRAME_SAMPLES 256 /* per channel: 16 ms */
#define VORN_FRAME_MS 16
#define VORN_MIC_FRAME_VALUES (VORN_MICS * VORN_FRAME_SAMPLES) /* 768 interleaved values */

/* Operating modes: each has its own set of switches (built-in, or from the
 * configuration file's section named beside it). */
#define VORN_MODE_WAKEUP 0 /* [VORN_WKP]: wake-up word detection */
#define VORN_MODE_ASR 1    /* [VORN_ASR]: speech recognition */
#define VORN_MODE_COMM 2   /* [VORN_COM]: voice communication */
#define VORN_MODE_COUNT 3

/* Processing profiles. Classic is the front end as first designed, kept bit
 * for bit. Enhanced keeps the same calls, modes, switches, frame and memory
 * and does each job with the better methods the README describes. */
#define VORN_PROFILE_CLASSIC 0
#define VORN_PROFILE_ENHANCED 1

#endif /* VORN_DEFS_H */
