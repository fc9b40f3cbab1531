// The public headers as C89, C99, C11 and C++11 callers compile them: every
// copy must see the records laid out as the library is built (a caller
// compiled another way passes param_size and sizes the library checks).
#include <gtest/gtest.h>

#include <cstddef>

#include "c_header_check.h"
#include "vorn.h"
#include "vorn_proc.h"

namespace {

TEST(PublicHeader, EveryLanguageSeesTheLibrarysLayout) {
  const HeaderLayout want{static_cast<long>(sizeof(T_VornParam)),
                          static_cast<long>(offsetof(T_VornParam, in_argv)),
                          static_cast<long>(sizeof(T_VornKey)),
                          static_cast<long>(sizeof(VornSwitches)),
                          static_cast<long>(sizeof(VornSettings)),
                          static_cast<long>(offsetof(VornSettings, config_file)),
                          static_cast<long>(sizeof(VornResult)),
                          3 * 256,
                          1000000,
                          static_cast<long>(VORN_STATE_SIZE_MAX),
                          240,
                          1835};  // the array's radius in samples, in thousandths
  const struct {
    const char* language;
    void (*check)(HeaderLayout*);
  } copies[] = {{"C89", header_check_c89}, {"C99", header_check_c99}, {"C11", header_check_c11},
                {"C++11", header_check_cxx}};
  for (const auto& copy : copies) {
    SCOPED_TRACE(copy.language);
    HeaderLayout got{};
    copy.check(&got);
    EXPECT_EQ(got.param_size, want.param_size);
    EXPECT_EQ(got.param_in_argv, want.param_in_argv);
    EXPECT_EQ(got.key_size, want.key_size);
    EXPECT_EQ(got.switches_size, want.switches_size);
    EXPECT_EQ(got.settings_size, want.settings_size);
    EXPECT_EQ(got.settings_config_file, want.settings_config_file);
    EXPECT_EQ(got.result_size, want.result_size);
    EXPECT_EQ(got.frame_values, want.frame_values);
    EXPECT_EQ(got.min_buff_size, want.min_buff_size);
    EXPECT_EQ(got.state_size_max, want.state_size_max);
    EXPECT_EQ(got.last_mic_azimuth, want.last_mic_azimuth);
    EXPECT_EQ(got.radius_millisamples, want.radius_millisamples);
  }
  // The record's size per pointer width, as the header states it.
  EXPECT_EQ(sizeof(T_VornParam), sizeof(void*) == 8 ? 1680u : 1676u);
}

}  // namespace
