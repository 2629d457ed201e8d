"""Two lives: JointLife and the contingency functions that take one, against NumPy products of survival."""

from __future__ import annotations

import math

import numpy as np
import pytest

from test_contingencies import Survival
from veltrane import Config, LifeTable
from veltrane.config import LX_INTERPOLATIONS
from veltrane.contingencies import (
    JointLife,
    annuity,
    contingent_insurance,
    insurance,
    net_premium,
    pure_endowment,
    reversionary_annuity,
)


@pytest.fixture(scope="module")
def pair_tables() -> tuple[LifeTable, LifeTable]:
    # Two different tables, with different last ages.
    return LifeTable("SULT", "u"), LifeTable("CSO1980", "f")


def status_survival(
    a: Survival, x: float, b: Survival, y: float, status: str, times: np.ndarray
) -> np.ndarray:
    p = np.array([a(x + t) for t in times]) / a(x)
    q = np.array([b(y + t) for t in times]) / b(y)
    return p * q if status == "joint" else p + q - p * q


def reference(a: Survival, x: float, b: Survival, y: float, status: str, *, i: float, m: int = 1, n=None):
    """ä, a (in arrears), A (end of the 1/m period) and the curtate expectation, by direct sums."""
    years = 125 if n is None else n
    times = np.arange(years * m + 1) / m
    s = status_survival(a, x, b, y, status, times)
    v = (1.0 + i) ** -times
    due = np.sum(v[:-1] * s[:-1]) / m
    arrears = np.sum(v[1:] * s[1:]) / m
    cover = np.sum(v[1:] * (s[:-1] - s[1:]))
    whole = s[::m][1:]
    return due, arrears, cover, np.sum(whole)


@pytest.mark.parametrize("interpolation", LX_INTERPOLATIONS)
@pytest.mark.parametrize("status", ["joint", "last"])
@pytest.mark.parametrize("n", [None, 15])
@pytest.mark.parametrize(
    ("x", "y", "m"), [(65, 60, 1), (40, 72, 1), (90, 30, 1), (98, 99, 1), (63.4, 58.75, 12)]
)
def test_values_agree_with_a_numpy_product(pair_tables, interpolation, status, n, x, y, m):
    first, second = pair_tables
    a, b = Survival(first, interpolation), Survival(second, interpolation)
    due, arrears, cover, curtate = reference(a, x, b, y, status, i=0.04, m=m, n=n)
    with Config().override(lx_interpolation=interpolation):
        couple = JointLife(first, second, status=status)
        assert annuity(couple, (x, y), n, i=0.04, m=m) == pytest.approx(due, rel=1e-10)
        assert annuity(couple, (x, y), n, i=0.04, m=m, due=False) == pytest.approx(arrears, rel=1e-10)
        assert insurance(couple, (x, y), n, i=0.04, m=m) == pytest.approx(cover, rel=1e-10)
        if n is None and m == 1:
            assert couple.ex((x, y)) == pytest.approx(curtate, rel=1e-10)
        t = np.array([0.0, 0.3, 1.0, 7.55, 45.2])
        expected = status_survival(a, x, b, y, status, t)
        np.testing.assert_allclose(couple.tpx((x, y), t), expected, rtol=1e-12, atol=1e-15)
        np.testing.assert_allclose(couple.tqx((x, y), t), 1.0 - expected, rtol=1e-12, atol=1e-15)


@pytest.mark.parametrize("status", ["joint", "last"])
@pytest.mark.parametrize("i", [0.03, 0.05, -0.02])  # a negative rate too: v > 1
@pytest.mark.parametrize("m", [1, 4, None])
def test_whole_life_insurance_is_one_less_d_times_the_annuity_due(pair_tables, status, i, m):
    couple = JointLife(*pair_tables, status=status)
    ages = (np.array([30.0, 55.0, 70.5, 95.0]), np.array([35.0, 50.25, 80.0, 99.0]))
    # d^(m), or delta when continuous.
    rate = math.log1p(i) if m is None else m * (1.0 - (1.0 + i) ** (-1.0 / m))
    np.testing.assert_allclose(
        insurance(couple, ages, i=i, m=m), 1.0 - rate * annuity(couple, ages, i=i, m=m), rtol=0, atol=1e-12
    )


def test_complete_expectation_integrates_the_survival(pair_tables):
    # Under linear interpolation the status's survival is piecewise quadratic: Simpson on each
    # piece between whole ages of either life is exact.
    first, second = pair_tables
    x, y = 70.5, 66.0
    a, b = Survival(first), Survival(second)
    for status in ("joint", "last"):
        cuts = np.unique(np.concatenate([np.arange(0.5, 60.0), np.arange(0.0, 60.0)]))
        lo, hi = cuts[:-1], cuts[1:]
        ends = status_survival(a, x, b, y, status, lo) + status_survival(a, x, b, y, status, hi)
        middle = status_survival(a, x, b, y, status, (lo + hi) / 2.0)
        simpson = np.sum((hi - lo) / 6.0 * (ends + 4.0 * middle))
        got = JointLife(first, second, status=status).ex((x, y), complete=True)
        assert got == pytest.approx(simpson, rel=1e-12)


def test_select_lives_follow_their_diagonals():
    select = LifeTable("SSSM", "u", duration=1)
    ultimate = LifeTable("SULT", "u")
    couple = JointLife(select, ultimate)
    t = np.arange(0.0, 80.0, 0.5)
    along = pure_endowment(select, 62.0, t, i=0.0) * pure_endowment(ultimate, 58.0, t, i=0.0)
    np.testing.assert_allclose(couple.tpx((62.0, 58.0), t), along, rtol=1e-13)
    v = 1.05 ** -t[::2]
    assert annuity(couple, (62, 58), i=0.05) == pytest.approx(np.sum(v * along[::2]), rel=1e-12)
    # On the select diagonal, not the select table's one column.
    assert annuity(couple, (62, 58), i=0.05) != pytest.approx(
        annuity(JointLife(LifeTable("SSSM", "u", duration="ult"), ultimate), (62, 58), i=0.05), rel=1e-6
    )


