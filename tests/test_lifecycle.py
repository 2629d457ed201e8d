"""State of a table: forwarding properties, key setters and rebuilds, readiness, identity and copies."""

from __future__ import annotations

import copy
import sys
import warnings

import numpy as np
import pytest

from conftest import exactly
from veltrane.config import Config
from veltrane.tables.base import _current_calendar_year
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource

YEAR = _current_calendar_year()
CHAINED = (
    "Table 'GEN': {} setters triggered rebuilds between calculations. "
    "Use configure() or batch_update() for a single rebuild."
)


def state(t):
    """Everything a failed setter must leave as it was."""
    arrays = [(id(a), None if a is None else a.tolist()) for a in (t._decrement_base, t._decrement)]
    keys = (t.sex, t._cohort, t._duration, t._select_duration_set, t._unisex_blend, t._modified)
    flags = (t._rebuilds_since_calc, t._metadata_pending, t._table, list(t.valid_sexes), t.data.columns)
    return keys, flags, arrays


# fmt: off
FORWARDED = [
    "table_name", "generational", "base_year", "omega", "start_age", "valid_sexes", "select_period",
    "start_duration", "mi_structure", "grid_years", "metadata",
]
DECLARED = [
    ("table_name", 5, "Expected str, got int"), ("generational", "yes", "Expected bool, got str"),
    ("base_year", 2000.0, "Expected int, got float"),
]
# fmt: on


@pytest.mark.parametrize("name", ["PER", "GSEL", "SSSM"])
def test_properties_forward_to_the_source(standard, name):
    sex, cohort, duration = {"PER": ("m", None, None), "GSEL": ("f", 1970, 2), "SSSM": ("u", None, 2)}[name]
    t = LifeTable(name, sex, cohort=cohort, duration=duration)
    source = TableSource(name)
    assert t.table is t._table is source
    for prop in FORWARDED:
        assert getattr(t, prop) == getattr(source, prop), prop
    assert t.data is source.data and t.w == source.w and t.is_select == source.select


@pytest.mark.parametrize(("prop", "value", "message"), DECLARED)
def test_declared_types_are_enforced(standard, monkeypatch, prop, value, message):
    t = LifeTable("PER", "m")
    monkeypatch.setattr(TableSource, prop, property(lambda self: value))
    with exactly(TypeError, message):
        getattr(t, prop)
    monkeypatch.setattr(TableSource, prop, property(lambda self: None))
    assert getattr(t, prop) is None  # an absent value is not a type error
    t._w_mod = "5"
    with exactly(TypeError, "Expected int, got str"):
        t.w  # noqa: B018


def test_sex_setter_lowers_rebuilds_and_counts(standard):
    t = LifeTable("PER", "m")
    t._modifications_applied.append({"decrement_multiplier": 2.0})
    t._decrement[3] = 0.99
    t._modified = True
    t._lx = np.ones(3)
    t.sex = "F"
    assert t.sex == "f" and t._rebuilds_since_calc == 1 and not t.modified and t._lx is None
    np.testing.assert_array_equal(t._decrement_base, standard["PER"]["qx_f"])
    np.testing.assert_array_equal(t._decrement, standard["PER"]["qx_f"])
    # A rebuild drops the effect of modifications but keeps their record, handed out as a new list.
    record = t.modifications_applied
    record.append("caller's own")
    assert t.modifications_applied == [{"decrement_multiplier": 2.0}]


# fmt: off
UNCHANGED = [(2, "cohort", 1970), (2, "cohort", np.int64(1970)), (2, "duration", np.int16(2)),
             (2, "sex", "M"), ("ult", "duration", "ult")]
# fmt: on


@pytest.mark.parametrize(("duration", "attr", "value"), UNCHANGED)
def test_unchanged_keys_do_nothing(standard, duration, attr, value):
    t = LifeTable("GSEL", "m", cohort=1970, duration=duration)
    before = state(t)
    setattr(t, attr, value)
    assert state(t) == before
    if duration == "ult":
        t.duration = 5  # beyond the select period: a new key, so one rebuild, same column
        assert t.duration == 5 and t._rebuilds_since_calc == 1


