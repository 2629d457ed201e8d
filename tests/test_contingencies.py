"""veltrane.contingencies against independent calculations: direct sums in plain Python and NumPy.

``Survival`` writes the survival model out by hand from the table's unrounded l at integer ages:
the three interpolations in their textbook forms, and a year without survivors at its end (the
year after w, or a certain rate) spread uniformly. The references sum every payment one by one;
the functions under test must agree to 1e-10 relative (most agree to 1e-13).
"""

from __future__ import annotations

import math

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
    woolhouse = annuity(sult, 65, i=RATE, m=12, method="woolhouse")
    assert woolhouse == pytest.approx(13.0870, abs=5e-5)
    # With the force of Makeham's law itself the three-term formula moves by about 1e-6.
    mu = 0.00022 + 2.7e-6 * 1.124**65
    assert woolhouse == pytest.approx(a65 - 11 / 24 - 143 / 1728 * (math.log1p(RATE) + mu), abs=2e-6)


@pytest.mark.parametrize("m", [2, 4, 12])
@pytest.mark.parametrize(
    ("x", "n", "defer"), [(65, None, 0), (20, None, 0), (50, 15, 0), (40, 20, 10), (100, None, 5)]
)
def test_udd_and_woolhouse_formulas(sult, m, x, n, defer):
    ref = Survival(sult)
    annual = ref.annuity(x, n, defer=defer)
    lead = ref.endowment(x, defer)
    end = ref.endowment(x, defer + n) if n is not None else 0.0
    im, dm, delta = m * ((1 + RATE) ** (1 / m) - 1), m * (1 - (1 + RATE) ** (-1 / m)), math.log1p(RATE)
    alpha, beta = RATE * RATE / (1 + RATE) / (im * dm), (RATE - im) / (im * dm)
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


@pytest.mark.parametrize(
    ("x", "n", "defer", "due", "m"),
    [
        *[(65, None, 0, True, 1), (65, None, 0, True, 12), (65, 10, 0, False, 4), (30, 25, 5, True, 12)],
        *[(65.3, None, 0, True, 12), (65.3, 10, 2, False, 2), (50, 7.25, 0.5, False, 4)],
        (50, 10.5, 0, True, 2),  # half years of a half-yearly annuity
        *[(118.6, None, 0, True, 6), (120, None, 0, True, 12)],  # into the year after w
        (60, 30, 70, True, 1),  # deferred past w: nothing
    ],
)
@pytest.mark.parametrize("i", [RATE, -0.02, -0.5])
def test_exact_annuities_sum_every_payment(sult, method, x, n, defer, due, m, i):
    ref = Survival(sult, method)
    got = annuity(sult, x, n, i=i, m=m, due=due, defer=defer)
    assert got == pytest.approx(ref.annuity(x, n, i=i, m=m, due=due, defer=defer), rel=RTOL, abs=1e-15)


@pytest.mark.parametrize("i", [RATE, 10.0, 1e8, 1e300, -0.03, -0.6, -0.99])
@pytest.mark.parametrize(
    ("m", "due", "n", "defer"), [(12, True, None, 0), (12, False, 10, 5), (4, True, 5, 0), (1, False, 10, 3)]
)
def test_approximations_agree_with_the_exact_sum_at_any_rate(sult, i, m, due, n, defer):
    """Under linear l UDD is exact at every rate; with m = 1 every method is the annual annuity."""
    ages, kw = np.array([0, 30, 65, 100, 119.0, 120]), {"i": i, "m": m, "due": due, "defer": defer}
    exact = annuity(sult, ages, n, **kw)
    for way in ("udd",) if m > 1 else ("udd", "woolhouse", "woolhouse2"):
        np.testing.assert_allclose(annuity(sult, ages, n, method=way, **kw), exact, rtol=1e-12, err_msg=way)


