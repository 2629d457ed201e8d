"""Portfolio projections: select diagonals, grouping by table, blocks, processes, and bad input."""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import time
from pathlib import Path
from types import MappingProxyType

import numpy as np
import pandas as pd
import polars as pl
import pytest

from veltrane import Config, TableRegistry
from veltrane.portfolio import QUANTITIES, project
from veltrane.tables import decrement
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource


def reference(row: dict, years: int) -> dict[str, np.ndarray]:
    """One policy, one table per year (the select column of duration d + k at age x + k): its
    rates as the table rounds them (qx, px) and the rates it holds (``q``), 1 from w on."""
    cls, source = ExitTable if row["table_name"] == "LAPSE" else LifeTable, TableSource(row["table_name"])
    keys = {"cohort": row["cohort"]} if source.generational else {}
    if row["sex"] == "u" and row.get("unisex_blend") is not None:
        keys["unisex_blend"] = row["unisex_blend"]
    out: dict[str, list[float]] = {"qx": [], "px": [], "q": []}
    for k in range(years):
        if source.select:
            d, start = row["duration"] + k, source.start_duration or 1
            keys["duration"] = d if d < start + source.select_period else "ult"
        table, age = cls(row["table_name"], row["sex"], **keys), row["age"] + k
        within = age < table.w  # the table's qx is 1 at w, whatever its file gives there
        out["qx"].append(table.qx()[age] if within else 1.0)
        out["px"].append(table.px()[age] if within else 0.0)
        out["q"].append(table._decrement[age] if within else 1.0)
    return {name: np.array(values) for name, values in out.items()}


@pytest.fixture
def book(standard, tables):
    """Forty-five policies over bundled and written tables of every structure."""
    tables.period("LAPSE", table_type="exit", prefix="ox")
    rng = np.random.default_rng(7)
    specs = [("SSSM", "u"), ("SULT", "u"), ("SEL", "m"), ("SEL", "u", 0.25), ("GSEL", "f"), ("GEN", "m")]
    specs += [("GEN", "u", 0.6), ("PER", "f"), ("LAPSE", "m")]
    rows = []
    for i in range(45):
        name, sex, *blend = specs[i % len(specs)]
        age = int(rng.integers(20, 115) if name in ("SSSM", "SULT") else rng.integers(0, 8))
        row = {"table_name": name, "sex": sex, "age": age, "duration": int(rng.integers(1, 5))}
        rows.append(row | {"cohort": int(rng.integers(1940, 1990)), "unisex_blend": (blend or [None])[0]})
    return pl.DataFrame(rows, schema_overrides={"unisex_blend": pl.Float64})


# Each kind of quantity at decimals of its own, so that a quantity rounded to another's shows.
DECIMALS = [{}, {"qx": 5, "ox": 3, "px": 7, "tpx": 6, "tqx": 4}]


@pytest.mark.parametrize("decimals", DECIMALS)
def test_rates_follow_the_select_diagonal_rounded_as_the_tables_round(book, decimals):
    years = 9
    with Config().override(decimals=decimals):
        result = project(book, years, what=QUANTITIES)
        expected = [reference(row, years) for row in book.iter_rows(named=True)]
        settings = Config().decimals.as_dict()
    for name in ("qx", "px"):  # the tables' own qx() and px(), bit for bit
        assert result[name].tobytes() == np.array([e[name] for e in expected]).tobytes(), name
    # Survival is the running product of the rates the tables hold (their lx is built from
    # them), rounded once when returned; dx is a probability of leaving, rounded like tqx.
    q = np.array([e["q"] for e in expected])
    survival = np.cumprod(1.0 - q, axis=1)
    before = np.hstack([np.ones((len(book), 1)), survival[:, :-1]])
    want = {
        "tpx": survival.round(settings["tpx"]),
        "tqx": (1.0 - survival).round(settings["tqx"]),
        "inforce": before.round(settings["tpx"]),
        "dx": (before * q).round(settings["tqx"]),
    }
    for name, value in want.items():
        assert result[name].tobytes() == value.tobytes(), name
    frame = result.to_frame()
    assert frame.shape == (len(book) * years, 2 + len(QUANTITIES))
    assert frame.filter((pl.col("policy") == 3) & (pl.col("year") == 4))["qx"].item() == expected[3]["qx"][4]


