// The compiled half of the Python module: one front-end instance (vorn.h)
// that takes any number of samples per call, keeps a partial frame until the
// next call completes it, and processes whole frames with the interpreter's
// lock released. Everything Pythonic (dtypes, files, keyword switches) lives
// in vorn/__init__.py; this file only guards the memory and the codes.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "vorn.h"

namespace py = pybind11;

namespace {

constexpr int kFrame = VORN_FRAME_SAMPLES;
constexpr int kMics = VORN_MICS;

using Samples = py::array_t<int16_t, py::array::c_style>;

// A library code as the exception Python callers expect: bad values are
// ValueError, everything else RuntimeError; the text is the library's own.
[[noreturn]] void Raise(int code, const std::string& what) {
  const std::string message = what + ": " + vorn_error_string(code);
  switch (code) {
    case VORN_E_INTERNAL:
    case VORN_E_ALLOC:
    case VORN_E_NOT_READY:
      throw std::runtime_error(message);
    default:
      throw py::value_error(message);
  }
}

void Check(int code, const std::string& what) {
  if (code != VORN_OK) Raise(code, what);
}

VornSwitches SwitchesFromDict(const py::dict& d) {
  VornSwitches s{};
  s.agc = d["agc"].cast<int32_t>();
  s.beam = d["beam"].cast<int32_t>();
  s.doa = d["doa"].cast<int32_t>();
  s.aec = d["aec"].cast<int32_t>();
  s.ns = d["ns"].cast<int32_t>();
  s.azimuth_deg = d["azimuth_deg"].cast<int32_t>();
  s.vad_mode = d["vad_mode"].cast<int32_t>();
  return s;
}

py::dict SwitchesToDict(const VornSwitches& s) {
  py::dict d;
  d["agc"] = s.agc;
  d["beam"] = s.beam;
  d["doa"] = s.doa;
  d["aec"] = s.aec;
  d["ns"] = s.ns;
  d["azimuth_deg"] = s.azimuth_deg;
  d["vad_mode"] = s.vad_mode;
  return d;
}

struct StateDeleter {
  void operator()(VornState* st) const { vorn_destroy(st); }
};

class Engine {
 public:
  Engine(int mode, int profile, std::optional<std::string> config_text, std::optional<std::string> config_file) {
    VornSettings settings;
    vorn_settings_default(&settings);
    settings.mode = mode;
    settings.profile = profile;
    if (config_text) settings.config_text = config_text->c_str();
    if (config_file) settings.config_file = config_file->c_str();
    int error = VORN_OK;
    state_.reset(vorn_create(&settings, &error));
    if (!state_) {
      std::string what = "cannot start the front end";
      if (error == VORN_E_CONFIG && config_file) what += " with configuration " + *config_file;
      const std::string warnings = Warnings();
      if (!warnings.empty()) what += " (" + warnings + ")";
      Raise(error, what);
    }
  }

  py::dict switches(int mode) const {
    VornSwitches s;
    Check(vorn_get_switches(state_.get(), mode, &s), "switches");
    return SwitchesToDict(s);
  }

  void set_switches(int mode, const py::dict& d) {
    const VornSwitches s = SwitchesFromDict(d);
    const auto lock = Lock();
    Check(vorn_set_switches(state_.get(), mode, &s), "switches");
  }

  int profile() const {
    int32_t p = 0;
    Check(vorn_get_profile(state_.get(), &p), "profile");
    return p;
  }

  std::string config_warnings() const { return Warnings(); }

