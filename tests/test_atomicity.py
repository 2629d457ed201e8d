"""Key changes are all or nothing: a rebuild that fails leaves the table exactly as it was."""

from __future__ import annotations

import numpy as np
import pytest

from conftest import exactly
from veltrane.tables import base
from veltrane.tables.base import _current_calendar_year
from veltrane.tables.life import LifeTable

BAD_COHORT = 1970


def state(t):
    """Everything a key change may touch, with the source and its data by identity (held, so that
    their addresses cannot be reused while the state is kept)."""
    source = (t.table, t.table._data)
    keys = (t.sex, t.cohort, t._duration, t._select_duration_set, t.unisex_blend, list(t.valid_sexes))
    flags = (t.modified, t.w, t.metadata_pending, t._rebuilds_since_calc, t._table_is_private_copy)
    vectors = (t._decrement.tolist(), t._decrement_base.tolist(), t.modifications_applied)
    return (*keys, *flags, *vectors, *map(id, source)), source


@pytest.fixture
def failing_formula(standard, monkeypatch):
    """The exponential formula, refusing one cohort, as a user's formula might."""
    real = base._GENERATIONAL_FORMULA_TYPE_MAP["exponential"]

    def formula(q, mi, ages, cohort, base_year):
        if cohort == BAD_COHORT:
            raise ValueError("no rates for this cohort")
        return real(q, mi, ages, cohort, base_year)

    monkeypatch.setitem(base._GENERATIONAL_FORMULA_TYPE_MAP, "exponential", formula)


def set_cohort(t):
    t.cohort = BAD_COHORT


def batch_cohort(t):
    with t.batch_update():
        t.sex = "f"
        t.cohort = BAD_COHORT


def gen(sex="m", cohort=1960, name="GEN", **kw):
    return lambda: LifeTable(name, sex, cohort=cohort, **kw)


# (table, change): each change asks for a cohort whose rates cannot be built.
CHANGES = [
    (gen(), set_cohort),
    (gen(), lambda t: t.configure(sex="f", cohort=BAD_COHORT)),
    (gen(), batch_cohort),
    (gen(name="GSEL", duration=1), lambda t: t.configure(cohort=BAD_COHORT, duration=2)),
    (gen("u", unisex_blend=0.3), set_cohort),
    (gen("u", unisex_blend=0.3), batch_cohort),
    (gen(cohort=BAD_COHORT - 1), lambda t: t._advance_actuarial_state_for_ts(1)),
    (gen("u", BAD_COHORT - 3, unisex_blend=0.3), lambda t: t._advance_actuarial_state_for_ts(3)),
]  # fmt: skip


@pytest.mark.parametrize(("make", "change"), CHANGES)
@pytest.mark.parametrize("modified", [False, True])
def test_a_failed_rebuild_leaves_the_table_as_it_was(failing_formula, make, change, modified):
    t = make()
    if modified:
        t.modify_qx({"decrement_multiplier": 0.9})
    survival = t.tpx(2, 3)  # fills the caches
    before = state(t)
    for _ in range(2):  # asking again fails again: the new key was never kept
        with exactly(ValueError, "no rates for this cohort"):
            change(t)
        assert state(t)[0] == before[0]
    assert t.tpx(2, 3) == survival


def test_a_missing_select_column_fails_without_tearing(tables):
    cols = {f"qx_{s}_{d}": tables.rates() for s in "mf" for d in ("s1", "s2", "ult")}
    del cols["qx_f_s2"]
    tables.write("HOLE", {"table_type": "life", "sexes": ["m", "f"], "select": {"period": 2}}, cols)
    t = LifeTable("HOLE", "m", duration=2)
    before = state(t)
    message = "Column 'qx_f_s2' not found in table 'HOLE'. duration=2, select_period=2."
    for change in (lambda: setattr(t, "sex", "f"), lambda: t.configure(sex="f")):
        with exactly(ValueError, message):
            change()
        assert state(t)[0] == before[0]
    np.testing.assert_array_equal(t.qx(np.arange(8)), np.round(cols["qx_m_s2"], 12))


def test_batch_rollback_restores_the_blend_in_the_source(standard):
    t = LifeTable("PER", "u", unisex_blend=0.5)
    blended = t.data["qx_u"].to_numpy().copy()
    with pytest.raises(KeyError), t.batch_update():
        t.unisex_blend = 0.9
        raise KeyError("abandon")
    assert t.unisex_blend == 0.5
    np.testing.assert_array_equal(t.data["qx_u"].to_numpy(), blended)
    np.testing.assert_array_equal(t._decrement, blended)


@pytest.mark.parametrize(
    ("duration", "column"), [(10**30, "ult"), (2**63, "ult"), (np.int64(2**62), "ult"), (2, "s2")]
)
def test_durations_of_any_size_read_the_ultimate_column(standard, duration, column):
    t = LifeTable("SEL", "m", duration=1)
    for change in (lambda: setattr(t, "duration", duration), lambda: t.configure(duration=duration)):
        change()
        np.testing.assert_array_equal(t._decrement, standard["SEL"][f"qx_m_{column}"])
        assert t.duration == duration


def blend(share, m, f):
    return np.clip(share * np.round(m, 12) + (1 - share) * np.round(f, 12), 0, 1)


def test_a_blended_generational_table_steps_past_the_current_year(standard):
    year = _current_calendar_year()
    t = LifeTable("GEN", "u", cohort=year - 1, unisex_blend=0.25)
    t._advance_actuarial_state_for_ts(5)
    assert t.cohort == year + 4
    g = standard["GEN"]
    m, f = (base._gen_exponential(g[f"qx_{s}"], g[f"mi_{s}"], np.arange(8.0), year + 4, 2000) for s in "mf")
    np.testing.assert_array_equal(t._decrement, blend(0.25, m, f))


@pytest.mark.parametrize("formula", ["compound", "projected_improvement"])
def test_year_indexed_tables_blend(tables, formula):
    tables.year_indexed("YRX", formula=formula)
    t = LifeTable("YRX", "u", cohort=1960, unisex_blend=0.4)
    m, f = (LifeTable("YRX", s, cohort=1960)._decrement_base for s in "mf")
    np.testing.assert_array_equal(t._decrement_base, blend(0.4, m, f))
