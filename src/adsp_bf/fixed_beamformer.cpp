// Fixed beamformer: Y(k) = sum_m W_m(k) X_m(k) over the three microphone
// spectra, with W one constant weight set (delay-and-sum, MVDR or a special
// set) chosen by beam type and look direction. The weights already carry
// the 128-sample common delay, so the caller's overlap-save inverse
// transform yields the beam in the kept half without further alignment.
// Spectra are packed 512-point real spectra (re of bin k at k, im at 512-k).
// The vector twin forms four bins at a time with the plain bin's operations
// in its order.
#include "adsp_bf/fixed_beamformer.h"

#include "adsp_bf/weight_tables.h"

namespace vorn {
namespace {

constexpr int kFftLen = 512;
constexpr int kNyquist = 256;
constexpr int kSelectFirstBin = 17;   // about 531 Hz
constexpr int kSelectLastBin = 221;   // about 6.9 kHz

// Beam types 3 and 4 index a three-entry list with angle / 5 (0, 12 or 60
// for the accepted angles 0, 60, 300). In the data the lists mvdr_tab,
// ds_tab and mbf_tab lie one after another, each followed by one unused
// pointer slot, and doa_tab follows them, so larger indices run on into the
// next lists. The sets this selects are part of the beam types' behaviour
// and are kept: type 3 at 60 and 300 uses ds_w_20 and ds_w_260, type 4 uses
// ds_w_0 and ds_w_240. A slot that falls on one of the unused pointers takes
// the fall-back set mvdr_w_0, as an unknown beam type does.
constexpr int kRunOnListStride = 4;  // three entries and one unused slot
constexpr int kRunOnDoaStart = 3 * kRunOnListStride;

const float* RunOnSet(int slot) {
  if (slot >= kRunOnDoaStart) return doa_tab[slot - kRunOnDoaStart];
  const int entry = slot % kRunOnListStride;
  if (entry == 3) return mvdr_w_0;
  const float* const* const lists[3] = {mvdr_tab, ds_tab, mbf_tab};
  return lists[slot / kRunOnListStride][entry];
}

int DirectionIndex(int angle) {
  int index = angle / 5;
  if (index > kBfDirections - 1) index = kBfDirections - 1;
  if (index <= 0) index = 0;
  return index;
}

const float* SelectSet(float f[3][kFftLen], int fbf_type, int angle) {
  int index = 0;
  if (fbf_type == 5 || fbf_type == 6) {
    index = SelectBf(f);
  } else if (fbf_type >= 1 && fbf_type <= 4) {
    index = DirectionIndex(angle);
  }
  switch (fbf_type) {
    case 1: return doa_tab[index];
    case 2: return mbf_bf_mvdr_tab[index];
    case 3: return RunOnSet(kRunOnListStride + index);  // from ds_tab
    case 4: return RunOnSet(index);                     // from mvdr_tab
    case 5: return ds_tab[index];
    case 6: return mvdr_tab[index];
    case 7: return ls_w_300;
    default: return mvdr_w_0;
  }
}

// DC and Nyquist are real in both spectrum and weights.
void EdgeBins(float f[3][kFftLen], const float* w, float* out) {
  float dc = 0.0f;
  float nyquist = 0.0f;
  for (int m = 0; m < kBfMics; ++m) {
    dc += w[2 * m] * f[m][0];
    nyquist += w[(3 * kNyquist + m) * 2] * f[m][kNyquist];
  }
  out[0] = dc;
  out[kNyquist] = nyquist;
}

}  // namespace

void FixedBFPlain(float f[3][512], float* out, int fbf_type, int angle) {
  const float* w = SelectSet(f, fbf_type, angle);
  EdgeBins(f, w, out);
  for (int k = 1; k < kNyquist; ++k) WeightedBin(f, w + 6 * k, k, out[k], out[kFftLen - k]);
}

#if defined(VORN_SIMD4)
void FixedBFSimd(float f[3][512], float* out, int fbf_type, int angle) {
  const float* w = SelectSet(f, fbf_type, angle);
  EdgeBins(f, w, out);
  int k = 1;
  for (; k + 4 <= kNyquist; k += 4) {
    simd::F4 re, im;
    WeightedBins4(f, w, k, re, im);
    simd::Store(out + k, re);
    simd::StoreReversed(out + kFftLen - k, im);
  }
  for (; k < kNyquist; ++k) WeightedBin(f, w + 6 * k, k, out[k], out[kFftLen - k]);
}
#endif

void FixedBF(float f[3][512], float* out, int fbf_type, int angle) {
#if defined(VORN_SIMD4)
  FixedBFSimd(f, out, fbf_type, angle);
#else
  FixedBFPlain(f, out, fbf_type, angle);
#endif
}

int SelectBf(float f[3][512]) {
  int best_sector = 0;
  float best_energy = 0.0f;
  for (int sector = 0; sector < 3; ++sector) {
    float energy = 0.0f;
    for (int k = kSelectFirstBin; k <= kSelectLastBin; ++k) {
      float re, im;
      WeightedBin(f, mbf_tab[sector] + 6 * k, k, re, im);
      energy += re * re + im * im;
    }
    if (energy > best_energy) {
      best_energy = energy;
      best_sector = sector;
    }
  }
  return best_sector;
}

}  // namespace vorn
