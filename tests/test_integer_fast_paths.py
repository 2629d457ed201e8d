"""Integer-age fast paths (lookups by integer age) against the general paths, bit for bit.

``decrement._set_fast_paths(False)`` switches the lookups off; every call must give the same
bits, or the same exception, both ways. Vectors are long enough to take the fast path.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from veltrane import Config, LifeTable
from veltrane.tables import decrement

W = 120  # SULT's last age
LONG = 64  # the shortest vector that takes a lookup


def outcome(call: Callable[[], object]) -> tuple:
    try:
        result = np.asarray(call(), dtype=np.float64)
    except (ValueError, TypeError) as error:
        return ("raised", type(error), str(error))
    return ("value", result.shape, result.tobytes())


def same_both_ways(call: Callable[[], object]) -> str:
    """The outcome's kind ("value" or "raised"), once the fast and general paths agree on it."""
    fast = outcome(call)
    previous = decrement._set_fast_paths(False)
    try:
        assert fast == outcome(call)
    finally:
        decrement._set_fast_paths(previous)
    return fast[0]


whole = st.integers(0, W + 5).map(float)
near_whole = st.sampled_from([49.9999999999999, 50.0000000000001, W - 1e-13, W + 1e-13, 0.0, float(W)])
fractional = st.floats(0.0, W + 5.0)
public_age = st.one_of(whole, whole, whole, near_whole, fractional, st.integers(-3, -1).map(float))
internal_age = st.one_of(public_age, st.just(float("nan")), st.floats(-50.0, -1e-300))


def ages_of(element: st.SearchStrategy[float]) -> st.SearchStrategy[np.ndarray]:
    # Mostly whole vectors (which take the lookups), sometimes mixed ones (which must not).
    only_whole = st.lists(whole, min_size=LONG, max_size=3 * LONG)
    mixed = st.lists(element, min_size=LONG, max_size=3 * LONG)
    return st.one_of(only_whole, mixed).map(lambda v: np.array(v, dtype=np.float64))


@pytest.fixture(scope="module", params=["linear", "exponential"])
def table(request):
    with Config().override(lx_interpolation=request.param):
        yield LifeTable("SULT", "u")


@settings(max_examples=40, deadline=None)
@given(x=ages_of(public_age), t=st.one_of(st.integers(0, 130).map(float), st.floats(0.0, 30.0)))
@pytest.mark.parametrize("method", ["lx", "dx", "qx", "px", "tpx", "tqx"])
def test_public_functions_over_ages(table, method, x, t):
    args = (x, t) if method in ("tpx", "tqx") else (x,)
    same_both_ways(lambda: getattr(table, method)(*args))


@settings(max_examples=25, deadline=None)
@given(
    x=ages_of(public_age).map(lambda v: v[:80]),
    t=st.lists(st.one_of(whole, whole, st.floats(0.0, 30.0)), min_size=61, max_size=200).map(np.array),
)
@pytest.mark.parametrize("method", ["tpx", "tqx"])
def test_public_grids(table, method, x, t):
    same_both_ways(lambda: getattr(table, method)(x, t))


@settings(max_examples=40, deadline=None)
@given(x=ages_of(internal_age))
@pytest.mark.parametrize("kind", ["px", "qx"])
def test_unvalidated_engine_with_nan_and_negative_ages(table, kind, x):
    same_both_ways(lambda: table._prob_decrement_interval(kind, x, validate=False))
    same_both_ways(lambda: table._prob_life_interval("tpx", x, 2.0, validate=False))


def test_modified_and_truncated_tables():
    table = LifeTable("SULT", "u")
    table.modify_qx({"age_shift": 7, "decrement_multiplier": 1.3})
    ages = np.arange(0.0, 140.0)
    for method in ("lx", "dx", "qx", "px", "tpx", "tqx"):
        same_both_ways(lambda m=method: getattr(table, m)(ages))
    same_both_ways(lambda: table.tpx(ages, np.arange(0.0, 100.0)))


def test_rates_outside_the_unit_interval_raise_both_ways():
    table = LifeTable("SULT", "u")
    table._decrement[30] = 1.5  # edited by hand: only the ages that read it must fail
    assert same_both_ways(lambda: table.qx(np.arange(0.0, 100.0))) == "raised"
    assert same_both_ways(lambda: table.qx(np.r_[np.arange(0.0, 30.0), np.arange(31.0, 100.0)])) == "value"
    table.lx(0)  # builds the l vectors, which are then edited too
    table._lx[40] = 2.0 * table._lx[39]
    assert same_both_ways(lambda: table.tpx(np.arange(20.0, 60.0), np.arange(0.0, 100.0))) == "raised"
    same_both_ways(lambda: table.tpx(np.arange(0.0, 100.0), 3.0))


def test_integer_arrays_and_lists_take_the_same_values():
    table = LifeTable("SULT", "u")
    ages = np.arange(0, 125)
    want = table.qx(ages.astype(np.float64))
    for given_ages in (ages, list(ages), ages.astype(np.int32), ages[::-1][::-1].copy()):
        np.testing.assert_array_equal(table.qx(given_ages), want)
