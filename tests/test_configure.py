"""Several keys at once: configure(), batch_update() and configure_all()."""

from __future__ import annotations

import re
from decimal import Decimal
from fractions import Fraction

import numpy as np
import pytest

from veltrane.config import Config
from veltrane.tables import decrement
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

NOTHING = "configure() requires at least one of: sex, cohort, duration, unisex_blend."

CONFIGURE_REFUSALS = [
    ("PER", {}, ValueError, NOTHING),
    ("PER", {"sex": "m", "unisex_blend": 0.5}, ValueError,
     "Cannot specify unisex_blend when sex='m' is explicitly set. Use sex='u' to apply unisex blending."),
    ("PER", {"unisex_blend": True}, TypeError, "unisex_blend must be numeric, not bool."),
    ("PER", {"unisex_blend": "x"}, ValueError,
     "unisex_blend must be a numeric value in [0.0, 1.0], got 'x'."),
    ("PER", {"sex": "u"}, ValueError,
     "unisex_blend parameter is required when sex='u' because table 'PER' lacks native unisex column 'qx_u'. "
     "Example: LifeTable('PER', sex='u', unisex_blend=0.5)"),
    ("PER", {"sex": "x"}, ValueError, "Invalid sex 'x' for table 'PER'. Valid options: ['m', 'f']."),
    ("PER", {"sex": 1}, TypeError, "configure(): sex must be str, got int"),
    ("PER", {"cohort": 1970}, ValueError,
     "cohort is only valid for generational tables. Table 'PER' is not generational."),
    ("GEN", {"cohort": "1970"}, TypeError, "configure(): cohort must be int, got str"),
    ("PER", {"duration": 1}, ValueError,
     "duration is only valid for select tables. Table 'PER' is not a select table."),
    ("SEL", {"duration": True}, TypeError, "duration must be int, 'ult', or None, got bool."),
    ("SEL", {"duration": "x"}, ValueError, "duration must be an integer >= 1 or 'ult', got 'x'."),
    # The sex is checked before the cohort and the duration.
    ("GEN", {"sex": "u", "cohort": 1850}, ValueError, "unisex_blend parameter is required when sex='u'"),
    ("SEL", {"sex": "u", "duration": "x"}, ValueError,
     "unisex_blend parameter is required when sex='u' because table 'SEL' lacks native unisex column "
     "'qx_u_s2'."),
    ("SEL", {"sex": "u", "duration": 1}, ValueError,  # the column of the duration asked for
     "unisex_blend parameter is required when sex='u' because table 'SEL' lacks native unisex column "
     "'qx_u_s1'."),
    ("GSEL", {"sex": "x", "cohort": 1850, "duration": 0}, ValueError, "Invalid sex 'x' for table 'GSEL'."),
    ("GEN", {"sex": "f", "cohort": 1850}, ValueError, "Cohort year must be between 1900 and"),
]  # fmt: skip


def keys_and_rates(t):
    return t._sex, t._cohort, t._duration, t._unisex_blend, t._decrement.tolist(), t._rebuilds_since_calc


@pytest.mark.parametrize(("name", "kwargs", "exc", "message"), CONFIGURE_REFUSALS)
def test_configure_refuses_before_changing_anything(standard, name, kwargs, exc, message):
    gen, sel = {"cohort": 1960}, {"duration": 2}
    keys = {"PER": {}, "GEN": gen, "SEL": sel, "GSEL": gen | sel}[name]
    t = LifeTable(name, "m", **keys)
    before = keys_and_rates(t)
    with pytest.raises(exc, match="^" + re.escape(message)):
        t.configure(**kwargs)
    assert keys_and_rates(t) == before


def test_configure_rebuilds_and_chains_without_counting_as_chained_rebuilds(standard):
    t = LifeTable("GEN", "m", cohort=1960)
    base = t._decrement_base
    with Config().override(warn_on_chained_table_rebuild=True):  # warnings are errors here
        assert t.configure(sex="F", cohort=1970) is t
        assert (t.sex, t.cohort, t._rebuilds_since_calc) == ("f", 1970, 0)
        np.testing.assert_array_equal(t._decrement_base, LifeTable("GEN", "f", cohort=1970)._decrement_base)
        assert t._decrement_base is not base
        assert not np.array_equal(t._decrement_base, standard["GEN"]["qx_f"])
        base = t._decrement_base
        t.configure(cohort=1970)  # no dirty check: the same value still rebuilds
        assert t._decrement_base is not base
        t.sex = "m"  # one setter rebuild is no chain
        t.px(5)


def test_configure_blend_and_durations(standard):
    t = LifeTable("PER", "m")
    t.configure(sex="u", unisex_blend=0.25)  # no native column, "u" not a valid sex: the blend allows it
    assert (t.sex, t.unisex_blend, t.configure(unisex_blend=0.0).unisex_blend) == ("u", 0.25, 0.0)
    s = LifeTable("SEL", "m", duration=1)
    assert s.configure(duration="ult").duration == "ult" and s._duration is None
    assert s.configure(duration=np.int64(2)).duration == 2


