// Uniform and normal 16-bit pseudo-random generators over a caller-held seed
// (a 31-bit linear congruential sequence). The canceller's comfort noise draws
// uniform phases from them.
#pragma once

#include <array>
#include <cstdint>

namespace vorn {

inline constexpr int kRandNTableSize = 512;

// Normally distributed figures in Q13 (standard deviation 8192), read by
// AdspSpl_RandN at index seed >> 23. Built at compile time; see the .cpp.
extern const std::array<int16_t, kRandNTableSize> kRandNTable;

// seed = (seed * 69069 + 1) & 0x7FFFFFFF; returns seed >> 16 (0..32767).
int16_t AdspSpl_RandU(uint32_t* seed);
// Same seed step; returns kRandNTable[seed >> 23].
int16_t AdspSpl_RandN(uint32_t* seed);
// Fills vector with AdspSpl_RandU values and returns vector_length (nothing
// is written for a length below 1).
int16_t AdspSpl_RandUArray(int16_t* vector, int16_t vector_length, uint32_t* seed);

}  // namespace vorn
