"""Time steps for projections: snapshot, advance by whole years, restore."""

from __future__ import annotations

import numpy as np
import pytest

from conftest import exactly
from veltrane.tables import decrement
from veltrane.tables.life import LifeTable


def fields(t):
    """What a time step changes, in snapshot order."""
    return (t._duration, t._cohort, t._decrement, t._decrement_base, t._modified, t._w_mod)


def assert_same(now, before):
    assert len(now) == len(before) and all(a is b for a, b in zip(now, before, strict=True))


# fmt: off
UNCHANGED = [  # (table, ts, whether a snapshot comes back)
    (lambda: LifeTable("SEL", "m", duration=1), 0.9, False),
    (lambda: LifeTable("GEN", "m", cohort=1960), -2.5, False),
    (lambda: LifeTable("PER", "m"), 5.0, False),
    (lambda: LifeTable("SEL", "m", duration="ult"), 3, True),  # held as the string 'ult'
    (lambda: LifeTable("SEL", "m", duration=1).configure(duration="ult"), 3, True),  # held as None
]
# fmt: on


@pytest.mark.parametrize(("make", "ts", "snapshot"), UNCHANGED)
def test_steps_that_change_nothing(standard, make, ts, snapshot):
    t = make()
    t.lx(2)
    before = (*fields(t), t._lx)
    snap = t._advance_actuarial_state_for_ts(ts)
    assert (snap is not None) == snapshot
    if snapshot:
        assert list(snap) == ["duration", "cohort", "decrement", "decrement_base", "modified", "w_mod"]
        assert_same(snap.values(), before[:6])
    assert_same((*fields(t), t._lx), before)


# fmt: off
STEPS = [
    ("SEL", "m", {"duration": 1}, 1.0, {"duration": 2}),
    ("SEL", "m", {"duration": 1}, 2.5, {"duration": "ult"}),
    ("SEL", "f", {"duration": 2}, 1e9, {"duration": "ult"}),
    ("GEN", "m", {"cohort": 1960}, 2.5, {"cohort": 1962}),
    ("GSEL", "f", {"cohort": 1960, "duration": 1}, 2, {"cohort": 1962, "duration": "ult"}),
    ("GSEL", "u", {"cohort": 1960, "duration": 1, "unisex_blend": 0.4}, 1,
     {"cohort": 1961, "duration": 2, "unisex_blend": 0.4}),
]
# fmt: on


@pytest.mark.parametrize(("name", "sex", "keys", "ts", "moved"), STEPS)
def test_advance_builds_the_rates_of_the_later_keys(standard, name, sex, keys, ts, moved):
    t = LifeTable(name, sex, **keys)
    t.lx(2)
    t._rebuilds_since_calc = 1
    before = fields(t)
    snap = t._advance_actuarial_state_for_ts(ts)
    decrement._clear_cohort_unisex_cache()
    later = LifeTable(name, sex, **moved)
    np.testing.assert_array_equal(t._decrement_base, later._decrement_base)
    np.testing.assert_array_equal(t._decrement, later._decrement_base)
    assert t._decrement is not t._decrement_base and t._lx is None
    assert (t.cohort, t.duration, t.w, t._rebuilds_since_calc) == (later.cohort, later.duration, later.w, 1)
    assert t.lx(3.5) == later.lx(3.5)
    assert_same(snap.values(), before)
    t._restore_actuarial_state_from_ts_snapshot(snap)
    assert_same(fields(t), before)


def test_modifications_come_back_with_the_restore(standard):
    t = LifeTable("GSEL", "m", cohort=1960, duration=1)
    t.modify_qx({"age_shift": 1, "decrement_multiplier": 0.5})
    before, applied, w, q = fields(t), t.modifications_applied, t.w, t.qx(2)
    snap = t._advance_actuarial_state_for_ts(1)
    assert not t.modified and t.w == t.table.w
    np.testing.assert_array_equal(t._decrement, t._decrement_base)
    t.lx(2)
    t._restore_actuarial_state_from_ts_snapshot(snap)
    assert_same(fields(t), before)
    assert t._lx is None
    assert (t.modified, t.modifications_applied, t.w, t.qx(2)) == (True, applied, w, q)


PREFIX = "time-step snapshot: "
# fmt: off
MALFORMED = [
    (list, TypeError, "time-step snapshot must be the dict returned by _snapshot_actuarial_state_for_ts() or "
                      "_advance_actuarial_state_for_ts(), got list"),
    (lambda s: {k: v for k, v in s.items() if k != "w_mod"}, ValueError,
     "time-step snapshot has no 'w_mod' entry"),
    (lambda s: s | {"duration": 1.5}, TypeError,
     PREFIX + "'duration' must be an int, 'ult' or None, got float"),
    (lambda s: s | {"w_mod": True}, TypeError, PREFIX + "'w_mod' must be an int or None, got bool"),
    (lambda s: s | {"decrement_base": np.zeros((2, 2))}, TypeError,
     PREFIX + "'decrement_base' must be a one-dimensional float64 vector or None, got ndarray"),
]
# fmt: on


@pytest.mark.parametrize(("spoil", "exc", "message"), MALFORMED)
def test_a_malformed_snapshot_changes_nothing(standard, spoil, exc, message):
    t = LifeTable("GSEL", "m", cohort=1960, duration=1)
    snap = t._advance_actuarial_state_for_ts(1)
    t.lx(2)
    before = (*fields(t), t._lx)
    with exactly(exc, message):
        t._restore_actuarial_state_from_ts_snapshot(spoil(snap))
    assert_same((*fields(t), t._lx), before)


def test_a_failed_advance_changes_nothing(standard):
    t = LifeTable("GEN", pending=True)
    before = fields(t)
    not_ready = "assign 'sex', 'cohort' before calculations (lt.configure(sex=..., cohort=...), called from "
    with exactly(ValueError, f"Table 'GEN' is not ready: {not_ready}_advance_actuarial_state_for_ts)."):
        t._advance_actuarial_state_for_ts(1)
    assert_same(fields(t), before)
