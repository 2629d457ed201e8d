"""The hyperbolic (Balducci) interpolation of l: the setting, l and the probabilities at fractional ages.

Hand values come from a table with simple rates, q = 0.1, 0.2, 0.5, 1 (l = 1, 0.9, 0.72, 0.36 in
millions), and from Balducci's identities: t p x = p / (1 - (1 - t) q) and the rate over the rest
of the year from x + t, (1 - t) q.
"""

from __future__ import annotations

import numpy as np
import pytest

from conftest import exactly
from veltrane.config import LX_INTERPOLATIONS, Config
from veltrane.tables import decrement
from veltrane.tables.life import LifeTable


@pytest.fixture
def balducci():
    with Config().override(lx_interpolation="hyperbolic"):
        yield


def test_setting_accepts_hyperbolic_and_lists_all_three():
    with Config():
        Config().lx_interpolation = "hyperbolic"
        assert Config().lx_interpolation == "hyperbolic"
    with exactly(ValueError, f"lx_interpolation must be one of {list(LX_INTERPOLATIONS)}, got 'udd'"):
        Config().lx_interpolation = "udd"
    assert Config().lx_interpolation == "linear"


@pytest.mark.parametrize(
    ("call", "expected"),
    [
        (lambda t: t.lx(0.5), 1e6 * 0.9 / 0.95),  # l(x) p / (p + t q)
        (lambda t: t.lx(2.5), 480_000.0),
        (lambda t: t.tpx(0, 0.5), 0.9 / 0.95),  # p / (1 - (1 - t) q)
        (lambda t: t.tqx(0.25, 0.75), 0.075),  # (1 - t) q for the rest of the year
        (lambda t: t.tpx(1.5, 1.0), 0.6),  # across a birthday: 480,000 / 800,000
        (lambda t: t.qx(0, m=4), 1 - 0.9 / (1 - 0.75 * 0.1)),
        (lambda t: t.dx(0.5), 1e6 * 0.9 / 0.95 - 800_000.0),
    ],
)
def test_hand_values(tables, balducci, call, expected):
    tables.write("HAND", {"table_type": "life", "sexes": ["u"]}, {"qx_u": [0.1, 0.2, 0.5, 1.0]})
    assert call(LifeTable("HAND", "u")) == pytest.approx(expected, rel=1e-11, abs=1e-12)


def test_sult_against_the_formula(balducci):
    t = LifeTable("SULT", "u")
    lives = t.lx()
    ages = np.array([20.25, 50.5, 65.75, 119.5])
    lo, hi, f = lives[ages.astype(int)], lives[ages.astype(int) + 1], ages % 1
    np.testing.assert_allclose(t._lx_at(ages), 1.0 / ((1.0 - f) / lo + f / hi), rtol=1e-14)
    np.testing.assert_array_equal(t.lx(ages), np.round(t._lx_at(ages), 9))
    routine = decrement.DecrementTable._lx_interpolation_hyperbolic
    assert routine(lives, [120], [0.5]).tolist() == [lives[120]]  # the last index is its own neighbour
    q = t.qx(65)
    assert t.qx(65, m=12) == pytest.approx(1 - (1 - q) / (1 - 11 / 12 * q), abs=2e-12)
    # The rate over the last month of the year of age is q / 12 of the year's survivors at x.
    assert t.tqx(65 + 11 / 12, 1 / 12) == pytest.approx(q / 12, abs=2e-12)


def test_interpolations_agree_at_integer_ages_and_order_between_them():
    t = LifeTable("SULT", "u")
    whole, between = np.arange(20.0, 121.0), np.arange(20.0, 120.0) + 0.4
    values = {}
    for name in LX_INTERPOLATIONS:
        with Config().override(lx_interpolation=name):
            values[name] = (t.lx(whole), t.lx(between))
    np.testing.assert_array_equal(t.lx(between), values["linear"][1])  # read on every call, not kept
    np.testing.assert_array_equal(values["linear"][0], values["hyperbolic"][0])
    # l falls: the chord lies above the exponential, which lies above the hyperbola.
    assert np.all(values["linear"][1] >= values["exponential"][1])
    assert np.all(values["exponential"][1] >= values["hyperbolic"][1])
    assert np.any(values["exponential"][1] > values["hyperbolic"][1])


def test_no_survivors_at_the_end_of_a_year_gives_none_within_it(tables, balducci):
    tables.write("GAP", {"table_type": "life", "sexes": ["u"]}, {"qx_u": [0.1, 1.0, 0.0, 1.0]})
    t = LifeTable("GAP", "u")
    assert t.lx(1.0) == 900_000.0
    assert t.lx([1.5, 2.0, 2.5]).tolist() == [0.0, 0.0, 0.0]
    assert t.tpx(0.5, 1.0) == 0.0
