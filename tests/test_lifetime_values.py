"""Continuous and exact insurances and annuities, moments, the force of decrement, lifetime
quantiles and temporary expectations, against independent calculations.

``Reference`` integrates l at real ages (from test_contingencies) with NumPy's Gauss-Legendre rule
over every year of age (40 nodes a year: exact to rounding for these smooth pieces). Closed forms
on a constant-force table check the exponential interpolation to 1e-12.
"""

from __future__ import annotations

import math
from collections.abc import Iterator

import numpy as np
import pytest

from conftest import exactly
from test_contingencies import Survival
from veltrane.config import Config
from veltrane.contingencies import annuity, insurance, life_table, net_premium
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource

RATE = 0.05
DELTA = math.log1p(RATE)
RTOL = 1e-10
NODES, WEIGHTS = np.polynomial.legendre.leggauss(40)


class Reference(Survival):
    """Integrals over the future lifetime of l at real ages."""

    def integrate(self, g, a: float, b: float) -> float:
        """The integral of g(y) l(y) over a <= y <= b, year of age by year of age."""
        total, y = 0.0, a
        while y < b:
            nxt = min(math.floor(y) + 1.0, b)
            mid, half = (y + nxt) / 2, (nxt - y) / 2
            total += half * sum(
                wk * g(mid + half * u) * self(mid + half * u) for u, wk in zip(NODES, WEIGHTS, strict=True)
            )
            y = nxt
        return total

    def continuous_annuity(self, x, n=None, delta=DELTA) -> float:
        end = self.w + 1.0 if n is None else min(x + n, self.w + 1.0)
        return self.integrate(lambda y: math.exp(-delta * (y - x)), x, end) / self(x)

    def continuous_insurance(self, x, n=None, delta=DELTA) -> float:
        # By parts: the integral of v^t (-dl) is l(x) - v^n l(x + n) - delta times that of v^t l.
        end = self.w + 1.0 if n is None else min(x + n, self.w + 1.0)
        last = math.exp(-delta * (end - x)) * self(end)
        return 1.0 - last / self(x) - delta * self.continuous_annuity(x, n, delta)

    def mthly_insurance(self, x, n=None, m=12, i=RATE) -> float:
        periods = math.ceil((self.w + 1 - x) * m) if n is None else n * m
        lives = [self(x + k / m) for k in range(periods + 1)]
        paid = sum((1 + i) ** -((k + 1) / m) * (lives[k] - lives[k + 1]) for k in range(periods))
        return paid / lives[0]

    def quantile(self, x, p) -> float:
        target, lo, hi = (1 - p) * self(x), 0.0, self.w + 1.0 - x
        for _ in range(200):
            mid = (lo + hi) / 2
            lo, hi = (mid, hi) if self(x + mid) > target else (lo, mid)
        return (lo + hi) / 2


MU = 0.04


@pytest.fixture(scope="module")
def constant() -> Iterator[LifeTable]:
    """A constant force MU over 600 years: what is left at the end is below 1e-10 of any value."""
    TableSource.from_rates("CONSTANT_FORCE", [-math.expm1(-MU)] * 600).register()
    try:
        yield LifeTable("CONSTANT_FORCE", "u")
    finally:
        TableSource.unregister("CONSTANT_FORCE")


CASES = [(65, None), (30, 20), (45.5, 15), (119, None), (119.25, None), (0, 3)]


@pytest.mark.parametrize(("x", "n"), CASES)
def test_continuous_values_integrate_the_interpolated_survival(sult, method, x, n):
    ref = Reference(sult, method)
    assert annuity(sult, x, n, i=RATE, m=None) == pytest.approx(ref.continuous_annuity(x, n), rel=RTOL)
    assert insurance(sult, x, n, i=RATE, m=None) == pytest.approx(ref.continuous_insurance(x, n), rel=RTOL)
    assert insurance(sult, x, n, i=RATE, m=12) == pytest.approx(ref.mthly_insurance(x, n, 12), rel=RTOL)
    assert insurance(sult, x, n, i=RATE, m=4) == pytest.approx(ref.mthly_insurance(x, n, 4), rel=RTOL)


