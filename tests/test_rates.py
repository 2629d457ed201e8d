"""Rate construction: base vectors of every table structure against NumPy, lx, and unisex blends."""

from __future__ import annotations

import numpy as np
import pytest

from conftest import TableWriter, exactly, improved, projected
from veltrane.config import Config
from veltrane.tables import base, decrement
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource

YEAR = base._current_calendar_year()
AGES = np.arange(8, dtype=np.float64)


def year_column(grid, cohort):
    """Index of the grid column each age uses: first grid year not before its (clamped) calendar year."""
    years = np.clip(cohort + AGES.astype(np.int64), grid[0], grid[-1])
    return np.searchsorted(np.asarray(grid, dtype=np.int64), years, side="left")


# -- period and generational tables ----------------------------------------------------------------


@pytest.mark.parametrize("formula", ["exponential", "compound"])
@pytest.mark.parametrize("cohort", [1900, 1955, YEAR])
def test_flat_improvement(tables, formula, cohort):
    cols = tables.flat(formula=formula, base_year=1990)
    for sex in "mf":
        got = LifeTable("GEN", sex, cohort=cohort)._decrement_base
        want = improved(formula, cols[f"qx_{sex}"], cols[f"mi_{sex}"], cohort, 1990)
        np.testing.assert_allclose(got, want, rtol=1e-13, atol=0)


@pytest.mark.parametrize("cohort", [1950, 1999, 2015])
def test_projected_improvement(tables, cohort):
    grid = (2000, 2010, 2020)
    cols = tables.year_indexed("PROJ", formula="projected_improvement", grid=grid)
    for sex in "mf":
        matrix = np.column_stack([cols[f"mi_{sex}_{y}"] for y in grid])
        want = projected(cols[f"qx_{sex}"], matrix, cohort, 2005, grid)
        np.testing.assert_allclose(
            LifeTable("PROJ", sex, cohort=cohort)._decrement_base, want, rtol=1e-12, atol=0
        )


@pytest.mark.parametrize("born", [1990, 1997, 2008, 2018])  # before, into, across and after the grid
def test_formula_receives_the_documented_arguments(tables, monkeypatch, born):
    """Base rates, improvement by age (its year's column, -0.0 made +0.0 where q is 0), ages, cohort, year."""
    calls = []

    def spy(q, lam, ages, cohort, base_year):
        calls.append((q.copy(), lam.copy(), ages.copy(), cohort, base_year))
        return q * 0.5

    monkeypatch.setitem(base._GENERATIONAL_FORMULA_TYPE_MAP, "spy", spy)
    grid = (2000, 2010, 2020)
    cols = tables.year_indexed(formula="spy", grid=grid)
    for sex in "mf":
        cols[f"qx_{sex}"][2] = 0.0
        for y in grid:
            cols[f"mi_{sex}_{y}"][2] = -0.0
    tables.write("YRS", TableSource("YRS").metadata, cols)
    for sex in "mf":
        got = LifeTable("YRS", sex, cohort=born)._decrement_base
        ((q_in, lam, ages, cohort, base_year),) = calls  # one call per table
        calls.clear()
        np.testing.assert_array_equal(got, cols[f"qx_{sex}"] * 0.5)
        np.testing.assert_array_equal(q_in, cols[f"qx_{sex}"])
        mi = np.column_stack([cols[f"mi_{sex}_{y}"] for y in grid])
        np.testing.assert_array_equal(lam, mi[np.arange(8), year_column(grid, born)])
        assert not np.signbit(lam[2]) and ages.dtype == np.float64
        np.testing.assert_array_equal(ages, AGES)
        assert (cohort, base_year) == (born, 2005) and type(cohort) is int


# -- select tables -----------------------------------------------------------------------------------


SELECT_COLUMNS = [(1, 1, "s1"), (1, 2, "s2"), (1, 3, "ult"), (1, 40, "ult"), (1, "ult", "ult"),
                  (0, 0, "s0"), (0, 1, "s1"), (0, 2, "ult")]  # fmt: skip


@pytest.mark.parametrize(("start", "duration", "suffix"), SELECT_COLUMNS)
def test_select_columns(tables, start, duration, suffix):
    cols = tables.select(start=start)
    t = LifeTable("SEL", "f", duration=duration)
    np.testing.assert_array_equal(t._decrement_base, cols[f"qx_f_{suffix}"])


@pytest.mark.parametrize(("duration", "suffix"), [(1, "s1"), (2, "s2"), (3, "ult"), ("ult", "ult")])
def test_select_improvement_by_duration(tables, duration, suffix):
    cols = tables.select("GSEL", generational="exponential")
    t = LifeTable("GSEL", "m", cohort=1960, duration=duration)
    want = improved("exponential", cols[f"qx_m_{suffix}"], cols[f"mi_m_{suffix}"], 1960, 2000)
    np.testing.assert_allclose(t._decrement_base, want, rtol=1e-13, atol=0)
    with exactly(ValueError, "duration 0 is below start_duration=1 for table 'GSEL'."):
        t._get_select_col("m", 0)


# -- what the rate construction refuses ------------------------------------------------------------

