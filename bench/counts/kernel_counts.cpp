// Calls one vector kernel or its plain twin N times between two marker
// functions, so that an instruction counter can count exactly those calls:
// bench/kernel_counts.sh runs it under qemu-aarch64 (one instruction per
// translated block, every executed block logged) and under callgrind on the
// build machine.
//
//   vorn_kernel_counts KERNEL plain|vector N
//   vorn_kernel_counts list
//
// The inputs are fixed pseudo-random data of the sizes the front end uses,
// positive and spread over six decades where the kernel reads powers (the
// suppressor's kernels branch on their values, so their counts depend on
// the data a little).
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "adsp_aec/aec_core.h"
#include "adsp_aec/aec_rdft.h"
#include "adsp_bf/adsp_doa.h"
#include "adsp_bf/beamformer.h"
#include "adsp_bf/mic_health.h"
#include "adsp_bf/weight_tables.h"
#include "adsp_ns/adsp_ns_kernels.h"
#include "adsp_ns/adsp_ns_proc.h"
#include "common/adsp_common_fft_rel.h"
#include "common/fft_rel_lanes.h"
#include "common/adsp_common_util.h"
#include "common/pcm_round.h"
#include "common/simd4.h"
#include "count_markers.h"

#if !defined(VORN_SIMD4)
#error "the kernel counts compare four-lane kernels with their plain twins"
#endif


