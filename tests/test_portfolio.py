"""Portfolio projections: select diagonals, grouping by table, blocks, processes, and bad input."""

from __future__ import annotations

from types import MappingProxyType

import numpy as np
import pandas as pd
import polars as pl
import pytest

from veltrane import TableRegistry
from veltrane.portfolio import QUANTITIES, project
from veltrane.tables import decrement
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource


def reference_rates(row: dict, years: int) -> np.ndarray:
    """One policy, one table per year: the select column of duration d + k at age x + k."""
    cls, source = ExitTable if row["table_name"] == "LAPSE" else LifeTable, TableSource(row["table_name"])
    keys = {"cohort": row["cohort"]} if source.generational else {}
    if row["sex"] == "u" and row.get("unisex_blend") is not None:
        keys["unisex_blend"] = row["unisex_blend"]
    out = []
    for k in range(years):
        if source.select:
            d, start = row["duration"] + k, source.start_duration or 1
            keys["duration"] = d if d < start + source.select_period else "ult"
        table, age = cls(row["table_name"], row["sex"], **keys), row["age"] + k
        out.append(table._decrement[age] if age < table.w else 1.0)  # the table's qx is 1 at w
    return np.array(out)


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


def test_rates_follow_the_select_diagonal(book):
    years = 9
    result = project(book, years, what=QUANTITIES)
    expected = np.array([reference_rates(row, years) for row in book.iter_rows(named=True)])
    assert result["qx"].tobytes() == expected.tobytes()
    px = 1.0 - expected
    tpx = np.cumprod(px, axis=1)
    inforce = np.hstack([np.ones((len(book), 1)), tpx[:, :-1]])
    want = {"px": px, "tpx": tpx, "tqx": 1.0 - tpx, "inforce": inforce, "dx": inforce * expected}
    for name, value in want.items():
        assert np.array_equal(result[name], value), name
    frame = result.to_frame()
    assert frame.shape == (len(book) * years, 2 + len(QUANTITIES))
    assert frame.filter((pl.col("policy") == 3) & (pl.col("year") == 4))["qx"].item() == expected[3, 4]


@pytest.mark.parametrize(("block_size", "workers"), [(1, None), (4, None), (7, None), (1000, None), (10, 2)])
def test_blocks_and_worker_processes_do_not_change_the_result(book, tables, monkeypatch, block_size, workers):
    monkeypatch.setenv("VELTRANE_TABLES_PATH", str(tables.directory))
    whole = project(book, 6, what=("qx", "tpx", "dx"), block_size=10_000)
    part = project(book, 6, what=("qx", "tpx", "dx"), block_size=block_size, workers=workers)
    assert all(whole[k].tobytes() == part[k].tobytes() for k in ("qx", "tpx", "dx"))


def test_a_sample_of_bundled_policies_follows_the_diagonals():
    rng = np.random.default_rng(11)
    specs = [("SULT", "u"), ("SSSM", "u"), ("IAM2012", "f"), ("CSO2017", "m"), ("RP2014HA", "m")]
    specs += [("VBT2015UM", "m")]  # its file gives q = 0.5 at the last age, where qx is 1
    rows = [
        {"table_name": n, "sex": s, "age": int(rng.integers(20, 124)), "duration": int(rng.integers(1, 30))}
        for n, s in specs * 6
    ]
    result = project(pl.DataFrame(rows).with_columns(cohort=pl.lit(1950)), 8, what=("qx",))
    expected = [reference_rates(row | {"cohort": 1950}, 8) for row in rows]
    assert result["qx"].tobytes() == np.array(expected).tobytes()


def built_since(mark: int) -> int:
    """Tables constructed since ``mark`` (one id is drawn per table; this call draws one too)."""
    return next(decrement._table_instance_counter) - mark - 1


def test_each_distinct_table_is_built_once(book):
    # A select table needs one table per select column and one for the ultimate column.
    columns = {"SSSM": 3, "SEL": 3, "GSEL": 3}
    distinct = book.with_columns(
        cohort=pl.when(pl.col("table_name").is_in(["GEN", "GSEL"])).then(pl.col("cohort"))
    ).unique(["table_name", "sex", "cohort", "unisex_blend"])
    expected = sum(columns.get(name, 1) for name in distinct["table_name"])
    registry = TableRegistry(maxsize=1000)
    mark = next(decrement._table_instance_counter)
    project(book, 3, registry=registry)
    assert built_since(mark) == expected == len(registry)
    mark = next(decrement._table_instance_counter)
    project(book, 3, registry=registry)  # a second batch on the same registry builds nothing
    assert built_since(mark) == 0


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
    (BASE, {"workers": 0}, ValueError, "workers must be a positive whole number or None, got 0"),
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
