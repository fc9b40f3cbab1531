// The direction bench's own parts: its baselines must find a talker the
// textbook way, and its walking talker must really walk, or the report's
// comparisons would mean nothing.
#include <gtest/gtest.h>

#include <cmath>

#include "quality/direction_baselines.h"
#include "quality/direction_bench.h"
#include "quality/direction_grid.h"
#include "sim/metrics.h"

namespace vorn::bench {
namespace {

using namespace vorn::sim;

// An anechoic talker over light noise: every baseline's stretch answer and
// its per-frame answer at the end are on the talker.
TEST(BenchDirection, BaselinesFindAPlaneWaveTalker) {
  DirectionScene cell;
  cell.scene.room.rt60_s = 0.0;
  cell.scene.duration_s = 3.0;
  cell.scene.talker_begin_s = 0.5;
  cell.scene.talker_end_s = 3.0;
  cell.scene.far_begin_s = cell.scene.far_end_s = 0.0;
  cell.scene.azimuth_deg = 287.3;
  cell.scene.elevation_deg = -20.0;
  cell.scene.noises.push_back({NoiseKind::kSensor, NoiseColour::kWhite, 30.0});
  DirectionRender r;
  std::string error;
  ASSERT_TRUE(RenderDirectionScene(cell, &r, &error)) << error;
  for (Baseline b : {Baseline::kSrpPhat, Baseline::kSrpPhatSnr, Baseline::kMusic}) {
    SCOPED_TRACE(BaselineName(b));
    const BaselineAnswers answers = RunBaseline(b, r.rendered.mics, {{31, 187}});
    ASSERT_EQ(answers.stretch_deg.size(), 1u);
    EXPECT_LE(AzimuthErrorDeg(answers.stretch_deg[0], 287.3), 5.0);
    EXPECT_LE(AzimuthErrorDeg(answers.per_frame_deg.back(), 287.3), 5.0);
  }
}

// The walking talker's truth turns 90 degrees at an even pace during the
// walk, and the rendered sound turns with it.
TEST(BenchDirection, TheWalkingTalkerWalks) {
  DirectionScene cell;
  cell.scene.room.rt60_s = 0.0;
  cell.scene.duration_s = 6.0;
  cell.scene.talker_begin_s = 0.0;
  cell.scene.talker_end_s = 6.0;
  cell.scene.far_begin_s = cell.scene.far_end_s = 0.0;
  cell.scene.azimuth_deg = 300.0;
  cell.walk_deg = 90.0;
  cell.walk_begin_s = 1.0;
  cell.walk_end_s = 4.0;
  DirectionRender r;
  std::string error;
  ASSERT_TRUE(RenderDirectionScene(cell, &r, &error)) << error;
  const auto at = [](double s) { return static_cast<std::size_t>(s * kSampleRate / kFrame); };
  EXPECT_NEAR(r.azimuth_deg[at(0.5)], 300.0, 1e-9);
  EXPECT_NEAR(r.azimuth_deg[at(2.5)], 345.0, 1.0);
  EXPECT_NEAR(r.azimuth_deg[at(5.5)], 30.0, 1e-9);
  const BaselineAnswers answers =
      RunBaseline(Baseline::kSrpPhat, r.rendered.mics, {{at(0.2), at(1.0)}, {at(4.2), at(6.0)}});
  EXPECT_LE(AzimuthErrorDeg(answers.stretch_deg[0], 300.0), 3.0);
  EXPECT_LE(AzimuthErrorDeg(answers.stretch_deg[1], 30.0), 3.0);
}

// The fresh draw keeps every cell of the tuned grid (its room, noise and SNR,
// its walk) but none of its talkers: a fresh page that repeated a tuned
// scene, or dropped a cell, would not tell what the tuning fitted.
TEST(BenchDirection, TheFreshDrawKeepsTheCellsAndChangesTheTalkers) {
  const std::vector<DirectionScene> tuned = DirectionScenes(DirectionDraw::kTuned);
  const std::vector<DirectionScene> fresh = DirectionScenes(DirectionDraw::kFresh);
  ASSERT_EQ(fresh.size(), tuned.size());
  for (std::size_t i = 0; i < tuned.size(); ++i) {
    SCOPED_TRACE(tuned[i].name);
    EXPECT_EQ(fresh[i].name, tuned[i].name);
    EXPECT_EQ(fresh[i].scene.room.rt60_s, tuned[i].scene.room.rt60_s);
    EXPECT_EQ(fresh[i].snr_db, tuned[i].snr_db);
    EXPECT_EQ(fresh[i].noise, tuned[i].noise);
    EXPECT_EQ(fresh[i].walk_deg, tuned[i].walk_deg);
    for (const DirectionScene& other : tuned) EXPECT_NE(fresh[i].scene.seed, other.scene.seed);
    EXPECT_GT(AzimuthErrorDeg(fresh[i].scene.azimuth_deg, tuned[i].scene.azimuth_deg), 1.0);
  }
}

// A draw given as text puts each number where it belongs: the tuned draw's
// numbers give the tuned draw's scenes, to the seed, azimuth and height.
// Text that is not six such numbers, or a height off the seven, is refused.
TEST(BenchDirection, AGivenDrawReadsItsSixNumbersInOrder) {
  DirectionDrawRecipe recipe{};
  std::string error;
  ASSERT_TRUE(ParseDrawRecipe("500,700,17,41,0,30", &recipe, &error)) << error;
  const std::vector<DirectionScene> tuned = DirectionScenes(DirectionDraw::kTuned);
  const std::vector<DirectionScene> given = DirectionScenes(recipe);
  ASSERT_EQ(given.size(), tuned.size());
  for (std::size_t i = 0; i < tuned.size(); ++i) {
    SCOPED_TRACE(tuned[i].name);
    EXPECT_EQ(given[i].scene.seed, tuned[i].scene.seed);
    EXPECT_EQ(given[i].scene.azimuth_deg, tuned[i].scene.azimuth_deg);
    EXPECT_EQ(given[i].scene.elevation_deg, tuned[i].scene.elevation_deg);
  }
  for (const char* bad : {"500,700,17,41,0", "500,700,17,41,0,30,1", "500,700,17,41,7,30", "500,700,17,41,-1,30",
                          "-5,700,17,41,0,30", "500,700,17,41,0,30x", "", "500;700;17;41;0;30"}) {
    SCOPED_TRACE(bad);
    error.clear();
    EXPECT_FALSE(ParseDrawRecipe(bad, &recipe, &error));
    EXPECT_NE(error.find("STILL_SEED"), std::string::npos);
  }
}

// A track that repeats the truth half a second late across 0/360 is found
// half a second late and perfect there; pauses do not count.
TEST(BenchDirection, TrackLagFindsTheDelayOverSpeechFrames) {
  std::vector<double> truth(400), late(400);
  std::vector<std::uint8_t> speech(400, 1);
  for (std::size_t f = 0; f < truth.size(); ++f) truth[f] = std::fmod(300.0 + 0.5 * static_cast<double>(f), 360.0);
  for (std::size_t f = 0; f < late.size(); ++f) late[f] = truth[f >= 31 ? f - 31 : 0];
  for (std::size_t f = 200; f < 260; ++f) {
    speech[f] = 0;
    late[f] = 0.0;  // wild, but in a pause
  }
  const TrackLag lag = FindTrackLag(late, truth, speech, 100, 400, 125);
  EXPECT_EQ(lag.frames, 31u);
  EXPECT_NEAR(lag.error_at_lag_deg, 0.0, 1e-9);
  EXPECT_NEAR(lag.error_undelayed_deg, 15.5, 1e-9);
}

}  // namespace
}  // namespace vorn::bench
