"""veltrane.contingencies against independent calculations: direct sums in plain Python and NumPy.

``Survival`` writes the survival model out by hand from the table's unrounded l at integer ages:
the three interpolations in their textbook forms, and a year without survivors at its end (the
year after w, or a certain rate) spread uniformly. The references sum every payment one by one;
the functions under test must agree to 1e-10 relative (most agree to 1e-13).
"""

from __future__ import annotations

import math
from collections.abc import Iterator

import numpy as np
import polars as pl
import pytest

from conftest import exactly
from veltrane.config import LX_INTERPOLATIONS, Config
from veltrane.contingencies import annuity, commutation, insurance, net_premium, pure_endowment
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

RATE = 0.05
RTOL = 1e-10


class Survival:
    """l at real ages by hand, and the reference values summed payment by payment."""

    def __init__(self, table, method: str = "linear") -> None:
        table.lx()
        self.l, self.w, self.method = table._lx_raw.copy(), table.w, method

    def __call__(self, y: float) -> float:
        j = math.floor(y)
        f = y - j
        if j > self.w or (j == self.w + 1 and f == 0.0):
            return 0.0
        lo = self.l[j]
        if f == 0.0:
            return lo
        hi = self.l[j + 1] if j < self.w else 0.0
        if hi == 0.0 or self.method == "linear":
            return (1.0 - f) * lo + f * hi
        if self.method == "exponential":
            return lo * math.exp(f * math.log(hi / lo))
        return 1.0 / ((1.0 - f) / lo + f / hi)

    def annuity(self, x, n=None, *, i=RATE, m=1, due=True, defer=0.0) -> float:
        v = 1.0 / (1.0 + i)
        shift = 0 if due else 1
        stop = round((defer + n) * m) if n is not None else math.ceil((self.w + 1 - x) * m)
        total = sum(v ** (k / m) * self(x + k / m) for k in range(round(defer * m) + shift, stop + shift))
        return total / m / self(x)

    def insurance(self, x, n=None, *, i=RATE, defer=0) -> float:
        v = 1.0 / (1.0 + i)
        years = n if n is not None else self.w + 2
        total = sum(v ** (k + 1) * (self(x + k) - self(x + k + 1)) for k in range(defer, defer + years))
        return total / self(x)

    def endowment(self, x, n, *, i=RATE) -> float:
        return (1.0 + i) ** -n * self(x + n) / self(x)

    def force(self, y: float) -> float:
        return -0.5 * (math.log(self(y) / self(y - 1)) + math.log(self(y + 1) / self(y)))


def udd_factors(i: float, m: int) -> tuple[float, float]:
    im = m * ((1 + i) ** (1 / m) - 1)
    dm = m * (1 - (1 + i) ** (-1 / m))
    d = i / (1 + i)
    return i * d / (im * dm), (i - im) / (im * dm)


@pytest.fixture(scope="module")
def sult() -> LifeTable:
    return LifeTable("SULT", "u")


@pytest.fixture(params=LX_INTERPOLATIONS)
def method(request) -> Iterator[str]:
    with Config().override(lx_interpolation=request.param):
        yield request.param


# -- the textbook values --------------------------------------------------------------------------


def test_sult_at_five_percent(sult):
    a65 = annuity(sult, 65, i=RATE)
    assert a65 == pytest.approx(13.549790037743, rel=1e-12)
    ref = Survival(sult)
    assert a65 == pytest.approx(ref.annuity(65), rel=1e-13)
    a = insurance(sult, 65, i=RATE)
    assert a == pytest.approx(ref.insurance(65), rel=1e-12)
    assert a == pytest.approx(1 - RATE / (1 + RATE) * a65, rel=1e-12)
    assert a == pytest.approx(0.35477, abs=5e-6)
    # Monthly: the published UDD and three-term Woolhouse values, to their four decimals.
    assert annuity(sult, 65, i=RATE, m=12, method="udd") == pytest.approx(13.0860, abs=5e-5)
    assert annuity(sult, 65, i=RATE, m=12, method="woolhouse") == pytest.approx(13.0870, abs=5e-5)


