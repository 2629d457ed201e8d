"""lx, px, qx, tpx, tqx and dx against NumPy references, at integer and fractional ages.

``Reference`` recomputes every function from the bundled Makeham rates with whole-vector NumPy
(survivorship by cumulative product, masked divisions, ``np.round``; powers from the C library),
under both interpolations; the tables must agree with it bit for bit. The closed form of
Makeham's law and a published l column check the actuarial meaning independently of both.
"""

from __future__ import annotations

import contextlib
import csv
import gc
import math
import sys
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pandas as pd
import polars as pl
import pytest

from conftest import RAW
from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.config import Config
from veltrane.tables.life import LifeTable
from veltrane.tables.source import BUNDLED_TABLES_DIR

EPS = 1e-9
RADIX = 1_000_000.0
A, B, C = 0.00022, 2.7e-6, 1.124  # Makeham's law of the bundled SULT table


# The C library's pow, element by element: NumPy's SIMD power differs from it in the last bit on
# some CPUs (AVX-512), while the tables call the C library.
_libm_pow = np.vectorize(math.pow, otypes=[np.float64])


class Reference:
    """The survivorship and probability formulas as whole-vector NumPy, from a rate vector."""

    def __init__(self, q: np.ndarray, method: str = "linear") -> None:
        self.q, self.method, self.w = q, method, q.size - 1
        self.l_raw = RADIX * np.concatenate([[1.0], np.cumprod(1.0 - q[:-1])])
        self.l = np.round(self.l_raw, 9)

    def lx_at(self, x, raw=False) -> np.ndarray:
        L = self.l_raw if raw else self.l
        x = np.atleast_1d(np.asarray(x, dtype=np.float64))
        xc = np.maximum(np.minimum(x, float(self.w)), 0.0)
        i = np.floor(xc).astype(np.int64)
        f = xc - i
        up = f >= 1.0 - EPS
        is_int = up | (f <= EPS)
        out = np.empty_like(xc)
        out[is_int] = L[np.clip(i + up, 0, L.size - 1)[is_int]]
        i, f = i[~is_int], f[~is_int]
        if self.method == "linear":
            out[~is_int] = L[i] + (L[i + 1] - L[i]) * f
        else:
            lo, hi = L[i], L[np.minimum(i + 1, L.size - 1)]
            part = np.zeros_like(lo)
            nz = lo != 0.0
            part[nz] = lo[nz] * _libm_pow(hi[nz] / lo[nz], f[nz])
            out[~is_int] = part
        out[x > self.w] = 0.0
        return out

    def prob(self, kind: str, x, m: int = 1, decimals: int = 12) -> np.ndarray:
        """px or qx on a vector of ages (the vector path; a single age takes ``prob_scalar``)."""
        x = np.atleast_1d(np.asarray(x, dtype=np.float64))
        w = float(self.w)
        if m == 1 and np.all(np.abs(x - np.rint(x)) <= EPS):
            idx = np.clip(np.rint(x).astype(np.int64), 0, self.q.size - 1)
            p = np.where(x >= w, 0.0, 1.0 - self.q[idx])
        else:
            xc = np.clip(x, 0.0, w)
            l0, l1 = self.lx_at(xc), self.lx_at(xc + 1.0 / m)
            if m != 1:
                l0, l1 = np.round(l0, 9), np.round(l1, 9)
            p = np.zeros_like(xc)
            ok = (l0 != 0.0) & (xc + 1.0 / m <= w)
            p[ok] = l1[ok] / l0[ok]
        return np.round(p if kind == "px" else 1.0 - p, decimals)

    def prob_scalar(self, kind: str, x: float, m: int) -> float:
        if m == 1:
            return float(self.prob(kind, [x], 1)[0])
        x0 = min(x, float(self.w))
        l1 = round(float(self.lx_at(x0 + 1.0 / m)[0]), 9)
        l0 = round(float(self.lx_at(x0)[0]), 9)
        p = 0.0 if l0 == 0.0 or x0 >= self.w else min(max(l1 / l0, 0.0), 1.0)
        return float(np.round(p if kind == "px" else 1.0 - p, 12))

    def interval(self, kind: str, x, t) -> np.ndarray:
        """tpx or tqx: a vector over ages for one duration, else the age-by-duration grid."""
        x = np.atleast_1d(np.asarray(x, dtype=np.float64))
        t = np.atleast_1d(np.asarray(t, dtype=np.float64))
        if t.size == 1:
            a, b = np.round(self.lx_at(x + t[0]), 9), np.round(self.lx_at(x), 9)
            p = np.zeros_like(a)
            p[b != 0.0] = a[b != 0.0] / b[b != 0.0]
        else:
            grid = self.lx_at((x[:, None] + t[None, :]).ravel()).reshape(x.size, t.size)
            b = self.lx_at(x)
            p = np.zeros_like(grid)
            p[b != 0.0] = grid[b != 0.0] / b[b != 0.0, None]
        return np.round(p if kind == "tpx" else 1.0 - p, 12)


