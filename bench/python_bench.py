#!/usr/bin/env python3
"""Measures the Python package side by side with its yardsticks.

    python3 bench/python_bench.py [--build BUILD] [--quick] [--skip-big]

- morven.match_histograms against skimage.exposure.match_histograms on a
  24-megapixel colour picture: time and distance to the reference;
- morven.transfer from Python against the C function called directly
  (ctypes, GIL released as well) on the same picture and buffers;
- two Python threads against one;
- morven.dask.transfer on 1 and 2 local workers (dask.distributed);
- a lazily generated colour picture of about 4 GB transferred and written
  chunk by chunk to a raw file, with the peak resident memory of the process
  (run in a child process of its own).

BUILD is a build tree with the package (default: <repository>/build). Prints
a Markdown table.
"""

import argparse
import os
import pathlib
import resource
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]


def setup(build):
    sys.path.insert(0, str(build / "python"))
    sys.path.insert(0, str(ROOT / "python" / "tests"))


def timed(function, runs):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        function()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def picture24(photos):
    """A 6000 x 4000 colour picture from the bundled astronaut, with grain."""
    base = np.repeat(np.repeat(photos["astronaut"], 8, axis=0), 12, axis=1)[:4000, :6000]
    grain = np.random.default_rng(0).integers(-6, 7, base.shape)
    return np.ascontiguousarray(np.clip(base.astype(np.int16) + grain, 0, 255).astype(np.uint8))


def w1(result, reference):
    total = 0.0
    for c in range(3):
        a = np.bincount(result[..., c].ravel(), minlength=256) / result[..., c].size
        b = np.bincount(reference[..., c].ravel(), minlength=256) / reference[..., c].size
        total += np.abs(np.cumsum(a) - np.cumsum(b)).sum()
    return total / 3


