"""Scalar contingency values at whole ages and terms, read from columns kept with the table state.

A column is the kernel's value at every whole age for one basis; the first call builds it. The
values must have the bits of the uncached path (``decrement._set_fast_paths(False)`` turns the
columns off, and a one-element vector never reads them), and every change of the table's state
or settings must drop them: after it, a call gives what a freshly built table gives.
"""

from __future__ import annotations

import copy
import inspect
import math
import pickle
import re
import struct
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from contextlib import nullcontext

import numpy as np
import pytest

from veltrane import Config, LifeTable
from veltrane.contingencies import JointLife, annuity, insurance, net_premium, pure_endowment
from veltrane.tables import decrement

RATE = 0.04


def bits(value: float) -> bytes:
    return struct.pack("<d", value)


def uncached(call: Callable[[], float]) -> float:
    previous = decrement._set_fast_paths(False)
    try:
        return call()
    finally:
        decrement._set_fast_paths(previous)


TABLES = {
    "aggregate": lambda: LifeTable("SULT", "u", interest_rate=RATE),
    "select at duration 1": lambda: LifeTable("CSO2017", "m", duration=1, interest_rate=RATE),
    "select at duration 4": lambda: LifeTable("CSO2017", "f", duration=4, interest_rate=RATE),
    "generational": lambda: LifeTable("DAV2004R", "m", cohort=1965, interest_rate=RATE),
    "modified": lambda: _modified(),
}


def _modified() -> LifeTable:
    t = LifeTable("SULT", "u", interest_rate=RATE)
    t.modify_qx({"decrement_multiplier": 1.3})
    return t


CALLS: dict[str, Callable[[LifeTable, int], float]] = {
    "annuity": lambda t, x: annuity(t, x),
    "annuity n": lambda t, x: annuity(t, x, 10),
    "annuity n=0": lambda t, x: annuity(t, x, 0),
    "annuity negative i": lambda t, x: annuity(t, x, 15, i=-0.02),
    "annuity m=12": lambda t, x: annuity(t, x, 20, m=12),
    "annuity immediate": lambda t, x: annuity(t, x, due=False, m=4),
    "annuity udd": lambda t, x: annuity(t, x, 15, m=12, method="udd"),
    "annuity woolhouse2": lambda t, x: annuity(t, float(x), m=12, method="woolhouse2"),
    "insurance n": lambda t, x: insurance(t, x, 10),
    "insurance m=12": lambda t, x: insurance(t, x, m=12),
    "insurance continuous": lambda t, x: insurance(t, x, 20, m=None),
    "pure_endowment": lambda t, x: pure_endowment(t, x, 25, i=0.03),
    "net_premium": lambda t, x: net_premium(t, x, 15, endowment=True, m=12),
    "net_premium whole life": lambda t, x: net_premium(t, x, i=0.02),
    "ex": lambda t, x: t.ex(x),
    "ex complete": lambda t, x: t.ex(x, 10, complete=True),
}

AGES = (0, 45, 90, 115)


@pytest.mark.parametrize("table", TABLES)
@pytest.mark.parametrize("call", CALLS)
def test_cached_values_have_the_bits_of_the_uncached_path(table, call):
    t = TABLES[table]()
    f = CALLS[call]
    for x in AGES:
        if x > t.w:
            continue
        expected = uncached(lambda x=x: f(t, x))
        first, again = f(t, x), f(t, x)  # the first builds the column, the second reads it
        assert bits(first) == bits(expected) == bits(again), (x, first, expected)


@pytest.mark.parametrize("call", ["annuity n", "insurance m=12", "ex complete", "pure_endowment"])
def test_a_column_serves_every_age_with_the_value_of_a_vector_call(call):
    t = TABLES["select at duration 1"]()
    f = CALLS[call]
    f(t, 40)  # builds the column
    ages = np.arange(t.w + 1)
    expected = [bits(uncached(lambda x=x: f(t, int(x)))) for x in ages]
    assert [bits(f(t, int(x))) for x in ages] == expected
    if call != "ex complete":
        assert [bits(float(f(t, np.array([float(x)]))[0])) for x in ages] == expected


def _modify_and_reset(t: LifeTable) -> None:
    t.modify_qx({"age_shift": 2})
    annuity(t, 65)  # a column of the modified state, which the reset must drop
    t.reset_modifications()


def _batch(t: LifeTable, fail: bool = False) -> None:
    with pytest.raises(KeyError) if fail else nullcontext(), t.batch_update():
        t.sex = "f"
        if fail:
            raise KeyError("abandon")


