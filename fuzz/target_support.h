// Shared pieces of the fuzz targets: the scratch file the file readers are
// pointed at, a reader that carves call parameters off the front of an input,
// and the check that turns a broken invariant into a crash libFuzzer records.
//
// Each fuzz_<name>.cpp defines its body as `bool Fuzz<Name>(data, size)` (true
// when the input got through to the reader's accepting path) and wires it to
// libFuzzer with VORN_FUZZ_ENTRY; the regression test calls the same bodies
// directly, so the normal build replays every kept input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#if defined(VORN_LIBFUZZER)
#include <sanitizer/common_interface_defs.h>
#endif

namespace vorn::fuzz {

// Replaces the content of this process's scratch file with `data` and returns
// a path that opens it. The file lives in memory where the system allows, so
// a fuzzing run does not wear the disk.
const char* WriteScratchFile(const uint8_t* data, size_t size);

// Hands out the leading bytes of an input as parameters; past the end it
// gives zeros, so every input, however short, is a valid call.
class InputBytes {
 public:
  InputBytes(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
  uint16_t Le16() {
    const uint16_t low = Byte();
    return static_cast<uint16_t>(low | (Byte() << 8));
  }
  uint32_t Le32() {
    const uint32_t low = Le16();
    return low | (static_cast<uint32_t>(Le16()) << 16);
  }
  const uint8_t* Take(size_t count) {
    const uint8_t* start = data_ + pos_;
    pos_ += count < size_ - pos_ ? count : size_ - pos_;
    return start;
  }
  const uint8_t* rest() const { return data_ + pos_; }
  size_t rest_size() const { return size_ - pos_; }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t pos_ = 0;
};

// The fuzzing runs close the targets' standard error (the readers report
// every refused file there), so the message goes out through the sanitizer's
// own report channel, which libFuzzer keeps open.
[[noreturn]] inline void CheckFailed(const char* what, const char* file, int line) {
  char message[512];
  std::snprintf(message, sizeof(message), "%s:%d: fuzz invariant broken: %s", file, line, what);
#if defined(VORN_LIBFUZZER)
  __sanitizer_report_error_summary(message);
#else
  std::fprintf(stderr, "%s\n", message);
#endif
  std::abort();
}

}  // namespace vorn::fuzz

#define VORN_FUZZ_CHECK(condition) \
  ((condition) ? static_cast<void>(0) : ::vorn::fuzz::CheckFailed(#condition, __FILE__, __LINE__))

// The libFuzzer entry point, only in the fuzzing executables.
#if defined(VORN_LIBFUZZER)
#define VORN_FUZZ_ENTRY(body)                                                  \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {    \
    body(data, size);                                                          \
    return 0;                                                                  \
  }
#else
#define VORN_FUZZ_ENTRY(body)
#endif
