"""A batch manifest on a Dask cluster: one task per recording.

    python3 -m vorn.batch MANIFEST [--scheduler tcp://HOST:PORT] [--workers N] [--resume] [--summary FILE]

The manifest is the one `vorn batch` reads: "input,output[,reference[,options]]"
per line, options as `vorn process` switches ("--mode comm --ns 2"), relative
paths from the manifest's directory, '#' comments, an optional header line
starting with "input". Without --scheduler a local cluster of --workers
processes starts. Every worker must see the paths: on a cluster, keep the
corpus and the outputs on storage every node mounts at the same path (NFS, a
parallel file system) and write the manifest with absolute paths or next to
the corpus.

A task writes its output under a hidden temporary name and renames it when
whole, so a task that a lost worker leaves half done is simply run again by
another worker (Dask retries it) and the result is the same bytes whichever
worker ran it. run_row() is the per-row function, usable without Dask.
"""
from __future__ import annotations

import argparse
import contextlib
import csv
import glob
import io
import json
import os
import sys
import time
from typing import List, Optional

import numpy as np

import wave

from . import Result, SAMPLE_RATE, _front_end_for_file, write_wav

_SWITCH_OPTIONS = {"--agc": ("agc", 0, 2), "--bf": ("beam", 0, 7), "--doa": ("doa", 0, 3), "--aec": ("aec", 0, 3),
                   "--ns": ("ns", 0, 2), "--azimuth": ("azimuth_deg", 0, 359), "--vad-mode": ("vad_mode", 1, 2)}
_SUMMARY_COLUMNS = ["line", "input", "output", "status", "error", "warnings", "duration_s", "speech_share",
                    "direction_deg", "direction_confidence", "realtime_factor", "seconds"]


def _row_options(text: str) -> dict:
    """"--mode comm --ns 2" as process_file keywords; ValueError names the mistake."""
    words = text.split()
    options, i = {}, 0
    while i < len(words):
        name, _, value = words[i].partition("=")
        if not value:
            if i + 1 >= len(words):
                raise ValueError(f"option '{name}' needs a value")
            value = words[i + 1]
            i += 1
        i += 1
        if name in _SWITCH_OPTIONS:
            key, lo, hi = _SWITCH_OPTIONS[name]
            if not value.lstrip("-").isdigit() or not lo <= int(value) <= hi:
                raise ValueError(f"invalid value '{value}' for {name} (expected {lo}..{hi})")
            parsed = int(value)
        elif name in ("--mode", "--profile", "--config"):
            key, parsed = name[2:], value
        else:
            raise ValueError(f"unknown option '{name}'")
        if key in options and options[key] != parsed:
            raise ValueError(f"conflicting options: {name} given twice")
        options[key] = parsed
    return options


def read_manifest(path) -> List[dict]:
    """The manifest's rows: dicts with line, input, output, ref, options and error ("" when it can run)."""
    base = os.path.dirname(os.path.abspath(path))
    rows, outputs, first = [], {}, True

    def resolve(p):
        return p if not p or os.path.isabs(p) else os.path.normpath(os.path.join(base, p))

    with open(path, encoding="utf-8") as f:
        for line_no, raw in enumerate(f, 1):
            line = raw.strip()
            if not line or line.startswith("#"):
                continue
            fields = [x.strip() for x in line.split(",")]
            header, first = first and fields[0] == "input", False
            if header:
                continue
            row = {"line": line_no, "input": resolve(fields[0]), "output": resolve(fields[1]) if len(fields) > 1 else "",
                   "ref": resolve(fields[2]) if len(fields) > 2 and fields[2] else None, "options": {}, "error": ""}
            try:
                if len(fields) > 4:
                    raise ValueError(f"{len(fields)} columns; a row has at most 4 (input, output, reference, options)")
                if len(fields) < 2 or not fields[0] or not fields[1]:
                    raise ValueError("a row needs an input and an output")
                if os.path.splitext(fields[1])[1].lower() not in (".wav", ".pcm", ".raw"):
                    raise ValueError(f"cannot tell the type of output '{fields[1]}' (name it .wav, .pcm or .raw)")
                if len(fields) == 4:
                    row["options"] = _row_options(fields[3])
                if row["output"] in outputs:
                    raise ValueError(f"output {row['output']} is also written by line {outputs[row['output']]}")
                if row["output"] == row["input"]:
                    raise ValueError("the output would overwrite the input")
                outputs[row["output"]] = line_no
            except ValueError as e:
                row["error"] = str(e)
            rows.append(row)
    return rows


def _write_atomically(path: str, audio: np.ndarray) -> None:
    folder, name = os.path.split(path)
    if folder:
        os.makedirs(folder, exist_ok=True)
    temporary = os.path.join(folder, f".{name}.part-{os.getpid()}{os.path.splitext(name)[1]}")
    try:
        if path.lower().endswith(".wav"):
            write_wav(temporary, audio)
        else:
            audio.astype("<i2").tofile(temporary)
        os.replace(temporary, path)
        # A writer killed mid-file (a lost worker) leaves its part behind; the
        # output is whole now, so the leftovers of earlier attempts go.
        for stale in glob.glob(os.path.join(glob.escape(folder), glob.escape(f".{name}.part-") + "*")):
            with contextlib.suppress(OSError):
                os.remove(stale)
    finally:
        if os.path.exists(temporary):
            os.remove(temporary)


