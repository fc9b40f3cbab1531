// Angle arithmetic of the direction finder. Angles are integer degrees; the
// means truncate like the rest of the integer direction bookkeeping.
#include "adsp_bf/adsp_doa.h"

namespace vorn {

int AngleTo180(int a) { return a >= 181 ? a - 360 : a; }

int AngleTo360(int a) { return a < 0 ? a + 360 : a; }

int MeanAngle(int* a, int n) {
  int sum = 0;
  for (int i = 0; i < n; ++i) sum += AngleTo180(a[i]);
  return AngleTo360(sum / n);
}

int HistAngle(int* a, int n) {
  // Twelve 60-degree sectors starting every 30 degrees; the most populated
  // one (first on ties) decides, and the mean is taken over its angles only,
  // so a few stray decisions cannot drag the result. A sector that runs past
  // 360 continues at 0 and is averaged in the -179..180 frame (MeanAngle);
  // the others take the plain mean (MeanAngle360). Both sums are formed here
  // directly, which gives the same truncated means without copying the
  // sector's angles out.
  constexpr int kSectors = 12, kStep = 30, kWidth = 60;
  int result = 0;
  int best_count = 0;
  for (int s = 0; s < kSectors; ++s) {
    const int lo = kStep * s, hi = kStep * s + kWidth;
    const bool wraps = hi > 360;
    int count = 0, sum_plain = 0, sum_180 = 0;
    for (int i = 0; i < n; ++i) {
      const bool inside = (a[i] >= lo && a[i] < hi) || (wraps && a[i] >= 0 && a[i] < hi - 360);
      if (!inside) continue;
      sum_plain += a[i];
      sum_180 += AngleTo180(a[i]);
      ++count;
    }
    if (count <= best_count) continue;
    best_count = count;
    result = wraps ? AngleTo360(sum_180 / count) : sum_plain / count;
  }
  return result;
}

}  // namespace vorn