def test_continuous_annuity_takes_any_real_term_and_deferment(sult, method):
    ref = Reference(sult, method)
    start = 40.3 + 2.7
    expected = math.exp(-DELTA * 2.7) * ref(start) / ref(40.3) * ref.continuous_annuity(start, 10.1)
    assert annuity(sult, 40.3, 10.1, i=RATE, m=None, defer=2.7) == pytest.approx(expected, rel=RTOL)
    # due has no meaning for payments made continuously
    assert annuity(sult, 50, i=RATE, m=None, due=False) == annuity(sult, 50, i=RATE, m=None)


def test_under_linear_interpolation_exact_is_the_udd_factor(sult):
    ages = np.arange(0, 121)
    for m in (2, 12, None):
        exact = insurance(sult, ages, i=RATE, m=m)
        np.testing.assert_allclose(exact, insurance(sult, ages, i=RATE, m=m, method="udd"), rtol=1e-13)
    udd = annuity(sult, ages, i=RATE, m=None, method="udd")  # ā = (1 - Ā) / delta for udd too
    np.testing.assert_allclose(
        udd, (1 - insurance(sult, ages, i=RATE, m=None, method="udd")) / DELTA, rtol=1e-12
    )


@pytest.mark.parametrize("x", [30, 30.25, 200])
def test_constant_force_closed_forms(constant, x):
    with Config().override(lx_interpolation="exponential"):
        assert insurance(constant, x, i=RATE, m=None) == pytest.approx(MU / (MU + DELTA), abs=1e-12)
        assert annuity(constant, x, i=RATE, m=None) == pytest.approx(1 / (MU + DELTA), abs=1e-12)
        second = insurance(constant, x, i=RATE, m=None, moment=2)
        assert second == pytest.approx(MU / (MU + 2 * DELTA), abs=1e-12)
        # A^(12): the deaths of each month paid at its end, a geometric series
        month = (MU + DELTA) / 12
        mthly = -math.expm1(-MU / 12) * math.exp(-DELTA / 12) / -math.expm1(-month)
        assert insurance(constant, x, i=RATE, m=12) == pytest.approx(mthly, abs=1e-12)
        assert net_premium(constant, x, i=RATE, m=None, benefit_m=None) == pytest.approx(MU, abs=1e-12)
        assert constant.mu(x) == pytest.approx(MU, rel=1e-13)
        assert constant.lifetime_quantile(x, 0.5) == pytest.approx(math.log(2) / MU, rel=1e-12)
        assert constant.ex(x, 10.5, complete=True) == pytest.approx(-math.expm1(-10.5 * MU) / MU, rel=1e-12)


def test_second_moments_are_values_at_the_doubled_force(sult, method):
    doubled = (1 + RATE) ** 2 - 1
    for m in (1, 12, None):
        got = insurance(sult, [40, 65.5], 20, i=RATE, m=m, moment=2, endowment=True)
        want = insurance(sult, [40, 65.5], 20, i=doubled, m=m, endowment=True)
        np.testing.assert_allclose(got, want, rtol=1e-14)
    # E[Y^2] of the annual annuity-due: summed over the year of death, Y = the annuity-certain
    ref, x = Reference(sult, method), 60
    v, d = 1 / (1 + RATE), RATE / (1 + RATE)
    second = sum(
        (ref(x + k) - ref(x + k + 1)) / ref(x) * ((1 - v ** (k + 1)) / d) ** 2 for k in range(sult.w + 1 - x)
    )
    assert annuity(sult, x, i=RATE, moment=2) == pytest.approx(second, rel=1e-10)
    # continuous: Var = (2A - A^2) / delta^2 in terms of the insurances
    a_bar = annuity(sult, x, i=RATE, m=None)
    variance = annuity(sult, x, i=RATE, m=None, moment=2) - a_bar**2
    bar, bar2 = insurance(sult, x, i=RATE, m=None), insurance(sult, x, i=RATE, m=None, moment=2)
    assert variance == pytest.approx((bar2 - bar**2) / DELTA**2, rel=1e-9)


def test_force_of_decrement_under_each_interpolation(sult, method):
    ref = Reference(sult, method)
    ages, h = np.array([0.0, 0.5, 30.25, 65.0, 65.75, 119.5]), 1e-6
    for y, value in zip(ages, sult.mu(ages), strict=True):  # the right-hand derivative of ln l
        assert value == pytest.approx(-(math.log(ref(y + 2 * h)) - math.log(ref(y + h))) / h, rel=1e-5)
    every = sult.mu()
    assert every.shape == (121,) and not np.isnan(every).any() and every[120] == 1.0
    assert sult.mu(65) == every[65] and isinstance(sult.mu(65), float)


