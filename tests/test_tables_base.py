"""Generational formulas against per-age loops and published cohort rates; the decimals view."""

from __future__ import annotations

import csv
import math
import pickle
import types
from pathlib import Path

import numpy as np
import pytest

from veltrane.config import Config
from veltrane.tables import base

RAW = Path(__file__).resolve().parents[2] / "shared" / "tables" / "raw" / "r-mortality-tables"
BASE_YEAR = 2000


def _loop_factor(name: str, lam: float, t: float) -> float:
    if name == "exponential":
        return math.exp(-lam * t)
    if name == "compound":
        return (1.0 - lam) ** t
    return math.exp(-lam * 100.0 * math.atan(t / 100.0))


def _loop_one_dimensional(name, q, lam, cohort, base_year):
    return [
        min(1.0, max(0.0, q[x] * _loop_factor(name, lam[x], cohort + x - base_year))) for x in range(len(q))
    ]


def _loop_two_dimensional(q, mi, cohort, base_year, grid):
    def rate(x, y):
        return next((mi[x][j] for j, g in enumerate(grid) if g >= y), mi[x][-1])

    out = []
    for x in range(len(q)):
        year, prod = cohort + x, 1.0
        for y in range(min(year, base_year) + 1, max(year, base_year) + 1):
            prod *= 1.0 - rate(x, y)
        value = q[x] * prod if year >= base_year else q[x] / prod
        out.append(min(1.0, max(0.0, value)))
    return out


@pytest.fixture
def rates():
    rng = np.random.default_rng(7)
    n = 61
    q = rng.uniform(0.0005, 0.4, n)
    q[[0, 30]] = 0.0  # zero rates must stay zero
    q[-1] = 0.95  # near certainty: back-projection pushes it past 1
    lam = rng.uniform(-0.02, 0.06, n)
    return q, lam, np.arange(n, dtype=np.float64)


@pytest.mark.parametrize("name", ["exponential", "compound", "exponential_damped"])
@pytest.mark.parametrize("cohort", [1800, 1939, 1970, 2000, 2050])
def test_one_dimensional_matches_loop(rates, name, cohort):
    q, lam, ages = rates
    q_before, lam_before = q.copy(), lam.copy()
    got = base._GENERATIONAL_FORMULA_TYPE_MAP[name](q, lam, ages, cohort, BASE_YEAR)
    np.testing.assert_allclose(got, _loop_one_dimensional(name, q, lam, cohort, BASE_YEAR), rtol=1e-12)
    assert got.dtype == np.float64 and got is not q
    assert ((got >= 0) & (got <= 1)).all() and (got[[0, 30]] == 0).all()
    np.testing.assert_array_equal(q, q_before)
    np.testing.assert_array_equal(lam, lam_before)


@pytest.mark.parametrize("name", ["exponential", "compound", "exponential_damped"])
def test_one_dimensional_clips_far_back_projection(name):
    q = np.array([0.0, 0.3, 0.9])
    got = base._GENERATIONAL_FORMULA_TYPE_MAP[name](q, np.full(3, 0.9), np.arange(3.0), 1000, BASE_YEAR)
    np.testing.assert_array_equal(got, [0.0, 1.0, 1.0])


@pytest.mark.parametrize(
    ("grid", "base_year", "cohort"),
    [
        (list(range(1995, 2011)), 2000, 1960),  # years before the grid: first column, flat
        (list(range(1995, 2011)), 2000, 1990),  # around the base year and past the grid
        (list(range(1995, 2011)), 2012, 1900),  # base year after the grid, all backwards
        ([1990, 2000, 2005, 2020], 2002, 1955),  # gaps: first grid year not earlier than y
        ([1990, 2000, 2005, 2020], 1985, 1975),
        ([2010], 2010, 1990),  # a single column acts as a one-dimensional scale
    ],
)
def test_projected_improvement_matches_loop(grid, base_year, cohort):
    rng = np.random.default_rng(11)
    q = rng.uniform(0.001, 0.5, 41)
    q[5] = 0.0
    mi = rng.uniform(-0.01, 0.04, (41, len(grid)))
    got = base._gen_projected_improvement(q, mi, cohort=cohort, base_year=base_year, grid_years=grid)
    np.testing.assert_allclose(got, _loop_two_dimensional(q, mi, cohort, base_year, grid), rtol=1e-12)
    assert got[5] == 0.0