def run_row(row: dict, resume: bool = False) -> dict:
    """Processes one manifest row; returns its summary record (never raises for a bad file)."""
    started = time.perf_counter()
    record = {c: "" for c in _SUMMARY_COLUMNS}
    record.update(line=row["line"], input=row["input"], output=row["output"], status="failed")
    if row["error"]:
        record["error"] = row["error"]
        return record
    if resume and os.path.exists(row["output"]):
        record["status"] = "skipped"
        return record
    try:
        options = dict(row["options"])
        settings = {k: options.pop(k) for k in ("mode", "profile", "config") if k in options}
        fe, mics, reference = _front_end_for_file(row["input"], row["ref"], settings.get("mode", "wakeup"),
                                                  settings.get("profile", "enhanced"), settings.get("config"),
                                                  options)
        result = Result.concatenate([fe.process(mics, reference), fe.flush()])
        _write_atomically(row["output"], result.audio)
    except (OSError, ValueError, TypeError, EOFError, wave.Error) as e:
        record["error"] = str(e)
        record["seconds"] = f"{time.perf_counter() - started:.3f}"
        return record
    wall = time.perf_counter() - started
    duration = len(result.audio) / SAMPLE_RATE
    record.update(status="done", duration_s=f"{duration:.3f}",
                  speech_share=f"{result.speech.mean() if len(result.speech) else 0.0:.4f}",
                  realtime_factor=f"{duration / wall if wall > 0 else 0.0:.1f}", seconds=f"{wall:.3f}")
    if fe.switches["doa"] > 0 and len(result.speech):
        azimuth, confidence = fe.direction(None, "frames")
        record.update(direction_deg=azimuth, direction_confidence=f"{confidence:.2f}")
    return record


def write_summary(path: str, records: List[dict]) -> None:
    """JSON when path ends in .json, else CSV, with the columns `vorn batch` writes."""
    if path.endswith(".json"):
        text = json.dumps(records, indent=1) + "\n"
    else:
        out = io.StringIO()
        writer = csv.DictWriter(out, fieldnames=_SUMMARY_COLUMNS, lineterminator="\n")
        writer.writeheader()
        writer.writerows(records)
        text = out.getvalue()
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)


def run_on_dask(rows: List[dict], client, resume: bool = False, retries: int = 3) -> List[dict]:
    """Runs every row as its own task on `client`; a task on a lost worker is run again elsewhere."""
    from distributed import as_completed

    futures = [client.submit(run_row, row, resume, key=f"vorn-row-{row['line']}-{abs(hash(row['output']))}",
                             retries=retries, pure=False) for row in rows]
    records = {}
    done = 0
    for future in as_completed(futures):
        record = future.result()
        records[record["line"]] = record
        done += 1
        if sys.stderr.isatty():
            print(f"\r{done}/{len(rows)} files", end="", file=sys.stderr, flush=True)
    if sys.stderr.isatty() and rows:
        print(file=sys.stderr)
    return [records[row["line"]] for row in rows]


def main(argv: Optional[List[str]] = None) -> int:
    parser = argparse.ArgumentParser(prog="python3 -m vorn.batch", description=__doc__.split("\n\n")[0])
    parser.add_argument("manifest")
    parser.add_argument("--scheduler", help="address of a running scheduler, tcp://HOST:PORT")
    parser.add_argument("--workers", type=int, default=os.cpu_count() or 1,
                        help="worker processes of the local cluster (without --scheduler)")
    parser.add_argument("--resume", action="store_true", help="skip rows whose output already exists")
    parser.add_argument("--summary", help="per-file results (.json or CSV); default MANIFEST.summary.csv")
    args = parser.parse_args(argv)
    try:
        from distributed import Client, LocalCluster
    except ImportError:
        print("vorn.batch: Dask distributed is not installed (Debian: python3-distributed)", file=sys.stderr)
        return 1
    rows = read_manifest(args.manifest)
    started = time.perf_counter()
    if args.scheduler:
        with Client(args.scheduler) as client:
            records = run_on_dask(rows, client, args.resume)
    else:
        with LocalCluster(n_workers=args.workers, threads_per_worker=1, host="127.0.0.1",
                          dashboard_address=None) as cluster, Client(cluster) as client:
            records = run_on_dask(rows, client, args.resume)
    wall = time.perf_counter() - started
    summary = args.summary or args.manifest + ".summary.csv"
    write_summary(summary, records)
    failed = [r for r in records if r["status"] == "failed"]
    for r in failed:
        print(f"vorn.batch: {args.manifest} line {r['line']}: {r['error']}", file=sys.stderr)
    audio = sum(float(r["duration_s"]) for r in records if r["status"] == "done")
    print(f"vorn.batch: {len(records)} files, {len(failed)} failed; {audio:.1f} s of audio in {wall:.1f} s "
          f"({audio / wall if wall > 0 else 0:.0f}x real time); summary in {summary}", file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
