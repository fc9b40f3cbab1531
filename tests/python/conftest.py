"""Captures shared by the Python tests: a talker at 60 degrees over sensor noise
while a loudspeaker plays a different signal for a while, written as numpy arrays."""
import os
import shutil

import numpy as np
import pytest

RATE = 16000
RADIUS_M = 0.039
SOUND_MPS = 343.0


def _bursts(n, rng, period, on):
    """Noise shaped into syllable-like bursts: speech-like enough to flag."""
    t = np.arange(n)
    envelope = ((t // period) % 3 != 2) * (0.5 + 0.5 * np.sin(2 * np.pi * t / on).clip(0))
    tone = np.sin(2 * np.pi * 180 * t / RATE) + 0.5 * np.sin(2 * np.pi * 540 * t / RATE)
    return envelope * (tone + 0.3 * rng.standard_normal(n))


def make_capture(seconds=2.0, azimuth_deg=60.0, seed=3):
    """(mics (n, 3) int16, reference (n,) int16)."""
    rng = np.random.default_rng(seed)
    n = int(seconds * RATE)
    spectrum = np.fft.rfft(_bursts(n, rng, 2400, 1600) * 6000)
    hz = np.fft.rfftfreq(n, 1.0 / RATE)
    mics = np.empty((n, 3))
    for m, mic_deg in enumerate((0.0, 120.0, 240.0)):
        # A plane wave from the talker reaches the microphones nearer it first.
        lead_s = RADIUS_M * np.cos(np.radians(azimuth_deg - mic_deg)) / SOUND_MPS
        mics[:, m] = np.fft.irfft(spectrum * np.exp(2j * np.pi * hz * lead_s), n)
    # The loudspeaker plays through the first half only.
    reference = _bursts(n, rng, 4000, 900) * 4000 * (np.arange(n) < n // 2)
    mics += 0.2 * reference[:, None] + 40 * rng.standard_normal((n, 3))
    return np.clip(mics, -32768, 32767).astype(np.int16), np.clip(reference, -32768, 32767).astype(np.int16)


@pytest.fixture(scope="session")
def capture():
    return make_capture()


@pytest.fixture(scope="session")
def vorn_cli():
    path = os.environ.get("VORN_CLI") or shutil.which("vorn")
    if not path:
        pytest.skip("the vorn tool is not built (set VORN_CLI)")
    return path
