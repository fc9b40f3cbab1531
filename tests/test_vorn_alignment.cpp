// The front end must not care where the caller's buffer starts: every start
// offset within a 64-byte line, under every switch value, gives the same
// bytes, and (under the sanitizer build) no misaligned or out-of-buffer
// access. Each buffer ends exactly at p_data + buff_size, so an access past
// the caller's bytes is an overflow the sanitizer sees.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <new>
#include <string>
#include <vector>

#include "adsp_aec/echo_cancellation.h"
#include "adsp_agc/analog_agc.h"
#include "sim/front_end_param.h"
#include "sim/signals.h"
#include "support/files.h"
#include "vorn/vorn_state.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

// Each region of the state record, placed at a 64-byte boundary, starts on a
// boundary its module's record accepts; the canceller's instance is moved to
// the next 16-byte boundary by AecInstanceOf.
static_assert(kStateAlign % alignof(TVornState) == 0);
static_assert(offsetof(TVornState, bf_buff) % alignof(T_AudioDspState) == 0);
static_assert(offsetof(TVornState, ns_buff) % alignof(T_AdspNsState) == 0);
static_assert(kRegionNsBuffSize % alignof(T_AdspNsState) == 0);
static_assert(offsetof(TVornState, ns_vad_buff) % alignof(T_AdspNsState) == 0);
static_assert(offsetof(TVornState, agc_buff) % alignof(Agc_t) == 0);
static_assert(16 % alignof(Aec) == 0);

constexpr int kFrame = 256;
constexpr int kFrames = 5;
constexpr std::size_t kLine = 64;

// A caller's buffer of exactly kVornMinBuffSize bytes starting `offset` bytes
// past a 64-byte boundary, and nothing after it.
class OffsetBuffer {
 public:
  explicit OffsetBuffer(std::size_t offset)
      : raw_(static_cast<unsigned char*>(::operator new(offset + kVornMinBuffSize, std::align_val_t{kLine}))),
        offset_(offset) {}
  ~OffsetBuffer() { ::operator delete(raw_, std::align_val_t{kLine}); }
  OffsetBuffer(const OffsetBuffer&) = delete;
  OffsetBuffer& operator=(const OffsetBuffer&) = delete;
  unsigned char* data() const { return raw_ + offset_; }

 private:
  unsigned char* raw_;
  std::size_t offset_;
};

struct Configuration {
  sim::Switches switches;
  int doa_update;
};

// Every value of every switch, and every beam type with every suppressor
// variant; the other switches rotate through their values so that each
// appears with several beam types. Azimuth 60 is valid for every beam type.
std::vector<Configuration> AllSwitchValues() {
  std::vector<Configuration> list;
  int i = 0;
  for (int bf = 0; bf <= 7; ++bf)
    for (int ns = 0; ns <= 2; ++ns, ++i)
      list.push_back({{i % 3, bf, i % 4, (i / 2) % 4, ns, 60, 1 + i % 2}, (i / 3) % 2});
  return list;
}

struct Capture {
  std::vector<short> mics, ref;
};

// A talker at 60 degrees over noise with loudspeaker echo; the reference is
// fed, so the canceller has work to do.
Capture MakeCapture() {
  const std::size_t n = kFrames * kFrame;
  sim::SpeechLikeOptions opt;
  opt.syllable_hz = 12.0;  // several on/off edges inside the short capture
  const auto talker = sim::MakeSpeechLike(n, 21, opt).samples;
  const auto far = sim::WhiteNoise(n, 1500.0, 22);
  auto mics = sim::Mix(sim::PlaneWave(talker, 60), sim::IndependentNoise(n, 80.0, 23));
  mics = sim::Mix(mics, sim::PlaneWave(far, 180), 0.4);
  Capture c;
  c.mics = sim::Interleave(mics);
  c.ref = sim::ToPcm(far);
  return c;
}

std::vector<short> RunFrames(unsigned char* p_data, const Configuration& c, const Capture& cap, char* config) {
  T_VornParam pm = sim::ParamKeeping(p_data, c.switches, c.doa_update);
  EXPECT_EQ(VornInit(&pm, config), 0);
  std::vector<short> out(kFrames * kFrame + 1);
  short order[3] = {0, 1, 2};
  std::vector<short> mics = cap.mics, ref = cap.ref;
  for (int f = 0; f < kFrames; ++f) {
    EXPECT_EQ(VornProc(&pm, &mics[3 * kFrame * f], &ref[kFrame * f], &out[kFrame * f], order), 0);
    out[kFrames * kFrame] = static_cast<short>(out[kFrames * kFrame] + pm.vad_flag);
  }
  // The direction search borrows module state too; its code and result
  // join the bytes compared.
  out.push_back(static_cast<short>(VornDoa(&pm, mics.data(), order, kFrames * kFrame)));
  out.push_back(static_cast<short>(pm.azimuth));
  return out;
}

TEST(VornAlignment, EveryOffsetAndSwitchValueGivesTheSameBytes) {
  const Capture cap = MakeCapture();
  const std::vector<Configuration> configs = AllSwitchValues();
  std::vector<std::vector<short>> at_zero;
  for (std::size_t offset = 0; offset < kLine; ++offset) {
    SCOPED_TRACE("offset " + std::to_string(offset));
    OffsetBuffer buffer(offset);
    for (std::size_t c = 0; c < configs.size(); ++c) {
      SCOPED_TRACE("configuration " + std::to_string(c));
      std::vector<short> out = RunFrames(buffer.data(), configs[c], cap, nullptr);
      if (offset == 0)
        at_zero.push_back(std::move(out));
      else
        ASSERT_EQ(out, at_zero[c]);
    }
  }
}

TEST(VornAlignment, ConfigurationFileIsReadAtEveryOffset) {
  // The reader borrows the caller's buffer before the state is laid out.
  const std::string dir = test::MakeTempDir("align_conf");
  std::string path = dir + "/vorn.conf";
  ASSERT_TRUE(test::WriteBytes(path,
                               "[VORN_WKP]\nagc_flag=1\nbf_flag=4\nns_flag=2\nvad_mode=1\nbf_zaimuth=300\n"
                               "[VORN_ASR]\nagc_flag=2\nbf_flag=6\naec_flag=3\nns_flag=1\nvad_mode=2\n"
                               "[VORN_COM]\nagc_flag=2\nbf_flag=7\ndoa_flag=1\naec_flag=2\nns_flag=2\nvad_mode=2\n"));
  for (std::size_t offset = 0; offset < kLine; ++offset) {
    SCOPED_TRACE(offset);
    OffsetBuffer buffer(offset);
    T_VornParam pm = sim::ParamOver(buffer.data());
    pm.vorn_mode = 2;
    ASSERT_EQ(VornInit(&pm, path.data()), 0);
    EXPECT_EQ(pm.bf_flag, 7);
    EXPECT_EQ(pm.in_argv[0].bf_azimuth, 300);
    EXPECT_EQ(pm.in_argv[1].aec_flag, 3);
  }
  std::filesystem::remove_all(dir);
}

}  // namespace
}  // namespace vorn
