"""The C++ projections of the built-in generational formulas against the Python functions, bit for bit.

``decrement._set_fast_paths(False)`` sends every construction through the Python formula
functions; the same table built both ways must hold the same bits (signed zeros included).
NumPy's SIMD exp, log1p, power and arctan differ from the C library's in the last bit on some
CPUs (AVX-512), so the Python side runs here with those four computed element by element by the
C library (``math``), the functions the kernels call: the comparison then holds on every CPU.
"""

from __future__ import annotations

import math
from collections.abc import Callable
from functools import partial
from types import SimpleNamespace
from unittest import mock

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from veltrane import LifeTable
from veltrane.tables import base, decrement
from veltrane.tables.source import TableSource

FORMULAS = ["exponential", "compound", "exponential_damped"]


def bits(values: np.ndarray) -> np.ndarray:
    return np.ascontiguousarray(values, dtype=np.float64).view(np.int64)


def _elementwise(function: Callable[..., float], overflow: float) -> Callable[..., np.ndarray]:
    def one(*args: float) -> float:
        try:
            return function(*args)
        except OverflowError:  # NumPy gives inf where math raises
            return overflow

    return np.vectorize(one, otypes=[np.float64])


class _LibmNumPy(SimpleNamespace):
    """NumPy as the formula functions see it, its transcendental functions from the C library."""

    def __getattr__(self, name: str) -> object:
        return getattr(np, name)


LIBM_NUMPY = _LibmNumPy(
    exp=_elementwise(math.exp, math.inf),
    power=_elementwise(math.pow, math.inf),
    log1p=_elementwise(math.log1p, -math.inf),
    arctan=_elementwise(math.atan, math.nan),
)


def assert_same_both_ways(build: Callable[[], np.ndarray]) -> None:
    fast = build()
    previous = decrement._set_fast_paths(False)
    try:
        with mock.patch.object(base, "np", LIBM_NUMPY):
            general = build()
    finally:
        decrement._set_fast_paths(previous)
    np.testing.assert_array_equal(bits(fast), bits(general))


def one_sex(sex: str, formula: str, base_year: int) -> dict:
    generational = {"formula_type": formula, "base_year": base_year}
    return {"table_type": "life", "sexes": [sex], "generational": generational}


def rates_of(name: str, sex: str, **keys: object) -> np.ndarray:
    return LifeTable(name, sex, **keys)._decrement_base


@pytest.mark.parametrize("formula", FORMULAS)
@pytest.mark.parametrize("cohort", [1900, 1955, 2000, 2025])
def test_every_structure_matches_the_python_formula(tables, formula, cohort):
    tables.flat("GEN", formula=formula)
    tables.year_indexed("YRS", formula=formula)
    tables.select("GSEL", generational=formula)
    tables.year_indexed("PROJ", formula="projected_improvement", grid=(2014, 2016, 2020), base_year=2014)
    keys = [(name, sex, {}) for name in ("GEN", "YRS", "PROJ") for sex in "mf"]
    keys += [("GSEL", sex, {"duration": d}) for sex in "mf" for d in (1, 2, "ult")]
    keys += [("GEN", "u", {"unisex_blend": 0.3})]
    for name, sex, extra in keys:
        assert_same_both_ways(partial(rates_of, name, sex, cohort=cohort, **extra))


rate = st.one_of(st.just(0.0), st.just(1.0), st.floats(0.0, 1.0, allow_subnormal=True))
improvement = st.one_of(st.just(0.0), st.floats(-0.5, 0.99), st.floats(-40.0, 40.0))