# fmt: off
INVALID_KEYS = [
    ("GSEL", "sex", "x", ValueError, "Invalid sex 'x' for table 'GSEL'. Valid options: ['m', 'f']."),
    ("GSEL", "cohort", 1899, ValueError, f"Cohort year must be between 1900 and {YEAR}."),
    ("GSEL", "duration", 0, ValueError, "duration must be an integer >= 1 or 'ult', got 0."),
    ("GSEL", "duration", None, ValueError,
     "Table 'GSEL' is a select-ultimate table: 'duration' must be a positive integer or 'ult', "
     "got None. Use duration='ult' for the ultimate column."),
    ("GSEL", "unisex_blend", 0.5, ValueError,
     "unisex_blend can only be set when sex='u'. Current sex is 'f'."),
    ("PER", "cohort", 1970, ValueError,
     "Cohort can only be set for generational tables ('PER' is not generational)."),
    ("PER", "duration", 1, ValueError,
     "duration can only be set on select tables. Table 'PER' is not a select table."),
    ("BLEND", "unisex_blend", 1.5, ValueError, "unisex_blend must be in [0.0, 1.0], got 1.5."),
    ("BLEND", "unisex_blend", "0.5", TypeError, None),  # the validator's own message
]
# fmt: on


@pytest.mark.parametrize(("name", "attr", "value", "exc", "message"), INVALID_KEYS)
def test_invalid_keys_change_nothing(standard, name, attr, value, exc, message):
    built = {"BLEND": ("PER", "u", None, None, 0.25), "GSEL": ("GSEL", "f", 1970, 2, None)}
    table, sex, cohort, duration, blend = built.get(name, ("PER", "m", None, None, None))
    t = LifeTable(table, sex, cohort=cohort, duration=duration, unisex_blend=blend)
    before = state(t)
    with exactly(exc, message) if message else pytest.raises(exc):
        setattr(t, attr, value)
    assert state(t) == before
    if name == "PER":
        assert t._cohort is None and t.duration is None


# fmt: off
NOT_READY = [
    ({}, {}, "px", "assign 'sex', 'cohort', 'duration' before calculations "
                   "(lt.configure(sex=..., cohort=..., duration=...), called from px)."),
    ({"cohort": 1970}, {}, "",
     "assign 'sex', 'duration' before calculations (lt.configure(sex=..., duration=...))."),
    ({"sex": "m", "duration": 1}, {}, "qx",
     "assign 'cohort' before calculations (lt.configure(cohort=...), called from qx)."),
    ({}, {"_sex": "m", "_cohort": 1970, "_select_duration_set": True}, "tpx",
     "assign metadata before calculations (lt.configure(...), called from tpx)."),
]
# fmt: on


@pytest.mark.parametrize(("kwargs", "keys", "method", "message"), NOT_READY)
def test_ensure_ready_refuses_pending(standard, kwargs, keys, method, message):
    t = LifeTable("GSEL", pending=True, **kwargs)
    for key, value in keys.items():
        setattr(t, key, value)
    t._rebuilds_since_calc = 3
    with exactly(ValueError, "Table 'GSEL' is not ready: " + message):
        t._ensure_ready(method) if method else t._ensure_ready()
    assert t._rebuilds_since_calc == 3


def calculation(t):
    t._ensure_ready("px")