@pytest.mark.parametrize("m", [1, 12])
def test_terms_and_deferments_at_the_edges_of_their_range(sult, m):
    # Far past the table at a fractional age: the whole life, or nothing (not a count that overflows).
    assert annuity(sult, 65.5, 1e300, i=RATE, m=m) == annuity(sult, 65.5, i=RATE, m=m)
    assert annuity(sult, 65.5, defer=1e300, i=RATE, m=m) == 0.0
    # Within the integer tolerance below a whole number, a term or deferment is that number.
    whole, near = {"n": 3, "defer": 2}, {"n": 3 - 5e-10, "defer": 2 - 5e-10}
    assert insurance(sult, 65, i=RATE, m=m, **near) == insurance(sult, 65, i=RATE, m=m, **whole)
    endowment = insurance(sult, 65, i=RATE, endowment=True, **whole)
    assert insurance(sult, 65, i=RATE, endowment=True, **near) == pytest.approx(endowment, rel=1e-8)


def test_vectors_pair_element_by_element(sult):
    ages, terms = np.array([40.0, 55.5, 65.0]), np.array([10, 20, 5])
    expected = [annuity(sult, float(x), int(n), i=RATE, m=12) for x, n in zip(ages, terms, strict=True)]
    assert annuity(sult, list(ages), list(terms), i=RATE, m=12).tolist() == expected
    one_age = [annuity(sult, 65, 5, i=RATE), annuity(sult, 65, 10, i=RATE)]
    assert annuity(sult, [65], [5, 10], i=RATE).tolist() == one_age
    assert annuity(sult, ages, [10], i=RATE).shape == (3,) and annuity(sult, [], i=RATE).shape == (0,)
    assert isinstance(annuity(sult, np.float64(65), np.int64(10), i=RATE), float)
    # Long vectors run without the GIL; every element is still its scalar value.
    rng = np.random.default_rng(7)
    ages = np.concatenate([rng.integers(0, 121, 60_000).astype(float), rng.uniform(0, 120, 2_000)])
    values = annuity(sult, ages, i=RATE, m=4)
    for k in (0, 59_999, 60_000, 61_999):
        assert values[k] == annuity(sult, float(ages[k]), i=RATE, m=4)


@pytest.mark.parametrize("i", [RATE, -0.02, -0.5])
@pytest.mark.parametrize(
    ("x", "n", "defer"),
    [(65, None, 0), (30, 20, 0), (40, None, 10), (45.5, 15, 0), (50.5, None, 0), (119, None, 0)],
)
def test_insurances_sum_every_year(sult, method, x, n, defer, i):
    ref = Survival(sult, method)
    term, kw = ref.insurance(x, n, i=i, defer=defer), {"i": i, "defer": defer}
    assert insurance(sult, x, n, **kw) == pytest.approx(term, rel=RTOL)
    assert insurance(sult, x, n, m=12, method="udd", **kw) == pytest.approx(
        i / (12 * ((1 + i) ** (1 / 12) - 1)) * term, rel=RTOL
    )
    udd = insurance(sult, x, n, m=None, method="udd", **kw)
    assert udd == pytest.approx(i / math.log1p(i) * term, rel=RTOL)
    if n is not None:
        pure = ref.endowment(x, defer + n, i=i)
        assert insurance(sult, x, n, endowment=True, **kw) == pytest.approx(term + pure, rel=RTOL)


@pytest.mark.parametrize("i", [RATE, -0.02, -0.5])
def test_pure_endowment(sult, method, i):
    ref = Survival(sult, method)
    terms = [0, 1, 10.5, 54.99, 55.5, 56]
    expected = [ref.endowment(65, n, i=i) for n in terms]
    np.testing.assert_allclose(pure_endowment(sult, 65, terms, i=i), expected, rtol=RTOL, atol=1e-18)
    assert pure_endowment(sult, 65, 0, i=i) == 1.0 and pure_endowment(sult, 65, 56, i=i) == 0.0
    # Discounting grows without bound, survival ends: a payment past the table is worth 0, not NaN.
    assert pure_endowment(sult, 65, [1e300, 60.5], i=i).tolist() == [0.0, 0.0]
    whole_life = insurance(sult, 65, i=i)
    assert insurance(sult, 65, 1e300, i=i, endowment=True) == whole_life and (whole_life > 1.0) == (i < 0)


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