  // Takes `mics` (n x 3) and `reference` (n, or None) and returns the
  // output, speech flags, azimuths and speech probabilities of every frame
  // they complete. Nothing is consumed when the call fails.
  py::tuple feed(const Samples& mics, const std::optional<Samples>& reference) {
    if (mics.ndim() != 2 || mics.shape(1) != kMics)
      throw py::value_error("mics must have shape (n, 3), got " + ShapeText(mics));
    const auto n = static_cast<size_t>(mics.shape(0));
    if (reference && (reference->ndim() != 1 || static_cast<size_t>(reference->shape(0)) != n))
      throw py::value_error("ref must have shape (" + std::to_string(n) + ",) to match mics, got " +
                            ShapeText(*reference));
    const auto lock = Lock();
    const bool with_ref = reference.has_value();
    if (pending_samples() > 0 && with_ref != pending_has_ref_)
      throw py::value_error(with_ref ? "ref given, but the buffered samples of the previous call came without one"
                                     : "ref missing, but the buffered samples of the previous call came with one");
    return Run(mics.data(), with_ref ? reference->data() : nullptr, n, with_ref, false);
  }

  // Completes the buffered partial frame with silence, processes it and
  // returns only its real samples.
  py::tuple flush() {
    const auto lock = Lock();
    return Run(nullptr, nullptr, 0, pending_has_ref_, true);
  }

  size_t buffered() const { return pending_samples(); }

  void reset() {
    const auto lock = Lock();
    Check(vorn_reset(state_.get()), "reset");
    pending_mics_.clear();
    pending_ref_.clear();
  }

  py::tuple direction(const std::optional<Samples>& mics, int search) {
    const auto lock = Lock();
    // The frames search reads no samples but still wants a pointer.
    static const int16_t kNoSamples[kMics] = {};
    const int16_t* data = kNoSamples;
    int32_t n = 0;
    if (mics) {
      if (mics->ndim() != 2 || mics->shape(1) != kMics)
        throw py::value_error("mics must have shape (n, 3), got " + ShapeText(*mics));
      data = mics->data();
      n = static_cast<int32_t>(mics->shape(0));
    }
    int32_t azimuth = 0;
    int code;
    {
      py::gil_scoped_release release;
      code = vorn_direction(state_.get(), data, n, search, &azimuth);
    }
    Check(code, "direction");
    float confidence = 0.0F;
    Check(vorn_get_direction_confidence(state_.get(), &confidence), "direction");
    return py::make_tuple(azimuth, confidence);
  }

 private:
  size_t pending_samples() const { return pending_mics_.size() / kMics; }

  // One call at a time per instance. The lock is taken without the GIL: a
  // thread waiting for it while holding the GIL would stop the thread that
  // owns it from taking the GIL back.
  std::unique_lock<std::mutex> Lock() {
    py::gil_scoped_release release;
    return std::unique_lock<std::mutex>(mutex_);
  }

  std::string Warnings() const {
    if (!state_) return "";
    int32_t count = 0;
    const char* text = nullptr;
    if (vorn_get_config_warnings(state_.get(), &count, &text) != VORN_OK || text == nullptr) return "";
    std::string s = text;
    while (!s.empty() && s.back() == '\n') s.pop_back();
    return s;
  }

  template <typename A>
  static std::string ShapeText(const A& a) {
    std::string s = "(";
    for (py::ssize_t d = 0; d < a.ndim(); ++d) s += (d ? ", " : "") + std::to_string(a.shape(d));
    return s + (a.ndim() == 1 ? ",)" : ")");
  }