@pytest.fixture
def in_memory():
    """MEMT: a table registered from memory, with no file anywhere."""
    rng = np.random.default_rng(5)
    rates = {sex: np.append(rng.uniform(0.001, 0.3, 30), 1.0) for sex in "mf"}
    TableSource.from_rates("MEMT", rates, start_age=40).register()
    yield pl.DataFrame(
        {"table_name": ["MEMT"] * 4, "sex": ["m", "f", "u", "u"], "age": [40, 55, 60, 66]},
    ).with_columns(unisex_blend=pl.Series([None, None, 0.35, 0.8]))
    TableSource.unregister("MEMT")


@pytest.mark.parametrize(("block_size", "workers"), [(1, None), (7, None), (1000, None), (5, 2)])
def test_blocks_and_worker_processes_give_the_result_of_one_block(book, in_memory, block_size, workers):
    # The tables' files are found through Config().tables_path alone (no VELTRANE_TABLES_PATH)
    # and MEMT only in this process's memory: the workers get both, and this process's decimals.
    frame = pl.concat([book, in_memory], how="diagonal_relaxed")
    with Config().override(decimals={"qx": 7, "tpx": 9}):
        whole = project(frame, 6, what=QUANTITIES, block_size=10_000)
        part = project(frame, 6, what=QUANTITIES, block_size=block_size, workers=workers)
    assert all(whole[k].tobytes() == part[k].tobytes() for k in QUANTITIES)


def test_a_sample_of_bundled_policies_follows_the_diagonals():
    rng = np.random.default_rng(11)
    specs = [("SULT", "u"), ("SSSM", "u"), ("IAM2012", "f"), ("CSO2017", "m"), ("RP2014HA", "m")]
    specs += [("VBT2015UM", "m")]  # its file gives q = 0.5 at the last age, where qx is 1
    rows = [
        {"table_name": n, "sex": s, "age": int(rng.integers(20, 124)), "duration": int(rng.integers(1, 30))}
        for n, s in specs * 6
    ]
    result = project(pl.DataFrame(rows).with_columns(cohort=pl.lit(1950)), 8, what=("qx",))
    expected = [reference(row | {"cohort": 1950}, 8)["qx"] for row in rows]
    assert result["qx"].tobytes() == np.array(expected).tobytes()


def built_since(mark: int) -> int:
    """Tables constructed since ``mark`` (one id is drawn per table; this call draws one too)."""
    return next(decrement._table_instance_counter) - mark - 1


def test_each_distinct_table_is_built_once(book):
    # A select table needs one table per select column and one for the ultimate column; a
    # blend, whatever its weight, the male and the female tables.
    columns = {"SSSM": 3, "SEL": 3, "GSEL": 3}
    keys = set()
    for row in book.iter_rows(named=True):
        cohort = row["cohort"] if row["table_name"] in ("GEN", "GSEL") else None
        sexes = "mf" if row["unisex_blend"] is not None else row["sex"]
        keys |= {(row["table_name"], sex, cohort) for sex in sexes}
    expected = sum(columns.get(name, 1) for name, _, _ in keys)
    registry = TableRegistry(maxsize=1000)
    mark = next(decrement._table_instance_counter)
    project(book, 3, registry=registry)
    assert built_since(mark) == expected == len(registry)
    mark = next(decrement._table_instance_counter)
    project(book, 3, registry=registry)  # a second batch on the same registry builds nothing
    assert built_since(mark) == 0


def test_a_table_that_cannot_travel_is_refused_before_any_process_starts(in_memory, monkeypatch):
    # The registry keeps a table of the data MEMT meant before it was registered anew: no worker
    # could rebuild it, and no worker is started to find that out.
    registry = TableRegistry()
    project(in_memory, 2, registry=registry)
    TableSource.from_rates("MEMT", [0.1, 0.2, 1.0]).register()
    module = sys.modules["veltrane.portfolio.project"]  # the package's name "project" is the function
    monkeypatch.setattr(module, "start_pool", lambda *args: pytest.fail("a pool started"))
    with pytest.raises(
        ValueError, match="cannot be sent to worker processes: cannot pickle LifeTable 'MEMT'"
    ):
        project(in_memory, 2, registry=registry, block_size=1, workers=2)


# Each starts two workers, prints their process ids and waits to be killed: a pool's, and two
# processes that only watch their parent (the way of systems without a parent-death signal).
POOL_THEN_WAIT = """
import sys, time
from veltrane.portfolio.workers import ShippedPlan, start_pool
pool = start_pool(2, ShippedPlan("unused", b"", b""))
for future in [pool.submit(time.sleep, 0.2) for _ in range(2)]:
    future.result()
print(*pool._processes, flush=True)
time.sleep(120)
"""
WATCHERS_THEN_WAIT = """
import os, subprocess, sys, time
watch = f"from veltrane.portfolio.workers import _watch; _watch({os.getpid()})"
print(*(subprocess.Popen([sys.executable, "-c", watch]).pid for _ in range(2)), flush=True)
time.sleep(120)
"""


