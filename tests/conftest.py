"""Small table files written per test, a configuration that is put back afterwards, shared helpers.

``tables`` writes a table file into a fresh directory searched before the bundled tables and
returns its columns as float64 vectors, so a test can compute what the table must hold;
``standard`` writes one table of each usual structure.
"""

from __future__ import annotations

import math
import re
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
import pytest

from veltrane.config import LX_INTERPOLATIONS, Config
from veltrane.tables import decrement
from veltrane.tables.source import TableSource, write_table

AGES = 8  # ages 0..7: enough for every structure, small enough to read in a failure
# Published tables shared by the project; the tests that read them skip when they are absent.
# (beside the checkout, or beside a directory above it, as for a worktree).
_ABOVE = Path(__file__).resolve().parents[1:]
RAW = next((p / "shared" for p in _ABOVE if (p / "shared").is_dir()), _ABOVE[1] / "shared") / "tables" / "raw"


def exactly(exc: type[Exception], message: str):
    """pytest.raises for an exception whose whole message is ``message``."""
    return pytest.raises(exc, match=f"^{re.escape(message)}$")


# -- improvement formulas one age at a time: the references for projected rates ------------------


def _improvement_factor(name: str, lam: float, t: float) -> float:
    if name == "exponential":
        return math.exp(-lam * t)
    if name == "compound":
        return (1.0 - lam) ** t
    return math.exp(-lam * 100.0 * math.atan(t / 100.0))  # exponential_damped


def improved(name, q, lam, cohort, base_year) -> np.ndarray:
    """Rates moved from the base year to the year cohort + x by one improvement rate per age."""
    t = cohort - base_year
    return np.array(
        [min(1.0, max(0.0, q[x] * _improvement_factor(name, lam[x], t + x))) for x in range(len(q))]
    )


def projected(q, mi, cohort, base_year, grid) -> np.ndarray:
    """Compound each calendar year's improvement (the first grid year not before it) between the two years."""

    def rate(x, y):
        return next((mi[x][j] for j, g in enumerate(grid) if g >= y), mi[x][-1])

    out = []
    for x in range(len(q)):
        year, prod = cohort + x, 1.0
        for y in range(min(year, base_year) + 1, max(year, base_year) + 1):
            prod *= 1.0 - rate(x, y)
        out.append(min(1.0, max(0.0, q[x] * prod if year >= base_year else q[x] / prod)))
    return np.array(out)


class TableWriter:
    """Writes table files into one directory; rates are reproducible random numbers."""

    def __init__(self, directory: Path) -> None:
        self.directory = directory
        self.rng = np.random.default_rng(20240611)

    def write(self, name: str, metadata: dict[str, Any], columns: dict[str, Any]):
        columns = {"age": list(range(len(next(iter(columns.values()))))), **columns}
        write_table(self.directory, name, metadata, {k: list(v) for k, v in columns.items()})
        return {k: np.asarray(v, dtype=np.float64) for k, v in columns.items() if k != "age"}

    def rates(self, low: float = 0.01, high: float = 0.4, n: int = AGES) -> np.ndarray:
        q = self.rng.uniform(low, high, n)
        q[-1] = 1.0  # closed table
        return q

    def improvement(self, n: int = AGES) -> np.ndarray:
        return self.rng.uniform(-0.01, 0.04, n)

    # -- one table per structure -------------------------------------------------------------
    def period(self, name="PER", sexes=("m", "f"), table_type="life", prefix="qx"):
        meta = {"table_type": table_type, "sexes": list(sexes)}
        return self.write(name, meta, {f"{prefix}_{s}": self.rates() for s in sexes})

    def flat(self, name="GEN", formula="exponential", base_year=2000, sexes=("m", "f")):
        meta = {
            "table_type": "life",
            "sexes": list(sexes),
            "generational": {"formula_type": formula, "base_year": base_year},
        }
        cols = {f"qx_{s}": self.rates() for s in sexes}
        cols |= {f"mi_{s}": self.improvement() for s in sexes}
        return self.write(name, meta, cols)

    def year_indexed(self, name="YRS", formula="compound", grid=(2000, 2010, 2020), base_year=2005):
        meta = {
            "table_type": "life",
            "sexes": ["m", "f"],
            "generational": {
                "formula_type": formula,
                "base_year": base_year,
                "mi_structure": "year_indexed",
                "grid_years": list(grid),
            },
        }
        cols = {f"qx_{s}": self.rates() for s in "mf"}
        cols |= {f"mi_{s}_{y}": self.improvement() for s in "mf" for y in grid}
        return self.write(name, meta, cols)

    def select(self, name="SEL", period=2, start=1, generational=None, sexes=("m", "f")):
        meta: dict[str, Any] = {
            "table_type": "life",
            "sexes": list(sexes),
            "select": {"period": period, "start_duration": start},
        }
        suffixes = [f"s{d}" for d in range(start, start + period)] + ["ult"]
        cols = {f"qx_{s}_{x}": self.rates() for s in sexes for x in suffixes}
        if generational is not None:
            meta["generational"] = {
                "formula_type": generational,
                "base_year": 2000,
                "mi_structure": "select_period",
            }
            cols |= {f"mi_{s}_{x}": self.improvement() for s in sexes if s != "u" for x in suffixes}
        return self.write(name, meta, cols)


@pytest.fixture
def tables(tmp_path: Path) -> Iterator[TableWriter]:
    """A table writer whose directory is searched first; settings and caches restored after."""
    # The unisex cache is keyed by table name, and every test reuses the same few names.
    decrement._clear_cohort_unisex_cache()
    with Config().override(tables_path=[tmp_path]):
        yield TableWriter(tmp_path)
    TableSource.clear_cache()
    decrement._clear_cohort_unisex_cache()


@pytest.fixture
def standard(tables: TableWriter) -> dict[str, dict[str, np.ndarray]]:
    """PER (period), GEN (flat improvement), YRS (year-indexed), SEL and GSEL (select): columns by name."""
    return {
        "PER": tables.period(),
        "GEN": tables.flat(),
        "YRS": tables.year_indexed(),
        "SEL": tables.select(),
        "GSEL": tables.select("GSEL", generational="exponential"),
    }


@pytest.fixture(scope="module")
def sult() -> Any:
    """The SULT unisex life table."""
    from veltrane.tables.life import LifeTable

    return LifeTable("SULT", "u")


@pytest.fixture(params=LX_INTERPOLATIONS)
def method(request: Any) -> Iterator[str]:
    """Each survivorship interpolation in turn, set for the test."""
    with Config().override(lx_interpolation=request.param):
        yield request.param
