"""The GIL is released while the library works, and Ctrl-C stops a long call."""

import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import morven

PICTURE = np.random.default_rng(0).integers(0, 256, (600, 800, 3), dtype=np.uint8)


def long_call():
    # Three hundred smoothing passes per channel: a few tenths of a second.
    return morven.smooth(PICTURE, PICTURE // 2, iterations=300)


@pytest.mark.parametrize("caller", ["main thread", "other thread"])
def test_python_runs_during_a_call(caller):
    # A counting thread's longest pause: with the GIL held for the call, it
    # would last the whole call.
    longest, stop = [0.0], threading.Event()

    def count():
        last = time.perf_counter()
        while not stop.is_set():
            now = time.perf_counter()
            longest[0], last = max(longest[0], now - last), now

    counter = threading.Thread(target=count)
    counter.start()
    try:
        time.sleep(0.05)
        start = time.perf_counter()
        if caller == "main thread":
            long_call()
        else:
            worker = threading.Thread(target=long_call)
            worker.start()
            worker.join()
        took = time.perf_counter() - start
    finally:
        stop.set()
        counter.join()
    assert longest[0] < took / 2


CHILD = r"""
import sys, time
import numpy as np
import morven
picture = np.random.default_rng(0).integers(0, 256, (1000, 1000, 3), dtype=np.uint8)
call = sys.argv[1]
print("ready", flush=True)
start = time.monotonic()
try:
    if call == "smooth":
        morven.smooth(picture, picture // 2, iterations=1000000)
    else:
        morven.transfer(picture.astype(np.uint16) * 257, picture[::-1].copy(), smooth=True,
                        smooth_iterations=1000000)
except KeyboardInterrupt:
    print("interrupted", flush=True)
"""


@pytest.mark.parametrize("call", ["smooth", "transfer"])
def test_ctrl_c_stops_a_long_call(call):
    env = dict(os.environ, PYTHONPATH=os.pathsep.join(sys.path))
    child = subprocess.Popen([sys.executable, "-c", CHILD, call], stdout=subprocess.PIPE, text=True, env=env)
    try:
        assert child.stdout.readline().strip() == "ready"
        time.sleep(0.5)  # well inside the call, which would run for hours
        sent = time.monotonic()
        child.send_signal(signal.SIGINT)
        out, _ = child.communicate(timeout=20)
        stopped = time.monotonic() - sent
    finally:
        child.kill()
    assert out.strip() == "interrupted"
    assert child.returncode == 0
    assert stopped < 2.0