def _running(pid: int) -> bool:
    """Whether the process exists and has not exited (a zombie that nobody reaps has exited)."""
    try:
        stat = Path(f"/proc/{pid}/stat").read_text()
    except OSError:
        return False
    return stat.rsplit(")", 1)[1].split()[0] != "Z"


@pytest.mark.skipif(not sys.platform.startswith("linux"), reason="reads processes from /proc")
@pytest.mark.parametrize("script", [POOL_THEN_WAIT, WATCHERS_THEN_WAIT], ids=["pool", "watching"])
def test_worker_processes_end_when_their_parent_is_killed(script):
    command = [sys.executable, "-c", script]
    workers: list[int] = []
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as parent:
        try:
            assert parent.stdout is not None
            workers = [int(pid) for pid in parent.stdout.readline().split()]
            assert len(workers) == 2 and all(_running(pid) for pid in workers)
            parent.kill()  # SIGKILL: no clean-up of its own runs
            parent.wait(timeout=30)
            deadline = time.monotonic() + 20
            while any(_running(pid) for pid in workers) and time.monotonic() < deadline:
                time.sleep(0.1)
            assert not any(_running(pid) for pid in workers)
        finally:
            parent.kill()
            for pid in workers:
                if _running(pid):
                    os.kill(pid, signal.SIGKILL)


# fmt: off
BLENDED = [("GEN", {"cohort": 1961}), ("YRS", {"cohort": 1990}), ("SEL", {}), ("GSEL", {"cohort": 1975}),
           ("IAM2012", {"cohort": 1950}), ("CSO2017", {}), ("CSO1980", {})]
# fmt: on


@pytest.mark.parametrize(("name", "keys"), BLENDED)
def test_blends_are_the_blended_tables_rates_without_a_table_per_weight(standard, name, keys):
    rng = np.random.default_rng(len(name))
    weights = [0.0, 1.0, 0.5, *rng.uniform(0.0, 1.0, 17)]  # all distinct
    oldest = 7 if name in standard else 100
    ages, durations = rng.integers(0, oldest, len(weights)), rng.integers(1, 4, len(weights))
    rows = [
        {"table_name": name, "sex": "u", "age": int(x), "duration": int(d), **keys, "unisex_blend": w}
        for x, d, w in zip(ages, durations, weights, strict=True)
    ]
    registry = TableRegistry(maxsize=1000)
    mark = next(decrement._table_instance_counter)
    result = project(pl.DataFrame(rows), 5, what=("qx",), registry=registry)
    # The male and the female table of every select column, whatever the number of weights.
    source = TableSource(name)
    assert built_since(mark) == 2 * ((source.select_period or 0) + 1) == len(registry)
    expected = [reference(row | {"cohort": keys.get("cohort")}, 5)["qx"] for row in rows]  # blended tables
    assert result["qx"].tobytes() == np.array(expected).tobytes()


BASE = {"table_name": ["SULT", "SSSM"], "sex": ["u", "u"], "age": [40, 50], "duration": [None, 1]}
GEN = {"table_name": ["SULT", "GEN"], "sex": ["u", "m"], "duration": [None, None]}
ONE = {"table_name": ["SULT", "SULT"], "sex": ["u", "u"], "age": [40, 50]}
DURATION = "column 'duration', row "

