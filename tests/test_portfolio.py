"""Portfolio projections: select diagonals, grouping by table, blocks, processes, and bad input."""

from __future__ import annotations

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

CLASSES = {"LAPSE": ExitTable}


def reference_rates(row: dict, years: int) -> np.ndarray:
    """One policy, one table per year: the select column of duration d + k at age x + k."""
    cls = CLASSES.get(row["table_name"], LifeTable)
    source = TableSource(row["table_name"])
    keys = {}
    if source.generational:
        keys["cohort"] = row["cohort"]
    if row["sex"] == "u" and row.get("unisex_blend") is not None:
        keys["unisex_blend"] = row["unisex_blend"]
    out = []
    for k in range(years):
        if source.select:
            start = source.start_duration or 1
            d = row["duration"] + k
            keys["duration"] = d if d < start + source.select_period else "ult"
        table = cls(row["table_name"], row["sex"], **keys)
        age = row["age"] + k
        out.append(table._decrement[age] if age < len(table._decrement) else 1.0)
    return np.array(out)


@pytest.fixture
def book(standard, tables):
    """Forty policies over bundled and written tables of every structure."""
    tables.period("LAPSE", table_type="exit", prefix="ox")
    rng = np.random.default_rng(7)
    rows = []
    specs = [
        {"table_name": "SSSM", "sex": "u"},
        {"table_name": "SULT", "sex": "u"},
        {"table_name": "SEL", "sex": "m"},
        {"table_name": "SEL", "sex": "u", "unisex_blend": 0.25},
        {"table_name": "GSEL", "sex": "f"},
        {"table_name": "GEN", "sex": "m"},
        {"table_name": "GEN", "sex": "u", "unisex_blend": 0.6},
        {"table_name": "PER", "sex": "f"},
        {"table_name": "LAPSE", "sex": "m"},
    ]
    for i in range(45):
        spec = specs[i % len(specs)]
        bundled = spec["table_name"] in ("SSSM", "SULT")
        rows.append(
            {
                **spec,
                "age": int(rng.integers(20, 115) if bundled else rng.integers(0, 8)),
                "duration": int(rng.integers(1, 5)),
                "cohort": int(rng.integers(1940, 1990)),
            }
        )
    frame = pl.DataFrame(rows, schema_overrides={"unisex_blend": pl.Float64})
    return frame


def test_rates_follow_the_select_diagonal(book):
    years = 9
    result = project(book, years, what=QUANTITIES)
    expected = np.array([reference_rates(row, years) for row in book.iter_rows(named=True)])
    assert result["qx"].tobytes() == expected.tobytes()
    px = 1.0 - expected
    tpx = np.cumprod(px, axis=1)
    inforce = np.hstack([np.ones((len(book), 1)), tpx[:, :-1]])
    for name, value in {
        "px": px,
        "tpx": tpx,
        "tqx": 1.0 - tpx,
        "inforce": inforce,
        "dx": inforce * expected,
    }.items():
        assert np.array_equal(result[name], value), name
    frame = result.to_frame()
    assert frame.shape == (len(book) * years, 2 + len(QUANTITIES))
    assert frame.filter((pl.col("policy") == 3) & (pl.col("year") == 4))["qx"].item() == expected[3, 4]


def test_survival_matches_the_table_off_the_select_period():
    ages = np.array([20, 45, 64, 99, 110])
    frame = pl.DataFrame({"table_name": "SULT", "sex": "u", "age": ages})
    tpx = project(frame, 12, what="tpx")["tpx"]
    table = LifeTable("SULT", "u")
    for i, x in enumerate(ages):
        assert tpx[i] == pytest.approx([table.tpx(float(x), t) for t in range(1, 13)], rel=1e-9, abs=1e-10)


@pytest.mark.parametrize("block_size", [1, 4, 7, 1000])
def test_blocks_do_not_change_the_result(book, block_size):
    whole = project(book, 6, what=("qx", "dx"), block_size=10_000)
    part = project(book, 6, what=("qx", "dx"), block_size=block_size)
    assert all(whole[k].tobytes() == part[k].tobytes() for k in ("qx", "dx"))


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


def test_pandas_frames_and_issue_years(standard):
    polars_frame = pl.DataFrame(
        {
            "table_name": ["GEN", "GEN", "SSSM"],
            "sex": ["m", "f", "u"],
            "issue_age": [3, 5, 60],
            "duration": [None, None, 2],
        }
    )
    with_cohort = polars_frame.with_columns(cohort=pl.Series([1960, 1971, None]))
    with_year = polars_frame.with_columns(issue_year=pl.Series([1963, 1976, None]))
    a = project(with_cohort, 4)["qx"]
    assert np.array_equal(a, project(with_year, 4)["qx"])
    assert np.array_equal(a, project(pd.DataFrame(with_year.to_dict(as_series=False)), 4)["qx"])