namespace {

using namespace vorn;

// Uniform in [0, 1), a fixed sequence.
struct Random {
  unsigned state = 12345u;
  float Next() {
    state = state * 1664525u + 1013904223u;
    return static_cast<float>(state >> 8) * (1.0f / 16777216.0f);
  }
  std::vector<float> Uniform(int n, float lo, float hi) {
    std::vector<float> x(n);
    for (float& v : x) v = lo + (hi - lo) * Next();
    return x;
  }
  // Powers between 1e-3 and 1e3.
  std::vector<float> Powers(int n) {
    std::vector<float> x(n);
    for (float& v : x) v = std::pow(10.0f, -3.0f + 6.0f * Next());
    return x;
  }
};

struct Inputs {
  Random r;
  std::vector<float> psd = r.Powers(kNsBins), noise = r.Powers(kNsBins), memory = r.Powers(kNsBins),
                     minimum = r.Powers(kNsBins), smoothed = r.Powers(kNsBins), presence = r.Uniform(kNsBins, 0, 1),
                     gamma_min = r.Powers(kNsBins), zeta = r.Powers(kNsBins), v = r.Powers(kNsBins),
                     eta = r.Powers(kNsBins), gamma = r.Powers(kNsBins), taps31 = r.Uniform(31, 0, 0.1f),
                     taps3 = r.Uniform(3, 0, 0.5f), frame = r.Uniform(512, -1000, 1000),
                     block = r.Uniform(128, -1000, 1000), unit = r.Uniform(kDoaBandBins * 6, -1, 1),
                     weight = r.Uniform(kDoaLowBin + kDoaBandBins + 64, 0, 1),
                     spectra = r.Uniform(3 * 512, -1000, 1000), blocking = r.Uniform(18 * 257, -1, 1),
                     beam_noise = r.Powers(257);
  std::vector<float> out[5] = {std::vector<float>(2048), std::vector<float>(2048), std::vector<float>(2048),
                               std::vector<float>(2048), std::vector<float>(2048)};
  std::vector<float> dav = r.Powers(kNsBins), dav_long = r.Powers(kNsBins);
  std::vector<float> work = std::vector<float>(512);
  // A canceller with 12 partitions of far history and both filters filled.
  std::unique_ptr<AecCore> aec = [this] {
    auto core = std::make_unique<AecCore>();
    core->num_partitions = kNormalNumPartitions;
    core->xfBufBlockPos = 5;
    core->filter_flag = 1;
    for (float* plane : {core->xfBuf[0], core->xfBuf[1], core->wfBuf[0], core->wfBuf[1]}) {
      const std::vector<float> values = r.Uniform(kFilterPlaneLen, -1, 1);
      std::copy(values.begin(), values.end(), plane);
    }
    return core;
  }();
  std::vector<float> error = r.Uniform(2 * kAecBins, -1e-3f, 1e-3f);
};

using Call = void (*)(Inputs&);

struct Kernel {
  const char* name;
  const char* what;
  Call plain, vector;
};

template <bool kVector>
void SnrTerms(Inputs& in) {
  const NsSnrIn terms{in.psd.data(), in.noise.data(), in.memory.data(), in.minimum.data(), in.smoothed.data(),
                      0.0001f};
  const NsSnrOut out{in.out[0].data(), in.out[1].data(), in.out[2].data(), in.out[3].data(), in.out[4].data()};
  if constexpr (kVector) NsSnrTermsSimd(terms, out, kNsBins);
  else NsSnrTermsPlain(terms, out, kNsBins);
}

template <bool kVector>
void NoiseUpdate(Inputs& in) {
  const NsNoiseAverages avg{in.dav.data(), in.dav_long.data(), in.out[0].data()};
  if constexpr (kVector)
    NsNoiseUpdateSimd(in.psd.data(), in.gamma_min.data(), in.zeta.data(), in.presence.data(), avg, kNsBins);
  else NsNoiseUpdatePlain(in.psd.data(), in.gamma_min.data(), in.zeta.data(), in.presence.data(), avg, kNsBins);
}

template <bool kVector>
void LsaGain(Inputs& in) {
  if constexpr (kVector)
    NsLsaGainSimd(in.v.data(), in.eta.data(), in.gamma.data(), in.out[0].data(), in.out[1].data(), kNsBins);
  else NsLsaGainPlain(in.v.data(), in.eta.data(), in.gamma.data(), in.out[0].data(), in.out[1].data(), kNsBins);
}

template <bool kVector>
void Ramp(Inputs& in) {
  if constexpr (kVector) NsRampOfRatioSimd(in.v.data(), in.out[0].data(), kNsBins);
  else NsRampOfRatioPlain(in.v.data(), in.out[0].data(), kNsBins);
}

template <bool kVector>
void BeamAbsence(Inputs& in) {
  // Three beams' periodograms over their noise: beam 0 above it in most bins.
  const NsBeamPowers powers{{in.psd.data(), in.smoothed.data(), in.memory.data()},
                            {in.noise.data(), in.minimum.data(), in.dav.data()},
                            in.gamma.data()};
  if constexpr (kVector) NsBeamAbsenceSimd(powers, in.out[0].data(), kNsBins);
  else NsBeamAbsencePlain(powers, in.out[0].data(), kNsBins);
}

template <bool kVector>
void DirectionWeights(Inputs& in) {
  if constexpr (kVector) BfWeightSimd(in.psd.data(), in.noise.data(), in.out[0].data(), 256);
  else BfWeightPlain(in.psd.data(), in.noise.data(), in.out[0].data(), 256);
}

template <bool kVector>
void UnitBins(Inputs& in) {
  const auto* f = reinterpret_cast<const float(*)[512]>(in.spectra.data());
  auto* unit = reinterpret_cast<float(*)[3][2]>(in.out[0].data());
  if constexpr (kVector) DoaUnitBinsSimd(f, unit);
  else DoaUnitBinsPlain(f, unit);
}

template <bool kVector>
void RoundPcm(Inputs& in) {
  auto* pcm = reinterpret_cast<short*>(in.work.data());
  if constexpr (kVector) RoundToPcmSimd(in.frame.data(), pcm, 256);
  else RoundToPcmPlain(in.frame.data(), pcm, 256);
}

template <bool kVector>
void MicFrameStats(Inputs& in) {
  const FrameStats stats = kVector ? FrameStatsSimd(in.frame.data()) : FrameStatsPlain(in.frame.data());
  in.out[0][5] = stats.lo + stats.hi + stats.energy;
}

template <bool kVector, int kTaps>
void Smooth(Inputs& in) {
  const float* taps = kTaps == 31 ? in.taps31.data() : in.taps3.data();
  if constexpr (kVector) ConvSimd(taps, kTaps, in.psd.data(), kNsBins, in.out[0].data());
  else ConvPlain(taps, kTaps, in.psd.data(), kNsBins, in.out[0].data());
}

template <bool kVector, bool kInverse>
void Transform512(Inputs& in) {
  std::memcpy(in.work.data(), in.frame.data(), 512 * sizeof(float));
  if constexpr (kVector) (kInverse ? IfftRelSimd : FftRelSimd)(in.work.data(), 512, 9);
  else (kInverse ? IfftRelPlain : FftRelPlain)(in.work.data(), 512, 9);
}

template <bool kVector>
void DirectionSearch(Inputs& in) {
  const auto* unit = reinterpret_cast<const float(*)[3][2]>(in.unit.data());
  if constexpr (kVector) DoaSteeredPowerSimd(doa_ele_azi_search_tab[0], unit, in.weight.data(), in.out[0].data());
  else DoaSteeredPowerPlain(doa_ele_azi_tab[0], kBfDirections, unit, in.weight.data(), in.out[0].data());
}

template <bool kVector, int kStage>
void RdftStage(Inputs& in) {
  const RdftStages& stages = kVector ? kRdftSimdStages : kRdftPlainStages;
  const RdftStage128 stage[] = {stages.cft1st, stages.cftmdl, stages.rftfsub, stages.rftbsub};
  std::memcpy(in.work.data(), in.block.data(), 128 * sizeof(float));
  stage[kStage](in.work.data());
}

template <bool kVector, bool kInverse>
void Rdft128(Inputs& in) {
  const RdftStages& stages = kVector ? kRdftSimdStages : kRdftPlainStages;
  std::memcpy(in.work.data(), in.block.data(), 128 * sizeof(float));
  (kInverse ? aec_rdft_inverse_128_with : aec_rdft_forward_128_with)(stages, in.work.data());
}

template <bool kVector>
void FilterOutput(Inputs& in) {
  float yf[2][kAecBins] = {};
  if constexpr (kVector) FilterFarSimd(in.aec.get(), yf);
  else FilterFarPlain(in.aec.get(), yf);
  in.out[0][0] = yf[0][0];
}

template <bool kVector>
void FilterConstraint(Inputs& in) {
  auto* ef = reinterpret_cast<float(*)[kAecBins]>(in.error.data());
  if constexpr (kVector) FilterAdaptationSimd(in.aec.get(), ef);
  else FilterAdaptationPlain(in.aec.get(), in.work.data(), ef);
}

template <bool kVector>
void GscBlocking(Inputs& in) {
  const auto* f = reinterpret_cast<const float(*)[512]>(in.spectra.data());
  if constexpr (kVector) GscBlockingSimd(in.blocking.data(), 1, f, in.out[0].data());
  else GscBlockingPlain(in.blocking.data(), 1, f, in.out[0].data());
}

template <bool kVector>
void GscStep(Inputs& in) {
  const auto* f = reinterpret_cast<const float(*)[512]>(in.spectra.data());
  float* const filters[3] = {in.out[1].data(), in.out[2].data(), in.out[3].data()};
  if constexpr (kVector) GscStepSimd(in.frame.data(), f, in.beam_noise.data(), filters);
  else GscStepPlain(in.frame.data(), f, in.beam_noise.data(), filters);
  in.out[0][5] = in.out[1][5];
}

// Four blocks at once, one per lane, against four plain transforms.
template <bool kVector, bool kInverse>
void Transform512x4(Inputs& in) {
  float* const blocks[4] = {in.out[0].data(), in.out[1].data(), in.out[2].data(), in.out[3].data()};
  for (float* block : blocks) std::memcpy(block, in.frame.data(), 512 * sizeof(float));
  if constexpr (kVector) (kInverse ? IfftRelLanesSimd : FftRelLanesSimd)(blocks, 4, 512, 9, false);
  else
    for (float* block : blocks) (kInverse ? IfftRelPlain : FftRelPlain)(block, 512, 9);
}

void Copy512x4(Inputs& in) {
  for (int b = 0; b < 4; ++b) std::memcpy(in.out[b].data(), in.frame.data(), 512 * sizeof(float));
}

void Copy512(Inputs& in) { std::memcpy(in.work.data(), in.frame.data(), 512 * sizeof(float)); }
void Copy128(Inputs& in) { std::memcpy(in.work.data(), in.block.data(), 128 * sizeof(float)); }

const Kernel kKernels[] = {
    {"ns_snr_terms", "suppressor SNR terms, 257 bins", SnrTerms<false>, SnrTerms<true>},
    {"ns_noise_update", "suppressor noise averages, 257 bins", NoiseUpdate<false>, NoiseUpdate<true>},
    {"ns_lsa_gain", "suppressor speech gain, 257 bins", LsaGain<false>, LsaGain<true>},
    {"ns_ramp", "suppressor likelihood ramp, 257 bins", Ramp<false>, Ramp<true>},
    {"ns_beam_absence", "post filter's absence from three beams, 257 bins", BeamAbsence<false>, BeamAbsence<true>},
    {"pcm_round", "rounding 256 samples to PCM (enhanced paths)", RoundPcm<false>, RoundPcm<true>},
    {"mic_frame_stats", "a microphone frame's extremes and energy, 256 samples", MicFrameStats<false>,
     MicFrameStats<true>},
    {"smooth_3", "3-tap smoothing, 257 bins", Smooth<false, 3>, Smooth<true, 3>},
    {"smooth_31", "31-tap smoothing, 257 bins", Smooth<false, 31>, Smooth<true, 31>},
    {"fft_512", "512-point forward transform", Transform512<false, false>, Transform512<true, false>},
    {"ifft_512", "512-point inverse transform", Transform512<false, true>, Transform512<true, true>},
    {"fft_512_x4", "four 512-point forward transforms, one per lane", Transform512x4<false, false>,
     Transform512x4<true, false>},
    {"ifft_512_x4", "four 512-point inverse transforms, one per lane", Transform512x4<false, true>,
     Transform512x4<true, true>},
    {"doa_search", "direction search, 72 directions x 205 bins", DirectionSearch<false>, DirectionSearch<true>},
    {"doa_weights", "direction search's bin weights, 256 bins", DirectionWeights<false>, DirectionWeights<true>},
    {"doa_unit_bins", "direction search's unit-magnitude bins, 3 x 205", UnitBins<false>, UnitBins<true>},
    {"gsc_blocking", "adaptive beam's blocking output, 257 bins", GscBlocking<false>, GscBlocking<true>},
    {"gsc_step", "adaptive beam's filter step, 3 filters x 257 bins", GscStep<false>, GscStep<true>},
    {"aec_cft1st", "canceller transform, first radix-4 stage", RdftStage<false, 0>, RdftStage<true, 0>},
    {"aec_cftmdl", "canceller transform, middle radix-4 stage", RdftStage<false, 1>, RdftStage<true, 1>},
    {"aec_rftfsub", "canceller transform, forward real split", RdftStage<false, 2>, RdftStage<true, 2>},
    {"aec_rftbsub", "canceller transform, inverse real split", RdftStage<false, 3>, RdftStage<true, 3>},
    {"aec_rdft_fwd", "canceller 128-point forward transform", Rdft128<false, false>, Rdft128<true, false>},
    {"aec_rdft_inv", "canceller 128-point inverse transform", Rdft128<false, true>, Rdft128<true, true>},
    {"canceller_filter_out", "canceller filter output, 12 partitions", FilterOutput<false>, FilterOutput<true>},
    {"canceller_adaptation", "canceller adaptation, 12 partitions (plain: one transform pair per partition)", FilterConstraint<false>,
     FilterConstraint<true>},
    // The input copy the transforms above include, to subtract.
    {"copy_512", "the 512-float input copy alone", Copy512, Copy512},
    {"copy_512_x4", "four 512-float input copies alone", Copy512x4, Copy512x4},
    {"copy_128", "the 128-float input copy alone", Copy128, Copy128},
};

__attribute__((noinline)) void CountedCalls(Call call, Inputs& in, int n) {
  vorn_count_begin();
  for (int i = 0; i < n; ++i) call(in);
  vorn_count_end();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string(argv[1]) == "list") {
    for (const Kernel& k : kKernels) std::printf("%s\t%s\n", k.name, k.what);
    return 0;
  }
  if (argc != 4) {
    std::fprintf(stderr, "usage: %s KERNEL plain|vector N | list\n", argv[0]);
    return 2;
  }
  const std::string name = argv[1], variant = argv[2];
  const int n = std::atoi(argv[3]);
  for (const Kernel& k : kKernels) {
    if (name != k.name) continue;
    if (variant != "plain" && variant != "vector") break;
    Inputs in;
    CountedCalls(variant == "plain" ? k.plain : k.vector, in, n);
    // Reading an output keeps the calls from being dropped.
    const double seen = in.out[0][5] + in.work[5];
    std::printf("%s %s %d calls, %g\n", k.name, variant.c_str(), n, seen);
    return 0;
  }
  std::fprintf(stderr, "unknown kernel or variant: %s %s\n", argv[1], argv[2]);
  return 2;
}
