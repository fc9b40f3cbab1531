"""Two captures on two threads against one after the other: the ratio shows
that frames run without the GIL. Usage: PYTHONPATH=<build>/python python3 thread_speedup.py [SECONDS]"""
import sys
import threading
import time

import numpy as np

import vorn


def capture(seconds, seed):
    rng = np.random.default_rng(seed)
    n = int(seconds * vorn.SAMPLE_RATE)
    return (rng.standard_normal((n, 3)) * 2000).astype(np.int16), (rng.standard_normal(n) * 2000).astype(np.int16)


def run(mics, ref):
    fe = vorn.FrontEnd("comm", aec=3, ns=2)
    fe.process(mics, ref)
    fe.flush()


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 20.0
    files = [capture(seconds, 1), capture(seconds, 2)]
    start = time.perf_counter()
    for m, r in files:
        run(m, r)
    serial = time.perf_counter() - start
    threads = [threading.Thread(target=run, args=f) for f in files]
    start = time.perf_counter()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    parallel = time.perf_counter() - start
    print(f"two {seconds:.0f} s captures: one after the other {serial:.2f} s, on two threads {parallel:.2f} s, "
          f"speed-up {serial / parallel:.2f}x ({2 * seconds / serial:.0f}x real time on one thread)")


if __name__ == "__main__":
    main()