@settings(max_examples=60, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture])
@given(
    formula=st.sampled_from([*FORMULAS, "projected_improvement"]),
    q=st.lists(rate, min_size=2, max_size=12),
    lam=st.lists(improvement, min_size=36, max_size=36),
    cohort=st.integers(1900, 2025),
    base_year=st.integers(1700, 2300),
)
def test_random_parameters_match_the_python_formula(tables, formula, q, lam, cohort, base_year):
    n = len(q)
    meta = one_sex("m", formula, base_year)
    cols = {"qx_m": q, "mi_m": lam[:n]}
    if formula == "projected_improvement":
        grid = [base_year - 3, base_year + 1, base_year + 40]
        meta["generational"] |= {"mi_structure": "year_indexed", "grid_years": grid}
        cols = {"qx_m": q} | {f"mi_m_{y}": lam[k * n : (k + 1) * n] for k, y in enumerate(grid)}
    tables.write("RND", meta, cols)

    def build():
        try:
            return LifeTable("RND", "m", cohort=cohort)._decrement_base
        except ValueError as error:  # a refusal must be the same refusal both ways
            return np.frombuffer(str(error).encode(), dtype=np.uint8).astype(np.float64)

    assert_same_both_ways(build)


@pytest.mark.parametrize("cohort", [1980, [1960, 1970]])
def test_a_replaced_built_in_entry_is_called_for_every_cohort(tables, monkeypatch, cohort):
    tables.flat("GEN")
    calls = []

    def traced(*args):
        calls.append(args[3])
        return base._gen_exponential(*args)

    monkeypatch.setitem(base._GENERATIONAL_FORMULA_TYPE_MAP, "exponential", traced)
    LifeTable("GEN", "m", cohort=cohort)
    assert calls == (cohort if isinstance(cohort, list) else [cohort])


def test_a_refused_improvement_raises_the_python_message(tables):
    tables.write("BAD", one_sex("m", "compound", 2000), {"qx_m": [0.1, 0.2, 1.0], "mi_m": [0.01, 1.5, 0.0]})
    with pytest.raises(ValueError, match=r"^compound improvement rate must be below 1, got 1.5 at age 1"):
        LifeTable("BAD", "m", cohort=1990)


def test_columns_and_unisex_rates_are_read_again_after_a_reload(tables):
    first = tables.flat("GEN")
    old = LifeTable("GEN", "m", cohort=1970)
    LifeTable("GEN", "u", cohort=1970, unisex_blend=0.5)  # fills the unisex cache
    second = tables.flat("GEN")  # rewritten: the cached source, its columns and unisex rates are dropped
    new = LifeTable("GEN", "m", cohort=1970)
    want = base._gen_exponential(second["qx_m"], second["mi_m"], np.arange(8.0), 1970, 2000)
    np.testing.assert_array_equal(new._decrement_base, want)
    assert not np.array_equal(old._decrement_base, new._decrement_base)
    assert not np.array_equal(first["qx_m"], second["qx_m"])
    f = LifeTable("GEN", "f", cohort=1970)._decrement_base
    blend = np.clip(0.5 * np.round(want, 12) + 0.5 * np.round(f, 12), 0.0, 1.0)
    np.testing.assert_array_equal(LifeTable("GEN", "u", cohort=1970, unisex_blend=0.5)._decrement_base, blend)


def test_tables_never_share_the_cached_columns(tables):
    tables.period("PER")
    a, b = LifeTable("PER", "m"), LifeTable("PER", "m")
    a._decrement_base[0] = 0.5  # a table's vectors are its own
    assert b._decrement_base[0] != 0.5
    assert LifeTable("PER", "m")._decrement_base[0] != 0.5
    cached = TableSource("PER")._f64_columns[1]["qx_m"]
    assert not cached.flags.writeable


@pytest.mark.parametrize(
    ("name", "sex"),
    [(n, s) for n in ("DAV1994R", "DAV2004R", "IAM2012") for s in "mf"] + [("AVOE2005R", s) for s in "mfu"],
)
def test_bundled_generational_tables_both_ways(name, sex):
    for cohort in (*range(1900, 2026, 7), 1946, 1987, 2020):
        assert_same_both_ways(partial(rates_of, name, sex, cohort=cohort))