def _table(sex: str = "m", rate: float = RATE, **modification) -> LifeTable:
    t = LifeTable("CSO1980", sex, interest_rate=rate)
    if modification:
        t.modify_qx(modification)
    return t


# (the change, the fresh table it must agree with)
CHANGES = {
    "sex setter": (lambda t: setattr(t, "sex", "f"), lambda: _table("f")),
    "configure": (lambda t: t.configure(sex="f"), lambda: _table("f")),
    "batch_update": (_batch, lambda: _table("f")),
    "rolled-back batch_update": (lambda t: _batch(t, fail=True), _table),
    "modify_qx": (
        lambda t: t.modify_qx({"decrement_multiplier": 0.8}),
        lambda: _table(decrement_multiplier=0.8),
    ),
    "reset_modifications": (_modify_and_reset, _table),
    "interest_rate": (lambda t: t.configure(interest_rate=0.06), lambda: _table(rate=0.06)),
}


@pytest.mark.parametrize("change", CHANGES)
@pytest.mark.parametrize("call", ["annuity m=12", "insurance n", "pure_endowment", "ex", "net_premium"])
def test_every_change_of_state_drops_the_columns(change, call):
    make_change, fresh = CHANGES[change]
    f = CALLS[call]
    t = _table()
    before = f(t, 65)
    make_change(t)
    after = f(t, 65)
    expected = f(fresh(), 65)
    assert bits(after) == bits(expected)
    unchanged = change in ("reset_modifications", "rolled-back batch_update") or (
        change == "interest_rate" and call in ("ex", "pure_endowment")
    )
    assert (after == before) == unchanged


@pytest.mark.parametrize(
    ("name", "attribute", "old", "new"),
    [("CSO2017", "duration", 1, 7), ("CSO2017", "duration", 1, "ult"), ("DAV2004R", "cohort", 1950, 1990)],
)
def test_a_change_of_select_duration_or_cohort_moves_to_the_new_column(name, attribute, old, new):
    t = LifeTable(name, "m", **{attribute: old}, interest_rate=RATE)
    before = annuity(t, 45)
    setattr(t, attribute, new)
    fresh = LifeTable(name, "m", **{attribute: new}, interest_rate=RATE)
    for f in (CALLS["annuity"], CALLS["insurance n"], CALLS["ex"]):
        assert bits(f(t, 45)) == bits(f(fresh, 45))
    assert annuity(t, 45) != before


@pytest.mark.parametrize(("value", "call"), [("exponential", "annuity m=12"), ("hyperbolic", "ex complete")])
def test_a_change_of_interpolation_drops_the_columns_and_one_of_decimals_does_not(value, call):
    f = CALLS[call]
    t = LifeTable("SULT", "u", interest_rate=RATE)
    before = f(t, 65)
    with Config().override(lx_interpolation=value):
        inside = f(t, 65)
        expected = f(LifeTable("SULT", "u", interest_rate=RATE), 65)
        assert bits(inside) == bits(expected) == bits(uncached(lambda: f(t, 65)))
        assert inside != before
    assert bits(f(t, 65)) == bits(before)
    with Config().override(decimals={"lx": 3}):  # the columns hold the unrounded values
        assert bits(f(t, 65)) == bits(before)


def test_a_deep_copy_and_a_pickle_give_the_same_values():
    t = LifeTable("CSO2017", "m", duration=3, interest_rate=RATE)
    value = annuity(t, 50, 10)
    twin = copy.deepcopy(t)
    twin.sex = "f"
    assert bits(annuity(t, 50, 10)) == bits(value)
    assert bits(annuity(pickle.loads(pickle.dumps(t)), 50, 10)) == bits(value)


@pytest.mark.parametrize(
    ("call", "error", "match"),
    [
        (lambda t: annuity(t, 65, m=5), ValueError, None),
        (lambda t: annuity(t, 121), ValueError, None),
        (lambda t: insurance(t, 65, endowment=True), ValueError, None),
        (lambda t: pure_endowment(t, 65, -1), ValueError, None),
        (lambda t: annuity(t, 65, due=1), TypeError, None),
        (lambda t: t.ex(130), ValueError, None),
        (lambda t: annuity(t, 0, i=-0.999999), ValueError, "beyond the range"),  # at each call
    ],
)
def test_refused_calls_stay_refused_with_columns_in_place(call, error, match):
    t = LifeTable("SULT", "u", interest_rate=RATE)
    annuity(t, 65), annuity(t, 65, 10), insurance(t, 65), pure_endowment(t, 65, 1), t.ex(65)
    for _ in range(2):
        with pytest.raises(error, match=match):
            call(t)
    assert math.isfinite(annuity(t, 119, i=-0.5))


