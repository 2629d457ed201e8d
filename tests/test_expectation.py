"""Expectation of life, ex(x, complete): hand values, independent sums and integrals, every interpolation.

References are written from the textbook year-by-year forms (in terms of p = l(x + 1) / l(x)):
the year's integral of t p x is 1 - q/2 under UDD, -q / ln p under a constant force and
-p ln p / q under Balducci. A year with q = 1 (the year after w, or a certain rate below w) is
UDD under every interpolation.
"""

from __future__ import annotations

import math

import numpy as np
import polars as pl
import pytest

from conftest import exactly
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

HAND_Q = [0.1, 0.2, 0.5, 1.0]  # l = 1, 0.9, 0.72, 0.36 (millions); w = 3


def year_integral(p: float, method: str) -> float:
    """The integral over one year of age of t p x, 0 <= t <= 1."""
    q = 1.0 - p
    if q == 0.0:
        return 1.0
    if p == 0.0:
        return 0.5  # no survivors at the end: UDD under every interpolation
    if method == "linear":
        return 1.0 - q / 2.0
    if method == "exponential":
        return -q / math.log(p)
    return -p * math.log(p) / q


def complete_reference(lives: np.ndarray, x: int, method: str) -> float:
    """Sum over the years from x of l(j) times the year's integral, the year after w by UDD."""
    w = lives.size - 1
    total = 0.5 * lives[w]
    for j in range(x, w):
        total += lives[j] * year_integral(lives[j + 1] / lives[j], method)
    return total / lives[x]


@pytest.fixture
def hand(tables):
    tables.write("HAND", {"table_type": "life", "sexes": ["u"]}, {"qx_u": HAND_Q})
    return LifeTable("HAND", "u")


@pytest.fixture(scope="module")
def sult():
    t = LifeTable("SULT", "u")
    t.lx()
    return t


def test_curtate_and_complete_against_the_year_by_year_sums(sult, method):
    lives, ages = sult._lx_raw, np.arange(0, 121)
    curtate = [lives[x + 1 :].sum() / lives[x] for x in ages]
    np.testing.assert_allclose(sult.ex(), curtate, rtol=1e-13)
    assert sult.ex(65) == pytest.approx(curtate[65], rel=1e-13)
    complete = [complete_reference(lives, x, method) for x in ages]
    np.testing.assert_allclose(sult.ex(ages, complete=True), complete, rtol=1e-10)


def test_complete_at_fractional_ages_against_numerical_integration(sult, method):
    """Gauss-Legendre over each year of age of the table's own l at real ages, then the UDD year after w."""
    nodes, weights = np.polynomial.legendre.leggauss(64)
    for x in (30.3, 65.5, 99.75, 119.2):
        integral = 0.5 * sult._lx_raw[120]
        for a in [x, *range(math.ceil(x), 120)]:
            b = math.floor(a) + 1.0
            t = (a + b) / 2 + (b - a) / 2 * nodes
            integral += (b - a) / 2 * weights @ sult._lx_at(t, use_raw=True)
        expected = integral / sult._lx_at([x], use_raw=True)[0]
        assert sult.ex(x, complete=True) == pytest.approx(expected, rel=1e-11)


# fmt: off
HAND_UDD = [  # x, complete, the value by hand
    (0, False, 0.9 + 0.72 + 0.36), (3, False, 0.0), (3, True, 0.5), (0, True, 0.95 + 0.81 + 0.54 + 0.18),
    (0.5, False, (0.81 + 0.54 + 0.18) / 0.95),  # l(3.5) = 0.36 / 2 in the year after w
    (0.5, True, (0.5 * (0.95 + 0.9) / 2 + 0.81 + 0.54 + 0.18) / 0.95),
    (2.5, True, (0.5 * (0.54 + 0.36) / 2 + 0.18) / 0.54),
]
# fmt: on


@pytest.mark.parametrize(("x", "complete", "expected"), HAND_UDD)
def test_hand_values_under_udd(hand, x, complete, expected):
    assert hand.ex(x, complete=complete) == pytest.approx(expected, rel=1e-12)


def test_curtate_at_a_fractional_age_under_every_interpolation(hand, method):
    # The complete expectation at fractional ages: the numerical integration above.
    curtate = (hand.lx(1.5) + hand.lx(2.5) + 180_000.0) / hand.lx(0.5)
    assert hand.ex(0.5) == pytest.approx(curtate, rel=1e-9)


def test_vector_inputs_and_shapes(sult):  # every kind of vector: test_functions, through the same converter
    out = sult.ex(pl.Series([50.0, 65.5]), complete=True)
    assert isinstance(out, np.ndarray) and out.dtype == np.float64
    assert out.tolist() == [sult.ex(50, complete=True), sult.ex(65.5, complete=True)]
    assert isinstance(sult.ex(np.float64(65)), float) and sult.ex([65]).shape == (1,)
    assert sult.ex([]).shape == (0,) and sult.ex().shape == (121,)


# The other refusals of x come from the age validator of every table function (test_functions).
@pytest.mark.parametrize(
    ("kwargs", "exc", "message"),
    [
        ({"x": [60, 120.5]}, ValueError, "All ages x must be <= w (120) for table 'SULT', got 120.5."),
        ({"x": 65, "complete": 1}, TypeError, "complete must be True or False, got int"),
    ],
)
def test_bad_input(sult, kwargs, exc, message):
    with exactly(exc, f"[ex] {message}"):
        sult.ex(**kwargs)


def test_truncated_and_exhausted_tables(tables, method):
    tables.write("OUT", {"table_type": "exit", "sexes": ["u"]}, {"ox_u": [0.1, 1.0, 0.0, 1.0]})
    t = ExitTable("OUT", "u")  # nobody remains from age 2 on, but w stays 3
    assert t.ex([2, 2.5, 3]).tolist() == [0.0, 0.0, 0.0]
    # The first year by the interpolation; the second, certain one, by UDD.
    assert t.ex(0, complete=True) == pytest.approx(year_integral(0.9, method) + 0.45, rel=1e-12)
    doubled = LifeTable("SULT", "u")
    doubled.modify_qx({"decrement_multiplier": 2.0})  # certain long before 120, w stays 120
    doubled.lx()
    gone = int(np.argmax(doubled._lx_raw == 0.0))  # the first age without survivors
    assert doubled.ex([gone, gone + 0.5, 120], complete=True).tolist() == [0.0, 0.0, 0.0]
    assert doubled.ex(gone - 1, complete=True) == 0.5  # all leave within the year, uniformly


def test_follows_modifications_and_leaves_the_table_alone(sult, tables):
    t = LifeTable("SULT", "u")
    t.modify_qx({"age_shift": 3})
    assert t.ex(65, complete=True) == pytest.approx(sult.ex(68, complete=True), rel=1e-12)
    t.reset_modifications()
    np.testing.assert_array_equal(t._decrement, sult._decrement)
    assert t.ex(65, complete=True) == sult.ex(65, complete=True)
    tables.select()
    with pytest.raises(ValueError, match=r"called from ex\)"):
        LifeTable("SEL", "m", pending=True).ex(1)