@pytest.mark.parametrize("m", [2, 4, 12])
@pytest.mark.parametrize(
    ("x", "n", "defer"), [(65, None, 0), (20, None, 0), (50, 15, 0), (40, 20, 10), (100, None, 5)]
)
def test_udd_and_woolhouse_formulas(sult, m, x, n, defer):
    ref = Survival(sult)
    annual = ref.annuity(x, n, defer=defer)
    lead = ref.endowment(x, defer)
    end = ref.endowment(x, defer + n) if n is not None else 0.0
    alpha, beta = udd_factors(RATE, m)
    delta = math.log(1 + RATE)
    udd = alpha * annual - beta * (lead - end)
    two = annual - (m - 1) / (2 * m) * (lead - end)
    three = two - (m * m - 1) / (12 * m * m) * (
        lead * (delta + ref.force(x + defer)) - (end * (delta + ref.force(x + defer + n)) if n else 0.0)
    )
    kw = {"i": RATE, "m": m, "defer": defer}
    assert annuity(sult, x, n, method="udd", **kw) == pytest.approx(udd, rel=RTOL)
    assert annuity(sult, x, n, method="woolhouse2", **kw) == pytest.approx(two, rel=RTOL)
    assert annuity(sult, x, n, method="woolhouse", **kw) == pytest.approx(three, rel=RTOL)
    # In arrears: 1/m less at the start of the payments, 1/m more at their end.
    immediate = annuity(sult, x, n, method="udd", due=False, **kw)
    assert immediate == pytest.approx(udd - (lead - end) / m, rel=RTOL)


def test_woolhouse_is_close_to_the_exact_makeham_force(sult):
    """With the force of Makeham's law itself the three-term formula moves by about 1e-6."""
    ref = Survival(sult)
    mu = 0.00022 + 2.7e-6 * 1.124**65
    delta = math.log(1 + RATE)
    exact_mu = ref.annuity(65) - 11 / 24 - 143 / 1728 * (delta + mu)
    assert annuity(sult, 65, i=RATE, m=12, method="woolhouse") == pytest.approx(exact_mu, abs=2e-6)


# -- exact annuities ------------------------------------------------------------------------------

CASES = [
    # x, n, defer, due, m
    (65, None, 0, True, 1),
    (65, None, 0, True, 12),
    (65, 10, 0, False, 4),
    (30, 25, 5, True, 12),
    (65.3, None, 0, True, 12),
    (65.3, 10, 2, False, 2),
    (50, 10.5, 0, True, 2),  # half years of a half-yearly annuity
    (50, 7.25, 0.5, False, 4),
    (118.6, None, 0, True, 6),  # into the year after w
    (120, None, 0, True, 12),
    (60, 30, 70, True, 1),  # deferred past w: nothing
]


@pytest.mark.parametrize(("x", "n", "defer", "due", "m"), CASES)
def test_exact_annuities_sum_every_payment(sult, method, x, n, defer, due, m):
    ref = Survival(sult, method)
    got = annuity(sult, x, n, i=RATE, m=m, due=due, defer=defer)
    assert got == pytest.approx(ref.annuity(x, n, m=m, due=due, defer=defer), rel=RTOL, abs=1e-15)


def test_exact_equals_udd_under_udd(sult):
    """Under linear l, including the year after w, alpha(m) and beta(m) are exact at integer ages."""
    ages = np.arange(0, 121)
    for n, defer in ((None, 0), (10, 0), (None, 5), (20, 3)):
        kw = {"i": RATE, "m": 12, "defer": defer}
        np.testing.assert_allclose(
            annuity(sult, ages, n, **kw), annuity(sult, ages, n, method="udd", **kw), rtol=1e-12, atol=1e-15
        )


def test_whole_life_at_every_age_against_the_numpy_floor(sult):
    q = sult._decrement
    ages = np.arange(q.size, dtype=np.float64)
    lives = 1e6 * np.cumprod(np.concatenate([[1.0], 1.0 - q[:-1]]))
    d = lives * (1.0 + RATE) ** -ages
    floor = np.cumsum(d[::-1])[::-1] / d
    np.testing.assert_allclose(annuity(sult, ages, i=RATE), floor, rtol=1e-13)


def test_vectors_pair_element_by_element(sult):
    ages, terms = np.array([40.0, 55.5, 65.0]), np.array([10, 20, 5])
    expected = [annuity(sult, float(x), int(n), i=RATE, m=12) for x, n in zip(ages, terms, strict=True)]
    assert annuity(sult, ages, terms, i=RATE, m=12).tolist() == expected
    assert annuity(sult, list(ages), list(terms), i=RATE, m=12).tolist() == expected
    one_age = annuity(sult, 65, [5, 10], i=RATE)
    assert one_age.tolist() == [annuity(sult, 65, 5, i=RATE), annuity(sult, 65, 10, i=RATE)]
    assert annuity(sult, [65], [5, 10], i=RATE).tolist() == one_age.tolist()
    assert annuity(sult, ages, [10], i=RATE).shape == (3,)
    assert isinstance(annuity(sult, np.float64(65), np.int64(10), i=RATE), float)
    assert annuity(sult, [], i=RATE).shape == (0,)


