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
    """Everything a key change may touch; arrays copied, objects by identity."""
    return {
        "keys": (t.sex, t.cohort, t._duration, t._select_duration_set, t.unisex_blend),
        "flags": (t.modified, t.w, t.metadata_pending, t._rebuilds_since_calc, t._table_is_private_copy),
        "vectors": (np.array(t._decrement, copy=True), np.array(t._decrement_base, copy=True)),
        "source": (t.table, t.table._data, list(t.valid_sexes)),
        "modifications": t.modifications_applied,
    }


def assert_unchanged(t, before):
    now = state(t)
    assert now["keys"] == before["keys"] and now["flags"] == before["flags"]
    for a, b in zip(now["vectors"], before["vectors"], strict=True):
        np.testing.assert_array_equal(a, b)
    assert now["source"][0] is before["source"][0] and now["source"][1] is before["source"][1]
    assert now["source"][2] == before["source"][2] and now["modifications"] == before["modifications"]


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


# (table, change): each change asks for a cohort whose rates cannot be built.
CHANGES = [
    (lambda: LifeTable("GEN", "m", cohort=1960), set_cohort),
    (lambda: LifeTable("GEN", "m", cohort=1960), lambda t: t.configure(sex="f", cohort=BAD_COHORT)),
    (lambda: LifeTable("GEN", "m", cohort=1960), batch_cohort),
    (
        lambda: LifeTable("GSEL", "m", cohort=1960, duration=1),
        lambda t: t.configure(cohort=BAD_COHORT, duration=2),
    ),
    (lambda: LifeTable("GEN", "u", cohort=1960, unisex_blend=0.3), set_cohort),
    (lambda: LifeTable("GEN", "u", cohort=1960, unisex_blend=0.3), batch_cohort),
    (lambda: LifeTable("GEN", "m", cohort=BAD_COHORT - 1), lambda t: t._advance_actuarial_state_for_ts(1)),
    (
        lambda: LifeTable("GEN", "u", cohort=BAD_COHORT - 3, unisex_blend=0.3),
        lambda t: t._advance_actuarial_state_for_ts(3),
    ),
]


@pytest.mark.parametrize(("make", "change"), CHANGES)
@pytest.mark.parametrize("modified", [False, True])
def test_a_failed_rebuild_leaves_the_table_as_it_was(failing_formula, make, change, modified):
    t = make()
    if modified:
        t.modify_qx({"decrement_multiplier": 0.9})
    survival = t.tpx(2, 3)  # fills the caches
    before = state(t)
    with exactly(ValueError, "no rates for this cohort"):
        change(t)
    assert_unchanged(t, before)
    assert t.tpx(2, 3) == survival
    # Asking again fails again: the new key was never kept.
    with exactly(ValueError, "no rates for this cohort"):
        change(t)


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
        assert_unchanged(t, before)
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
    ("duration", "column"),
    [(10**30, "ult"), (2**63, "ult"), (np.int64(2**62), "ult"), (2, "s2")],
)
def test_durations_of_any_size_read_the_ultimate_column(standard, duration, column):
    t = LifeTable("SEL", "m", duration=1)
    t.duration = duration
    np.testing.assert_array_equal(t._decrement, standard["SEL"][f"qx_m_{column}"])
    assert t.duration == duration
    t.configure(duration=duration)
    np.testing.assert_array_equal(t._decrement, standard["SEL"][f"qx_m_{column}"])


def test_a_blended_generational_table_steps_past_the_current_year(standard):
    year = _current_calendar_year()
    t = LifeTable("GEN", "u", cohort=year - 1, unisex_blend=0.25)
    t._advance_actuarial_state_for_ts(5)
    assert t.cohort == year + 4
    cols = standard["GEN"]
    m = base._gen_exponential(cols["qx_m"], cols["mi_m"], np.arange(8.0), year + 4, 2000)
    f = base._gen_exponential(cols["qx_f"], cols["mi_f"], np.arange(8.0), year + 4, 2000)
    want = np.clip(0.25 * np.round(m, 12) + 0.75 * np.round(f, 12), 0, 1)
    np.testing.assert_array_equal(t._decrement, want)


@pytest.mark.parametrize("formula", ["compound", "projected_improvement"])
def test_year_indexed_tables_blend(standard, tables, formula):
    cols = tables.year_indexed("YRX", formula=formula)
    t = LifeTable("YRX", "u", cohort=1960, unisex_blend=0.4)
    m, f = LifeTable("YRX", "m", cohort=1960), LifeTable("YRX", "f", cohort=1960)
    want = np.clip(0.4 * np.round(m._decrement_base, 12) + 0.6 * np.round(f._decrement_base, 12), 0, 1)
    np.testing.assert_array_equal(t._decrement_base, want)
    assert "mi_m_2000" in cols
