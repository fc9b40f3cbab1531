// Constant tables of the real FFT and the analysis window, computed at compile
// time from their rules. The trigonometry runs in double (common/
// constexpr_trig.h) and each entry is rounded to float once, so the stored
// values are the correctly rounded floats of the exact figures.
//
// The arrays keep a plain C declaration for their users; their initialisers are
// spelled out element by element through the REPEAT macros below, each element
// a constant expression, so the data lands in read-only storage with no
// run-time initialisation.
#include "common/adsp_common_rom.h"

#include <array>

#include "common/constexpr_trig.h"

namespace vorn {
namespace {

using ct::CosTurn;
using ct::SinTurn;
using ct::SqrtNewton;

constexpr std::array<short, 256> MakeBitReverse8() {
  std::array<short, 256> t{};
  for (int i = 0; i < 256; ++i) {
    int r = 0;
    for (int b = 0; b < 8; ++b) r |= ((i >> b) & 1) << (7 - b);
    t[i] = static_cast<short>(r);
  }
  return t;
}

constexpr std::array<float, 641> MakeSinTable() {
  std::array<float, 641> t{};
  for (int i = 0; i < 641; ++i) t[i] = static_cast<float>(SinTurn(i, 1024));
  return t;
}

constexpr std::array<float, 512> MakeHamming() {
  std::array<double, 512> raw{};
  double energy = 0.0;
  for (int i = 0; i < 512; ++i) {
    raw[i] = 0.54 - 0.46 * CosTurn(i, 511);
    energy += raw[i] * raw[i];
  }
  const double norm = SqrtNewton(energy);
  std::array<float, 512> t{};
  for (int i = 0; i < 512; ++i) t[i] = static_cast<float>(raw[i] / norm);
  return t;
}

constexpr auto kBitReverse8 = MakeBitReverse8();
constexpr auto kSinTable = MakeSinTable();
constexpr auto kHamming = MakeHamming();

static_assert(kSinTable[256] == 1.0f && kSinTable[512] == 0.0f && kSinTable[0] == 0.0f);
static_assert(kBitReverse8[1] == 128 && kBitReverse8[3] == 192 && kBitReverse8[255] == 255);

}  // namespace

#define VORN_R4(T, b) T[(b)], T[(b) + 1], T[(b) + 2], T[(b) + 3]
#define VORN_R16(T, b) VORN_R4(T, b), VORN_R4(T, (b) + 4), VORN_R4(T, (b) + 8), VORN_R4(T, (b) + 12)
#define VORN_R64(T, b) VORN_R16(T, b), VORN_R16(T, (b) + 16), VORN_R16(T, (b) + 32), VORN_R16(T, (b) + 48)
#define VORN_R128(T, b) VORN_R64(T, b), VORN_R64(T, (b) + 64)
#define VORN_R256(T, b) VORN_R128(T, b), VORN_R128(T, (b) + 128)
#define VORN_R512(T, b) VORN_R256(T, b), VORN_R256(T, (b) + 256)

extern const short fft256_read_indexes[256] = {VORN_R256(kBitReverse8, 0)};
extern const float sincos_t_ext[641] = {VORN_R512(kSinTable, 0), VORN_R128(kSinTable, 512), kSinTable[640]};
extern const float hanmming_win[512] = {VORN_R512(kHamming, 0)};

#undef VORN_R4
#undef VORN_R16
#undef VORN_R64
#undef VORN_R128
#undef VORN_R256
#undef VORN_R512

}  // namespace vorn
