// The seven switches of one run of the front end: the one record the tools,
// the benchmarks and the tests describe a configuration with, and its copy to
// and from the library's records, whose fields carry the same names with a
// "_flag" suffix (the parameter record itself or one mode's key).
#pragma once

namespace vorn::sim {

struct Switches {
  int agc = 0, bf = 0, doa = 0, aec = 0, ns = 0, azimuth = 0, vad_mode = 1;
};

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

template <typename Record>
Switches SwitchesOf(const Record& record) {
  return {record.agc_flag, record.bf_flag,    record.doa_flag, record.aec_flag,
          record.ns_flag,  record.bf_azimuth, record.vad_mode};
}

}  // namespace vorn::sim