def test_chained_rebuilds_warn_once_unless_switched_off_or_batched(standard):
    t = LifeTable("GEN", "m", cohort=1970)
    t.sex = "f"
    t.cohort = 1971
    with pytest.warns(UserWarning) as record:
        line = sys._getframe().f_lineno + 1
        calculation(t)
    assert [str(w.message) for w in record] == [CHAINED.format(2)]
    # Attributed to the line that asked for the calculation, from Python and from C alike.
    assert (record[0].filename, record[0].lineno) == (__file__, line)
    assert t._rebuilds_since_calc == 0
    t.sex, t.sex, t.sex = "m", "f", "m"
    with pytest.warns(UserWarning, match="3 setters") as record:
        t._compute_lx()
    assert record[0].filename == __file__
    t._ensure_ready("px")  # nothing to say now (warnings are errors here)
    t.cohort = 1972
    t._ensure_ready("px")  # one rebuild is no chain
    for flag, suspended in ((False, False), (True, True)):  # switched off, or inside a batch: quiet
        t.cohort, t.sex, t.cohort = 1971, "f", 1972
        t._suspend_rebuild = suspended
        with Config().override(warn_on_chained_table_rebuild=flag), warnings.catch_warnings():
            warnings.simplefilter("error")
            t._ensure_ready("px")
        assert t._rebuilds_since_calc == 0


def test_reset_modifications_and_invalidate(standard):
    t = LifeTable("GEN", "m", cohort=1970)
    base = t._decrement_base
    t._decrement = base * 2
    t._modified, t._w_mod, t._rebuilds_since_calc = True, 4, 1
    t._modifications_applied = [{"aggravated_risk": 2.0}]
    t._lx = t._lx_raw = t._px = t._qx = np.ones(8)
    t.reset_modifications()
    np.testing.assert_array_equal(t._decrement, base)
    assert t._decrement_base is base and t._decrement is not base
    assert (t.modified, t.w, t.modifications_applied, t._rebuilds_since_calc) == (False, 7, [], 1)
    assert (t._lx, t._lx_raw, t._px, t._qx) == (None,) * 4


def test_identity_and_hash(standard):
    a, b = LifeTable("PER", "m"), LifeTable("PER", "m")
    assert a == a and a != b and (a == b) is False and hash(a) != hash(b) and a != "PER"
    registry = {a: "a"}
    a.sex = "f"
    assert registry[a] == "a" and hash(a) == a._instance_id


def test_copy_is_deep_and_independent(standard):
    t = LifeTable("PER", "u", unisex_blend=0.4, interest_rate=0.02)
    t._modifications_applied.append(t)  # a cycle back to the table
    t._suspend_rebuild, t._rebuilds_since_calc = True, 2
    t._lx_raw = np.arange(8.0)
    for c in (t.copy(), copy.deepcopy(t)):
        assert c is not t and c != t and hash(c) == hash(t) and type(c) is LifeTable
        assert c._modifications_applied[0] is c and t._modifications_applied[0] is t
        assert not c._suspend_rebuild and c._rebuilds_since_calc == 2 and c._table_is_private_copy
        assert c.interest_rate == 0.02 and c.unisex_blend == 0.4 and c.sex == "u"
        assert c._table is not t._table and c.data is not t.data and c.data.equals(t.data)
        for name in ("_decrement_base", "_decrement", "_lx_raw"):
            assert getattr(c, name) is not getattr(t, name)
            np.testing.assert_array_equal(getattr(c, name), getattr(t, name))
        c._decrement[0] = 0.5
        c.unisex_blend = 0.9
        assert t._decrement[0] == t._decrement_base[0] and t.unisex_blend == 0.4
    pair = copy.deepcopy([t, t])
    assert pair[0] is pair[1]


def test_pending_state_is_copied_and_counts_until_complete(standard):
    t = LifeTable("GSEL", cohort=1970, pending=True)
    c = t.copy()
    assert c.metadata_pending and c.cohort == 1970 and c.sex is None and c._decrement is None
    c.sex, c.duration = "m", 1
    assert not c.metadata_pending and t.metadata_pending and t.sex is None
    # A pending table's setters count until its keys are complete.
    t = LifeTable("GEN", pending=True)
    t.sex = "M"
    assert t.metadata_pending and t._rebuilds_since_calc == 1 and t._decrement is None
    t.cohort = 1970  # completes the keys: one rebuild, not counted
    assert not t.metadata_pending and t._rebuilds_since_calc == 1
    np.testing.assert_array_equal(t._decrement, LifeTable("GEN", "m", cohort=1970)._decrement)
