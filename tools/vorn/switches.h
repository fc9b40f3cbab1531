// The seven switches of one run of the front end, as `vorn` gathers them from
// a mode, a configuration file and the command line.
#pragma once

namespace vorn::cli {

struct Switches {
  int agc = 0, bf = 0, doa = 0, aec = 0, ns = 0, azimuth = 0, vad_mode = 0;
};

// Writes the switches into a record with the library's field names (the
// parameter record itself or one mode's key).
template <typename Record>
void CopySwitches(const Switches& s, Record* record) {
  record->agc_flag = s.agc;
  record->bf_flag = s.bf;
  record->doa_flag = s.doa;
  record->aec_flag = s.aec;
  record->ns_flag = s.ns;
  record->bf_azimuth = s.azimuth;
  record->vad_mode = s.vad_mode;
}

}  // namespace vorn::cli