def test_a_single_life_with_a_certain_partner_is_the_single_life(pair_tables):
    # A last-survivor status with a life already dead (l = 0) is the other life alone.
    first, _ = pair_tables
    joint = JointLife(first, first, status="last")
    assert annuity(joint, (65, 120), 10, i=0.05) == pytest.approx(annuity(first, 65, 10, i=0.05), rel=1e-12)


@pytest.mark.parametrize("due", [True, False])
@pytest.mark.parametrize("n", [None, 10])
def test_reversionary_annuity_is_the_payees_less_the_joint(pair_tables, due, n):
    failing, payee = pair_tables
    x, y = np.array([65.0, 70.0, 80.0]), np.array([60.0, 66.0, 72.0])
    kw = {"i": 0.04, "due": due}
    expected = annuity(payee, y, n, **kw) - annuity(JointLife(failing, payee), (x, y), n, **kw)
    np.testing.assert_allclose(reversionary_annuity(failing, x, payee, y, n, **kw), expected, rtol=1e-14)


@pytest.mark.parametrize("interpolation", LX_INTERPOLATIONS)
def test_contingent_insurance_against_a_numerical_integration(pair_tables, interpolation):
    first, second = pair_tables
    x, y = 70.0, 64.5
    with Config().override(lx_interpolation=interpolation):
        a, b = Survival(first, interpolation), Survival(second, interpolation)
        # The first's deaths against the second's survival, by the midpoint rule on a fine grid.
        steps = 4000
        total = 0.0
        for k in range(52):
            t = k + (np.arange(steps) + 0.5) / steps
            edges = k + np.arange(steps + 1) / steps
            deaths = -np.diff([a(x + u) for u in edges]) / a(x)
            alive = np.array([b(y + u) for u in t]) / b(y)
            total += 1.04 ** -(k + 1) * np.sum(deaths * alive)
        assert contingent_insurance(first, x, second, y, i=0.04) == pytest.approx(total, rel=1e-7)


def test_contingent_insurances_of_the_two_orders_make_the_joint_insurance(pair_tables):
    first, second = pair_tables
    x, y = np.array([50.0, 65.0, 83.0]), np.array([48.0, 70.0, 60.0])
    both = contingent_insurance(first, x, second, y, 20, i=0.05) + contingent_insurance(
        second, y, first, x, 20, i=0.05
    )
    np.testing.assert_allclose(both, insurance(JointLife(first, second), (x, y), 20, i=0.05), rtol=1e-12)


def test_a_couple_in_the_single_life_functions(pair_tables):
    couple, ages, kw = JointLife(*pair_tables), (60, 55), {"i": 0.05}
    ratio = insurance(couple, ages, 20, endowment=True, **kw) / annuity(couple, ages, 20, **kw)
    assert net_premium(couple, ages, 20, endowment=True, **kw) == pytest.approx(ratio, rel=1e-14)
    endowment = pure_endowment(couple, ages, 10, **kw)
    assert endowment == pytest.approx(1.05**-10 * couple.tpx(ages, 10), rel=1e-14)
    # Vector pairs broadcast and scalars give floats.
    one, many = annuity(couple, (65, 60), **kw), annuity(couple, ([65, 66], 60), **kw)
    assert type(one) is float and many.shape == (2,) and many[0] == one
    paired = annuity(couple, ([65, 66], [60, 60]), 10, **kw)
    np.testing.assert_array_equal(paired, annuity(couple, ([65, 66], 60), 10, **kw))


def test_interest_from_the_first_table():
    first, second = LifeTable("SULT", "u", interest_rate=0.05), LifeTable("SULT", "u")
    assert annuity(JointLife(first, second), (60, 60)) == annuity(JointLife(first, second), (60, 60), i=0.05)
    with pytest.raises(ValueError, match="i is required"):
        annuity(JointLife(second, first), (60, 60))


@pytest.mark.parametrize(
    ("call", "error", "message"),
    [
        (lambda t: JointLife(t, "SULT"), TypeError, "second must be a DecrementTable"),
        (lambda t: JointLife(t, t, status="both"), ValueError, "status must be 'joint' or 'last'"),
        (lambda t: annuity(JointLife(t, t), ([60, 61, 62], [60, 61]), i=0.05), ValueError, "same length"),
        (lambda t: JointLife(t, t).tpx((math.nan, 60), 1), ValueError, "finite"),
        (lambda t: annuity(JointLife(t, t), 60, i=0.05), TypeError, "pair"),
        (lambda t: annuity(JointLife(t, t), (60, 130), i=0.05), ValueError, "<= w"),
        (lambda t: annuity(JointLife(t, t), (60, 60), i=0.05, method="udd"), ValueError, "method='exact'"),
        (lambda t: insurance(JointLife(t, t), (60, 60), i=0.05, moment=2), ValueError, "one life"),
        (lambda t: annuity(JointLife(t, t), (60, 60), 2.5, i=0.05), ValueError, "whole number"),
        (lambda t: contingent_insurance(t, 60, None, 60, i=0.05), TypeError, "DecrementTable"),
    ],
)
def test_bad_input_is_refused_and_changes_nothing(call, error, message):
    table = LifeTable("SSSM", "u", duration=1)
    before = annuity(JointLife(table, table), (60, 61), i=0.05)
    with pytest.raises(error, match=message):
        call(table)
    assert annuity(JointLife(table, table), (60, 61), i=0.05) == before
    assert table.duration == 1