def test_a_select_table_modified_at_a_select_duration_is_refused_after_a_cached_call():
    t = LifeTable("CSO2017", "m", duration=1, interest_rate=RATE)
    annuity(t, 45)
    t.modify_qx({"decrement_multiplier": 1.1})
    with pytest.raises(ValueError, match="carries modifications"):
        annuity(t, 45)


class _DoubleRate(LifeTable):
    __slots__ = ()

    @property
    def interest_rate(self) -> float | None:
        rate = super().interest_rate
        return None if rate is None else 2.0 * rate


@pytest.mark.parametrize("call", ["annuity", "insurance n", "pure_endowment"])
def test_the_rate_of_a_subclass_is_its_own_property(call):
    f = CALLS[call]
    t = _DoubleRate("SULT", "u", interest_rate=RATE)
    doubled = LifeTable("SULT", "u", interest_rate=2.0 * RATE)
    for _ in range(2):
        assert bits(f(t, 65)) == bits(f(doubled, 65))


def test_threads_reading_one_table_build_and_read_the_same_values():
    t = LifeTable("CSO2017", "m", duration=2, interest_rate=RATE)
    # More bases than a table keeps, so that columns are built, replaced and read at once.
    bases = [(n, i) for n in (None, 5, 10, 20) for i in (0.01 * k for k in range(1, 21))]
    expected = {(n, i): uncached(lambda n=n, i=i: annuity(t, 50, n, i=i)) for n, i in bases}

    def work(offset: int) -> bool:
        ordered = bases[offset:] + bases[:offset]
        return all(bits(annuity(t, 50, n, i=i)) == bits(expected[(n, i)]) for n, i in ordered * 3)

    with ThreadPoolExecutor(4) as pool:
        assert all(pool.map(work, range(0, 80, 20)))


PUBLIC = {f.__name__: f for f in (annuity, insurance, pure_endowment, net_premium)}


def _through_python(call: Callable[[LifeTable, int], float]) -> Callable[[LifeTable, int], float]:
    """The same call, with the public functions' Python bodies in place of the call-through."""

    def run(t: LifeTable, x: int) -> float:
        globals().update({name: f.__wrapped__ for name, f in PUBLIC.items()})
        try:
            return call(t, x)
        finally:
            globals().update(PUBLIC)

    return run


@pytest.mark.parametrize("call", [c for c in CALLS if c.split()[0] in PUBLIC])
def test_the_call_through_gives_the_bits_of_the_python_function(call):
    t = TABLES["select at duration 4"]()
    for x in (0, 33.5, np.array([20, 70])) if "woolhouse" not in call else (45,):
        assert (
            np.asarray(CALLS[call](t, x)).tobytes()
            == np.asarray(_through_python(CALLS[call])(t, x)).tobytes()
        )


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda t: annuity(t, 65, 10, 0.03), "annuity() takes from 2 to 3 positional arguments but 4 were"),
        (lambda t: insurance(t, 65, j=1), "insurance() got an unexpected keyword argument 'j'"),
        (lambda t: pure_endowment(t, 65), "pure_endowment() missing 1 required positional argument: 'n'"),
        (lambda t: annuity(t, x=65, x2=1), "annuity() got an unexpected keyword argument 'x2'"),
    ],
)
def test_calls_the_compiled_function_cannot_take_get_the_python_errors(call, message):
    # Newer interpreters add a suggestion after the message.
    with pytest.raises(TypeError, match=f"^{re.escape(message)}"):
        call(TABLES["aggregate"]())


def test_the_public_functions_stay_functions_to_their_users():
    t = TABLES["aggregate"]()
    assert annuity(table=t, x=65, n=10) == annuity(t, 65, 10)  # keywords for positional parameters
    couple = JointLife(t, LifeTable("SULT", "u", interest_rate=RATE))
    assert annuity(couple, (65, 60)) == annuity.__wrapped__(couple, (65, 60))
    for f in PUBLIC.values():
        assert inspect.signature(f) == inspect.signature(f.__wrapped__)
        assert pickle.loads(pickle.dumps(f)) is f
        assert inspect.isroutine(f) and f.__doc__ == f.__wrapped__.__doc__
