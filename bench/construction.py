"""Cost of building tables: a period table, a generational table, and setter rebuilds.

Run with ``python bench/construction.py`` (or as part of ``make bench``). Prints medians of
repeated timings in microseconds. A benchmark, not a test: nothing here asserts a time.
"""

from __future__ import annotations

import statistics
import tempfile
import time
from collections.abc import Callable
from pathlib import Path

import numpy as np

from veltrane import Config, LifeTable
from veltrane.tables.source import TableSource, write_table


def median_us(fn: Callable[[], object], number: int, repeat: int = 7) -> float:
    """Median over ``repeat`` runs of the mean time of one call, in microseconds."""
    samples = []
    for _ in range(repeat):
        start = time.perf_counter()
        for _ in range(number):
            fn()
        samples.append((time.perf_counter() - start) / number * 1e6)
    return statistics.median(samples)


def write_generational(directory: Path) -> None:
    """A flat-improvement generational table on the bundled Makeham rates, for both sexes."""
    base = TableSource("SULT").data["qx_u"].to_numpy()
    ages = np.arange(base.size)
    improvement = np.clip(0.03 - 0.0002 * ages, 0.0, None)
    write_table(
        directory,
        "BENCH_GEN",
        {
            "table_type": "life",
            "sexes": ["m", "f"],
            "start_age": 20,
            "generational": {"formula_type": "exponential", "base_year": 2020, "mi_structure": "flat"},
        },
        {"age": ages, "qx_m": base, "qx_f": base * 0.8, "mi_m": improvement, "mi_f": improvement},
    )


def main() -> None:
    with tempfile.TemporaryDirectory() as tmp, Config().override(tables_path=[tmp]):
        write_generational(Path(tmp))
        gen = LifeTable("BENCH_GEN", "m", cohort=1960)
        cohorts = iter(range(10**9))

        def set_cohort() -> None:
            gen.cohort = 1900 + next(cohorts) % 100

        rows = [
            ("LifeTable('SULT', 'u')  period, 121 ages", median_us(lambda: LifeTable("SULT", "u"), 2000)),
            (
                "LifeTable(gen, 'm', cohort=1960)  exponential improvement",
                median_us(lambda: LifeTable("BENCH_GEN", "m", cohort=1960), 1000),
            ),
            ("table.cohort = ...  one generational rebuild", median_us(set_cohort, 1000)),
            ("table.copy()  deep copy", median_us(gen.copy, 2000)),
        ]
    width = max(len(name) for name, _ in rows)
    print("Table construction (median of 7 runs, microseconds per call)")
    for name, us in rows:
        print(f"  {name:<{width}}  {us:9.1f} us")


if __name__ == "__main__":
    main()