def test_commutation_columns_against_numpy(sult):
    frame = commutation(sult, i=0.03)
    assert frame.columns == ["age", "lx", "dx", "Dx", "Nx", "Sx", "Cx", "Mx", "Rx"]
    assert frame.schema["age"] == pl.Int64 and frame["age"].to_list() == list(range(121))
    lives, ages, tail = sult._lx_raw, np.arange(121.0), lambda c: np.cumsum(c[::-1])[::-1]
    dx = lives - np.append(lives[1:], 0.0)
    D, C = 1.03**-ages * lives, 1.03 ** -(ages + 1) * dx
    expected = {"lx": lives, "dx": dx, "Dx": D, "Nx": tail(D), "Sx": tail(tail(D)), "Cx": C, "Mx": tail(C)}
    for name, column in (expected | {"Rx": tail(tail(C))}).items():
        np.testing.assert_allclose(frame[name].to_numpy(), column, rtol=1e-13, err_msg=name)


def test_interest_from_the_table_or_the_call(tables):
    t = LifeTable("SULT", "u", interest_rate=0.04)
    assert annuity(t, 65) == annuity(t, 65, i=0.04)
    assert annuity(t, 65, i=RATE) == annuity(LifeTable("SULT", "u"), 65, i=RATE)
    assert commutation(t)["Dx"][1] == pytest.approx(1e6 / 1.04)
    t.configure(interest_rate=-0.01)  # negative rates are a valid basis
    assert annuity(t, 65) == annuity(t, 65, i=-0.01) > annuity(t, 65, i=0)
    # Any decrement table: payments while the member stays, at ages 0..10, the last to those still there.
    tables.write("WD", {"table_type": "exit", "sexes": ["u"]}, {"ox_u": [0.05] * 10 + [1.0]})
    wd = ExitTable("WD", "u")
    assert annuity(wd, 0, i=0.03) == pytest.approx(sum(1.03**-k * 0.95**k for k in range(11)), rel=1e-13)
    with exactly(ValueError, "[annuity] i is required: pass i=... or give the table an interest_rate"):
        annuity(wd, 0)


def test_three_term_woolhouse_is_never_negative(sult):
    """Refused where its second correction outweighs the first; elsewhere at least 0."""
    given, refused = [], 0
    for i in (0.05, 1.0, 30.0, 100.0, 1e3, 1e6, -0.5):
        for m, x, n, defer in [(12, 65, None, 0), (2, 119.0, None, 0), (4, 30, 10, 5), (12, 110, 5, 0)]:
            try:
                given.append(annuity(sult, x, n, i=i, m=m, defer=defer, method="woolhouse"))
            except ValueError as exc:
                assert 'use method="exact"' in str(exc)
                refused += 1
    assert min(given) >= 0.0 and refused > 0 and len(given) > 14


def test_zero_interest_and_its_limits(sult):
    ref = Survival(sult)
    # Where the values leave the range of a float the rate is refused, not answered with inf or NaN.
    with pytest.raises(ValueError, match=r"^\[annuity\] .*beyond the range of a float"):
        annuity(sult, [65, 0], i=-1 + 1e-12)
    assert annuity(sult, 65, i=0) == pytest.approx(1 + sult.ex(65), rel=1e-13)
    assert insurance(sult, 65, i=0) == pytest.approx(1.0, rel=1e-13)
    assert insurance(sult, 65, i=0, m=None) == pytest.approx(1.0, rel=1e-13)
    # At and near zero the factors run into their limits smoothly (no cancellation).
    for tiny in (0, 1e-12, 1e-7, 1e-3):
        exact = ref.annuity(65, i=tiny, m=12)
        assert annuity(sult, 65, i=tiny, m=12, method="udd") == pytest.approx(exact, rel=1e-11)


