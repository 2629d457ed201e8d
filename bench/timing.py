"""Timing and memory helpers shared by the benchmark scripts."""

from __future__ import annotations

import statistics
import time
import tracemalloc
from collections.abc import Callable


def median_seconds(fn: Callable[[], object], number: int = 1, repeat: int = 9) -> float:
    """Median over ``repeat`` runs of the mean time of one of ``number`` calls, in seconds."""
    samples = []
    for _ in range(repeat):
        start = time.perf_counter()
        for _ in range(number):
            fn()
        samples.append((time.perf_counter() - start) / number)
    return statistics.median(samples)


def peak_mb(fn: Callable[[], object]) -> float:
    """Peak of traced allocations (NumPy buffers included) while ``fn`` runs, in megabytes."""
    tracemalloc.start()
    tracemalloc.reset_peak()
    result = fn()
    _, peak = tracemalloc.get_traced_memory()
    tracemalloc.stop()
    del result
    return peak / 1e6
