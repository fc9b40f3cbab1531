// Constant weight sets of the beamformer and the lists that pick them.
//
// Every set is read in place from read-only data; nothing here is ever
// copied. A set holds one complex weight per bin (257 bins of the 512-point
// transform) and microphone, bin-major: the weight of microphone m at bin k
// is (t[(3k+m)*2], t[(3k+m)*2+1]). Bins 0 and 256 only use the real part.
//
// The values are written by tools/gen_tables at build time: the
// delay-and-sum families from their steering rule, the MVDR sets, the
// loudspeaker-facing set and the blocking matrices from the design procedure
// documented beside the generator.
#pragma once

namespace vorn {

constexpr int kBfBins = 257;                          // bins 0..256 of a 512-point transform
constexpr int kBfMics = 3;
constexpr int kBfDirections = 72;                     // azimuths 0, 5, ..., 355 degrees
constexpr int kBfSetFloats = kBfBins * kBfMics * 2;  // 1542
constexpr int kBfSectorSetFloats = 2 * kBfSetFloats;  // 3084, second half all zero
constexpr int kBfBlockingOutputs = 3;
constexpr int kBfBlockingFloats = kBfBlockingOutputs * kBfSetFloats;  // 4626
static_assert(kBfSetFloats == 1542 && kBfSectorSetFloats == 3084 && kBfBlockingFloats == 4626);

// The 72 look directions every direction family is built for.
#define VORN_BF_AZIMUTHS(X)                                                                     \
  X(0) X(5) X(10) X(15) X(20) X(25) X(30) X(35) X(40) X(45) X(50) X(55) X(60) X(65) X(70)     \
  X(75) X(80) X(85) X(90) X(95) X(100) X(105) X(110) X(115) X(120) X(125) X(130) X(135)       \
  X(140) X(145) X(150) X(155) X(160) X(165) X(170) X(175) X(180) X(185) X(190) X(195) X(200)  \
  X(205) X(210) X(215) X(220) X(225) X(230) X(235) X(240) X(245) X(250) X(255) X(260) X(265)  \
  X(270) X(275) X(280) X(285) X(290) X(295) X(300) X(305) X(310) X(315) X(320) X(325) X(330)  \
  X(335) X(340) X(345) X(350) X(355)

// Per direction: delay-and-sum for arrival in the array plane (ds_w_) and at
// 80, 70, 60 and 55 degrees from the vertical (ds_w80_ ... ds_w55_), and the
// MVDR set for arrival in the plane (bf_mvdr_w_).
#define VORN_BF_DECLARE_DIRECTION_SETS(az)          \
  extern const float ds_w_##az[kBfSetFloats];       \
  extern const float ds_w80_##az[kBfSetFloats];     \
  extern const float ds_w70_##az[kBfSetFloats];     \
  extern const float ds_w60_##az[kBfSetFloats];     \
  extern const float ds_w55_##az[kBfSetFloats];     \
  extern const float bf_mvdr_w_##az[kBfSetFloats];
VORN_BF_AZIMUTHS(VORN_BF_DECLARE_DIRECTION_SETS)
#undef VORN_BF_DECLARE_DIRECTION_SETS

// Sector sets (0, 120, 240 degrees) and the single special sets.
extern const float bf_ds_w_0[kBfSectorSetFloats];
extern const float bf_ds_w_120[kBfSectorSetFloats];
extern const float bf_ds_w_240[kBfSectorSetFloats];
extern const float mvdr_w_0[kBfSectorSetFloats];    // fall-back set of FixedBF
extern const float mvdr_w_120[kBfSectorSetFloats];
extern const float mvdr_w_240[kBfSectorSetFloats];
extern const float ls_w_300[kBfSectorSetFloats];

// Blocking matrices of the GSC for look directions 0, 60 and 300 degrees:
// [257 bins][3 outputs][3 microphones][re, im], i.e. the weight of microphone
// m in output j at bin k is (bm[18k + 6j + 2m], bm[18k + 6j + 2m + 1]).
extern const float bm_0[kBfBlockingFloats];
extern const float bm_60[kBfBlockingFloats];
extern const float bm_300[kBfBlockingFloats];

// Lists of sets. Entry i of a 72-entry list is the set for azimuth 5*i.
extern const float* const mvdr_tab[3];  // bf_mvdr_w_0, bf_mvdr_w_120, bf_mvdr_w_240
extern const float* const ds_tab[3];    // bf_ds_w_0, bf_ds_w_120, bf_ds_w_240
extern const float* const mbf_tab[3];   // bf_ds_w_0, bf_ds_w_120, bf_ds_w_240
extern const float* const doa_tab[kBfDirections];          // ds_w_<5i>
extern const float* const mbf_bf_mvdr_tab[kBfDirections];  // bf_mvdr_w_<5i>
extern const float* const doa_tab80[kBfDirections];
extern const float* const doa_tab70[kBfDirections];
extern const float* const doa_tab60[kBfDirections];
extern const float* const doa_tab55[kBfDirections];
// Elevation families searched by the utterance-level DOA; one: doa_tab60.
constexpr int kBfElevationSets = 1;
extern const float* const* const doa_ele_azi_tab[kBfElevationSets];

// The same families transposed for the direction search over its band, bins
// kBfSearchFirstBin .. + kBfSearchBins - 1: the weight of microphone m at bin
// k for direction d is (t[((k - first) * 6 + 2m) * 72 + d], t[((k - first) * 6
// + 2m + 1) * 72 + d]), the same floats as in the sets.
constexpr int kBfSearchFirstBin = 17;
constexpr int kBfSearchBins = 205;
constexpr int kBfSearchFloats = kBfSearchBins * kBfMics * 2 * kBfDirections;
extern const float doa_search_tab60[kBfSearchFloats];
extern const float* const doa_ele_azi_search_tab[kBfElevationSets];

// Sector look directions in degrees.
extern const int mbf_angles[3];

}  // namespace vorn
