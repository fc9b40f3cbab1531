"""The manifest run in Python: per-row results as `vorn batch` gives them, and
on a local Dask cluster that loses a worker mid-run."""
import os
import signal
import subprocess
import threading
import time

import numpy as np
import pytest

import vorn
from conftest import make_capture
from vorn import batch


@pytest.fixture(scope="module")
def corpus(tmp_path_factory):
    """20 four-channel captures and a manifest writing them to out/."""
    root = tmp_path_factory.mktemp("corpus")
    lines = ["input,output,reference,options"]
    for i in range(20):
        mics, ref = make_capture(1.5, 18.0 * i, seed=100 + i)
        vorn.write_wav(root / f"in{i}.wav", np.column_stack([mics, ref]))
        lines.append(f"in{i}.wav,out/o{i}.wav" + (",,--mode comm --ns 2" if i % 3 == 0 else ""))
    (root / "m.csv").write_text("\n".join(lines) + "\n")
    return root


def outputs(folder):
    return {p: (folder / p).read_bytes() for p in sorted(os.listdir(folder))}


def test_rows_match_vorn_batch_and_report_bad_files(tmp_path, corpus, vorn_cli):
    subprocess.run([vorn_cli, "batch", str(corpus / "m.csv"), "-j", "2"], check=True, capture_output=True)
    expected = outputs(corpus / "out")
    assert len(expected) == 20
    vorn.write_wav(tmp_path / "mono.wav", np.zeros(1600, np.int16))
    vorn.write_wav(tmp_path / "rate.wav", np.zeros((1600, 3), np.int16), 8000)
    (tmp_path / "m.csv").write_text(
        f"{corpus}/in1.wav,out/a.wav\nmissing.wav,out/b.wav\nmono.wav,out/c.wav\nrate.wav,out/d.wav\n"
        f"{corpus}/in0.wav,out/a.wav\n{corpus}/in2.wav,out/e.wav,,--ns 1,extra\n{corpus}/in3.wav,out/f.wav,,--ns 1\n")
    records = [batch.run_row(row) for row in batch.read_manifest(tmp_path / "m.csv")]
    assert [r["status"] for r in records] == ["done", "failed", "failed", "failed", "failed", "failed", "done"]
    for record, words in zip(records[1:6], ["missing.wav", "1 channels", "8000 Hz", "also written by line 1",
                                            "5 columns"]):
        assert words in record["error"]
    assert (tmp_path / "out/a.wav").read_bytes() == expected["o1.wav"]
    assert sorted(os.listdir(tmp_path / "out")) == ["a.wav", "f.wav"]  # nothing half written
    batch.write_summary(str(tmp_path / "s.csv"), records)
    assert (tmp_path / "s.csv").read_text().splitlines()[0].startswith("line,input,output,status,error")


def test_dask_run_survives_a_lost_worker_byte_for_byte(tmp_path, corpus, vorn_cli):
    distributed = pytest.importorskip("distributed")
    subprocess.run([vorn_cli, "batch", str(corpus / "m.csv")], check=True, capture_output=True)
    expected = outputs(corpus / "out")
    rows = batch.read_manifest(corpus / "m.csv")
    for row in rows:
        row["output"] = str(tmp_path / os.path.basename(row["output"]))
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, host="127.0.0.1", dashboard_address=None,
                                  processes=True) as cluster, distributed.Client(cluster) as client:
        pids = client.run(os.getpid)
        records = []
        runner = threading.Thread(target=lambda: records.extend(batch.run_on_dask(rows, client)))
        runner.start()
        deadline = time.monotonic() + 120
        while not any(p.endswith(".wav") and not p.startswith(".") for p in os.listdir(tmp_path)):
            assert time.monotonic() < deadline
            time.sleep(0.01)
        os.kill(next(iter(pids.values())), signal.SIGKILL)  # the nanny starts a new one
        runner.join(300)
        assert not runner.is_alive()
    assert [r["status"] for r in records] == ["done"] * 20
    assert outputs(tmp_path) == expected
