// The fuzz targets' bodies. Each returns true when the input reached the
// reader's accepting path (a switch set, a header accepted, a block found);
// the regression test uses that to keep the seed inputs meaningful.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vorn::fuzz {

bool FuzzConfRead(const uint8_t* data, size_t size);
bool FuzzWavHeader(const uint8_t* data, size_t size);
bool FuzzFilterRead(const uint8_t* data, size_t size);
bool FuzzAecFilterFile(const uint8_t* data, size_t size);
bool FuzzVornProc(const uint8_t* data, size_t size);
bool FuzzListFile(const uint8_t* data, size_t size);
bool FuzzVornWav(const uint8_t* data, size_t size);

}  // namespace vorn::fuzz