def test_worker_processes_give_the_same_result(book, tables, monkeypatch):
    monkeypatch.setenv("VELTRANE_TABLES_PATH", str(tables.directory))
    alone = project(book, 5, what=("qx", "tpx"))
    pooled = project(book, 5, what=("qx", "tpx"), block_size=10, workers=2)
    assert all(alone[k].tobytes() == pooled[k].tobytes() for k in ("qx", "tpx"))


BASE = {"table_name": ["SULT", "SSSM"], "sex": ["u", "u"], "age": [40, 50], "duration": [None, 1]}


@pytest.mark.parametrize(
    ("change", "message"),
    [
        ({"sex": None}, r"columns needed: 'sex';"),
        ({"age": None}, "columns needed: one of 'age' \\(at the start\\) and 'issue_age'"),
        ({"issue_age": [40, 50]}, "one of 'age' .* and 'issue_age' .*, not both"),
        ({"issue_year": [2000, 2000]}, "'issue_year' is the calendar year of issue and needs 'issue_age'"),
        ({"table_name": ["SULT", "NOPE"]}, "column 'table_name', row 1: unknown table 'NOPE'"),
        ({"sex": ["u", "x"]}, "column 'sex', row 1: 'x' is not one of"),
        ({"age": [40, -1]}, "column 'age', row 1: -1 is negative"),
        ({"age": [40.5, 50.0]}, "column 'age', row 0: 40.5 is not a whole number"),
        ({"age": [None, 50]}, "column 'age', row 0: missing value"),
        ({"duration": [None, None]}, "column 'duration', row 1: a select table needs a select duration"),
        ({"duration": [None, 0]}, "column 'duration', row 1: 0 is below the table's first select duration 1"),
        ({"sex": ["m", "u"]}, "row 0: table 'SULT' cannot be built for sex 'm'"),
        (
            {"unisex_blend": [0.5, None], "sex": ["m", "u"]},
            "column 'unisex_blend', row 0: a blend is only valid",
        ),
        ({"unisex_blend": [None, 1.5]}, r"column 'unisex_blend', row 1: 1.5 is not in \[0.0, 1.0\]"),
        ({"table_name": [1, 2]}, "column 'table_name' must hold text"),
    ],
)
def test_bad_policies_name_column_and_row(change, message):
    columns = {**BASE, **change}
    frame = pl.DataFrame({k: v for k, v in columns.items() if v is not None}, strict=False)
    with pytest.raises(ValueError, match=message):
        project(frame, 3)


def test_generational_policies_need_a_cohort(standard):
    frame = pl.DataFrame(
        {"table_name": ["PER", "GEN"], "sex": ["m", "m"], "issue_age": [1, 2], "cohort": [None, None]}
    )
    with pytest.raises(
        ValueError, match="column 'cohort', row 1: a generational table needs a year of birth"
    ):
        project(frame, 3)
    clash = frame.with_columns(cohort=pl.Series([None, 1960]), issue_year=pl.Series([None, 1970]))
    with pytest.raises(
        ValueError, match="column 'cohort', row 1: 1960 disagrees with issue_year - issue_age = 1968"
    ):
        project(clash, 3)


@pytest.mark.parametrize(
    ("kwargs", "message"),
    [
        ({"years": 0}, "years must be a whole number"),
        ({"what": ("qx", "ex")}, "what must name one or more of"),
        ({"block_size": 0}, "block_size must be a positive whole number"),
    ],
)
def test_bad_arguments(kwargs, message):
    frame = pl.DataFrame(BASE)
    with pytest.raises(ValueError, match=message):
        project(frame, **{"years": 3, **kwargs})


def test_not_a_frame_is_refused():
    with pytest.raises(TypeError, match="policies must be a polars or pandas DataFrame"):
        project([1, 2, 3], 3)


def test_issue_age_adds_the_years_since_issue(standard):
    # The same four policies described by the age at issue and by the attained age at the start.
    at_issue = pl.DataFrame(
        {
            "table_name": ["SSSM", "SSSM", "SULT", "SULT", "GEN"],
            "sex": ["u", "u", "u", "u", "m"],
            "issue_age": [40, 40, 40, 40, 2],
            "duration": [1, 3, 5, None, 4],
            "issue_year": [None, None, None, None, 1990],
        }
    )
    at_start = pl.DataFrame(
        {
            "table_name": ["SSSM", "SSSM", "SULT", "SULT", "GEN"],
            "sex": ["u", "u", "u", "u", "m"],
            "age": [40, 42, 44, 40, 5],
            "duration": [1, 3, None, None, None],
            "cohort": [None, None, None, None, 1988],
        }
    )
    by_issue, by_start = project(at_issue, 6, what=QUANTITIES), project(at_start, 6, what=QUANTITIES)
    assert all(by_issue[k].tobytes() == by_start[k].tobytes() for k in QUANTITIES)
    early = at_issue.with_columns(duration=pl.Series([1, 3, 0, None, 4]))
    with pytest.raises(ValueError, match="column 'duration', row 2: 0 is not a policy year"):
        project(early, 3)
