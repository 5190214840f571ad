#!/usr/bin/env python3
"""Benchmarks of the Python module lumora.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_bench.py overhead [--runs N]
    PYTHONPATH=build/python /usr/bin/python3 bench/python_bench.py batch [--brackets N] [--mp X] [--repeat R]

overhead: lumora.fuse on the sample bracket upscaled to 1 MP (1155 x 866),
against the time spent inside the tool's fusion call (the same C++ call
lumora-fuse makes): argument checks, the copies in and out and the option
parsing are the difference. Medians of N runs.

batch: N brackets (the sample, upscaled, each one shifted) fused by
lumora-fuse --batch --threads 1 pinned to one core (one machine of one
core) and by
python3 -m lumora.batch on a local cluster of two worker processes of one
thread each, --threads 1 (two machines of one core, simulated); wall times
and their ratio, beside the ratio two tools pinned to a core each reach on
the same brackets split in halves: where the cores are two hyperthreads of
one, that is far from a half, and it bounds what the cluster can reach. Run
on an otherwise idle machine with two cores or more.
"""

import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import lumora
import lumora.batch
from lumora import _lumora

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SAMPLE = os.path.join(ROOT, "samples", "belgium_house")


def bracket(width, height):
    """The sample bracket resized (nearest neighbour) to width x height."""
    frames = [lumora.read(os.path.join(SAMPLE, f"{n}.png")) for n in ("0_dark", "1_mid", "2_bright")]
    ys = np.arange(height) * frames[0].shape[0] // height
    xs = np.arange(width) * frames[0].shape[1] // width
    return [f[ys][:, xs].copy() for f in frames]


def overhead(runs):
    frames = bracket(1155, 866)
    lumora.fuse(frames)  # the colour table and the threads, once
    totals, inner = [], []
    for _ in range(runs):
        start = time.perf_counter()
        lumora.fuse(frames)
        totals.append(time.perf_counter() - start)
        inner.append(_lumora.last_fusion_seconds())
    t, c = statistics.median(totals), statistics.median(inner)
    print(f"lumora.fuse at 1 MP: {t:.3f} s; the tool's fusion call inside it: {c:.3f} s; "
          f"overhead {100 * (t - c) / c:.2f}% ({runs} runs, medians)")


def batch(count, megapixels, repeat):
    width = int((megapixels * 1e6 * 4 / 3) ** 0.5)
    frames = bracket(width, width * 3 // 4)
    tool = os.path.join(ROOT, "build", "tools", "lumora-fuse")
    cores = sorted(os.sched_getaffinity(0))
    with tempfile.TemporaryDirectory() as work:
        halves = [os.path.join(work, "in", half) for half in ("a", "b")]
        for b in range(count):
            folder = halves[b * 2 // count]
            os.makedirs(folder, exist_ok=True)
            for i, f in enumerate(frames):
                lumora.write(os.path.join(folder, f"b{b:03d}_{i}.png"), np.roll(f, b, axis=1))
        options = ["-q", "--group", "3", "--format", "png", "--threads", "1"]

        def tool_on(core, sources, out):  # pinned, since its batch decodes the next bracket on another core
            return subprocess.Popen([tool, "--batch", *options, *sources, "-o", os.path.join(work, out)],
                                    preexec_fn=lambda: os.sched_setaffinity(0, {core}))

        ones, bests, twos = [], [], []
        for rep in range(repeat):  # interleaved, so that a shared machine's drift falls on all three alike
            start = time.perf_counter()
            assert tool_on(cores[0], halves, f"one{rep}").wait() == 0  # one machine of one core
            ones.append(time.perf_counter() - start)
            # What the two cores give two independent fusions at best: each
            # half by its own tool pinned to its own core (two hyperthreads of
            # one core share its load ports, and give far less than twice one).
            start = time.perf_counter()
            runs = [tool_on(core, [half], f"best{rep}{k}") for k, (core, half) in enumerate(zip(cores[:2], halves))]
            assert all(r.wait() == 0 for r in runs)
            bests.append(time.perf_counter() - start)
            start = time.perf_counter()  # the cluster's start included
            status = lumora.batch.run([*options, "--workers", "2", *halves, "-o", os.path.join(work, f"two{rep}")])
            twos.append(time.perf_counter() - start)
            assert status == 0
    one, best, two = (statistics.median(t) for t in (ones, bests, twos))
    print(f"{count} brackets of {width}x{width * 3 // 4}, medians of {repeat} interleaved runs: "
          f"lumora-fuse --batch --threads 1 on one core: {one:.1f} s; "
          f"lumora.batch, two workers of one thread: {two:.1f} s (ratio {two / one:.2f}); "
          f"two lumora-fuse --batch on a half each, each pinned to its own core: {best:.1f} s "
          f"(ratio {best / one:.2f}, the most two of this machine's cores give)")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("what", choices=["overhead", "batch"])
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--brackets", type=int, default=20)
    parser.add_argument("--mp", type=float, default=0.5)
    parser.add_argument("--repeat", type=int, default=3)
    a = parser.parse_args()
    overhead(a.runs) if a.what == "overhead" else batch(a.brackets, a.mp, a.repeat)


if __name__ == "__main__":
    sys.exit(main())
