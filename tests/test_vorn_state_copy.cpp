// A state copied to other memory between frames goes on exactly as the
// original would: the state holds no pointer into itself, into the old buffer
// or into the caller's arrays. The copy lands at every alignment relative to
// the original, and the old buffer is scribbled over before the copy runs,
// so nothing can still be read from it.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

#include "sim/front_end_param.h"
#include "support/front_end_scene.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

constexpr int kFrame = VORN_FRAME_SAMPLES;
constexpr int kCopyAfter = 500;  // frames processed before the copy
constexpr int kFrames = 600;
const short kOrder[3] = {2, 0, 1};

const test::Scene& Capture() {
  static const test::Scene scene = test::MakeScene(kFrames * kFrame / 16000.0, 200, 2500.0, true, 29);
  return scene;
}

// A buffer at a chosen distance past a 64-byte boundary.
struct Memory {
  std::unique_ptr<unsigned char[]> block{new unsigned char[VORN_MIN_BUFF_SIZE + 128]};
  unsigned char* At(int misalignment) {
    const auto base = reinterpret_cast<std::uintptr_t>(block.get());
    return block.get() + ((64 - base % 64) % 64) + static_cast<std::size_t>(misalignment);
  }
};

// Frames [from, to) of the capture: output, speech flag and azimuth of each,
// then a direction search over the frames processed.
void RunFrames(T_VornParam* pm, int from, int to, std::vector<short>* seen) {
  short out[kFrame];
  for (int f = from; f < to; ++f) {
    ASSERT_EQ(VornProc(pm, Capture().Mics(f), Capture().Ref(f), out, kOrder), VORN_OK) << "frame " << f;
    seen->insert(seen->end(), out, out + kFrame);
    seen->push_back(static_cast<short>(pm->vad_flag));
    seen->push_back(static_cast<short>(pm->azimuth));
  }
}

// The per-frame figures the record has no field for.
struct Figures {
  float speech = -1.0f, confidence = -1.0f, level_target = 0.0f;
  uint32_t mic_warnings = ~0u;
  bool operator==(const Figures&) const = default;
};
Figures Read(const T_VornParam* pm) {
  Figures f;
  EXPECT_EQ(VornGetSpeechProbability(pm, &f.speech), VORN_OK);
  EXPECT_EQ(VornGetDoaConfidence(pm, &f.confidence), VORN_OK);
  EXPECT_EQ(VornGetAgcTarget(pm, &f.level_target), VORN_OK);
  EXPECT_EQ(VornGetWarnings(pm, &f.mic_warnings), VORN_OK);
  return f;
}

TEST(StateCopy, ACopyGoesOnWithTheSameBytes) {
  const sim::Switches heaviest{.agc = 2, .bf = 4, .doa = 1, .aec = 3, .ns = 2, .azimuth = 300};
  for (const int32_t profile : {VORN_PROFILE_CLASSIC, VORN_PROFILE_ENHANCED}) {
    Memory reference_memory;
    T_VornParam reference = sim::ParamKeeping(reference_memory.At(0), heaviest, 1);
    ASSERT_EQ(VornInit(&reference, nullptr), VORN_OK);
    ASSERT_EQ(VornSetProfile(&reference, profile), VORN_OK);
    ASSERT_EQ(VornSetAgcTarget(&reference, -20.0f), VORN_OK);  // not the default, so that a copy must carry it
    std::vector<short> want;
    RunFrames(&reference, 0, kCopyAfter, &want);
    const Figures at_copy = Read(&reference);
    want.clear();
    RunFrames(&reference, kCopyAfter, kFrames, &want);
    const Figures at_end = Read(&reference);

    for (const int misalignment : {0, 4, 8, 33}) {
      SCOPED_TRACE("profile " + std::to_string(profile) + ", copied " + std::to_string(misalignment) +
                   " bytes past a 64-byte boundary");
      auto old_memory = std::make_unique<Memory>();
      T_VornParam pm = sim::ParamKeeping(old_memory->At(0), heaviest, 1);
      ASSERT_EQ(VornInit(&pm, nullptr), VORN_OK);
      ASSERT_EQ(VornSetProfile(&pm, profile), VORN_OK);
      ASSERT_EQ(VornSetAgcTarget(&pm, -20.0f), VORN_OK);
      std::vector<short> ignored;
      RunFrames(&pm, 0, kCopyAfter, &ignored);

      Memory new_memory;
      std::memcpy(new_memory.At(misalignment), pm.p_data, VORN_MIN_BUFF_SIZE);
      std::memset(pm.p_data, 0xa5, VORN_MIN_BUFF_SIZE);
      old_memory.reset();
      pm.p_data = new_memory.At(misalignment);
      // Readable before the first call moves the record.
      ASSERT_EQ(VornGetProfile(&pm), profile);
      EXPECT_TRUE(Read(&pm) == at_copy);
      std::vector<short> got;
      RunFrames(&pm, kCopyAfter, kFrames, &got);
      EXPECT_TRUE(got == want);
      EXPECT_TRUE(Read(&pm) == at_end);
      // The utterance search over the copy's history, too.
      T_VornParam search = pm, reference_search = reference;
      search.doa_flag = reference_search.doa_flag = 1;
      EXPECT_EQ(VornDoa(&search, Capture().Mics(0), kOrder, 64 * kFrame), VORN_OK);
      EXPECT_EQ(VornDoa(&reference_search, Capture().Mics(0), kOrder, 64 * kFrame), VORN_OK);
      EXPECT_EQ(search.azimuth, reference_search.azimuth);
    }
  }
}

}  // namespace
}  // namespace vorn