def test_truncated_and_exhausted_tables(tables):
    active = LifeTable("SULT", "u")
    tables.write("RET", {"table_type": "exit", "sexes": ["u"]}, {"ox_u": [0.0] * 65 + [1.0]})
    with pytest.warns(UserWarning, match="reduced omega"):
        active.modify_qx({"table_combination": ExitTable("RET", "u")})
    frame = commutation(active, i=0.03)  # the columns end with the table
    assert frame.height == 66 and frame["dx"][-1] == frame["lx"][-1]
    # Ages without survivors are worth nothing.
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
            expected = Survival(doubled, name).annuity(gone - 1, m=12)
            assert annuity(doubled, gone - 1, i=RATE, m=12) == pytest.approx(expected, rel=1e-12)


OVER_W = "All ages x must be <= w (120) for table 'SULT', got"
WHOLE_PERIODS = "n must be a whole number of payment periods (1/4 of a year), got 2.1"
NUMBERS = "a number or an array of numbers"
WOOLHOUSE = (
    'method="woolhouse" does not hold at x = 65 with i = 1000000 and m = 12: its second correction '
    '(1.1438) outweighs its first (0.45833); use method="exact"'
)
METHODS = "method must be one of 'exact', 'udd', 'woolhouse', 'woolhouse2', got 'cubic'"


@pytest.mark.parametrize(
    ("call", "args", "kw", "exc", "message"),
    [
        (annuity, (65,), {"i": -1}, ValueError, "i must be > -1, got -1"),
        (pure_endowment, (65, 5), {"i": -math.inf}, ValueError, "i must be finite, got -inf"),
        (annuity, (65,), {"i": 1e6, "m": 12, "method": "woolhouse"}, ValueError, WOOLHOUSE),
        (annuity, (65,), {"i": [0.05]}, TypeError, "i must be a single number, got list"),
        (annuity, (65,), {"m": 5}, ValueError, "m must be one of 1, 2, 3, 4, 6, 12, got 5"),
        (annuity, (65, [5, -2]), {}, ValueError, "n must be >= 0, got -2"),
        (annuity, (65, math.nan), {}, ValueError, "n must be finite, got nan"),
        (annuity, (65, 2.5), {"method": "udd"}, ValueError, "n must be a whole number of years, got 2.5"),
        (annuity, (65, 2.1), {"m": 4}, ValueError, WHOLE_PERIODS),
        (annuity, (65,), {"defer": -1}, ValueError, "defer must be >= 0, got -1"),
        (annuity, (121,), {}, ValueError, f"{OVER_W} 121."),
        (annuity, ([60, 65], [1, 2, 3]), {}, ValueError, "x and n must have the same length, got 2 and 3"),
        (annuity, (65,), {"method": "cubic"}, ValueError, METHODS),
        (annuity, (65,), {"due": "yes"}, TypeError, "due must be True or False, got str"),
        (insurance, (65,), {"defer": 0.5}, ValueError, "defer must be a whole number of years, got 0.5"),
        (insurance, (65,), {"endowment": True}, ValueError, "an endowment needs a term n"),
        (net_premium, (40, 10), {"premium_term": [5, 12]}, ValueError, "premium_term must not exceed n"),
        (net_premium, (40, 10), {"premium_term": 0}, ValueError, "premium_term must be positive"),
        (net_premium, (40, 0), {}, ValueError, "n must be positive"),
        (net_premium, (40,), {"premium_term": "ten"}, TypeError, f"premium_term must be {NUMBERS}"),
    ],
)
def test_bad_input_is_refused_and_changes_nothing(call, args, kw, exc, message):
    t = LifeTable("SULT", "u", interest_rate=0.05)
    before = annuity(t, 65, m=12)
    rates, lives = t._decrement.copy(), t._lx_raw.copy()
    with exactly(exc, message if message.startswith("[") else f"[{call.__name__}] {message}"):
        call(t, *args, **kw)
    assert np.array_equal(t._decrement, rates) and np.array_equal(t._lx_raw, lives)
    assert t.interest_rate == 0.05 and annuity(t, 65, m=12) == before


def test_refused_tables(tables):
    with exactly(TypeError, "[annuity] table must be a DecrementTable, got str"):
        annuity("SULT", 65, i=RATE)
    tables.select()
    with pytest.raises(ValueError, match=r"called from annuity\)"):
        annuity(LifeTable("SEL", "m", pending=True), 1, i=RATE)