def test_long_vectors(sult):
    """Long vectors run without the GIL; every element is still its scalar value."""
    rng = np.random.default_rng(7)
    ages = np.concatenate([rng.integers(0, 121, 60_000).astype(float), rng.uniform(0, 120, 2_000)])
    values = annuity(sult, ages, i=RATE, m=4)
    for k in (0, 59_999, 60_000, 61_999):
        assert values[k] == annuity(sult, float(ages[k]), i=RATE, m=4)


# -- insurances and endowments ------------------------------------------------------------------


@pytest.mark.parametrize(
    ("x", "n", "defer"), [(65, None, 0), (30, 20, 0), (40, None, 10), (45.5, 15, 0), (119, None, 0)]
)
def test_insurances_sum_every_year(sult, method, x, n, defer):
    ref = Survival(sult, method)
    term = ref.insurance(x, n, defer=defer)
    assert insurance(sult, x, n, i=RATE, defer=defer) == pytest.approx(term, rel=RTOL)
    i12 = 12 * ((1 + RATE) ** (1 / 12) - 1)
    assert insurance(sult, x, n, i=RATE, defer=defer, m=12) == pytest.approx(RATE / i12 * term, rel=RTOL)
    continuous = insurance(sult, x, n, i=RATE, defer=defer, m=None)
    assert continuous == pytest.approx(RATE / math.log1p(RATE) * term, rel=RTOL)
    if n is not None:
        pure = ref.endowment(x, defer + n)
        got = insurance(sult, x, n, i=RATE, defer=defer, endowment=True)
        assert got == pytest.approx(term + pure, rel=RTOL)
        deferred = pure_endowment(sult, x + defer, n, i=RATE) * ref.endowment(x, defer)
        assert deferred == pytest.approx(pure, rel=RTOL)


def test_insurance_and_annuity_are_tied_by_discount(sult, method):
    d = RATE / (1 + RATE)
    for x in (25, 65, 65.7):
        assert insurance(sult, x, i=RATE) == pytest.approx(1 - d * annuity(sult, x, i=RATE), rel=1e-12)
        endow = insurance(sult, x, 20, i=RATE, endowment=True)
        assert endow == pytest.approx(1 - d * annuity(sult, x, 20, i=RATE), rel=1e-12)


def test_pure_endowment(sult, method):
    ref = Survival(sult, method)
    terms = [0, 1, 10.5, 54.99, 55.5, 56]
    expected = [ref.endowment(65, n) for n in terms]
    np.testing.assert_allclose(pure_endowment(sult, 65, terms, i=RATE), expected, rtol=RTOL, atol=1e-18)
    assert pure_endowment(sult, 65, 0, i=RATE) == 1.0
    assert pure_endowment(sult, 65, 56, i=RATE) == 0.0


def test_net_premiums(sult):
    ref = Survival(sult)
    whole = ref.insurance(40) / ref.annuity(40)
    assert net_premium(sult, 40, i=RATE) == pytest.approx(whole, rel=RTOL)
    endow = (ref.insurance(40, 25) + ref.endowment(40, 25)) / ref.annuity(40, 25)
    assert net_premium(sult, 40, 25, i=RATE, endowment=True) == pytest.approx(endow, rel=RTOL)
    term = ref.insurance(40, 25) / ref.annuity(40, 10)
    assert net_premium(sult, 40, 25, i=RATE, premium_term=10) == pytest.approx(term, rel=RTOL)
    monthly = insurance(sult, [40, 50], 20, i=RATE, m=None) / annuity(sult, [40, 50], 20, i=RATE, m=12)
    premiums = net_premium(sult, [40, 50], 20, i=RATE, m=12, benefit_m=None)
    np.testing.assert_allclose(premiums, monthly, rtol=1e-15)
    with exactly(ValueError, "[net_premium] premium_term must not exceed n"):
        net_premium(sult, 40, 10, i=RATE, premium_term=[5, 12])
    with exactly(ValueError, "[insurance] an endowment needs a term n"):
        net_premium(sult, 40, i=RATE, endowment=True)


# -- commutation columns --------------------------------------------------------------------------


