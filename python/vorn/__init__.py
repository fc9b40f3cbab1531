"""Vorn: speech front end for a three-microphone circular array and a loudspeaker.

Numpy arrays in, numpy arrays out::

    import vorn
    fe = vorn.FrontEnd("comm", ns=2)
    res = fe.process(mics, ref)          # mics: (n, 3), ref: (n,), int16 or float32
    tail = fe.flush()                    # the last partial frame
    res.audio, res.speech, res.azimuth   # enhanced mono, one flag and azimuth per 16 ms frame

Samples are 16 kHz. Float input is full scale at +-1.0 and is rounded to
16 bits; the output has the input's dtype.
"""
from __future__ import annotations

import os
import wave
from dataclasses import dataclass
from typing import Optional, Union

import numpy as np

from . import _vorn

__all__ = ["FrontEnd", "Result", "process_file", "read_wav", "write_wav", "SAMPLE_RATE", "FRAME_SAMPLES",
           "__version__"]

__version__: str = _vorn.version()
SAMPLE_RATE: int = _vorn.SAMPLE_RATE
FRAME_SAMPLES: int = _vorn.FRAME_SAMPLES

_MODES = {"wakeup": _vorn.MODE_WAKEUP, "asr": _vorn.MODE_ASR, "comm": _vorn.MODE_COMM}
_PROFILES = {"classic": _vorn.PROFILE_CLASSIC, "enhanced": _vorn.PROFILE_ENHANCED}
_SEARCHES = {"frames": _vorn.SEARCH_FRAMES, "samples": _vorn.SEARCH_SAMPLES,
             "weighted": _vorn.SEARCH_SAMPLES_WEIGHTED}
SWITCHES = ("agc", "beam", "doa", "aec", "ns", "azimuth_deg", "vad_mode")


@dataclass
class Result:
    """What a stretch of audio gave.

    audio: enhanced mono samples, as many as went in (int16 or float32, as the input).
    speech: one 0/1 flag per 16 ms frame (int8).
    azimuth: the talker's direction after each frame, degrees 0..359 (int16).
    speech_probability: per frame, 0..1 (float32; 0 or 1 with the classic profile).
    """

    audio: np.ndarray
    speech: np.ndarray
    azimuth: np.ndarray
    speech_probability: np.ndarray

    @property
    def frame_times(self) -> np.ndarray:
        """Start of each frame in seconds, for plotting the flags and the track."""
        return np.arange(len(self.speech)) * (FRAME_SAMPLES / SAMPLE_RATE)

    @staticmethod
    def concatenate(parts) -> "Result":
        """Joins the results of consecutive calls into one."""
        parts = list(parts)
        return Result(*(np.concatenate([getattr(p, f) for p in parts])
                        for f in ("audio", "speech", "azimuth", "speech_probability")))


def _lookup(table, value, what):
    if isinstance(value, int) and value in table.values():
        return value
    try:
        return table[value]
    except (KeyError, TypeError):
        raise ValueError(f"unknown {what} {value!r}; expected one of {', '.join(table)}") from None


def _to_int16(array, name, ndim, columns=None):
    a = np.asarray(array)
    if a.ndim != ndim or (columns is not None and a.shape[1] != columns):
        want = f"(n, {columns})" if columns is not None else "(n,)"
        raise ValueError(f"{name} must have shape {want}, got {a.shape}")
    if a.dtype == np.int16:
        return np.ascontiguousarray(a), False
    if a.dtype == np.float32:
        scaled = np.clip(np.rint(a.astype(np.float64) * 32768.0), -32768, 32767)
        return np.ascontiguousarray(scaled.astype(np.int16)), True
    raise TypeError(f"{name} must be int16 or float32, got {a.dtype}")


