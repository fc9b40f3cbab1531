// Fuzz target: the `vorn` tool's audio reader (WAV chunks in any order, or
// raw samples), fed the input as the file.
//
// A refused file must say why. An accepted one in a format the tool would
// process (16-bit, one sample frame per 2 bytes a channel) must then give
// exactly the sample frames its header announces, with any bytes that do not
// make a whole frame reported as trailing, and the reading must end.
#include <cstring>
#include <vector>

#include "audio_io/audio_input.h"
#include "target_bodies.h"
#include "target_support.h"

namespace vorn::fuzz {

bool FuzzVornWav(const uint8_t* data, size_t size) {
  AudioInput input;
  std::string error;
  if (!input.Open(WriteScratchFile(data, size), 3, &error)) {
    VORN_FUZZ_CHECK(!error.empty());
    return false;
  }
  const AudioFormat& format = input.format();
  const bool readable = format.bits == 16 && format.channels >= 1 && format.channels <= 8 &&
                        format.block_align == 2 * format.channels;
  if (!readable) return false;
  const auto announced = input.total_frames();
  VORN_FUZZ_CHECK(announced.has_value());  // a file always knows its length
  std::vector<int16_t> block(static_cast<size_t>(format.channels) * 256);
  uint64_t frames = 0;
  // Every call but the last returns at least one frame of the file.
  for (size_t calls = 0; calls <= size; ++calls) {
    const size_t got = input.Read(block.data(), 256);
    if (got == 0) break;
    VORN_FUZZ_CHECK(got <= 256);
    frames += got;
  }
  VORN_FUZZ_CHECK(input.Read(block.data(), 256) == 0);
  VORN_FUZZ_CHECK(input.read_error().empty());
  VORN_FUZZ_CHECK(frames == *announced);
  VORN_FUZZ_CHECK(input.trailing_bytes() < static_cast<size_t>(format.block_align));
  return input.is_wav();
}

}  // namespace vorn::fuzz

VORN_FUZZ_ENTRY(vorn::fuzz::FuzzVornWav)