def test_commutation_columns_against_numpy(sult):
    frame = commutation(sult, i=0.03)
    assert frame.columns == ["age", "lx", "dx", "Dx", "Nx", "Sx", "Cx", "Mx", "Rx"]
    assert frame.schema["age"] == pl.Int64 and frame.height == 121
    lives = sult._lx_raw
    ages = np.arange(121.0)
    v = 1 / 1.03
    dx = lives - np.append(lives[1:], 0.0)
    D, C = v**ages * lives, v ** (ages + 1) * dx
    N = np.cumsum(D[::-1])[::-1]
    M = np.cumsum(C[::-1])[::-1]
    expected = {"lx": lives, "dx": dx, "Dx": D, "Nx": N, "Sx": np.cumsum(N[::-1])[::-1], "Cx": C, "Mx": M}
    expected["Rx"] = np.cumsum(M[::-1])[::-1]
    for name, column in expected.items():
        np.testing.assert_allclose(frame[name].to_numpy(), column, rtol=1e-13, err_msg=name)
    assert frame["age"].to_list() == list(range(121))
    np.testing.assert_allclose(frame["Nx"] / frame["Dx"], annuity(sult, ages, i=0.03), rtol=1e-13)
    np.testing.assert_allclose(frame["Mx"] / frame["Dx"], insurance(sult, ages, i=0.03), rtol=1e-12)


def test_commutation_follows_a_truncated_table(tables):
    active = LifeTable("SULT", "u")
    tables.write("RET", {"table_type": "exit", "sexes": ["u"]}, {"ox_u": [0.0] * 65 + [1.0]})
    with pytest.warns(UserWarning, match="reduced omega"):
        active.modify_qx({"table_combination": ExitTable("RET", "u")})
    frame = commutation(active, i=0.03)
    assert frame.height == 66 and frame["dx"][-1] == frame["lx"][-1]


# -- interest -------------------------------------------------------------------------------------


def test_interest_from_the_table_or_the_call():
    t = LifeTable("SULT", "u", interest_rate=0.04)
    assert annuity(t, 65) == annuity(t, 65, i=0.04)
    assert annuity(t, 65, i=RATE) == annuity(LifeTable("SULT", "u"), 65, i=RATE)
    assert commutation(t)["Dx"][1] == pytest.approx(1e6 / 1.04)
    t.configure(interest_rate=-0.01)
    with exactly(ValueError, "[annuity] i (the table's interest_rate) must be >= 0, got -0.01"):
        annuity(t, 65)
    with exactly(ValueError, "[insurance] i is required: pass i=... or give the table an interest_rate"):
        insurance(LifeTable("SULT", "u"), 65)


def test_zero_interest_and_its_limits(sult):
    ref = Survival(sult)
    assert annuity(sult, 65, i=0) == pytest.approx(1 + sult.ex(65), rel=1e-13)
    assert annuity(sult, 65, i=0, m=12) == pytest.approx(ref.annuity(65, i=0, m=12), rel=RTOL)
    assert annuity(sult, 65, i=0, m=12, method="udd") == pytest.approx(ref.annuity(65, i=0, m=12), rel=1e-12)
    assert insurance(sult, 65, i=0) == pytest.approx(1.0, rel=1e-13)
    assert insurance(sult, 65, i=0, m=None) == pytest.approx(1.0, rel=1e-13)
    # Near zero the factors run into their limits smoothly (no cancellation).
    for tiny in (1e-12, 1e-7, 1e-3):
        exact = ref.annuity(65, i=tiny, m=12)
        assert annuity(sult, 65, i=tiny, m=12, method="udd") == pytest.approx(exact, rel=1e-11)


# -- other tables and edge cases ------------------------------------------------------------------


def test_any_decrement_table(tables):
    tables.write("WD", {"table_type": "exit", "sexes": ["u"]}, {"ox_u": [0.05] * 10 + [1.0]})
    t = ExitTable("WD", "u")
    # Payments while the member stays: at ages 0..10, the last to those still there at w.
    expected = sum(1.03**-k * 0.95**k for k in range(11))
    assert annuity(t, 0, i=0.03) == pytest.approx(expected, rel=1e-13)
    with exactly(ValueError, "[annuity] i is required: pass i=... or give the table an interest_rate"):
        annuity(t, 0)


def test_ages_without_survivors_give_zero(sult):
    doubled = LifeTable("SULT", "u")
    doubled.modify_qx({"decrement_multiplier": 2.0})
    doubled.lx()
    gone = int(np.argmax(doubled._lx_raw == 0.0))
    assert annuity(doubled, [gone, gone + 0.5], i=RATE, m=12).tolist() == [0.0, 0.0]
    assert insurance(doubled, gone, i=RATE) == 0.0
    assert math.isnan(net_premium(doubled, gone, i=RATE))
    # The last year with lives is spread uniformly under every interpolation.
    for name in LX_INTERPOLATIONS:
        with Config().override(lx_interpolation=name):
            ref = Survival(doubled, name)
            expected = ref.annuity(gone - 1, m=12)
            assert annuity(doubled, gone - 1, i=RATE, m=12) == pytest.approx(expected, rel=1e-12)


