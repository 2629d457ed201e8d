"""Generational formulas against per-age loops and published cohort rates; the decimals view."""

from __future__ import annotations

import csv
import pickle

import numpy as np
import pytest

from conftest import RAW, improved, projected
from veltrane.config import Config
from veltrane.tables import base

BASE_YEAR = 2000


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
    np.testing.assert_allclose(got, improved(name, q, lam, cohort, BASE_YEAR), rtol=1e-12)
    assert got.dtype == np.float64 and got is not q
    assert ((got >= 0) & (got <= 1)).all() and (got[[0, 30]] == 0).all()
    np.testing.assert_array_equal(q, q_before)
    np.testing.assert_array_equal(lam, lam_before)


GRIDS = [
    (list(range(1995, 2011)), 2000, 1960),  # years before the grid: first column, flat
    (list(range(1995, 2011)), 2000, 1990),  # around the base year and past the grid
    (list(range(1995, 2011)), 2012, 1900),  # base year after the grid, all backwards
    ([1990, 2000, 2005, 2020], 2002, 1955),  # gaps: first grid year not earlier than y
    ([1990, 2000, 2005, 2020], 1985, 1975),
    ([2010], 2010, 1990),  # a single column acts as a one-dimensional scale
]


@pytest.mark.parametrize(("grid", "base_year", "cohort"), GRIDS)
def test_projected_improvement_matches_loop(grid, base_year, cohort):
    rng = np.random.default_rng(11)
    q = rng.uniform(0.001, 0.5, 41)
    q[5] = 0.0
    mi = rng.uniform(-0.01, 0.04, (41, len(grid)))
    got = base._gen_projected_improvement(q, mi, cohort=cohort, base_year=base_year, grid_years=grid)
    np.testing.assert_allclose(got, projected(q, mi, cohort, base_year, grid), rtol=1e-12)
    assert got[5] == 0.0


def test_published_cohort_rates():
    """DAV 1994 R base rates (2000) with trend; spreadsheet columns for year of birth 1935, both sexes."""
    path = RAW / "r-mortality-tables" / "Germany_Annuities_DAV1994R.csv"
    if not path.exists():
        pytest.skip("shared tables absent")
    with path.open(encoding="utf-8") as fh:
        rows = [row for row in csv.reader(fh) if row and row[0].isdigit()]
    assert [int(r[0]) for r in rows] == list(range(len(rows)))
    for q_col, lam_col, cohort_col in ((1, 3, 8), (2, 4, 9)):
        q, lam, want = (np.array([float(r[c]) for r in rows]) for c in (q_col, lam_col, cohort_col))
        got = base._gen_exponential(q, lam, np.arange(len(rows), dtype=float), 1935, 2000)
        np.testing.assert_allclose(got, want, rtol=1e-12, atol=0)


BAD_SHAPES = [
    ((np.full(4, 0.1), np.full(3, 0.01), np.arange(3.0)), "equal lengths"),
    ((np.full((3, 1), 0.1), np.full(3, 0.01), np.arange(3.0)), "1-D"),
    ((np.array([0.1, np.nan, 0.1]), np.full(3, 0.01), np.arange(3.0)), "finite"),
]


@pytest.mark.parametrize("name", ["exponential", "compound", "exponential_damped"])
@pytest.mark.parametrize(("args", "match"), BAD_SHAPES)
def test_one_dimensional_rejects_bad_shapes(name, args, match):
    with pytest.raises(ValueError, match=match):
        base._GENERATIONAL_FORMULA_TYPE_MAP[name](*args, 1990, BASE_YEAR)


@pytest.mark.parametrize("cohort", [1990, 2010])  # forward and backward
def test_compound_rejects_improvement_of_one_or_more(cohort):
    with pytest.raises(ValueError, match="below 1"):
        base._gen_compound(np.full(3, 0.1), np.array([0.01, 1.0, 0.01]), np.arange(3.0), cohort, BASE_YEAR)


BAD_GRIDS = [
    (np.zeros((3, 2)), [], "empty"),
    (np.zeros((3, 2)), [2001, 2000], "ascending"),
    (np.zeros((3, 2)), [2000, 2000], "ascending"),
    (np.zeros((3, 3)), [2000, 2001], "shape"),
    (np.zeros(3), [2000], "2-D"),
    (np.array([[0.0, 0.0], [0.0, 1.0], [0.0, 0.0]]), [2000, 2001], "below 1"),
    (np.array([[0.0, 0.0], [0.0, np.nan], [0.0, 0.0]]), [2000, 2001], "finite"),
]


@pytest.mark.parametrize(("mi", "grid", "match"), BAD_GRIDS)
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
        shown = "qx=6, ix=12, ox=12, px=12, tpx=12, tqx=12, lx=3, dx=9"
        assert repr(view) == f"<table decimals, read from Config().decimals: {shown}>"
    assert view.qx == Config().decimals.qx
    with pytest.raises(AttributeError, match=r"Config\(\)\.decimals\.qx"):
        view.qx = 4
    with pytest.raises(AttributeError):
        view.unknown  # noqa: B018
    assert pickle.loads(pickle.dumps(view)).qx == view.qx
