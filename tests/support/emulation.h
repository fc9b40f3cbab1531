// Whether the tests run under an instruction-set emulator: the cross build's
// CTest sets VORN_TEST_EMULATED for every test (tests/CMakeLists.txt).
// Emulation is some twenty times slower than the build machine, so a scene
// check that sweeps many seeds or directions runs a subset of them there;
// every case that runs is checked exactly as on the build machine.
#pragma once

namespace vorn::test {

bool UnderEmulation();

}  // namespace vorn::test