def sult_rates() -> np.ndarray:
    with (BUNDLED_TABLES_DIR / "SULT.csv").open(newline="") as handle:
        return np.array([float(row["qx_u"]) for row in csv.DictReader(handle)])


@pytest.fixture(params=["linear", "exponential"])
def case(request):
    """The SULT table and its reference, under each interpolation setting."""
    with Config().override(lx_interpolation=request.param):
        yield LifeTable("SULT", "u"), Reference(sult_rates(), request.param)


RNG = np.random.default_rng(7)
INTEGER_AGES = np.arange(0.0, 126.0)
FRACTIONAL_AGES = np.concatenate(
    [
        np.linspace(0.0, 125.0, 2001),
        RNG.uniform(0.0, 121.0, 500),
        [49.9999999999, 50.0000000001, 50.999999999, 119.5, 119.99, 120.0, 120.5, 1e9],
    ]
)


@pytest.mark.parametrize("ages", [INTEGER_AGES, FRACTIONAL_AGES], ids=["integer", "fractional"])
def test_functions_match_reference_bit_for_bit(case, ages):
    table, ref = case
    np.testing.assert_array_equal(table.lx(ages), np.round(ref.lx_at(ages), 9))
    np.testing.assert_array_equal(table.dx(ages), np.round(ref.lx_at(ages) - ref.lx_at(ages + 1.0), 9))
    for m in PAYMENT_FREQUENCIES:
        np.testing.assert_array_equal(table.px(ages, m=m), ref.prob("px", ages, m))
        np.testing.assert_array_equal(table.qx(ages, m=m), ref.prob("qx", ages, m))
    for t in (0.5, 1.0, 10.0, 7.25):
        np.testing.assert_array_equal(table.tqx(ages, t), ref.interval("tqx", ages, t))
    durations = np.array([0.0, 0.25, 1.0, 5.5, 30.0])
    np.testing.assert_array_equal(table.tpx(ages, durations), ref.interval("tpx", ages, durations))
    np.testing.assert_array_equal(table._lx_at(ages, use_raw=True), ref.lx_at(ages, raw=True))


@pytest.mark.parametrize("x", [0.0, 50.0, 64.25, 99.999, 120.0, 123.0])
@pytest.mark.parametrize("m", [1, 12])
def test_scalar_path_matches_reference(case, x, m):
    table, ref = case
    assert table.lx(x) == np.round(ref.lx_at(x), 9)[0]
    assert table.px(x, m=m) == ref.prob_scalar("px", x, m)
    assert table.qx(x, m=m) == ref.prob_scalar("qx", x, m)
    assert table.tqx(x, 7.5) == ref.interval("tqx", x, 7.5)[0]
    assert table.tpx(x, [2.0, 10.0]).tolist() == ref.interval("tpx", x, [2.0, 10.0]).ravel().tolist()


