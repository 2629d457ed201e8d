"""Speed and memory of the actuarial functions, each next to its floor; then table construction.

Run with ``make bench`` or ``python bench/run.py``. Every figure is a median over repeated runs:

- one scalar call of qx, px, tpx, tqx, lx and dx on the bundled SULT table, next to a plain
  Python float multiplication (target: at most 1 microsecond per call);
- whole-vector work (1,000,000 ages, a 3,000 x 1,000 grid, the whole table) next to the
  shortest NumPy expression computing the same values from the same vectors (target: at most
  1.5 times the NumPy time); the script checks that the values are the same;
- the peak memory of the grid, against the result plus one piece of 2,000,000 cells;
- then table construction (construction.py), generational builds against NumPy
  (generational.py), the life contingencies (contingencies.py), the disability model's annuities
  (multistate.py), a portfolio projection of 1,000,000 policies over 30 years (portfolio.py),
  portfolio valuation (valuation.py), the import of the published XTbML files (xtbml.py) and the
  SOA table service: its import, its store, a table by number (soa_store.py).

A benchmark, not a test: it reports, it never fails a build.
"""

from __future__ import annotations

import statistics
import sys
import timeit
from collections.abc import Callable
from pathlib import Path

import numpy as np

from veltrane import LifeTable

sys.path.insert(0, str(Path(__file__).resolve().parent))
from timing import median_seconds, peak_mb

SCALAR_TARGET_NS = 1000.0
VECTOR_TARGET_RATIO = 1.5
GRID_PIECE_CELLS = 2_000_000
REPEAT = 9


def scalar_ns(stmt: str, namespace: dict[str, object], number: int = 200_000) -> float:
    """Median over REPEAT runs of the time of one evaluation of ``stmt``, in nanoseconds."""
    runs = timeit.repeat(stmt, globals=namespace, number=number, repeat=REPEAT)
    return statistics.median(runs) / number * 1e9


def median_ms(fn: Callable[[], object], repeat: int = REPEAT, number: int = 1) -> float:
    """Median over ``repeat`` runs of the mean time of ``number`` calls, in milliseconds."""
    return median_seconds(fn, number=number, repeat=repeat) * 1e3


def duration(ms: float) -> str:
    return f"{ms:8.2f} ms" if ms >= 1.0 else f"{ms * 1e3:8.2f} us"


def mark(ok: bool) -> str:
    return "ok" if ok else "MISSED"


# -- NumPy floors: linear interpolation written out, on ages that stay below the last age -----------
def numpy_l(lx: np.ndarray, x: np.ndarray) -> np.ndarray:
    i = x.astype(np.intp)
    return lx[i] + (lx[i + 1] - lx[i]) * (x - i)


def numpy_tqx(lx: np.ndarray, ages: np.ndarray, t: float) -> np.ndarray:
    return np.round(1.0 - np.round(numpy_l(lx, ages + t), 9) / np.round(numpy_l(lx, ages), 9), 12)


def numpy_grid(lx: np.ndarray, ages: np.ndarray, durations: np.ndarray) -> np.ndarray:
    return np.round(numpy_l(lx, ages[:, None] + durations[None, :]) / numpy_l(lx, ages)[:, None], 12)


def numpy_int_grid(lx: np.ndarray, ages: np.ndarray, durations: np.ndarray) -> np.ndarray:
    i, j = ages.astype(np.intp), durations.astype(np.intp)
    return np.round(lx[i[:, None] + j[None, :]] / lx[i][:, None], 12)