def test_configure_completes_pending_tables_in_any_order(standard):
    g = LifeTable("GEN", pending=True)
    assert g.configure(cohort=1969) is g and g.metadata_pending and g._decrement is None
    g.configure(sex="m")
    assert not g.metadata_pending and g._decrement is not None
    for first, second in (({"sex": "f"}, {"duration": 1}), ({"duration": 1}, {"sex": "f"})):
        s = LifeTable("SEL", pending=True)
        s.configure(**first)
        assert s.metadata_pending
        s.configure(**second)
        assert not s.metadata_pending and s.qx(3) == s.qx(3)
    # batch_update() on a pending table: it stays pending until its keys are complete.
    t = LifeTable("GEN", pending=True)
    with t.batch_update():
        t.sex = "m"
    assert t.metadata_pending
    with pytest.raises(ValueError, match="assign 'cohort' before calculations"):
        t.px(50)
    with t.batch_update():
        t.cohort = 1970
    assert not t.metadata_pending and t.px(3) == t.px(3)


def test_batch_update_rebuilds_once_at_a_clean_exit(standard):
    t = LifeTable("GEN", "m", cohort=1960)
    base = t._decrement_base
    with t.batch_update() as ctx:
        assert isinstance(ctx, decrement._BatchUpdateContext) and t._suspend_rebuild
        t.sex = "f"
        t.cohort = 1975
        assert t._decrement_base is base and t._rebuilds_since_calc == 2
        with (
            pytest.raises(RuntimeError, match="cannot be nested on the same table instance"),
            t.batch_update(),
        ):
            pass  # refused, and the outer block carries on intact
    assert t._decrement_base is not base and (t._rebuilds_since_calc, t._suspend_rebuild) == (0, False)
    np.testing.assert_array_equal(t._decrement, LifeTable("GEN", "f", cohort=1975)._decrement)
    base = t._decrement_base
    with t.batch_update():
        t.sex = "f"  # unchanged: nothing to rebuild
    assert t._decrement_base is base


def test_batch_update_restores_everything_on_error(standard):
    t = LifeTable("GEN", "m", cohort=1960)
    t._modifications_applied.append("kept")
    before = t._capture_batch_snapshot()
    with pytest.raises(KeyError), t.batch_update():
        t.cohort = 1980
        t._modifications_applied.append("dropped")
        raise KeyError("boom")
    after = t._capture_batch_snapshot()
    assert list(after) == list(before)
    for key, value in before.items():  # arrays compared by value, the rest by equality
        assert np.array_equal(after[key], value) if key.startswith("decrement") else after[key] == value
    assert t.cohort == 1960 and t.modifications_applied == ["kept"] and not t._suspend_rebuild
    # The snapshot holds copies of the arrays, both ways.
    t = LifeTable("PER", "u", unisex_blend=0.5)
    t.modify_qx({"decrement_multiplier": 0.5})
    snap = t._capture_batch_snapshot()
    snap["decrement"][0] = 0.5
    assert t._decrement[0] != 0.5
    t._restore_batch_snapshot(snap)
    snap["decrement"][0] = 0.25
    assert t._decrement[0] == 0.5


def test_configure_all(tables, standard):
    family = {"a": LifeTable("GEN", "m", cohort=1950), "b": LifeTable("GEN", "f", cohort=1960)}
    assert decrement.configure_all(family, cohort=1975) is family
    assert [t.cohort for t in family.values()] == [1975, 1975]
    listed = [LifeTable("GEN", "m", cohort=1950, interest_rate=0.01)]
    assert decrement.configure_all(listed, sex="f", interest_rate=0.03) is listed
    assert (listed[0].sex, listed[0].interest_rate) == ("f", 0.03)
    with pytest.raises(ValueError, match="configure_all\\(\\) requires at least one of"):
        decrement.configure_all(listed)
    tables.period("EXT", table_type="exit", prefix="ox")
    with pytest.raises(TypeError, match="interest_rate"):
        decrement.configure_all([ExitTable("EXT", "m")], interest_rate=0.02)
    t = LifeTable("PER", "m")
    with pytest.raises(ValueError, match="interest_rate must be a finite number > -1"):
        t.configure(sex="f", interest_rate=-1.0)
    assert t.sex == "m" and t.interest_rate is None
    assert t.configure(interest_rate=0.04).interest_rate == 0.04


@pytest.mark.parametrize("cohort", [Decimal("1970.9"), Fraction(3941, 2), np.float32(1970.0), np.int16(1970)])
def test_configure_takes_any_number_with_an_integer_value(standard, cohort):
    t = LifeTable("GEN", "m", cohort=1960).configure(cohort=cohort)
    assert t.cohort == 1970 and type(t.cohort) is int