def test_makeham_closed_form():
    """Survivorship and interval probabilities follow Makeham's law at integer ages."""
    table = LifeTable("SULT", "u")

    def survival(x, t):  # t p x for x >= 20
        return math.exp(-A * t - B * C**x * (C**t - 1.0) / math.log(C))

    for x in (20, 65, 100):
        assert table.lx(x) == pytest.approx(RADIX * survival(20, x - 20), rel=1e-12)
        for t in (1, 17):
            assert table.tpx(x, t) == pytest.approx(survival(x, t), abs=2e-12)
            assert table.tqx(x, t) == pytest.approx(1.0 - survival(x, t), abs=2e-12)
    # 10p65 of the Standard Ultimate Life Table, as published to five decimals.
    assert round(table.tpx(65, 10), 5) == 0.90086


def test_tpx_of_one_year_is_px_exactly():
    table = LifeTable("SULT", "u")
    np.testing.assert_array_equal(table.tpx(INTEGER_AGES, 1), table.px(INTEGER_AGES))
    with Config().override(decimals={"px": 6, "tpx": 10}):
        assert table.tpx(50) == table.px(50) == round(1.0 - table._decrement[50], 6)
        assert table.tpx(50, 2) == round(table.tpx(50, 2), 10)


def test_zero_survivors_divide_by_nothing(tables):
    """A table whose rates reach 1 before its last age: l = 0 from there on."""
    tables.write("EARLY", {"table_type": "life", "sexes": ["m"]}, {"qx_m": [0.1, 1.0, 0.5, 1.0]})
    t = LifeTable("EARLY", "m")
    for method, l_mid in (("linear", 450_000.0), ("exponential", 0.0)):  # 0.9 * radix * 0 ** 0.5
        with Config().override(lx_interpolation=method):
            assert t.lx(1.5) == l_mid and t.lx(2.5) == 0.0
            assert t.px([2, 2.5, 3]).tolist() == [0.0, 0.0, 0.0]
            assert t.tqx([2.2, 2.5], 0.3).tolist() == [1.0, 1.0]
            grid = t.tpx([2.5, 0.5], [0.0, 0.25])
            assert grid[0].tolist() == [0.0, 0.0] and grid[1, 0] == 1.0
            assert grid[1, 1] == pytest.approx(t.tpx(0.5, 0.25), abs=1e-12)
            assert t.qx(2.5, m=12) == 1.0


@pytest.mark.parametrize(
    ("rate", "px", "qx"),
    [(1.0 + 5e-10, 0.0, 1.0), (-5e-10, 1.0, 0.0), (1.5, "-0.5", "1.5"), (float("nan"), "nan", "nan")],
)
def test_rates_edited_by_hand(tables, rate, px, qx):
    """A rate written into _decrement: clamped within the integer tolerance, refused beyond it."""
    tables.period()
    t = LifeTable("PER", "m")
    q = t._decrement.copy()
    q[2] = rate
    t._decrement = q
    if isinstance(px, float):  # the table's own rates are read on these paths, and clamped as rates
        assert t.px(2) == t.tpx(2) == t.px([2, 3])[0] == t.px()[2] == px
        assert t.qx(2) == t.qx([2, 3])[0] == t.qx()[2] == qx
        return
    for call, message in (
        (lambda: t.qx(2), f"_prob_decrement_interval:px: value {px} outside [0,1]"),
        (lambda: t.tpx([1, 2]), f"_prob_decrement_interval:px: value {px} outside [0,1]"),
        (t.px, f"px: value {px} outside [0,1]"),
        (t.qx, f"qx: value {qx} outside [0,1]"),
        (lambda: t.px(2.5), "outside [0,1]"),  # l beyond age 2 has left [0, l(2)]
    ):
        with pytest.raises(ValueError) as info:
            call()
        assert str(info.value).endswith(message)


