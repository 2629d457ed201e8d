"""Long vectors: the memory a call takes beyond its input, and how soon Ctrl-C stops it.

Run with ``python bench/large_inputs.py [n]`` (n ages, default 20,000,000; the report's figures
use 10^8, which needs about 2 GB). For each call:

- the peak of traced allocations (NumPy buffers included) beyond the input, next to the size of
  the result: a float64 input is read in place, so the two should be equal;
- the delay between a SIGINT-like alarm, raised a third of the way into the call, and the
  KeyboardInterrupt that ends it (the call checks for signals between pieces of 2^21 cells).

A benchmark, not a test: it reports, it never fails a build.
"""

from __future__ import annotations

import signal
import sys
import time
import tracemalloc
from collections.abc import Callable

import numpy as np

from veltrane import LifeTable


def peak_beyond_input_mb(fn: Callable[[], object]) -> float:
    tracemalloc.start()
    start = tracemalloc.get_traced_memory()[0]
    tracemalloc.reset_peak()
    result = fn()
    peak = tracemalloc.get_traced_memory()[1] - start
    tracemalloc.stop()
    del result
    return peak / 1e6


def interrupt_delay_ms(fn: Callable[[], object]) -> tuple[float, float | None]:
    """The call's own time, and how long after an alarm at a third of it the call stopped."""
    start = time.perf_counter()
    fn()
    whole = time.perf_counter() - start
    signal.signal(signal.SIGALRM, signal.default_int_handler)
    signal.setitimer(signal.ITIMER_REAL, whole / 3)
    start = time.perf_counter()
    try:
        fn()
    except KeyboardInterrupt:
        return whole * 1e3, (time.perf_counter() - start - whole / 3) * 1e3
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
    return whole * 1e3, None  # the alarm came after the call


def main() -> None:
    n = int(float(sys.argv[1])) if len(sys.argv) > 1 else 20_000_000
    table = LifeTable("SULT", "u")
    table.lx()
    ages = np.random.default_rng(1).uniform(20.0, 100.0, n)
    durations = ages - 20.0
    calls = {
        "qx(ages)": lambda: table.qx(ages),
        "qx(ages, m=12)": lambda: table.qx(ages, m=12),
        "tqx(ages, 10)": lambda: table.tqx(ages, 10.0),
        "tpx(50.5, durations), one row": lambda: table.tpx(50.5, durations),
        "lx(ages)": lambda: table.lx(ages),
    }
    print(f"{n:,} ages or durations ({ages.nbytes / 1e6:.0f} MB each)")
    width = max(map(len, calls))
    for name, fn in calls.items():
        memory = peak_beyond_input_mb(fn)
        whole, delay = interrupt_delay_ms(fn)
        stopped = "not stopped inside the call" if delay is None else f"stopped {delay:6.1f} ms after Ctrl-C"
        print(f"  {name:<{width}}  {whole:8.1f} ms   peak beyond input {memory:7.1f} MB   {stopped}")


if __name__ == "__main__":
    main()
