"""Benchmarks of the Python package beside their limits, each a ratio of two figures of the
same run (best of several, as the machine is shared):

  read_plain / read_zlib  stack.read() of a 256 MiB uint16 stack against the library's own read
                          into a buffer (tarnio_python_baseline), same file and threads;
                          limit x_cpp >= 0.9.
  plane                   stack[k] of one plane of a 2048x2048x64 compressed stack: the flush
                          blocks inflated for it (counted by a reader segment, as the C++
                          benchmark counts) against those it overlaps, limit x_blocks == 1; and
                          its time against the whole stack's.
  dask_max                to_dask(path).max(axis=0) on a cluster of 2 worker processes against
                          stack.read().max(axis=0) in one thread; limit x_numpy >= 1.6.
                          Beside it, x_cores: what two threads doing zlib work at once gain
                          over one on this machine now, the most any two processes can gain.

Usage: PYTHONPATH=build/python python3 bench/python_benchmark.py build [directory for files]"""

import os
import subprocess
import sys
import tempfile
import threading
import time
import zlib

import numpy as np

import tarnio

SIDE = 2048
THREADS = 2
REPEATS = 5


def microscopy_plane(z, rng):
    """A smooth specimen with shot noise, compressible as real planes are."""
    y, x = np.ogrid[:SIDE, :SIDE]
    cells = 800 + 600 * np.sin(x / 97.0 + z / 5.0) * np.cos(y / 61.0)
    return (cells + rng.poisson(30, (SIDE, SIDE))).astype(np.uint16)


def write_stack(path, planes, compression):
    rng = np.random.default_rng(11)
    with tarnio.create(path, threads=THREADS) as f:
        stack = f.add_stack(np.uint16, (planes, SIDE, SIDE), compression=compression)
        for z in range(planes):
            stack.write(microscopy_plane(z, rng))


def best(seconds_of, repeats=REPEATS):
    return min(seconds_of() for _ in range(repeats))


def wall(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def report(name, **figures):
    print(f"{name:10s} " + "  ".join(f"{k}={v:.4g}" for k, v in figures.items()), flush=True)


def bench_read(baseline, path, name):
    def cpp():
        out = subprocess.run([baseline, "read", path, str(THREADS), "3"], check=True,
                             capture_output=True, text=True).stdout
        return float(out)

    with tarnio.open(path, threads=THREADS) as f:
        stack = f.stacks[0]
        out = np.ones(stack.shape, stack.dtype)
        cpp_s = python_s = 1e30
        for _ in range(REPEATS):  # alternating, so both meet the same load
            cpp_s = min(cpp_s, cpp())
            python_s = min(python_s, best(lambda: wall(lambda: stack.read(out=out)), 3))
    report(name, python_ms=1e3 * python_s, cpp_ms=1e3 * cpp_s, x_cpp=cpp_s / python_s,
           limit=0.9)


def bench_plane(baseline, path):
    k = 37
    plane_bytes = SIDE * SIDE * 2
    counts = subprocess.run([baseline, "blocks", path, str(k * plane_bytes),
                             str((k + 1) * plane_bytes), str(THREADS)],
                            check=True, capture_output=True, text=True).stdout.split()
    inflated, overlapping = int(counts[0]), int(counts[1])
    with tarnio.open(path, threads=THREADS) as f:
        stack = f.stacks[0]
        plane_s = best(lambda: wall(lambda: stack[k]))
        whole_s = best(lambda: wall(stack.read), 2)
        blocks = stack.nbytes // stack.flush_block_size
    report("plane", blocks=inflated, overlapping=overlapping, x_blocks=inflated / overlapping,
           limit=1, plane_ms=1e3 * plane_s, whole_ms=1e3 * whole_s, x_whole=plane_s / whole_s,
           block_share=overlapping / blocks)


def parallel_gain():
    """Serial time of two zlib compressions over the time of both at once in two threads."""
    data = np.random.default_rng(5).integers(0, 64, 8 << 20, dtype=np.uint8).tobytes()

    def work():
        zlib.compress(data, 6)

    serial = wall(lambda: (work(), work()))
    threads = [threading.Thread(target=work) for _ in range(2)]

    def both():
        for t in threads:
            t.start()
        for t in threads:
            t.join()
    return serial / wall(both)


def bench_dask(path):
    from distributed import Client, LocalCluster

    def numpy_path():
        with tarnio.open(path, threads=1) as f:
            return wall(lambda: f.stacks[0].read().max(axis=0))

    with LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                      dashboard_address=None) as cluster, Client(cluster):
        lazy = tarnio.to_dask(path).max(axis=0)
        lazy.compute()  # workers warm
        numpy_s = dask_s = 1e30
        gain = 0
        for _ in range(3):
            numpy_s = min(numpy_s, numpy_path())
            dask_s = min(dask_s, wall(lazy.compute))
            gain = max(gain, parallel_gain())
    report("dask_max", numpy_ms=1e3 * numpy_s, dask_ms=1e3 * dask_s, x_numpy=numpy_s / dask_s,
           limit=1.6, x_cores=gain)


def main():
    build = sys.argv[1] if len(sys.argv) > 1 else "build"
    baseline = os.path.join(build, "bench", "tarnio_python_baseline")
    with tempfile.TemporaryDirectory(dir=sys.argv[2] if len(sys.argv) > 2 else None) as tmp:
        for compression in ("none", "zlib"):
            path = os.path.join(tmp, f"read_{compression}.tbf")
            write_stack(path, 32, compression)  # 256 MiB
            bench_read(baseline, path, f"read_{compression}")
            if compression == "zlib":
                bench_dask(path)
            os.remove(path)
        path = os.path.join(tmp, "planes.tbf")
        write_stack(path, 64, "zlib")
        bench_plane(baseline, path)


if __name__ == "__main__":
    main()