class FrontEnd:
    """One front-end instance.

    mode: "wakeup", "asr" or "comm". profile: "enhanced" or "classic".
    config: a configuration file's path, or its text when it contains a newline
    (the modes' switches and the profile; see the C interface).
    switches: agc, beam, doa, aec, ns, azimuth_deg, vad_mode replace the
    mode's values. With the enhanced profile per-frame direction tracking
    (doa=1) is on unless doa is given, as in the `vorn` tool.

    Calls may carry any number of samples: a partial frame waits for the next
    call, so streaming in chunks gives the same output as one call. Frames are
    processed without the GIL, so instances on several threads run in
    parallel; one instance serves one call at a time.
    """

    def __init__(self, mode: Union[str, int] = "wakeup", profile: Union[str, int] = "enhanced",
                 config: Optional[Union[str, os.PathLike]] = None, **switches: int) -> None:
        self._mode = _lookup(_MODES, mode, "mode")
        profile_id = _lookup(_PROFILES, profile, "profile")
        unknown = sorted(set(switches) - set(SWITCHES))
        if unknown:
            raise TypeError(f"unknown switch {', '.join(unknown)}; expected some of {', '.join(SWITCHES)}")
        text = path = None
        if config is not None:
            config = os.fspath(config)
            if "\n" in config:
                text = config
            else:
                if not os.path.isfile(config):
                    raise FileNotFoundError(f"configuration file not found: {config}")
                path = config
        self._engine = _vorn.Engine(self._mode, profile_id, text, path)
        current = self._engine.switches(self._mode)
        if self._engine.profile() == _vorn.PROFILE_ENHANCED and "doa" not in switches and current["doa"] == 0:
            current["doa"] = 1
        current.update({k: int(v) for k, v in switches.items()})
        self._engine.set_switches(self._mode, current)
        self._canceller_on = current["aec"] > 0
        self._float = None

    @property
    def switches(self) -> dict:
        """The switches in force for this instance's mode."""
        return self._engine.switches(self._mode)

    @property
    def config_warnings(self) -> str:
        """The configuration's mistakes that were skipped, one per line."""
        return self._engine.config_warnings()

    @property
    def buffered(self) -> int:
        """Samples per channel waiting for the rest of their frame."""
        return self._engine.buffered()

    def _result(self, parts, as_float) -> Result:
        audio, speech, azimuth, probability = parts
        if as_float:
            audio = audio.astype(np.float32) / np.float32(32768.0)
        return Result(audio, speech, azimuth, probability)

    def process(self, mics, ref=None) -> Result:
        """Processes (n, 3) microphone samples and an optional (n,) loudspeaker reference.

        Without a reference an echo canceller that is on runs against silence.
        Returns the frames this call completed: audio has a multiple of 256
        samples (the rest waits for the next call or flush()). On an error
        nothing is consumed and the instance stays usable.
        """
        m, is_float = _to_int16(mics, "mics", 2, 3)
        r = None
        if ref is not None:
            r, _ = _to_int16(ref, "ref", 1)
            if len(r) != len(m):
                raise ValueError(f"ref has {len(r)} samples but mics has {len(m)}")
        elif self._canceller_on:
            # The canceller runs against silence, as in the `vorn` tool.
            r = np.zeros(len(m), np.int16)
        out = self._engine.feed(m, r)
        self._float = is_float
        return self._result(out, is_float)

    def flush(self) -> Result:
        """Processes the buffered partial frame, padded with silence, and returns its real samples."""
        return self._result(self._engine.flush(), bool(self._float))

    def reset(self) -> None:
        """Restarts every module and drops the buffered samples; the settings stay."""
        self._engine.reset()

    def direction(self, stretch=None, search: str = "weighted") -> tuple:
        """The talker's azimuth (degrees) and its confidence over a stretch.

        stretch: (n, 3) microphone samples (at most the first 64 frames are
        searched; fewer than 768 samples give 0). With search="frames" the
        stretch is not needed and the frames processed so far are used.
        """
        search_id = _lookup(_SEARCHES, search, "search")
        m = None
        if stretch is not None:
            m, _ = _to_int16(stretch, "stretch", 2, 3)
        elif search_id != _vorn.SEARCH_FRAMES:
            raise ValueError(f"search={search!r} needs a stretch of samples")
        return self._engine.direction(m, search_id)


def read_wav(path):
    """Reads a 16-bit PCM WAV file: (samples as int16 array of shape (n, channels), sample rate)."""
    with wave.open(os.fspath(path), "rb") as w:
        if w.getsampwidth() != 2:
            raise ValueError(f"{path}: {8 * w.getsampwidth()}-bit samples; vorn needs 16-bit PCM")
        data = np.frombuffer(w.readframes(w.getnframes()), dtype="<i2").astype(np.int16)
        return data.reshape(-1, w.getnchannels()), w.getframerate()


def write_wav(path, samples, rate: int = SAMPLE_RATE) -> None:
    """Writes mono or (n, channels) int16 samples as a 16-bit PCM WAV file."""
    a = np.asarray(samples, dtype=np.int16)
    with wave.open(os.fspath(path), "wb") as w:
        w.setnchannels(1 if a.ndim == 1 else a.shape[1])
        w.setsampwidth(2)
        w.setframerate(rate)
        w.writeframes(a.astype("<i2").tobytes())


def _front_end_for_file(path, ref, mode, profile, config, switches):
    """Reads a capture (and its reference) and prepares a front end as `vorn process` would."""
    mics, rate = read_wav(path)
    if rate != SAMPLE_RATE:
        raise ValueError(f"{path}: sample rate {rate} Hz; vorn needs {SAMPLE_RATE} Hz")
    if mics.shape[1] not in (3, 4):
        raise ValueError(f"{path}: {mics.shape[1]} channels; vorn needs 3 microphones (4 with the reference last)")
    reference = None
    if mics.shape[1] == 4:
        if ref is not None:
            raise ValueError(f"{path} already carries the reference as its fourth channel")
        reference = mics[:, 3]
        mics = mics[:, :3]
    elif ref is not None:
        reference, ref_rate = read_wav(ref)
        if ref_rate != SAMPLE_RATE:
            raise ValueError(f"{ref}: sample rate {ref_rate} Hz; the reference must be {SAMPLE_RATE} Hz")
        if reference.shape[1] != 1:
            raise ValueError(f"{ref}: {reference.shape[1]} channels; the reference must be mono")
        reference = reference[:, 0]
        # A short reference is completed with silence, a long one cut.
        reference = np.concatenate([reference[:len(mics)],
                                    np.zeros(max(0, len(mics) - len(reference)), np.int16)])
    mode_id = _lookup(_MODES, mode, "mode")
    switches = dict(switches)
    if reference is not None and "aec" not in switches:
        probe = FrontEnd(mode_id, profile, config)
        if probe.switches["aec"] == 0:
            switches["aec"] = 2 if mode_id == _vorn.MODE_COMM else 1
    return FrontEnd(mode_id, profile, config, **switches), mics, reference


def process_file(path, output=None, ref=None, mode: Union[str, int] = "wakeup",
                 profile: Union[str, int] = "enhanced", config=None, **switches: int) -> Result:
    """Processes a 16 kHz WAV capture of 3 channels (4 with the reference last) as `vorn process` does.

    ref: a mono 16 kHz WAV reference, when the capture has no fourth channel.
    With a reference and no aec switch the canceller comes on (2 in comm mode,
    1 otherwise). output: where to write the enhanced mono WAV (optional).
    """
    fe, mics, reference = _front_end_for_file(path, ref, mode, profile, config, switches)
    result = Result.concatenate([fe.process(mics, reference), fe.flush()])
    if output is not None:
        write_wav(output, result.audio)
    return result