def test_lifetime_quantiles_and_temporary_expectations(sult, method):
    ref = Reference(sult, method)
    for x, p in [(65, 0.5), (65.4, 0.1), (30, 0.99), (119, 0.5), (119.5, 0.9), (0, 1e-6)]:
        assert sult.lifetime_quantile(x, p) == pytest.approx(ref.quantile(x, p), rel=1e-12, abs=1e-12)
    many = sult.lifetime_quantile([60, 70], [0.25, 0.75])
    assert many.tolist() == [sult.lifetime_quantile(60, 0.25), sult.lifetime_quantile(70, 0.75)]
    # Temporary expectations, curtate and complete.
    for x, n in [(65, 10), (45.5, 20), (118, 5)]:
        curtate = sum(ref(x + k) for k in range(1, n + 1)) / ref(x)
        assert sult.ex(x, n) == pytest.approx(curtate, rel=RTOL)
    assert sult.ex(65, 7.5, complete=True) == pytest.approx(ref.continuous_annuity(65, 7.5, 0.0), rel=RTOL)
    assert sult.ex(65, 200, complete=True) == pytest.approx(sult.ex(65, complete=True), rel=1e-13)
    assert sult.ex(65, 200) == pytest.approx(sult.ex(65), rel=1e-13)
    assert sult.ex(65, 0) == 0.0


@pytest.mark.parametrize(("x", "n"), [(65, None), (40, 20), (45.5, 15)])
def test_increasing_and_decreasing_benefits_sum_every_year(sult, method, x, n):
    ref, v = Reference(sult, method), 1 / (1 + RATE)
    years = n if n is not None else math.ceil(sult.w + 1 - x)
    lives = [ref(x + k) for k in range(years + 1)]
    deaths = np.array([v ** (k + 1) * (lives[k] - lives[k + 1]) / lives[0] for k in range(years)])
    due, up = np.array([v**k * lives[k] / lives[0] for k in range(years)]), np.arange(1.0, years + 1)
    assert insurance(sult, x, n, i=RATE, increasing=True) == pytest.approx(up @ deaths, rel=RTOL)
    assert annuity(sult, x, n, i=RATE, increasing=True) == pytest.approx(up @ due, rel=RTOL)
    # continuously: the k-th year's payments (or deaths) at a rate of k + 1
    continuous = sum(up[k] * due[k] * ref.continuous_annuity(x + k, 1) for k in range(years))
    assert annuity(sult, x, n, i=RATE, m=None, increasing=True) == pytest.approx(continuous, rel=RTOL)
    if n is not None:
        assert insurance(sult, x, n, i=RATE, decreasing=True) == pytest.approx(up[::-1] @ deaths, rel=RTOL)
        assert annuity(sult, x, n, i=RATE, decreasing=True) == pytest.approx(up[::-1] @ due, rel=RTOL)
        # (IA) + (DA) = (n + 1) A over the term, for every timing of the benefit
        for m in (1, 12, None):
            up = insurance(sult, x, n, i=RATE, m=m, increasing=True)
            down = insurance(sult, x, n, i=RATE, m=m, decreasing=True)
            assert up + down == pytest.approx((n + 1) * insurance(sult, x, n, i=RATE, m=m), rel=1e-12)


def test_increasing_benefits_are_vectorised_and_deferred(sult):
    ages = [30, 45.5, 119]
    values = insurance(sult, ages, 10, i=RATE, m=12, increasing=True, defer=5)
    assert values.tolist() == [insurance(sult, a, 10, i=RATE, m=12, increasing=True, defer=5) for a in ages]
    deferred = annuity(sult, 60, i=RATE, increasing=True, defer=5)
    later = (
        annuity(sult, 65, i=RATE, increasing=True) * (1 + RATE) ** -5 * sult._lx_raw[65] / sult._lx_raw[60]
    )
    assert deferred == pytest.approx(later, rel=1e-12)


def test_life_table_columns(sult, method):
    ref = Reference(sult, method)
    frame = life_table(sult)
    assert frame.columns == ["age", "lx", "dx", "qx", "Lx", "Tx", "mx", "ex"] and frame.height == 121
    for x in (0, 65, 120):
        row = frame.row(x, named=True)
        lived = ref.integrate(lambda y: 1.0, x, x + 1)
        assert row["Lx"] == pytest.approx(lived, rel=RTOL)
        assert row["mx"] == pytest.approx(row["dx"] / lived, rel=RTOL)
        assert row["ex"] == pytest.approx(sult.ex(x, complete=True), rel=1e-12)
        assert row["Tx"] == pytest.approx(frame["Lx"][x:].sum(), rel=1e-12)
    assert frame.row(120, named=True)["mx"] == 2.0


