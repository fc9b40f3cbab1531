/* What a C view of the public headers reports (tests/c_header_check.c). */
#ifndef VORN_C_HEADER_CHECK_H
#define VORN_C_HEADER_CHECK_H

#ifdef __cplusplus
extern "C" {
#endif

struct HeaderLayout {
  long param_size, param_in_argv, key_size, switches_size, settings_size, settings_config_file, result_size;
  long frame_values, min_buff_size, state_size_max;
  long last_mic_azimuth, radius_millisamples;  /* the array's header */
};

void header_check_c89(struct HeaderLayout* layout);
void header_check_c99(struct HeaderLayout* layout);
void header_check_c11(struct HeaderLayout* layout);
void header_check_cxx(struct HeaderLayout* layout);

#ifdef __cplusplus
}
#endif

#endif
