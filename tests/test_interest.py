"""veltrane.interest against the definitions, evaluated in 60-digit decimal arithmetic.

The kernels must not lose digits where the textbook formulas cancel: at tiny rates of either sign
(i d and i^(m) d^(m) both tend to 0) and at large ones.
"""

from __future__ import annotations

from decimal import Decimal, localcontext

import numpy as np
import pytest

from conftest import exactly
from veltrane.interest import (
    accumulated_annuity_certain,
    annuity_certain,
    discount_rate,
    force,
    nominal_discount_rate,
    nominal_rate,
    udd_alpha,
    udd_beta,
)

RATES = [1e-12, -1e-12, 1e-7, 0.05, -0.3, 1e3]


def definitions(i: float, m: int | None, n: float) -> tuple[float, ...]:
    with localcontext() as ctx:
        ctx.prec = 60
        r = Decimal(i)
        one = Decimal(1)
        d = r / (1 + r)
        delta = (1 + r).ln()
        im = delta if m is None else m * ((1 + r) ** (one / m) - 1)
        dm = delta if m is None else m * (1 - (1 + r) ** (-one / m))
        vn = (-delta * Decimal(n)).exp()
        values = (d, delta, im, dm, r * d / (im * dm), (r - im) / (im * dm), (1 - vn) / dm, (1 - vn) / im)
        return tuple(float(v) for v in (*values, (1 / vn - 1) / dm))


@pytest.mark.parametrize("i", RATES)
@pytest.mark.parametrize("m", [1, 4, 12, 365, None])
def test_against_the_definitions(i, m):
    d, delta, im, dm, alpha, beta, due, immediate, accumulated = definitions(i, m, 10.5)
    assert discount_rate(i) == pytest.approx(d, rel=1e-15)
    assert force(i) == pytest.approx(delta, rel=1e-15)
    assert nominal_rate(i, m) == pytest.approx(im, rel=1e-14)
    assert nominal_discount_rate(i, m) == pytest.approx(dm, rel=1e-14)
    assert udd_alpha(i, m) == pytest.approx(alpha, rel=1e-13)
    assert udd_beta(i, m) == pytest.approx(beta, rel=1e-9 if abs(i) < 1e-6 else 1e-13)
    assert annuity_certain(10.5, i, m=m) == pytest.approx(due, rel=1e-13)
    assert annuity_certain(10.5, i, m=m, due=False) == pytest.approx(immediate, rel=1e-13)
    assert accumulated_annuity_certain(10.5, i, m=m) == pytest.approx(accumulated, rel=1e-13)


def test_at_zero_the_limits():
    assert discount_rate(0) == force(0) == nominal_rate(0, 12) == nominal_discount_rate(0, 12) == 0.0
    assert udd_alpha(0, 12) == 1.0 and udd_beta(0, 12) == pytest.approx(11 / 24, rel=1e-15)
    assert udd_beta(0, None) == 0.5
    assert annuity_certain(7, 0) == accumulated_annuity_certain(7, 0, m=None) == 7.0
    assert annuity_certain(None, 0) == np.inf and annuity_certain(None, 0.05) == pytest.approx(21.0)
    assert annuity_certain(0, 0.05) == 0.0


def test_arrays_broadcast():
    got = annuity_certain([[5], [10]], [0.0, 0.05, 0.1])
    assert got.shape == (2, 3)
    assert got[1, 1] == annuity_certain(10, 0.05) and got[0, 0] == 5.0
    assert isinstance(force(0.05), float) and force(np.array([0.05]))[0] == force(0.05)
    assert discount_rate([0.0, 1.0]).tolist() == [0.0, 0.5]


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda: force(-1), "[force] i must be > -1, got -1"),
        (lambda: force([0.05, -2]), "[force] i must be > -1, got -2"),
        (
            lambda: nominal_rate(0.05, 2.5),
            "[nominal_rate] m must be a whole number of periods a year from 1 to 1000000 or None, got 2.5",
        ),
        (lambda: annuity_certain(-1, 0.05), "[annuity_certain] n must be >= 0, got -1"),
        (
            lambda: annuity_certain([1, 2], [0.1, 0.2, 0.3]),
            "[annuity_certain] n and i must broadcast to one shape, got shapes (2,) and (3,)",
        ),
        (lambda: accumulated_annuity_certain(None, 0.05), "[accumulated_annuity_certain] n is required"),
    ],
)
def test_bad_input(call, message):
    with exactly(ValueError, message):
        call()