OVER_W = "All ages x must be <= w (120) for table 'SULT', got"
BAD = [
    (lambda t: annuity(t, 65, i=-0.01), ValueError, "[annuity] i must be >= 0, got -0.01"),
    (lambda t: annuity(t, 65, i=math.nan), ValueError, "[annuity] i must be finite, got nan"),
    (lambda t: annuity(t, 65, i=[0.05]), TypeError, "[annuity] i must be a single number, got list"),
    (
        lambda t: annuity(t, 65, i=RATE, m=5),
        ValueError,
        "[annuity] m must be one of 1, 2, 3, 4, 6, 12, got 5",
    ),
    (lambda t: annuity(t, 65, i=RATE, m=None), TypeError, "[annuity] m must be a single number, got None"),
    (lambda t: annuity(t, 65, -1, i=RATE), ValueError, "[annuity] n must be >= 0, got -1"),
    (lambda t: annuity(t, 65, [5, -2], i=RATE), ValueError, "[annuity] n must be >= 0, got -2"),
    (lambda t: annuity(t, 65, math.nan, i=RATE), ValueError, "[annuity] n must be finite, got nan"),
    (
        lambda t: annuity(t, 65, 2.5, i=RATE, method="udd"),
        ValueError,
        "[annuity] n must be a whole number of years, got 2.5",
    ),
    (
        lambda t: annuity(t, 65, 2.1, i=RATE, m=4),
        ValueError,
        "[annuity] n must be a whole number of payment periods (1/4 of a year), got 2.1",
    ),
    (lambda t: annuity(t, 65, i=RATE, defer=-1), ValueError, "[annuity] defer must be >= 0, got -1"),
    (lambda t: annuity(t, 121, i=RATE), ValueError, f"[annuity] {OVER_W} 121."),
    (lambda t: annuity(t, -0.5, i=RATE), ValueError, "[annuity] All ages x must be >= 0 for table 'SULT'."),
    (lambda t: annuity(t, [65, math.nan], i=RATE), ValueError, "[annuity] x[1] must be finite, got nan"),
    (
        lambda t: annuity(t, [60, 65], [1, 2, 3], i=RATE),
        ValueError,
        "[annuity] x and n must have the same length, got 2 and 3",
    ),
    (
        lambda t: annuity(t, 65, i=RATE, method="cubic"),
        ValueError,
        "[annuity] method must be one of 'exact', 'udd', 'woolhouse', 'woolhouse2', got 'cubic'",
    ),
    (lambda t: annuity(t, 65, i=RATE, due="yes"), TypeError, "[annuity] due must be True or False, got str"),
    (lambda t: annuity("SULT", 65, i=RATE), TypeError, "[annuity] table must be a DecrementTable, got str"),
    (
        lambda t: insurance(t, 65, 2.5, i=RATE),
        ValueError,
        "[insurance] n must be a whole number of years, got 2.5",
    ),
    (
        lambda t: insurance(t, 65, i=RATE, m=7),
        ValueError,
        "[insurance] m must be one of 1, 2, 3, 4, 6, 12, got 7",
    ),
    (
        lambda t: insurance(t, 65, i=RATE, defer=0.5),
        ValueError,
        "[insurance] defer must be a whole number of years, got 0.5",
    ),
    (lambda t: pure_endowment(t, 65, -1, i=RATE), ValueError, "[pure_endowment] n must be >= 0, got -1"),
    (lambda t: pure_endowment(t, 130, 1, i=RATE), ValueError, f"[pure_endowment] {OVER_W} 130."),
    (lambda t: commutation(t, i=-1), ValueError, "[commutation] i must be >= 0, got -1"),
]


@pytest.mark.parametrize(("call", "exc", "message"), BAD)
def test_bad_input_is_refused_and_changes_nothing(call, exc, message):
    t = LifeTable("SULT", "u", interest_rate=0.05)
    before = annuity(t, 65, m=12)
    rates, lives = t._decrement.copy(), t._lx_raw.copy()
    with exactly(exc, message):
        call(t)
    np.testing.assert_array_equal(t._decrement, rates)
    np.testing.assert_array_equal(t._lx_raw, lives)
    assert t.interest_rate == 0.05 and annuity(t, 65, m=12) == before


def test_pending_table_is_refused(tables):
    tables.select()
    with pytest.raises(ValueError, match=r"called from annuity\)"):
        annuity(LifeTable("SEL", "m", pending=True), 1, i=RATE)
