// `vorn process` tells the user when a microphone fails, and carries the
// configuration file's level target into the processing.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "audio_io/wav_file.h"
#include "sim/signals.h"
#include "support/files.h"
#include "support/run_command.h"

namespace {

using namespace vorn::test;
using namespace vorn::sim;
using vorn::ReadWavFile;
using vorn::WavAudio;
using vorn::WriteWavFile;

class VornCliBeamLevel : public ::testing::Test {
 protected:
  void SetUp() override { dir_ = MakeTempDir("vorn_cli_beam_level"); }
  void TearDown() override { std::filesystem::remove_all(dir_); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  CommandResult Vorn(const std::string& args) const {
    return RunCommand(dir_, std::string("'") + VORN_CLI_PATH + "' process " + args + " </dev/null");
  }
  // A talker at 60 degrees for `seconds`; microphone 1 dead from 1 s on.
  void WriteCapture(double seconds) const {
    const auto n = static_cast<std::size_t>(seconds * kSampleRate);
    const SpeechLike talker = MakeSpeechLike(n, 31, {.rms = 800.0, .lead_silence_s = 0.3});
    ThreeMics mics = Mix(PlaneWave(talker.samples, 60.0), IndependentNoise(n, 8.0, 32));
    for (std::size_t t = kSampleRate; t < n; ++t) mics[1][t] = 0.0f;
    ASSERT_TRUE(WriteWavFile(Path("in.wav"), Interleave(mics), 3));
  }
  double OutputDbfs(const std::string& name) const {
    WavAudio wav;
    EXPECT_TRUE(ReadWavFile(Path(name), &wav));
    return RmsDbfs(Signal(wav.samples.begin() + static_cast<long>(wav.samples.size() / 2), wav.samples.end()));
  }
  std::string dir_;
};

TEST_F(VornCliBeamLevel, WarnsOfADeadMicrophoneOnceWhereItHappens) {
  WriteCapture(3.0);
  const CommandResult enhanced = Vorn("in.wav -o out.wav --bf 2 --azimuth 60");
  EXPECT_EQ(enhanced.status, 0) << enhanced.err;
  EXPECT_NE(enhanced.err.find("warning: at 1.0"), std::string::npos) << enhanced.err;
  EXPECT_NE(enhanced.err.find("microphone 1 is dead"), std::string::npos) << enhanced.err;
  EXPECT_EQ(enhanced.err.find("microphone 1 is dead", enhanced.err.find("microphone 1 is dead") + 1),
            std::string::npos);
  // The classic profile does not watch the microphones.
  const CommandResult classic = Vorn("in.wav -o out.wav --bf 2 --azimuth 60 --profile classic");
  EXPECT_EQ(classic.status, 0) << classic.err;
  EXPECT_EQ(classic.err.find("microphone"), std::string::npos) << classic.err;
}

TEST_F(VornCliBeamLevel, LevelTargetComesFromTheConfigurationFile) {
  WriteCapture(6.0);
  const std::string modes = "[VORN_WKP]\nagc_flag = 1\nbf_flag = 2\nbf_zaimuth = 60\nns_flag = 1\nvad_mode = 1\n";
  ASSERT_TRUE(WriteBytes(Path("quiet.ini"), modes + "[VORN]\nagc_target_dbfs = -36\n"));
  ASSERT_TRUE(WriteBytes(Path("loud.ini"), modes + "[VORN]\nagc_target_dbfs = -16\n"));
  ASSERT_TRUE(WriteBytes(Path("wrong.ini"), modes + "[VORN]\nagc_target_dbfs = -2\n"));
  ASSERT_EQ(Vorn("in.wav -o quiet.wav --config quiet.ini").status, 0);
  ASSERT_EQ(Vorn("in.wav -o loud.wav --config loud.ini").status, 0);
  EXPECT_NEAR(OutputDbfs("loud.wav") - OutputDbfs("quiet.wav"), 20.0, 2.0);
  const CommandResult wrong = Vorn("in.wav -o wrong.wav --config wrong.ini");
  EXPECT_EQ(wrong.status, 1);
  EXPECT_NE(wrong.err.find("wrong.ini"), std::string::npos) << wrong.err;
}

}  // namespace
