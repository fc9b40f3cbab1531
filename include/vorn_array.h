/*
 * Vorn: the microphone array the front end is built for. C-compatible.
 *
 * Three omnidirectional microphones lie on a horizontal circle of radius
 * VORN_ARRAY_RADIUS_M; microphone m (0, 1, 2) sits at azimuth
 * VORN_MIC_AZIMUTH_DEG(m), counted counter-clockwise seen from above from
 * microphone 0's direction. Every azimuth the library takes or reports is in
 * this frame. The beamformer's weight tables are designed for these
 * positions, sound at VORN_SPEED_OF_SOUND_M_S and sampling at
 * VORN_SAMPLE_RATE_HZ; a device whose array differs needs the tables
 * designed again for it.
 */
#ifndef VORN_ARRAY_H
#define VORN_ARRAY_H

#define VORN_SAMPLE_RATE_HZ 16000      /* samples per second of every channel */
#define VORN_MICS 3                    /* microphones in the array */
#define VORN_ARRAY_RADIUS_M 0.039      /* centre to each microphone, metres */
#define VORN_MIC_AZIMUTH_DEG(m) (120 * (m)) /* azimuth of microphone m, degrees */
#define VORN_SPEED_OF_SOUND_M_S 340.0  /* metres per second, as the tables assume */

#endif /* VORN_ARRAY_H */