@pytest.mark.parametrize(
    ("filename", "name", "base_year", "cohort", "columns"),
    [
        # 2012 IAM Period rates with Scale G2; spreadsheet columns for year of birth 2025.
        ("USA_Annuities_2012IAM.csv", "compound", 2012, 2025, ((3, 5, 8), (4, 6, 9))),
        # DAV 1994 R base rates (2000) with trend; spreadsheet columns for year of birth 1935.
        ("Germany_Annuities_DAV1994R.csv", "exponential", 2000, 1935, ((1, 3, 8), (2, 4, 9))),
    ],
)
def test_published_cohort_rates(filename, name, base_year, cohort, columns):
    path = RAW / filename
    if not path.exists():
        pytest.skip("shared tables absent")
    with path.open(encoding="utf-8") as fh:
        rows = [row for row in csv.reader(fh) if row and row[0].isdigit()]
    assert [int(r[0]) for r in rows] == list(range(len(rows)))
    for q_col, lam_col, cohort_col in columns:
        q, lam, want = (np.array([float(r[c]) for r in rows]) for c in (q_col, lam_col, cohort_col))
        got = base._GENERATIONAL_FORMULA_TYPE_MAP[name](
            q, lam, np.arange(len(rows), dtype=float), cohort, base_year
        )
        np.testing.assert_allclose(got, want, rtol=1e-12, atol=0)


def _ok():
    return np.full(3, 0.1), np.full(3, 0.01), np.arange(3.0)


@pytest.mark.parametrize("name", ["exponential", "compound", "exponential_damped"])
@pytest.mark.parametrize(
    ("args", "match"),
    [
        ((np.full(4, 0.1), np.full(3, 0.01), np.arange(3.0)), "equal lengths"),
        ((np.full(3, 0.1), np.full(3, 0.01), np.arange(4.0)), "equal lengths"),
        ((np.full((3, 1), 0.1), np.full(3, 0.01), np.arange(3.0)), "1-D"),
        ((np.array([0.1, np.nan, 0.1]), np.full(3, 0.01), np.arange(3.0)), "finite"),
    ],
)
def test_one_dimensional_rejects_bad_shapes(name, args, match):
    with pytest.raises(ValueError, match=match):
        base._GENERATIONAL_FORMULA_TYPE_MAP[name](*args, 1990, BASE_YEAR)


@pytest.mark.parametrize("cohort", [1990, 2010])  # forward and backward
def test_compound_rejects_improvement_of_one_or_more(cohort):
    q, _, ages = _ok()
    with pytest.raises(ValueError, match="below 1"):
        base._gen_compound(q, np.array([0.01, 1.0, 0.01]), ages, cohort, BASE_YEAR)


@pytest.mark.parametrize(
    ("mi", "grid", "match"),
    [
        (np.zeros((3, 2)), [], "empty"),
        (np.zeros((3, 2)), [2001, 2000], "ascending"),
        (np.zeros((3, 2)), [2000, 2000], "ascending"),
        (np.zeros((3, 3)), [2000, 2001], "shape"),
        (np.zeros((2, 2)), [2000, 2001], "shape"),
        (np.zeros(3), [2000], "2-D"),
        (np.array([[0.0, 0.0], [0.0, 1.0], [0.0, 0.0]]), [2000, 2001], "below 1"),
        (np.array([[0.0, 0.0], [0.0, np.nan], [0.0, 0.0]]), [2000, 2001], "finite"),
    ],
)
def test_projected_improvement_rejects(mi, grid, match):
    with pytest.raises(ValueError, match=match):
        base._gen_projected_improvement(np.full(3, 0.1), mi, cohort=2000, base_year=1999, grid_years=grid)


def test_projected_improvement_ignores_unused_years():
    # Improvement of 1 in years no age reaches must not fail the projection.
    mi = np.array([[0.01, 1.0]] * 3)
    got = base._gen_projected_improvement(
        np.full(3, 0.1), mi, cohort=1990, base_year=1992, grid_years=[1992, 2000]
    )
    np.testing.assert_allclose(got, [0.1 / 0.99**2, 0.1 / 0.99, 0.1])


def test_decimals_view_forwards_and_is_read_only():
    view = base._DecimalsConfig()
    with Config().override(decimals={"qx": 6, "lx": 3}):
        assert (view.qx, view.lx) == (6, 3)
        assert "qx=6" in repr(view)
    assert view.qx == Config().decimals.qx
    with pytest.raises(AttributeError, match=r"Config\(\)\.decimals\.qx"):
        view.qx = 4
    with pytest.raises(AttributeError):
        view.unknown  # noqa: B018
    assert set(dir(view)) == {"qx", "ix", "ox", "px", "tpx", "tqx", "lx", "dx"}
    assert pickle.loads(pickle.dumps(view)).qx == view.qx


def test_calendar_year_is_read_at_each_call(monkeypatch):
    fake = types.SimpleNamespace(date=types.SimpleNamespace(today=lambda: types.SimpleNamespace(year=2031)))
    real_year = base._current_calendar_year()
    monkeypatch.setattr(base, "datetime", fake)
    assert base._current_calendar_year() == 2031
    monkeypatch.undo()
    assert base._current_calendar_year() == real_year