def test_select_tables_follow_the_diagonal_in_the_new_functions():
    # at duration 1 the life aged x was selected at x (a fractional age: at the whole age below)
    select = LifeTable("SSSM", "u", duration=1, interest_rate=RATE)
    for x, call in (
        (65, lambda t: t.mu(65.5)),
        (66, lambda t: t.mu(66)),
        (65, lambda t: t.lifetime_quantile(65, 0.5)),
        (65, lambda t: annuity(t, 65, m=None)),
        (65, lambda t: insurance(t, 65, m=12, moment=2)),
    ):
        assert call(select) == pytest.approx(call(select.select_path(x)), rel=1e-13)
    # the table's one column would give another value
    assert select.mu(65.5) != LifeTable("SSSM", "u", duration="ult").mu(65.5)


P = "p must lie strictly between 0 and 1, got"
MOMENT2 = "moment=2 needs an annuity-due (or m=None) without defer, valued with method='exact'"
DECREASING = "a decreasing benefit needs a term n (it falls to 1 in the last year)"
BOTH = "increasing and decreasing exclude each other"
SAME, LEVEL2 = "x and p must have the same length, got 2 and 3", "moment=2 is for a level benefit"
LEVEL = "increasing and decreasing are for term and whole-life covers, not with endowment=True"


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda t: t.lifetime_quantile(65, 0), f"{P} 0"),
        (lambda t: t.lifetime_quantile(65, [0.5, 1]), f"{P} 1"),
        (lambda t: t.lifetime_quantile(65, math.nan), "p must be finite, got nan"),
        (
            lambda t: t.lifetime_quantile([60, 61], [0.1] * 3),
            "x and p must have the same length, got 2 and 3",
        ),
        (lambda t: t.mu(121), "[mu] All ages x must be <= w (120) for table 'SULT', got 121."),
        (lambda t: t.ex(65, 2.5), "[ex] n must be a whole number of years, got 2.5"),
        (lambda t: t.ex(65, -1, complete=True), "[ex] n must be >= 0, got -1"),
        (lambda t: annuity(t, 65, moment=True), "[annuity] moment must be 1 or 2, got True"),
        (lambda t: annuity(t, 65, defer=1, moment=2), f"[annuity] {MOMENT2}"),
        (lambda t: annuity(t, 65, i=0, moment=2), "[annuity] moment=2 needs i != 0"),
        (lambda t: insurance(t, 65, decreasing=True), f"[insurance] {DECREASING}"),
        (lambda t: annuity(t, 65, 10, increasing=True, decreasing=True), f"[annuity] {BOTH}"),
        (lambda t: insurance(t, 65, 10, increasing=True, endowment=True), f"[insurance] {LEVEL}"),
        (
            lambda t: insurance(t, 65, increasing=True, moment=2),
            "[insurance] moment=2 is for a level benefit",
        ),
        (lambda t: annuity(t, 65, increasing=1), "[annuity] increasing must be True or False, got int"),
    ],
)
def test_bad_input_is_refused_and_changes_nothing(call, message):
    exc = TypeError if message.endswith("got int") else ValueError
    t = LifeTable("SULT", "u", interest_rate=RATE)
    before, rates = annuity(t, 65, m=None), t._decrement.copy()
    full = message if message.startswith("[") else f"[lifetime_quantile] {message}"
    with exactly(exc, full):
        call(t)
    assert annuity(t, 65, m=None) == before and np.array_equal(t._decrement, rates)


@pytest.mark.parametrize("rate", [0.05, -0.02, 0.5])
def test_continuous_insurance_and_annuity_satisfy_a_bar_identity(method, rate):
    # Ā + δ ā = 1 (whole life) and Ā¹ + E + δ ā = 1 (a term), under every interpolation
    t, delta = LifeTable("SSSM", "u", duration="ult"), math.log1p(rate)
    for x, n in [(20, None), (65.25, None), (40, 7), (70.5, 12)]:
        bar = insurance(t, x, n, i=rate, m=None, endowment=n is not None)
        assert bar + delta * annuity(t, x, n, i=rate, m=None) == pytest.approx(1.0, rel=1e-12)
