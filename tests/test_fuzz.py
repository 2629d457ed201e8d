"""Random inputs to the public functions: a clear exception or a result in range, never a crash."""

from __future__ import annotations

import os

import numpy as np
import pandas as pd
import polars as pl
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from hypothesis.extra import numpy as hnp

from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.config import Config
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource, write_table

RADIX = 1_000_000.0
REFUSED = (TypeError, ValueError, OverflowError)

# fmt: off
numbers = st.one_of(
    st.floats(allow_nan=True, allow_infinity=True), st.floats(min_value=-5.0, max_value=130.0),
    st.floats(min_value=0.0, max_value=1e-300), st.integers(min_value=-(10**20), max_value=10**20),
    st.integers(min_value=0, max_value=130),
    st.sampled_from([10**400, -(10**400), 49.9999999999, 120.0000000001, 1e308, -0.0]),
    st.builds(np.float64, st.floats(min_value=0.0, max_value=130.0)),
    st.builds(np.int64, st.integers(min_value=-10, max_value=200)),
)
odd_scalars = st.one_of(st.none(), st.booleans(), st.text(max_size=3), st.complex_numbers(max_magnitude=10))
scalars = st.one_of(numbers, odd_scalars)
flat, ages = st.lists(numbers, max_size=12), st.lists(st.floats(min_value=0.0, max_value=130.0), max_size=8)
values = st.one_of(
    scalars, flat, flat.map(tuple), st.lists(scalars, max_size=4),
    st.lists(st.lists(numbers, max_size=2), max_size=2),
    hnp.arrays(st.sampled_from([np.float64, np.float32, np.int64, np.bool_]),
               hnp.array_shapes(min_dims=0, max_dims=2, max_side=5)),
    ages.map(pd.Series), ages.map(lambda v: pl.Series(v, dtype=pl.Float64)),
)
far_ages = st.lists(st.floats(min_value=0.0, max_value=1e6), max_size=30)
# fmt: on
frequencies = st.one_of(st.sampled_from(PAYMENT_FREQUENCIES), scalars)


@pytest.fixture(scope="module")
def subjects(tmp_path_factory):
    """The bundled Makeham table, and a small table whose survivors die out before its last age."""
    directory = tmp_path_factory.mktemp("fuzz")
    columns = {"age": [0, 1, 2, 3, 4], "qx_m": [0.2, 0.5, 1.0, 0.3, 1.0]}
    write_table(directory, "EARLY", {"table_type": "life", "sexes": ["m"]}, columns)
    with Config().override(tables_path=[directory]):
        early = LifeTable("EARLY", "m")
    TableSource.clear_cache()
    return [LifeTable("SULT", "u"), early]


def _check(result, low: float, high: float) -> None:
    if isinstance(result, float):
        result = np.array([result])
    assert isinstance(result, np.ndarray) and result.dtype == np.float64
    assert np.all((result >= low) & (result <= high)), result


# VELTRANE_FUZZ_EXAMPLES raises the count for a longer hunt by hand.
FUZZ = settings(
    max_examples=int(os.environ.get("VELTRANE_FUZZ_EXAMPLES", "400")),
    deadline=None,
    suppress_health_check=[HealthCheck.function_scoped_fixture],
)


@FUZZ
@given(which=st.integers(0, 1), exponential=st.booleans(), x=values, t=values, m=frequencies,
       name=st.sampled_from(["lx", "dx", "px", "qx", "tpx", "tqx"]))  # fmt: skip
def test_public_functions_never_crash(subjects, which, exponential, x, t, m, name):
    table = subjects[which]
    with Config().override(lx_interpolation="exponential" if exponential else "linear"):
        args, keywords = (x, t) if name in ("tpx", "tqx") else (x,), {"m": m} if name in ("px", "qx") else {}
        try:
            result = getattr(table, name)(*args, **keywords)
        except REFUSED:
            return
    _check(result, 0.0, RADIX if name in ("lx", "dx") else 1.0)


@FUZZ
@given(x=far_ages, t=far_ages, exponential=st.booleans())
def test_valid_inputs_give_probabilities(subjects, x, t, exponential):
    for table in subjects:
        with Config().override(lx_interpolation="exponential" if exponential else "linear"):
            _check(table.tqx(x, t), 0.0, 1.0)
            _check(table.tpx(np.array(x), 3.5), 0.0, 1.0)
            _check(table.qx(x, m=12), 0.0, 1.0)
            _check(table.px(x), 0.0, 1.0)
            _check(table.dx(x), 0.0, RADIX)
            _check(table.lx(x), 0.0, RADIX)


@FUZZ
@given(x=values, use_raw=st.booleans(), hint=st.one_of(st.none(), st.booleans()))
def test_internal_engines_never_crash(subjects, x, use_raw, hint):
    table = subjects[0]
    for call in (
        lambda: table._lx_at(x, use_raw=use_raw),
        lambda: table._prob_decrement_interval("qx", x, 12, False, use_raw, hint),
        lambda: table._prob_life_interval("tqx", x, x, validate=False, use_raw=use_raw),
        lambda: table._lx_interpolation_linear(table.lx(), x, x),
    ):
        try:
            call()
        except (*REFUSED, IndexError):
            pass


@FUZZ
@given(
    edits=st.lists(
        st.tuples(st.integers(0, 4), st.floats(allow_nan=True, allow_infinity=True)), min_size=1, max_size=3
    ),
    field=st.sampled_from(["_decrement", "_lx"]),
    x=st.lists(st.one_of(st.integers(0, 6), st.floats(min_value=0.0, max_value=6.0)), min_size=1, max_size=6),
    t=st.lists(st.floats(min_value=0.0, max_value=6.0), min_size=1, max_size=3),
)
def test_vectors_edited_by_hand_give_probabilities_or_an_error(subjects, edits, field, x, t):
    """Rates or survivors written into a table's fields: every probability stays in [0, 1]."""
    table = subjects[1].copy()
    table.lx(0)  # builds the l vectors, so an edited _lx is used as it stands
    vector = getattr(table, field).copy()
    for age, value in edits:
        vector[age] = value
    setattr(table, field, vector)
    if field == "_decrement":
        table._invalidate_caches()
    # fmt: off
    calls = (lambda: table.px(x), lambda: table.qx(x[0]), lambda: table.px(x, m=4), table.qx, table.px,
             lambda: table.tpx(x), lambda: table.tpx(x[0]), lambda: table.tqx(x, t),
             lambda: table.tqx(x[0], t[0]))
    # fmt: on
    for call in calls:
        try:
            result = call()
        except ValueError as error:
            assert "outside [0,1]" in str(error)
            continue
        _check(result, 0.0, 1.0)
