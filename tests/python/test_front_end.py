"""The Python module: streaming, agreement with the `vorn` tool, threads, and
errors that name the problem and leave the instance working."""
import json
import subprocess
import threading

import numpy as np
import pytest

import vorn
from conftest import make_capture


def run_whole(fe, mics, ref=None):
    return vorn.Result.concatenate([fe.process(mics, ref), fe.flush()])


def assert_same(a, b):
    np.testing.assert_array_equal(a.audio, b.audio)
    np.testing.assert_array_equal(a.speech, b.speech)
    np.testing.assert_array_equal(a.azimuth, b.azimuth)
    np.testing.assert_array_equal(a.speech_probability, b.speech_probability)


@pytest.mark.parametrize("profile", ["enhanced", "classic"])
@pytest.mark.parametrize("chunk", [1, 160, 256, 1000, None])
def test_chunked_stream_equals_one_call(capture, profile, chunk):
    mics, ref = capture
    mics, ref = mics[:12000], ref[:12000]  # 46.875 frames: the flush carries a partial one
    whole = run_whole(vorn.FrontEnd("comm", profile, aec=2, ns=2), mics, ref)
    assert len(whole.audio) == len(mics)
    assert len(whole.speech) == -(-len(mics) // vorn.FRAME_SAMPLES)
    fe = vorn.FrontEnd("comm", profile, aec=2, ns=2)
    step = chunk or len(mics)
    parts = [fe.process(mics[i:i + step], ref[i:i + step]) for i in range(0, len(mics), step)]
    assert fe.buffered == len(mics) % vorn.FRAME_SAMPLES
    assert_same(vorn.Result.concatenate(parts + [fe.flush()]), whole)
    assert fe.buffered == 0


def test_float_input_is_scaled_and_returned_as_float(capture):
    mics, ref = capture
    as_int = run_whole(vorn.FrontEnd("asr"), mics, ref)
    as_float = run_whole(vorn.FrontEnd("asr"), mics.astype(np.float32) / 32768, ref.astype(np.float32) / 32768)
    assert as_float.audio.dtype == np.float32
    np.testing.assert_array_equal(np.rint(as_float.audio * 32768).astype(np.int16), as_int.audio)
    np.testing.assert_array_equal(as_float.speech, as_int.speech)


def test_finds_and_tracks_the_talker(capture):
    mics, ref = capture
    res = run_whole(vorn.FrontEnd("comm", aec=2), mics, ref)
    assert res.speech.sum() > 0
    assert abs((int(res.azimuth[-1]) - 60 + 180) % 360 - 180) <= 30
    assert res.frame_times[1] == pytest.approx(0.016)
    azimuth, confidence = vorn.FrontEnd("comm").direction(mics[len(mics) // 2:])
    assert abs((azimuth - 60 + 180) % 360 - 180) <= 30 and 0.0 <= confidence <= 1.0


@pytest.mark.parametrize("profile", ["enhanced", "classic"])
def test_process_file_equals_the_tool(tmp_path, capture, vorn_cli, profile):
    mics, ref = capture
    wav = tmp_path / "in.wav"
    vorn.write_wav(wav, np.column_stack([mics, ref]))  # the reference as a fourth channel
    res = vorn.process_file(wav, tmp_path / "py.wav", mode="asr", profile=profile, ns=1, doa=1)
    run = subprocess.run([vorn_cli, "process", str(wav), "-o", str(tmp_path / "tool.wav"), "--mode", "asr",
                          "--profile", profile, "--ns", "1", "--doa", "1", "--vad", str(tmp_path / "vad.csv"),
                          "--track", str(tmp_path / "track.csv"), "--json"],
                         capture_output=True, text=True, check=True)
    tool_audio, rate = vorn.read_wav(tmp_path / "tool.wav")
    assert rate == vorn.SAMPLE_RATE
    np.testing.assert_array_equal(tool_audio[:, 0], res.audio)
    np.testing.assert_array_equal(vorn.read_wav(tmp_path / "py.wav")[0][:, 0], res.audio)
    vad = np.loadtxt(tmp_path / "vad.csv", delimiter=",", skiprows=1)[:, 1]
    np.testing.assert_array_equal(vad, res.speech)
    track = np.loadtxt(tmp_path / "track.csv", delimiter=",", skiprows=1)[:, 1]
    np.testing.assert_array_equal(track, res.azimuth)
    summary = json.loads(run.stdout)
    assert summary["switches"]["aec"] == 1  # switched on by the reference, in both


def test_two_threads_give_each_instance_its_own_result():
    captures = [make_capture(3.0, 60.0, seed=5), make_capture(3.0, 200.0, seed=6)]
    alone = [run_whole(vorn.FrontEnd("comm", aec=3, ns=2), m, r) for m, r in captures]
    together = [None, None]

    def work(i):
        fe = vorn.FrontEnd("comm", aec=3, ns=2)
        m, r = captures[i]
        together[i] = vorn.Result.concatenate([fe.process(m[j:j + 4000], r[j:j + 4000])
                                               for j in range(0, len(m), 4000)] + [fe.flush()])

    threads = [threading.Thread(target=work, args=(i,)) for i in range(2)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for a, b in zip(alone, together):
        assert_same(a, b)


BAD_CALLS = [
    ("mics (n, 2)", lambda fe, m, r: fe.process(m[:, :2], r), ValueError, "shape \\(n, 3\\)"),
    ("mics 1-D", lambda fe, m, r: fe.process(m[:, 0], r), ValueError, "shape"),
    ("mics float64", lambda fe, m, r: fe.process(m.astype(np.float64), r), TypeError, "int16 or float32"),
    ("ref int32", lambda fe, m, r: fe.process(m, r.astype(np.int32)), TypeError, "int16 or float32"),
    ("ref too short", lambda fe, m, r: fe.process(m, r[:-1]), ValueError, "ref has"),
    ("ref dropped mid-frame", lambda fe, m, r: (fe.process(m[:100], r[:100]), fe.process(m[100:])),
     ValueError, "ref missing"),
    ("search unknown", lambda fe, m, r: fe.direction(m, "sideways"), ValueError, "unknown search"),
    ("frames search before any frame", lambda fe, m, r: fe.direction(None, "frames"), ValueError, "frame"),
    ("samples search without samples", lambda fe, m, r: fe.direction(None, "samples"), ValueError, "needs"),
]


@pytest.mark.parametrize("name,call,error,match", BAD_CALLS, ids=[c[0] for c in BAD_CALLS])
def test_bad_call_raises_and_the_instance_still_works(capture, name, call, error, match):
    mics, ref = capture
    mics, ref = mics[:3000], ref[:3000]
    fe = vorn.FrontEnd("comm", aec=0)
    with pytest.raises(error, match=match):
        call(fe, mics, ref)
    fe.reset()
    assert_same(run_whole(fe, mics, ref), run_whole(vorn.FrontEnd("comm", aec=0), mics, ref))


def test_a_failed_call_consumes_nothing(capture):
    mics, ref = capture
    fe = vorn.FrontEnd("comm", aec=0)
    first = fe.process(mics[:300], ref[:300])
    with pytest.raises(ValueError):
        fe.process(mics[300:600])  # the buffered partial frame came with a reference
    rest = fe.process(mics[300:], ref[300:])
    assert_same(vorn.Result.concatenate([first, rest, fe.flush()]),
                run_whole(vorn.FrontEnd("comm", aec=0), mics, ref))


@pytest.mark.parametrize("kwargs,error,match", [
    (dict(mode="karaoke"), ValueError, "unknown mode 'karaoke'"),
    (dict(profile="best"), ValueError, "unknown profile"),
    (dict(loudness=3), TypeError, "unknown switch loudness"),
    (dict(beam=8), ValueError, "beam switch"),
    (dict(beam=3, azimuth_deg=45), ValueError, "azimuth"),
    (dict(ns=5), ValueError, "ns switch|noise"),
    (dict(config="/nonexistent/vorn.ini"), FileNotFoundError, "vorn.ini"),
    (dict(config="[VORN]\nprofile = loud\n"), ValueError, "configuration|profile"),
], ids=lambda v: str(v) if not isinstance(v, dict) else ",".join(v))
def test_bad_settings_name_the_problem(kwargs, error, match):
    with pytest.raises(error, match=match):
        vorn.FrontEnd(**kwargs)


def test_configuration_text_sets_the_switches():
    fe = vorn.FrontEnd("asr", config="[VORN_ASR]\nagc_flag = 1\nbf_flag = 2\nns_flag = 1\nvad_mode = 2\n")
    assert fe.switches["beam"] == 2 and fe.switches["ns"] == 1
    assert fe.config_warnings == ""


@pytest.mark.parametrize("channels,rate,match", [(1, 16000, "1 channels"), (3, 48000, "48000 Hz"),
                                                 (2, 16000, "2 channels")])
def test_process_file_refuses_unusable_files(tmp_path, capture, channels, rate, match):
    path = tmp_path / "bad.wav"
    vorn.write_wav(path, capture[0][:1600, :channels], rate)
    with pytest.raises(ValueError, match=match):
        vorn.process_file(path)


def test_process_file_checks_the_reference_file(tmp_path, capture):
    mics, ref = capture
    vorn.write_wav(tmp_path / "in.wav", mics[:3200])
    vorn.write_wav(tmp_path / "ref.wav", ref[:3200], 8000)
    with pytest.raises(ValueError, match="8000 Hz"):
        vorn.process_file(tmp_path / "in.wav", ref=tmp_path / "ref.wav")
    with pytest.raises(FileNotFoundError):
        vorn.process_file(tmp_path / "missing.wav")