SELECT_GEN = ("qx_m_s1", "qx_m_s2", "qx_m_ult", "mi_m_s1", "mi_m_s2", "mi_m_ult")
YEARS = {"base_year": 2000, "mi_structure": "year_indexed"}
BUILD_REFUSALS = [
    ({"formula_type": "compound"}, None, ("qx_m", "mi_m"), "base_year metadata missing in table 'BAD'."),
    ({}, None, ("qx_m", "mi_m"), "generational_formula_type metadata missing in table 'BAD'."),  # asked first
    # A select table asks for the base year first.
    ({"mi_structure": "select_period"}, 2, SELECT_GEN, "base_year metadata missing in table 'BAD'."),
    ({"formula_type": "bogus", "base_year": 2000}, None, ("qx_m", "mi_m"),
     "Unknown or unsupported generational_formula_type 'bogus' in table 'BAD'"),
    ({"formula_type": "bogus", **YEARS, "grid_years": [2000]}, None, ("qx_m", "mi_m_2000"),
     "Unknown generational_formula_type 'bogus' in table 'BAD'."),
    ({"formula_type": "compound", **YEARS}, None, ("qx_m",),
     "Table 'BAD': year_indexed mi_structure requires grid_years metadata."),
    ({"formula_type": "projected_improvement", "base_year": 2000}, None, ("qx_m", "mi_m"),
     "Table 'BAD': projected_improvement requires year-indexed mi_{sex}_YYYY columns but none found."),
]  # fmt: skip


@pytest.mark.parametrize(("generational", "select", "columns", "message"), BUILD_REFUSALS)
def test_rate_construction_refuses(tables, generational, select, columns, message):
    meta: dict = {"table_type": "life", "sexes": ["m"], "generational": generational}
    if select is not None:
        meta["select"] = {"period": select}
    tables.write("BAD", meta, {c: tables.rates(0.0, 0.0) for c in columns})
    with exactly(ValueError, message):
        LifeTable("BAD", "m", cohort=1970, duration=select)


BETWEEN = (ValueError, f"Cohort year must be between 1900 and {YEAR}.")
NOT_INT = (ValueError, "Cohort year must be an integer.")
COHORTS = [(1900, 1900), (YEAR, YEAR), (np.int64(1970), 1970), (1899, BETWEEN), (YEAR + 1, BETWEEN),
           (2**70, BETWEEN), (True, (TypeError, "cohort must be int, got bool")), (np.True_, NOT_INT),
           (1970.0, NOT_INT), ("1970", NOT_INT)]  # fmt: skip


@pytest.mark.parametrize(("value", "result"), COHORTS)
def test_cohort_year_validation(value, result):
    t = LifeTable("SULT", "u")
    if isinstance(result, tuple):
        with exactly(*result):
            t._validate_cohort_year(value)
    else:
        got = t._validate_cohort_year(value)
        assert got == result and type(got) is int


# -- unisex blends -----------------------------------------------------------------------------------


@pytest.mark.parametrize("weight", [1.0, 0.0, 0.3, 1])
def test_static_blend(tables, weight):
    cols = tables.period()
    with Config().override(decimals={"qx": 4}):
        t = LifeTable("PER", "u", unisex_blend=weight)
        m, f = np.round(cols["qx_m"], 4), np.round(cols["qx_f"], 4)
    want = m if weight == 1.0 else f if weight == 0.0 else np.clip(weight * m + (1.0 - weight) * f, 0.0, 1.0)
    np.testing.assert_array_equal(t._decrement_base, want)
    assert t.unisex_blend == weight and type(t.unisex_blend) is float
    # The shared source is left alone: the blend lives in this table's own copy.
    shared = TableSource("PER")
    assert t._table_is_private_copy and t.table is not shared
    assert "qx_u" not in shared.data.columns and shared.valid_sexes == ["m", "f"]


def test_reblend(tables):
    cols = tables.period()
    t = LifeTable("PER", "u", unisex_blend=0.2)
    copy_of_source = t.table
    t._decrement[0], t._modified = 0.9, True
    t.unisex_blend = np.float64(0.6)
    want = np.clip(0.6 * np.round(cols["qx_m"], 12) + 0.4 * np.round(cols["qx_f"], 12), 0.0, 1.0)
    np.testing.assert_array_equal(t._decrement, want)
    assert not t.modified and t._rebuilds_since_calc == 1 and t.table is copy_of_source
    assert t.valid_sexes == ["f", "m", "u"] and t.data.columns.count("qx_u") == 1
    t.unisex_blend = 0.6
    assert t._rebuilds_since_calc == 1
    np.testing.assert_array_equal(t.data["qx_u"].to_numpy(), want)


def test_blend_overrides_native_unisex_column(tables):
    q = tables.period("NAT", sexes=("m", "f", "u"))
    np.testing.assert_array_equal(LifeTable("NAT", "u")._decrement_base, q["qx_u"])
    blended = LifeTable("NAT", "u", unisex_blend=1.0)._decrement_base
    np.testing.assert_array_equal(blended, np.round(q["qx_m"], 12))
    missing = "Cannot generate unisex rates: table 'SULT' is missing required columns 'qx_m' and/or 'qx_f'"
    with exactly(ValueError, missing):
        LifeTable("SULT", "u", unisex_blend=0.5)


