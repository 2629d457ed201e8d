"""Cost of building tables: a period table, a generational table, and setter rebuilds.

Run with ``python bench/construction.py`` (or as part of ``make bench``). Prints medians of
repeated timings in microseconds. A benchmark, not a test: nothing here asserts a time.
"""

from __future__ import annotations

import tempfile
from collections.abc import Callable
from pathlib import Path

import numpy as np

from timing import median_seconds
from veltrane import Config, LifeTable
from veltrane.tables.source import TableSource, write_table


def median_us(fn: Callable[[], object], number: int) -> float:
    """Median of repeated timings of one call, in microseconds."""
    return median_seconds(fn, number=number, repeat=7) * 1e6


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