# fmt: off
BAD_POLICIES = [  # changes to BASE (None drops a column), the message
    ({"sex": None}, r"columns needed: 'sex';"),
    ({"age": None}, "columns needed: one of 'age' \\(at the start\\) and 'issue_age'"),
    ({"issue_age": [40, 50]}, "one of 'age' .* and 'issue_age' .*, not both"),
    ({"issue_year": [2000, 2000]}, "'issue_year' is the calendar year of issue and needs 'issue_age'"),
    ({"table_name": ["SULT", "NOPE"]}, "column 'table_name', row 1: unknown table 'NOPE'"),
    ({"decrement_multiplier": [1.5, 1.0]}, "unknown column 'decrement_multiplier'; the columns read"),
    ({"Age": [1, 2], "policy_id": [7, 8]}, "unknown columns 'Age', 'policy_id';"),
    ({"unisex_blend": [0.5, None], "table_name": ["SSSM", "SSSM"], "duration": [1, 1]},
     "row 0: table 'SSSM' cannot be built for sex 'u' with a unisex_blend .*'m'"),
    ({"sex": ["u", "x"]}, "column 'sex', row 1: 'x' is not one of"),
    ({"age": [40, -1]}, "column 'age', row 1: -1 is negative"),
    ({"age": [40.5, 50.0]}, "column 'age', row 0: 40.5 is not a whole number"),
    ({"age": [40.0, 1e300]}, r"column 'age', row 1: 1e\+300 is out of range"),
    ({"duration": pl.Series([None, 2**63], dtype=pl.UInt64)}, DURATION + "1: .* out of range"),
    ({"age": [None, 50]}, "column 'age', row 0: missing value"),
    ({"duration": [None, None]}, DURATION + "1: a select table needs a select duration"),
    ({"duration": [None, 0]}, DURATION + "1: 0 is below the table's first select duration 1"),
    ({"age": None, "issue_age": [40, 50], "duration": [0, 1]}, DURATION + "0: 0 is not a policy year"),
    ({"sex": ["m", "u"]}, "row 0: table 'SULT' cannot be built for sex 'm'"),
    ({"unisex_blend": [0.5, None], "sex": ["m", "u"]}, "column 'unisex_blend', row 0: a blend is only valid"),
    ({"unisex_blend": [None, 1.5]}, r"column 'unisex_blend', row 1: 1.5 is not in \[0.0, 1.0\]"),
    ({"table_name": [1, 2]}, "column 'table_name' must hold text"),
    (GEN | {"cohort": [None, None]}, "column 'cohort', row 1: a generational table needs a year of birth"),
    (GEN | {"age": None, "issue_age": [40, 2], "cohort": [None, 1960], "issue_year": [None, 1970]},
     "column 'cohort', row 1: 1960 disagrees with issue_year - issue_age = 1968"),
]
# pandas marks a missing text with NaN in an object column; a number there is no table name.
BAD_ARGUMENTS = [  # policies, keyword arguments, the exception, its message
    (BASE, {"years": 0}, ValueError, "years must be a whole number"),
    (BASE, {"what": ("qx", "ex")}, ValueError, "what must name one or more of"),
    (BASE, {"block_size": 0}, ValueError, "block_size must be a positive whole number"),
    ([1, 2, 3], {}, TypeError, "policies must be a polars or pandas DataFrame"),
    (BASE, {"workers": 2.5}, ValueError, "workers must be a positive whole number or None, got 2.5"),
    (MappingProxyType(BASE | {"age": [40]}), {}, ValueError, "policies: the columns do not make a frame"),
    (pd.DataFrame(ONE | {"table_name": ["SULT", None]}), {}, ValueError,
     "'table_name', row 1: missing value"),
    (pd.DataFrame(ONE | {"table_name": ["SULT", 5]}), {}, ValueError, "'table_name' mixes kinds of values"),
    (pd.DataFrame([["SULT", "u", 40, 41]], columns=[*ONE, "age"]), {}, ValueError, "column names repeat"),
]
# fmt: on


@pytest.mark.parametrize(("change", "message"), BAD_POLICIES)
def test_bad_policies_name_column_and_row(standard, change, message):
    columns = {**BASE, **change}
    frame = pl.DataFrame({k: v for k, v in columns.items() if v is not None}, strict=False)
    with pytest.raises(ValueError, match=message):
        project(frame, 3)


@pytest.mark.parametrize(("policies", "kwargs", "error", "message"), BAD_ARGUMENTS)
def test_bad_arguments(policies, kwargs, error, message):
    with pytest.raises(error, match=message):
        project(pl.DataFrame(policies) if isinstance(policies, dict) else policies, **{"years": 3, **kwargs})


def test_issue_age_and_issue_year_give_the_attained_age_and_cohort(standard):
    # The same policies described by the age and year at issue and by the attained age and year of birth.
    names, sexes = ["SSSM", "SSSM", "SULT", "SULT", "GEN"], ["u", "u", "u", "u", "m"]
    at_issue = pl.DataFrame(
        {"table_name": names, "sex": sexes, "issue_age": [40, 40, 40, 40, 2], "duration": [1, 3, 5, None, 4]}
    ).with_columns(issue_year=pl.Series([None, None, None, None, 1990]))
    at_start = pl.DataFrame(
        {"table_name": names, "sex": sexes, "age": [40, 42, 44, 40, 5], "duration": [1, 3, None, None, None]}
    ).with_columns(cohort=pl.Series([None, None, None, None, 1988]))
    by_issue = project(at_issue, 6, what=QUANTITIES)
    for other in (at_start, pd.DataFrame(at_issue.to_dict(as_series=False))):
        by_other = project(other, 6, what=QUANTITIES)
        assert all(by_issue[k].tobytes() == by_other[k].tobytes() for k in QUANTITIES)
