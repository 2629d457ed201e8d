"""Portfolio projection: 1,000,000 policies x 30 years on the bundled select-ultimate tables.

Run with ``make bench`` (after the other benchmarks) or ``python bench/portfolio.py``. The
policies are 80% on the select table SSSM (select durations 1 to 5 at the start, so some begin
on the ultimate column) and 20% on SULT, at ages 20 to 90. ``veltrane.portfolio.project`` (frame
checks, grouping by table, each table built once, blocks of policies) is set next to the plain
NumPy computation of the same rates and survival from the same rate vectors, rounded alike
(target: at most 1.5 times its time). Reported: the median time, the time per policy-year, the
peak of traced memory (tracemalloc, NumPy buffers included) and whether the values are the same.
Then 50,000 policies, each with a unisex blend weight of its own, on a select table without a
unisex column: time and peak memory beside the size of the results.

A benchmark, not a test: it reports, it never fails a build.
"""

from __future__ import annotations

import sys
from collections.abc import Callable
from pathlib import Path

import numpy as np
import polars as pl

from veltrane import Config, LifeTable
from veltrane.portfolio import DEFAULT_BLOCK_SIZE, project

sys.path.insert(0, str(Path(__file__).resolve().parent))
from timing import median_seconds, peak_mb

POLICIES = 1_000_000
YEARS = 30
TARGET_RATIO = 1.5
REPEAT = 3


def policies(n: int = POLICIES, seed: int = 2026) -> pl.DataFrame:
    rng = np.random.default_rng(seed)
    select = rng.random(n) < 0.8
    return pl.DataFrame(
        {
            "table_name": np.where(select, "SSSM", "SULT"),
            "sex": np.full(n, "u"),
            "age": rng.integers(20, 91, n),
            "duration": np.where(select, rng.integers(1, 6, n), 0),
        }
    ).with_columns(duration=pl.when(pl.col("table_name") == "SSSM").then("duration"))


def numpy_floor(frame: pl.DataFrame) -> Callable[[], tuple[np.ndarray, np.ndarray]]:
    """The same projection in plain NumPy: rate vectors stacked, one gather, one running product,
    each result rounded to its decimals.

    The policies' columns are turned into arrays before the clock starts; the projection reads
    and checks its frame inside the timing.
    """
    vectors = [LifeTable("SSSM", "u", duration=d)._decrement for d in (1, 2, "ult")]
    vectors.append(LifeTable("SULT", "u")._decrement)
    age = frame["age"].to_numpy()
    width = int(age.max()) + YEARS + 1
    bank = np.ones((4, width))
    for r, v in enumerate(vectors):
        bank[r, : len(v)] = v
    on_select = (frame["table_name"] == "SSSM").to_numpy()
    offset = frame["duration"].fill_null(1).to_numpy() - 1
    k = np.arange(YEARS)
    decimals = Config().decimals

    def run() -> tuple[np.ndarray, np.ndarray]:
        row = np.where(on_select[:, None], np.minimum(offset[:, None] + k, 2), 3)
        ages = np.minimum(age[:, None] + k, width - 1)
        q = bank[row, ages]
        return q.round(decimals.qx), np.cumprod(1.0 - q, axis=1).round(decimals.tpx)

    return run


def main() -> None:
    frame = policies()
    floor = numpy_floor(frame)

    def ours() -> object:
        return project(frame, YEARS, what=("qx", "tpx"))

    result, expected = ours(), floor()
    same = (
        result["qx"].tobytes() == expected[0].tobytes() and result["tpx"].tobytes() == expected[1].tobytes()
    )
    ours_s = median_seconds(ours, repeat=REPEAT)
    floor_s = median_seconds(floor, repeat=REPEAT)
    cells = POLICIES * YEARS
    ratio = ours_s / floor_s
    verdict = "ok" if ratio <= TARGET_RATIO else "OVER TARGET"
    results_mb = 2 * cells * 8 / 1e6
    same_text = "yes" if same else "NO"
    print()
    print(f"Portfolio projection: {POLICIES:,} policies x {YEARS} years, qx and tpx")
    print(f"  (blocks of {DEFAULT_BLOCK_SIZE:,} policies; NumPy: one gather and one running product)")
    print(f"  veltrane.portfolio  {ours_s * 1e3:8.1f} ms   {ours_s / cells * 1e9:6.2f} ns per policy-year")
    print(f"  plain NumPy         {floor_s * 1e3:8.1f} ms   {floor_s / cells * 1e9:6.2f} ns per policy-year")
    print(
        f"  ratio               {ratio:8.2f}x   {verdict} (target {TARGET_RATIO}x)   same values: {same_text}"
    )
    ours_peak, floor_peak = peak_mb(ours), peak_mb(floor)
    print(f"  peak memory         veltrane {ours_peak:7.1f} MB   NumPy {floor_peak:7.1f} MB")
    print(f"                      (the two results alone: {results_mb:.0f} MB)")
    elsewhere(frame, result)
    blends()
    print()


BLENDED = 50_000


def blends() -> None:
    """Policies with distinct unisex blend weights: the cost is a number per policy, not a table."""
    rng = np.random.default_rng(5)
    frame = pl.DataFrame(
        {
            "table_name": ["CSO2017"] * BLENDED,
            "sex": ["u"] * BLENDED,
            "age": rng.integers(20, 80, BLENDED),
            "duration": rng.integers(1, 30, BLENDED),
            "unisex_blend": rng.permutation(np.linspace(0.0, 1.0, BLENDED)),
        }
    )

    def run() -> object:
        return project(frame, YEARS, what=("qx",))

    seconds, peak = median_seconds(run, repeat=REPEAT), peak_mb(run)
    print(f"Unisex blends: {BLENDED:,} policies x {YEARS} years, each with its own weight, qx (CSO2017)")
    print(f"  veltrane.portfolio  {seconds * 1e3:8.1f} ms   peak memory {peak:6.1f} MB")
    print(f"                      (the result alone: {BLENDED * YEARS * 8 / 1e6:.0f} MB)")


def elsewhere(frame: pl.DataFrame, result: object) -> None:
    """The same batch in 2 worker processes and on a 2-worker Dask cluster: identical bits?"""
    what = ("qx", "tpx")
    _report("2 worker processes", lambda: project(frame, YEARS, what=what, workers=2), result)
    try:
        from dask.distributed import Client, LocalCluster

        from veltrane.portfolio import project_dask
    except ImportError:
        print("  Dask: not installed, skipped")
        return
    cluster = LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=":0")
    with cluster, Client(cluster) as client:
        _report("Dask, 2 workers", lambda: project_dask(frame, YEARS, client=client, what=what), result)


def _report(label: str, run: Callable[[], object], result: object) -> None:
    seconds = median_seconds(run, repeat=1)
    other = run()
    same = all(other[k].tobytes() == result[k].tobytes() for k in ("qx", "tpx"))  # type: ignore[index]
    print(f"  {label:<19} {seconds * 1e3:8.1f} ms   identical to one process: {'yes' if same else 'NO'}")


if __name__ == "__main__":
    main()