def generated(shape, rows):
    """A lazily generated colour picture: ramps and a pattern, chunks of full rows."""
    import dask.array as da
    height, width = shape[:2]

    def make(block_info=None):
        (r0, r1), (c0, c1) = block_info[None]["array-location"][:2]
        y = np.arange(r0, r1, dtype=np.uint32)[:, None]
        x = np.arange(c0, c1, dtype=np.uint32)[None, :]
        out = np.empty((r1 - r0, c1 - c0, 3), np.uint8)
        out[..., 0] = x * 200 // width + 20
        out[..., 1] = y * 160 // height + (x & 31)
        out[..., 2] = (x ^ y) & 127
        return out

    chunks = (tuple([rows] * (height // rows) + ([height % rows] if height % rows else [])), (width,), (3,))
    return da.map_blocks(make, chunks=chunks, meta=np.empty((0, 0, 0), np.uint8))


class RawFile:
    """A target for dask.array.store: every chunk (of full rows) written with pwrite."""

    def __init__(self, path, shape):
        self.fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
        self.row = shape[1] * shape[2]

    def __setitem__(self, key, value):
        os.pwrite(self.fd, np.ascontiguousarray(value).data, key[0].start * self.row)


def big_child(gigabytes):
    """Runs in a child process: the 4 GB transfer, then prints time and peak memory."""
    import dask
    import dask.array as da
    import morven.dask as mdask
    width = 43690
    height = int(gigabytes * 2**30 / (3 * width))
    source = generated((height, width), 256)
    reference = np.ascontiguousarray(np.load(os.environ["BENCH_REFERENCE"]))
    with tempfile.TemporaryDirectory(dir=os.environ.get("BENCH_TMP")) as folder:
        target = RawFile(os.path.join(folder, "result.raw"), (height, width, 3))
        start = time.perf_counter()
        with dask.config.set(scheduler="threads", num_workers=2):
            da.store(mdask.transfer(source, reference), target, lock=False)
        seconds = time.perf_counter() - start
        os.close(target.fd)
    print(f"{height * width * 3 / 2**30:.2f} {seconds:.1f} {peak_resident() / 2**30:.3f}")


def peak_resident():
    """The process's peak resident memory in bytes. VmHWM belongs to this
    program's own memory map; ru_maxrss would also count the parent's
    memory at the fork that started it."""
    with open("/proc/self/status") as status:
        for line in status:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) * 1024
    return resource.getrusage(resource.RUSAGE_SELF).ru_maxrss * 1024


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--quick", action="store_true", help="one run of each")
    parser.add_argument("--skip-big", action="store_true", help="leave out the 4 GB run")
    parser.add_argument("--big-child", type=float, help=argparse.SUPPRESS)
    args = parser.parse_args()
    setup(args.build.resolve())
    if args.big_child:
        big_child(args.big_child)
        return

    import skimage.io
    from skimage.exposure import match_histograms as skimage_match

    import morven
    import morven.dask as mdask
    from conftest import DATA, Library
    runs = 1 if args.quick else 5
    rows = []
    photos = {n: np.ascontiguousarray(skimage.io.imread(DATA / f"{n}.png")) for n in ("astronaut", "chelsea")}
    picture, reference = picture24(photos), photos["chelsea"]
    megapixels = picture.shape[0] * picture.shape[1] / 1e6

    # match_histograms, ours and scikit-image's.
    ours = timed(lambda: morven.match_histograms(picture, reference), runs)
    theirs = timed(lambda: skimage_match(picture, reference, channel_axis=-1), 1)
    d_ours = w1(morven.match_histograms(picture, reference), reference)
    d_theirs = w1(skimage_match(picture, reference, channel_axis=-1).astype(np.uint8), reference)
    rows.append(("match_histograms, 24 MP colour", f"{ours * 1e3:.0f} ms",
                 f"scikit-image {theirs * 1e3:.0f} ms", f"{theirs / ours:.1f}x faster; distance {d_ours:.3f} "
                 f"against {d_theirs:.3f}"))

    # transfer from Python against the C call on the same buffers.
    clib = Library(str(args.build.resolve() / "libmorven.so"))
    target = morven.profile(reference)
    out = np.empty_like(picture)
    c_target = np.ascontiguousarray(target, dtype=np.float32)
    for name, options in (("transfer", {}), ("transfer + contrast + smooth", dict(contrast=True, smooth=True))):
        flags = {k: int(v) for k, v in options.items()}
        py = timed(lambda: morven.transfer(picture, target, out=out, **options), runs)
        c = timed(lambda: clib.transfer(picture, c_target, out=out, **flags), runs)
        new = timed(lambda: morven.transfer(picture, reference, **options), runs)
        rows.append((f"{name}, 24 MP colour", f"{py * 1e3:.0f} ms", f"C call {c * 1e3:.0f} ms",
                     f"{py / c:.3f}x the C call (with a new result array and the reference's profile: "
                     f"{new * 1e3:.0f} ms)"))

    # Two Python threads against one.
    quarter = np.ascontiguousarray(picture[:2000])
    calls = 8

    def work(n):
        for _ in range(n):
            morven.transfer(quarter, target)

    one = timed(lambda: work(calls), 1 if args.quick else 3)
    def two_threads():
        threads = [threading.Thread(target=work, args=(calls // 2,)) for _ in range(2)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
    two = timed(two_threads, 1 if args.quick else 3)
    rows.append(("transfer, 8 calls on 12 MP", f"2 threads {two * 1e3:.0f} ms", f"1 thread {one * 1e3:.0f} ms",
                 f"{one / two:.2f}x the throughput"))

    # Dask on one and two local worker processes.
    import dask.array as da
    import distributed
    source = generated((12000, 14000), 1000)
    size = 12000 * 14000 / 1e6
    for workers in (1, 2):
        with distributed.LocalCluster(n_workers=workers, threads_per_worker=1, processes=True,
                                      dashboard_address=None) as cluster, distributed.Client(cluster):
            lazy = mdask.transfer(source, reference)
            seconds = timed(lambda: lazy.max().compute(), 1 if args.quick else 3)
            making = timed(lambda: source.max().compute(), 1 if args.quick else 3)
        rows.append((f"morven.dask.transfer, {size:.0f} MP generated, {workers} worker(s)", f"{seconds:.2f} s",
                     f"generating alone {making:.2f} s", f"{size / seconds:.0f} MP/s"))

    # 4 GB, in a process of its own for its peak memory.
    if not args.skip_big:
        with tempfile.TemporaryDirectory() as folder:
            ref_file = os.path.join(folder, "reference.npy")
            np.save(ref_file, reference)
            env = dict(os.environ, BENCH_REFERENCE=ref_file)
            out = subprocess.run([sys.executable, __file__, "--build", str(args.build), "--big-child", "4"],
                                 env=env, check=True, capture_output=True, text=True).stdout.split()
        gib, seconds, peak = float(out[0]), float(out[1]), float(out[2])
        rows.append((f"morven.dask.transfer, {gib:.2f} GiB generated, written to a raw file", f"{seconds:.0f} s",
                     f"peak resident memory {peak:.2f} GiB", f"{gib * 1024 / seconds:.0f} MiB/s"))

    print(f"Picture: {picture.shape[1]} x {picture.shape[0]} ({megapixels:.0f} MP); reference "
          f"{reference.shape[1]} x {reference.shape[0]}; {os.cpu_count()} processors")
    print("| case | morven | yardstick | result |")
    print("|---|---|---|---|")
    for row in rows:
        print("| " + " | ".join(row) + " |")


if __name__ == "__main__":
    main()