def main() -> None:
    table = LifeTable("SULT", "u")
    lx, q, lx_raw = table.lx(), table._decrement, table._lx_raw
    rng = np.random.default_rng(2024)
    # Fractional ages and durations whose sums stay below omega (120), as the floors assume.
    ages = rng.uniform(20.0, 100.0, 1_000_000)
    grid_ages, grid_durations = rng.uniform(20.0, 100.0, 3_000), rng.uniform(0.0, 19.0, 1_000)
    # Integer ages (as float64, as they usually come) and their indices for the NumPy floors.
    int_ages = rng.integers(0, table.w, 1_000_000).astype(np.float64)
    int_grid_ages = rng.integers(20, 100, 3_000).astype(np.float64)
    int_grid_durations = rng.integers(0, 20, 1_000).astype(np.float64)

    print(f"Python {sys.version.split()[0]}, NumPy {np.__version__}; table SULT (ages 0-{table.w}), linear")
    print()
    print(f"Scalar calls (median of {REPEAT} runs, ns per call; target <= {SCALAR_TARGET_NS:.0f} ns)")
    namespace: dict[str, object] = {"t": table, "a": 1.5, "b": 2.5}
    floor = scalar_ns("a * b", namespace)
    for stmt in ("qx(50.5, m=12)", "px(50)", "tpx(50, 10)", "tqx(50.25, 7.5)", "lx(50.3)", "dx(50)"):
        ns = scalar_ns(f"t.{stmt}", namespace)
        print(f"  {stmt:<18} {ns:8.1f} ns   {ns / floor:5.1f}x the floor   {mark(ns <= SCALAR_TARGET_NS)}")
    print(f"  {'floor: a * b':<18} {floor:8.1f} ns   (one Python float multiplication)")
    print()

    rows = [
        (
            "tqx(ages, 10), 1,000,000 fractional ages",
            lambda: table.tqx(ages, 10.0),
            lambda: numpy_tqx(lx, ages, 10.0),
            1,
        ),
        (
            "tpx(ages, durations), 3,000 x 1,000 grid",
            lambda: table.tpx(grid_ages, grid_durations),
            lambda: numpy_grid(lx, grid_ages, grid_durations),
            1,
        ),
        (
            "qx(ages), 1,000,000 integer ages",
            lambda: table.qx(int_ages),
            lambda: np.round(q[int_ages.astype(np.intp)], 12),
            1,
        ),
        (
            "lx(ages), 1,000,000 integer ages",
            lambda: table.lx(int_ages),
            lambda: lx[int_ages.astype(np.intp)],
            1,
            None,  # the floor is a bare gather: no validation, no rounding; reported, not a target
        ),
        (
            "tpx(ages, durations), 3,000 x 1,000 integer grid",
            lambda: table.tpx(int_grid_ages, int_grid_durations),
            lambda: numpy_int_grid(lx, int_grid_ages, int_grid_durations),
            1,
        ),
        ("px(), whole table", table.px, lambda: np.round(1.0 - q, 12), 2000),
        ("lx(), whole table", table.lx, lambda: np.round(lx_raw, 9), 2000),
    ]
    print(f"Whole vectors (median of {REPEAT} runs; target <= {VECTOR_TARGET_RATIO}x the NumPy floor)")
    width = max(len(name) for name, *_ in rows)
    for name, ours, floor_fn, number, *target in rows:
        same = np.array_equal(ours(), floor_fn())
        ours_ms, numpy_ms = median_ms(ours, number=number), median_ms(floor_fn, number=number)
        ratio = ours_ms / numpy_ms
        verdict = "no target" if target == [None] else mark(ratio <= VECTOR_TARGET_RATIO)
        print(
            f"  {name:<{width}}  {duration(ours_ms)}   NumPy {duration(numpy_ms)}   {ratio:5.2f}x   "
            f"{verdict}   same values: {'yes' if same else 'NO'}"
        )
    print("  NumPy floors: l(x) = L[i] + (L[i+1] - L[i]) * (x - i) with np.round as the functions round;")
    print("  px: np.round(1 - q, 12); lx: np.round(l_raw, 9); integer ages: gathers at the indices,")
    print("  qx rounded, lx as stored (already rounded), the grid's ratios rounded")
    print()

    result_mb = grid_ages.size * grid_durations.size * 8 / 1e6
    bound_mb = result_mb + GRID_PIECE_CELLS * 8 / 1e6
    ours_peak = peak_mb(lambda: table.tpx(grid_ages, grid_durations))
    numpy_peak = peak_mb(lambda: numpy_grid(lx, grid_ages, grid_durations))
    print("Peak memory of tpx(ages, durations), 3,000 x 1,000 grid (tracemalloc)")
    verdict = mark(ours_peak <= bound_mb)
    print(f"  veltrane     {ours_peak:6.1f} MB   {verdict}   (the result alone: {result_mb:.1f} MB)")
    print(f"  NumPy floor  {numpy_peak:6.1f} MB")
    print(f"  bound        {bound_mb:6.1f} MB   (the result and one piece of {GRID_PIECE_CELLS:,} cells)")
    print()

    sys.path.insert(0, str(Path(__file__).resolve().parent))
    import construction
    import contingencies
    import generational
    import multistate
    import portfolio
    import soa_store
    import valuation
    import xtbml

    construction.main()
    print()
    generational.main()
    contingencies.main()
    multistate.main()
    portfolio.main()
    valuation.main()
    xtbml.main()
    soa_store.main()


if __name__ == "__main__":
    main()
