// Parameter record, modes and the parameter check.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "sim/front_end_param.h"
#include "vorn/vorn_param.h"
#include "vorn_proc.h"

namespace vorn {
namespace {

// A record that passes every check: defaults of mode 0, a big enough buffer.
struct ValidParam {
  std::vector<unsigned char> buffer = std::vector<unsigned char>(kVornMinBuffSize);
  T_VornParam pm = sim::ParamOver(buffer.data());
  ValidParam() {
    ConfigDefault(&pm, 3);
    pm.vorn_mode = 0;
    SwitchMode(&pm);
  }
};

TEST(VornParam, QueriesReportSizeAndVersion) {
  EXPECT_EQ(VornGetBuffSize(), sizeof(void*) == 8 ? 961584 : 961544);  // one pointer per module call record
  EXPECT_STREQ(VornGetVersion(), "0.4.4");
  // The advertised size is below the accepted minimum; callers must supply more.
  EXPECT_LT(VornGetBuffSize(), kVornMinBuffSize);
}

TEST(VornParam, DefaultsPerMode) {
  T_VornParam pm{};
  std::strcpy(pm.in_argv[1].preaec_filter_path, "keep.bin");
  ConfigDefault(&pm, 3);
  const int want[3][7] = {{1, 0, 0, 0, 1, 0, 1}, {2, 0, 0, 0, 1, 0, 2}, {2, 0, 0, 0, 1, 0, 2}};
  for (int mode = 0; mode < 3; ++mode) {
    SCOPED_TRACE(mode);
    const T_VornKey& k = pm.in_argv[mode];
    const int got[7] = {k.agc_flag, k.bf_flag, k.doa_flag, k.aec_flag, k.ns_flag, k.bf_azimuth, k.vad_mode};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(got[i], want[mode][i]) << "field " << i;
  }
  EXPECT_STREQ(pm.in_argv[1].preaec_filter_path, "keep.bin");

  T_VornParam partial{};
  ConfigDefault(&partial, 1);
  EXPECT_EQ(partial.in_argv[0].agc_flag, 1);
  EXPECT_EQ(partial.in_argv[1].agc_flag, 0);
  ConfigDefault(&partial, -1);  // does nothing
  EXPECT_EQ(partial.in_argv[1].vad_mode, 0);
}

TEST(VornParam, SwitchModeCopiesTheSelectedKeyOnly) {
  T_VornParam pm{};
  for (int mode = 0; mode < 3; ++mode) {
    T_VornKey& k = pm.in_argv[mode];
    k.agc_flag = mode;
    k.bf_flag = 10 + mode;
    k.doa_flag = 20 + mode;
    k.aec_flag = 30 + mode;
    k.ns_flag = 40 + mode;
    k.bf_azimuth = 50 + mode;
    k.vad_mode = 60 + mode;
  }
  pm.vorn_mode = 2;
  EXPECT_EQ(SwitchMode(&pm), 0);
  EXPECT_EQ(pm.agc_flag, 2);
  EXPECT_EQ(pm.bf_flag, 12);
  EXPECT_EQ(pm.doa_flag, 22);
  EXPECT_EQ(pm.aec_flag, 32);
  EXPECT_EQ(pm.ns_flag, 42);
  EXPECT_EQ(pm.bf_azimuth, 52);
  EXPECT_EQ(pm.vad_mode, 62);

  for (int bad : {3, -1}) {
    SCOPED_TRACE(bad);
    pm.vorn_mode = bad;
    EXPECT_EQ(SwitchMode(&pm), -1);
    EXPECT_EQ(pm.bf_flag, 12);  // left as it was
  }
}

TEST(VornParam, CheckCodesInOrder) {
  struct Case {
    const char* name;
    void (*edit)(T_VornParam&);
    int want;
  };
  const Case cases[] = {
      {"valid", [](T_VornParam&) {}, 0},
      {"no buffer", [](T_VornParam& p) { p.p_data = nullptr; }, 1},
      {"no buffer wins over everything", [](T_VornParam& p) { p.p_data = nullptr; p.param_size = 0; p.agc_flag = 9; }, 1},
      {"buffer of the advertised size", [](T_VornParam& p) { p.buff_size = VornGetBuffSize(); }, 2},
      {"buffer one short of the minimum", [](T_VornParam& p) { p.buff_size = 999999; }, 2},
      {"negative buffer size", [](T_VornParam& p) { p.buff_size = -5; }, 2},
      {"size before record size", [](T_VornParam& p) { p.buff_size = 10; p.param_size = 1; }, 2},
      {"record size", [](T_VornParam& p) { p.param_size = kVornParamSize - 4; }, 3},
      {"record size before agc", [](T_VornParam& p) { p.param_size = 0; p.agc_flag = 3; }, 3},
      {"agc 3", [](T_VornParam& p) { p.agc_flag = 3; }, 4},
      {"agc -1", [](T_VornParam& p) { p.agc_flag = -1; }, 4},
      {"agc before aec", [](T_VornParam& p) { p.agc_flag = 3; p.aec_flag = 4; }, 4},
      {"aec 4", [](T_VornParam& p) { p.aec_flag = 4; }, 5},
      {"aec before doa", [](T_VornParam& p) { p.aec_flag = 4; p.doa_flag = 4; }, 5},
      {"doa 4", [](T_VornParam& p) { p.doa_flag = 4; }, 6},
      {"doa before ns", [](T_VornParam& p) { p.doa_flag = -1; p.ns_flag = 3; }, 6},
      {"ns 3", [](T_VornParam& p) { p.ns_flag = 3; }, 7},
      {"ns before bf", [](T_VornParam& p) { p.ns_flag = 3; p.bf_flag = 8; }, 7},
      {"bf 8", [](T_VornParam& p) { p.bf_flag = 8; }, 8},
      {"bf before azimuth", [](T_VornParam& p) { p.bf_flag = 8; p.bf_azimuth = 360; }, 8},
      {"azimuth 360", [](T_VornParam& p) { p.bf_azimuth = 360; }, 9},
      {"azimuth -1", [](T_VornParam& p) { p.bf_azimuth = -1; }, 9},
      {"sector beam 3 at 90", [](T_VornParam& p) { p.bf_flag = 3; p.bf_azimuth = 90; }, 9},
      {"sector beam 4 at 120", [](T_VornParam& p) { p.bf_flag = 4; p.bf_azimuth = 120; }, 9},
      {"sector beam 3 at 60", [](T_VornParam& p) { p.bf_flag = 3; p.bf_azimuth = 60; }, 0},
      {"sector beam 4 at 300", [](T_VornParam& p) { p.bf_flag = 4; p.bf_azimuth = 300; }, 0},
      {"sector beam 3 at 0", [](T_VornParam& p) { p.bf_flag = 3; p.bf_azimuth = 0; }, 0},
      {"beam 5 at 90", [](T_VornParam& p) { p.bf_flag = 5; p.bf_azimuth = 90; }, 0},
      {"azimuth before vad", [](T_VornParam& p) { p.bf_flag = 4; p.bf_azimuth = 90; p.vad_mode = 0; }, 9},
      {"vad mode 0", [](T_VornParam& p) { p.vad_mode = 0; }, 10},
      {"vad mode 3", [](T_VornParam& p) { p.vad_mode = 3; }, 10},
      {"vad before doa update", [](T_VornParam& p) { p.vad_mode = 3; p.doa_update_flag = 2; }, 10},
      {"doa update 2 reuses the doa code", [](T_VornParam& p) { p.doa_update_flag = 2; }, 6},
      {"doa update 1", [](T_VornParam& p) { p.doa_update_flag = 1; }, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    ValidParam v;
    c.edit(v.pm);
    EXPECT_EQ(VornParamCheck(&v.pm), c.want);
  }
  EXPECT_EQ(VornParamCheck(nullptr), 1);
}

}  // namespace
}  // namespace vorn