# fmt: off
SHAPES = [  # x, t, the shape of tpx and tqx
    ([50, 55], [1, 5, 10], (2, 3)), (50, [1, 5], (2,)), ([50, 55], 10, (2,)), ([50], [10], (1, 1)),
    ([], [1, 2], (0, 2)), ([50, 55], [], (2, 0)), (50, [], (0,)),
]
# fmt: on


@pytest.mark.parametrize(("x", "t", "shape"), SHAPES)
def test_result_shapes(x, t, shape):
    table = LifeTable("SULT", "u")
    for fn in (table.tpx, table.tqx):
        result = fn(x, t)
        assert isinstance(result, np.ndarray) and result.shape == shape and result.dtype == np.float64
    assert isinstance(table.tqx(50, 10), float) and isinstance(table.tpx(50.5), float)
    assert table.lx([50]).shape == table.px([50], m=12).shape == (1,) and table.dx([]).shape == (0,)


def test_grid_in_pieces_equals_reference():
    """3,000 ages by 1,000 durations is more than one piece of 2,000,000 cells."""
    rng = np.random.default_rng(3)
    ages, durations = rng.uniform(0, 121, 3000), rng.uniform(0, 60, 1000)
    expected = Reference(sult_rates()).interval("tqx", ages, durations)
    np.testing.assert_array_equal(LifeTable("SULT", "u").tqx(ages, durations), expected)


# fmt: off
ERRORS = [
    (lambda t: t.lx(-0.5), ValueError, "[lx] All ages x must be >= 0 for table 'SULT'."),
    (lambda t: t.tpx(-1.5, 2), ValueError, "[tpx] Ages 'x' must be >= 0"),
    (lambda t: t.tpx(50, -1), ValueError, "[tpx]: t must be >= 0"),
    (lambda t: t.lx(float("nan")), ValueError, "[lx] x must be finite, got nan"),
    (lambda t: t.tqx(50, [1, float("inf")]), ValueError, "[tqx] t[1] must be finite, got inf"),
    (lambda t: t.px(50, m=5), ValueError, "[px] m must be one of 1, 2, 3, 4, 6, 12, got 5"),
    (lambda t: t._prob_decrement_interval("tpx", 50), ValueError,
     "_prob_decrement_interval: prob_type must be 'px'"),
    (lambda t: t._prob_life_interval("px", 50), ValueError,
     "_prob_life_interval: prob_type must be 'tpx' or 'tqx'"),
    (lambda t: t.lx("50"), TypeError, "[lx] x must be a number or a sequence of numbers, got str"),
    (lambda t: t.px([50, None]), TypeError, "[px] x[1] must be numeric, got NoneType"),
    (lambda t: t.tpx(True), TypeError, "[tpx] x must be numeric, not bool"),
    (lambda t: t.tqx(50, [[1, 2]]), TypeError, "[tqx] t must be one-dimensional"),
    (lambda t: t.qx(50, m=[12]), TypeError, "[qx] m must be a single number, got list"),
    (lambda t: t.tpx(), TypeError, "tpx() missing required argument 'x'"),
    (lambda t: t.px(50, 1, 2), TypeError, "px() takes at most 2 arguments (3 given)"),
    (lambda t: t.lx(y=2), TypeError, "lx() got an unexpected keyword argument 'y'"),
]
# fmt: on


@pytest.mark.parametrize(("call", "exc", "message"), ERRORS)
def test_refusals(call, exc, message):
    with pytest.raises(exc) as info:
        call(LifeTable("SULT", "u"))
    assert str(info.value).startswith(message)


