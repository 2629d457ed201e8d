"""Period views: the rates of one calendar year, age x from the cohort born in year - x."""

from __future__ import annotations

import numpy as np
import pytest

from conftest import exactly, improved
from veltrane.tables import period_rates
from veltrane.tables.life import LifeTable


def cohort_diagonal(name, sex, year, **keys):
    """Row x of the table built for the cohort year - x, one table per age."""
    return np.array([LifeTable(name, sex, cohort=year - x, **keys)._decrement_base[x] for x in range(8)])


@pytest.mark.parametrize(
    ("name", "sex", "keys"),
    [
        ("GEN", "m", {}),
        ("GEN", "f", {}),
        ("YRS", "m", {}),
        ("GSEL", "f", {"duration": 1}),
        ("GSEL", "m", {"duration": "ult"}),
    ],
)
def test_each_age_reads_its_own_cohort(standard, name, sex, keys):
    want = np.round(cohort_diagonal(name, sex, 1995, **keys), 12)
    np.testing.assert_array_equal(period_rates(name, sex, 1995, **keys), want)


def test_years_beyond_the_constructors_cohorts(standard):
    cols = standard["GEN"]
    got = period_rates("GEN", "m", 2150)
    want = [improved("exponential", cols["qx_m"], cols["mi_m"], 2150 - x, 2000)[x] for x in range(8)]
    np.testing.assert_array_equal(got, np.round(want, 12))


def test_blends_project_each_sex_first(standard):
    m, f = period_rates("GEN", "m", 2040), period_rates("GEN", "f", 2040)
    got = period_rates("GEN", "u", 2040, unisex_blend=0.3)
    np.testing.assert_array_equal(got, np.round(np.clip(0.3 * m + 0.7 * f, 0, 1), 12))


def test_the_table_is_left_as_it_was(standard):
    t = LifeTable("GEN", "m", cohort=1960)
    base, rates = t._decrement_base, t._decrement
    t._period_decrement(2100)
    assert t.cohort == 1960 and t._decrement_base is base and t._decrement is rates


@pytest.mark.parametrize(
    ("call", "exc", "message"),
    [
        (
            lambda: period_rates("PER", "m", 2000),
            ValueError,
            "Table 'PER' is not generational: its rates are the same in every year.",
        ),
        (
            lambda: period_rates("GEN", "m", 2000, duration=1),
            ValueError,
            "duration is only valid for select tables. Table 'GEN' is not a select table.",
        ),
        (lambda: period_rates("GEN", "m", 2000.0), TypeError, "year must be int, got float"),
        (lambda: period_rates("GEN", "m", True), TypeError, "year must be int, got bool"),
        (
            lambda: period_rates("GEN", "m", 10**20),
            ValueError,
            "year must be between 1000 and 3000, got 100000000000000000000",
        ),
    ],
)
def test_refusals(standard, call, exc, message):
    with exactly(exc, message):
        call()
