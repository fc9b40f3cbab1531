#include "audio_io/wav_file.h"

#include "audio_io/audio_input.h"
#include "audio_io/audio_output.h"

namespace vorn {
namespace {

bool Fail(std::string* error, const std::string& message) {
  if (error != nullptr) *error = message;
  return false;
}

}  // namespace

bool WriteWavFile(const std::string& path, const std::vector<int16_t>& interleaved, int channels, int sample_rate,
                  std::string* error) {
  std::string message;
  AudioOutput out;
  const size_t frames = channels > 0 ? interleaved.size() / static_cast<size_t>(channels) : 0;
  if (OutputKindOf(path) != OutputKind::kWav) return Fail(error, path + ": not a .wav name");
  if (out.Open(path, channels, &message, sample_rate) && out.Write(interleaved.data(), frames, &message) &&
      out.Close(&message))
    return true;
  return Fail(error, message);
}

bool ReadWavFile(const std::string& path, WavAudio* out, std::string* error) {
  std::string message;
  AudioInput in;
  if (!in.Open(path, 1, &message)) return Fail(error, message);
  const AudioFormat& format = in.format();
  if (!in.is_wav()) return Fail(error, path + ": not a WAV file");
  if (format.format_tag != 1 || format.bits != 16 || format.channels < 1 || format.block_align != 2 * format.channels)
    return Fail(error, path + ": not 16-bit PCM");
  out->channels = format.channels;
  out->sample_rate = format.sample_rate;
  out->samples.clear();
  std::vector<int16_t> block(static_cast<size_t>(format.channels) * 4096);
  for (size_t got; (got = in.Read(block.data(), 4096)) > 0;)
    out->samples.insert(out->samples.end(), block.begin(), block.begin() + static_cast<long>(got) * format.channels);
  if (!in.read_error().empty()) return Fail(error, in.read_error());
  return true;
}


}  // namespace vorn