def test_generational_blend_projects_each_sex_first(tables):
    cols = tables.flat(formula="compound")
    t = LifeTable("GEN", "u", cohort=1970, unisex_blend=0.3)
    cache = decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX
    keys = [("GEN", "m", 1970, "compound", None), ("GEN", "f", 1970, "compound", None)]
    assert list(cache) == keys
    qm, qf = (improved("compound", cols[f"qx_{s}"], cols[f"mi_{s}"], 1970, 2000) for s in "mf")
    np.testing.assert_allclose(cache[keys[0]], qm, rtol=1e-13)
    want = np.clip(0.3 * np.round(cache[keys[0]], 12) + 0.7 * np.round(cache[keys[1]], 12), 0.0, 1.0)
    np.testing.assert_array_equal(t._decrement_base, want)
    t.cohort = 1980  # the blend follows the cohort
    qm, qf = (improved("compound", cols[f"qx_{s}"], cols[f"mi_{s}"], 1980, 2000) for s in "mf")
    np.testing.assert_allclose(t._decrement_base, 0.3 * qm + 0.7 * qf, rtol=1e-11)
    assert len(cache) == 4


def test_select_blend_follows_the_duration(tables):
    tables.select("GSEL", generational="compound")
    t = LifeTable("GSEL", "u", cohort=1970, duration=1, unisex_blend=0.4)
    for duration in (2, 5, "ult", 1):
        t.duration = duration
        m, f = (LifeTable("GSEL", s, cohort=1970, duration=duration)._decrement_base for s in "mf")
        np.testing.assert_array_equal(t._decrement_base, 0.4 * np.round(m, 12) + 0.6 * np.round(f, 12))
    assert ("GSEL", "m", 1970, "compound", 2) in decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX


def test_unisex_cache_is_first_in_first_out(tables):
    tables.flat()
    cache = decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX
    for i in range(decrement._COHORT_ADJUSTED_QX_CACHE_MAX):
        cache[("filler", i)] = np.zeros(8)
    LifeTable("GEN", "u", cohort=1970, unisex_blend=0.5)
    assert len(cache) == 256 and ("filler", 0) not in cache and ("filler", 1) not in cache
    order = list(cache)
    LifeTable("GEN", "u", cohort=1970, unisex_blend=0.7)  # hits neither move nor refresh
    assert list(cache) == order and order[-2:] == [("GEN", s, 1970, "exponential", None) for s in "mf"]


def blend_of(name: str, w: float, **keys) -> np.ndarray:
    return LifeTable(name, "u", unisex_blend=w, **keys)._decrement_base


def single_sex_blend(name: str, w: float, **keys) -> np.ndarray:
    m, f = (np.round(LifeTable(name, s, **keys)._decrement_base, 12) for s in "mf")
    return np.clip(w * m + (1.0 - w) * f, 0.0, 1.0)


def test_unisex_entries_outlive_other_names_and_search_paths(tables, tmp_path):
    TableSource.clear_cache()
    blend_of("DAV2004R", 0.5, cohort=1960)
    cache = decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX
    kept = list(cache)
    assert [k[0] for k in kept] == ["DAV2004R", "DAV2004R"]
    LifeTable("SULT", "u")  # the first load of another name
    tables.flat()
    blend_of("GEN", 0.5, cohort=1960)
    with Config().override(tables_path=[tmp_path / "elsewhere"]):
        blend_of("DAV2004R", 0.3, cohort=1960)  # the same file through another search path
    TableSource.clear_cache()  # read again: the same data
    blend_of("DAV2004R", 0.7, cohort=1960)
    assert list(cache)[:2] == kept and len(cache) == 4


def test_a_name_that_finds_other_data_drops_its_own_unisex_entries_only(tables, tmp_path):
    tables.flat()
    tables.flat("OTHER")
    shadow = TableWriter(tmp_path / "shadow")
    shadow.rng = np.random.default_rng(7)  # other rates under the same name, formula and keys
    shadow.flat()
    outer = blend_of("GEN", 0.5, cohort=1970)
    blend_of("OTHER", 0.5, cohort=1970)
    cache = decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX
    others = [k for k in cache if k[0] == "OTHER"]
    with Config().override(tables_path=[shadow.directory, tables.directory]):
        np.testing.assert_array_equal(
            blend_of("GEN", 0.5, cohort=1970), single_sex_blend("GEN", 0.5, cohort=1970)
        )
    np.testing.assert_array_equal(blend_of("GEN", 0.5, cohort=1970), outer)  # the outer file's rates again
    tables.flat("OTHER")  # rewritten
    assert [k for k in cache if k[0] == "OTHER"] == [] and len(cache) == 2
    np.testing.assert_array_equal(
        blend_of("OTHER", 0.5, cohort=1970), single_sex_blend("OTHER", 0.5, cohort=1970)
    )
    assert others == [k for k in cache if k[0] == "OTHER"]
