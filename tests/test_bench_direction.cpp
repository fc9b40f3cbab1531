// The direction bench's own parts: its baselines must find a talker the
// textbook way, and its walking talker must really walk, or the report's
// comparisons would mean nothing.
#include <gtest/gtest.h>

#include <cmath>

#include "quality/direction_baselines.h"
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

}  // namespace
}  // namespace vorn::bench