  // Appends the new samples to the partial frame, processes every whole
  // frame (and, on `finish`, the zero-padded rest) without the GIL.
  py::tuple Run(const int16_t* mics, const int16_t* ref, size_t n, bool with_ref, bool finish) {
    std::vector<int16_t> all_mics(pending_mics_);
    std::vector<int16_t> all_ref(pending_ref_);
    all_mics.insert(all_mics.end(), mics, mics + n * kMics);
    if (with_ref) all_ref.insert(all_ref.end(), ref, ref + n);
    const size_t total = all_mics.size() / kMics;
    size_t frames = total / kFrame;
    size_t keep = total - frames * kFrame;
    size_t out_samples = frames * kFrame;
    if (finish && keep > 0) {
      out_samples += keep;
      ++frames;
      all_mics.resize(frames * kFrame * kMics, 0);
      if (with_ref) all_ref.resize(frames * kFrame, 0);
      keep = 0;
    }
    Samples out(static_cast<py::ssize_t>(frames * kFrame));
    py::array_t<int8_t> speech(static_cast<py::ssize_t>(frames));
    py::array_t<int16_t> azimuth(static_cast<py::ssize_t>(frames));
    py::array_t<float> probability(static_cast<py::ssize_t>(frames));
    int16_t* out_p = out.mutable_data();
    int8_t* speech_p = speech.mutable_data();
    int16_t* azimuth_p = azimuth.mutable_data();
    float* prob_p = probability.mutable_data();
    int code = VORN_OK;
    size_t failed_at = 0;
    {
      py::gil_scoped_release release;
      for (size_t f = 0; f < frames; ++f) {
        VornResult r{};
        code = vorn_process(state_.get(), all_mics.data() + f * kFrame * kMics,
                            with_ref ? all_ref.data() + f * kFrame : nullptr, out_p + f * kFrame, &r);
        if (code != VORN_OK) {
          failed_at = f;
          break;
        }
        speech_p[f] = static_cast<int8_t>(r.speech);
        azimuth_p[f] = static_cast<int16_t>(r.azimuth_deg);
        prob_p[f] = r.speech_probability;
      }
    }
    // A refusal comes on the first frame (the switches or the missing
    // reference), before the state has moved: the call is simply undone.
    if (code != VORN_OK) Raise(code, "frame " + std::to_string(failed_at) + " of this call");
    pending_mics_.assign(all_mics.end() - static_cast<std::ptrdiff_t>(keep * kMics), all_mics.end());
    pending_ref_.clear();
    if (with_ref) pending_ref_.assign(all_ref.end() - static_cast<std::ptrdiff_t>(keep), all_ref.end());
    if (finish) pending_mics_.clear();
    pending_has_ref_ = with_ref;
    py::array trimmed = out[py::slice(0, static_cast<py::ssize_t>(out_samples), 1)];
    return py::make_tuple(trimmed, speech, azimuth, probability);
  }

  std::unique_ptr<VornState, StateDeleter> state_;
  std::vector<int16_t> pending_mics_;
  std::vector<int16_t> pending_ref_;
  bool pending_has_ref_ = false;
  mutable std::mutex mutex_;
};

}  // namespace

PYBIND11_MODULE(_vorn, m) {
  m.doc() = "Compiled core of the vorn package; use vorn.FrontEnd.";
  m.attr("FRAME_SAMPLES") = kFrame;
  m.attr("SAMPLE_RATE") = VORN_SAMPLE_RATE_HZ;
  m.attr("MODE_WAKEUP") = VORN_MODE_WAKEUP;
  m.attr("MODE_ASR") = VORN_MODE_ASR;
  m.attr("MODE_COMM") = VORN_MODE_COMM;
  m.attr("PROFILE_CLASSIC") = VORN_PROFILE_CLASSIC;
  m.attr("PROFILE_ENHANCED") = VORN_PROFILE_ENHANCED;
  m.attr("SEARCH_FRAMES") = VORN_SEARCH_FRAMES;
  m.attr("SEARCH_SAMPLES") = VORN_SEARCH_SAMPLES;
  m.attr("SEARCH_SAMPLES_WEIGHTED") = VORN_SEARCH_SAMPLES_WEIGHTED;
  m.def("version", [] { return std::string(vorn_version()); });
  py::class_<Engine>(m, "Engine")
      .def(py::init<int, int, std::optional<std::string>, std::optional<std::string>>(), py::arg("mode"),
           py::arg("profile"), py::arg("config_text"), py::arg("config_file"))
      .def("switches", &Engine::switches, py::arg("mode"))
      .def("set_switches", &Engine::set_switches, py::arg("mode"), py::arg("switches"))
      .def("profile", &Engine::profile)
      .def("config_warnings", &Engine::config_warnings)
      .def("feed", &Engine::feed, py::arg("mics"), py::arg("reference"))
      .def("flush", &Engine::flush)
      .def("buffered", &Engine::buffered)
      .def("reset", &Engine::reset)
      .def("direction", &Engine::direction, py::arg("mics"), py::arg("search"));
}
