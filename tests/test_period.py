"""Period views: the rates of one calendar year, age x from the cohort born in year - x."""

from __future__ import annotations

import numpy as np
import pytest

from conftest import exactly, improved
from veltrane.tables import period_rates
from veltrane.tables.life import LifeTable


@pytest.mark.parametrize(
    ("name", "sex", "duration"),
    [("GEN", "f", None), ("YRS", "m", None), ("GSEL", "f", 1), ("GSEL", "m", "ult")],
)
def test_each_age_reads_its_own_cohort(standard, name, sex, duration):
    keys = {} if duration is None else {"duration": duration}
    # Row x of the table built for the cohort 1995 - x, one table per age.
    want = [LifeTable(name, sex, cohort=1995 - x, **keys)._decrement_base[x] for x in range(8)]
    np.testing.assert_array_equal(period_rates(name, sex, 1995, **keys), np.round(want, 12))


def test_years_beyond_the_constructors_cohorts_and_blends(standard):
    cols = standard["GEN"]
    want = [improved("exponential", cols["qx_m"], cols["mi_m"], 2150 - x, 2000)[x] for x in range(8)]
    np.testing.assert_array_equal(period_rates("GEN", "m", 2150), np.round(want, 12))
    # A blend projects each sex first.
    m, f = period_rates("GEN", "m", 2040), period_rates("GEN", "f", 2040)
    got = period_rates("GEN", "u", 2040, unisex_blend=0.3)
    np.testing.assert_array_equal(got, np.round(np.clip(0.3 * m + 0.7 * f, 0, 1), 12))


def test_the_table_is_left_as_it_was(standard):
    t = LifeTable("GEN", "m", cohort=1960)
    base, rates = t._decrement_base, t._decrement
    t._period_decrement(2100)
    assert t.cohort == 1960 and t._decrement_base is base and t._decrement is rates


@pytest.mark.parametrize(
    ("name", "sex", "keys", "column"),
    [("PER", "m", {}, "qx_m"), ("SEL", "f", {"duration": 2}, "qx_f_s2"), ("SEL", "m", {}, "qx_m_ult")],
)
def test_a_period_table_has_the_same_rates_in_every_year(standard, name, sex, keys, column):
    for year in (1000, 2024, 3000):
        np.testing.assert_array_equal(
            period_rates(name, sex, year, **keys), np.round(standard[name][column], 12)
        )
    blend = period_rates("PER", "u", 1990, unisex_blend=0.25)
    np.testing.assert_array_equal(blend, LifeTable("PER", "u", unisex_blend=0.25).qx(np.arange(8.0)))


NOT_SELECT = "duration is only valid for select tables. Table 'GEN' is not a select table."


@pytest.mark.parametrize(("name", "year", "duration", "exc", "message"), [
    ("GEN", 2000, 1, ValueError, NOT_SELECT), ("PER", 2000.0, None, TypeError, "year must be int, got float"),
    ("PER", 999, None, ValueError, "year must be between 1000 and 3000, got 999"),
    ("GEN", 2000.0, None, TypeError, "year must be int, got float"),
    ("GEN", True, None, TypeError, "year must be int, got bool"),
    ("GEN", 10**20, None, ValueError, "year must be between 1000 and 3000, got 100000000000000000000"),
])  # fmt: skip
def test_refusals(standard, name, year, duration, exc, message):
    with exactly(exc, message):
        period_rates(name, "m", year, **({} if duration is None else {"duration": duration}))