def test_input_kinds_agree():
    table = LifeTable("SULT", "u")
    ages = [20.0, 35.5, 50.25, 80.0]
    expected = table.tqx(np.array(ages), 10)
    for given in [ages, tuple(ages), pd.Series(ages), pl.Series(ages), np.array(ages, dtype=np.longdouble)]:
        np.testing.assert_array_equal(table.tqx(given, 10), expected)
    assert table.lx(np.float64(50.5)) == table.lx(50.5) == table.lx(np.array(50.5))
    assert table.px(np.int64(50), m=np.int64(12)) == table.px(50, m=12)


def test_cached_vectors_are_fresh_copies_and_follow_the_settings():
    t = LifeTable("SULT", "u")
    for fn in (t.px, t.qx, t.lx, t.dx):
        fn()[:] = -1.0
        assert fn().tolist() == fn(INTEGER_AGES[: t.w + 1]).tolist()  # the vector of every age 0..w
    before = (t.lx(50.5), t.px()[60], t.qx(70))
    with Config().override(decimals={"lx": 2, "px": 3, "qx": 4}, lx_interpolation="exponential"):
        lx, px, qx = t.lx(50.5), t.px()[60], t.qx(70)
        assert lx == round(lx, 2) and px == round(px, 3) and qx == round(qx, 4)
        assert lx != before[0]
    assert (t.lx(50.5), t.px()[60], t.qx(70)) == before


def test_pending_table_is_refused(tables):
    tables.select()
    t = LifeTable("SEL", "m", pending=True)
    for name in ("lx", "px", "qx", "dx", "tqx"):
        with pytest.raises(ValueError, match=f"called from {name}\\)"):
            getattr(t, name)(1)


def test_no_reference_leaks():
    table = LifeTable("SULT", "u")
    ages, durations, age = np.array([50.5, 60.0]), [1.0, 2.0], 50.5
    before = [sys.getrefcount(o) for o in (ages, durations, age, table)]
    for _ in range(200):
        table.tpx(ages, durations), table.qx(age, m=12), table.lx(ages), table.px(), table.dx(age)
        with contextlib.suppress(ValueError):
            table.tqx(ages, -1.0)
    gc.collect()
    assert [sys.getrefcount(o) for o in (ages, durations, age, table)] == before


def test_threads_share_a_table():
    """Long vectors run without the GIL; concurrent callers get the serial results."""
    table = LifeTable("SULT", "u")
    ages = np.random.default_rng(5).uniform(0, 121, 200_000)
    expected = table.tqx(ages, 10.0)
    with ThreadPoolExecutor(4) as pool:
        results = list(pool.map(lambda _: table.tqx(ages, 10.0), range(4)))
    assert all(np.array_equal(r, expected) for r in results)


@pytest.mark.skipif(not (RAW / "lifecontingencies" / "soaLt.csv").is_file(), reason="published tables absent")
def test_published_illustrative_life_table(tables):
    """The SOA Illustrative Life Table's l column (radix 10,000,000) rebuilt from its own rates."""
    with (RAW / "lifecontingencies" / "soaLt.csv").open(newline="") as handle:
        rows = [row for row in csv.reader(handle) if row and row[0].strip().isdigit()]
    l_published = np.array([float(row[1]) for row in rows])
    q = np.append(1.0 - l_published[1:] / l_published[:-1], 1.0)
    tables.write("ILT", {"table_type": "life", "sexes": ["u"]}, {"qx_u": q})
    t = LifeTable("ILT", "u")
    np.testing.assert_allclose(t.lx(np.arange(q.size)), l_published / 10.0, rtol=1e-12)
    assert t.tpx(65, 20) == pytest.approx(l_published[85] / l_published[65], abs=1e-12)


def test_numpy_integer_last_age_is_read_as_its_value():
    t, u = LifeTable("SULT", "u"), LifeTable("SULT", "u")
    t._w_mod, u._w_mod = np.int64(100), 100
    values = [(table.qx(100), table.lx(100.5), table.tpx(90, 20)) for table in (t, u)]
    assert values[0] == values[1] == (1.0, 0.0, 0.0)
