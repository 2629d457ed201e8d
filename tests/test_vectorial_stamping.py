"""Many cohorts in one constructor call: instances copied from the first one must be the tables
that one construction per cohort gives."""

from __future__ import annotations

import gc
import warnings

import numpy as np
import pytest

from conftest import exactly
from veltrane import LifeTable
from veltrane.tables import base, decrement
from veltrane.tables.base import _current_calendar_year

COHORTS = [1960, 1900, 1960, 2001, 1975, 1960]


def state(table: LifeTable) -> tuple:
    return (
        table.table_name,
        table.sex,
        table.cohort,
        table.duration,
        table.w,
        table.interest_rate,
        table._modifications_applied,
        table.modified,
        table.metadata_pending,
        table._decrement_base.tobytes(),
        table._decrement.tobytes(),
        table.qx([0, 3.5, 7]).tobytes(),
    )


@pytest.mark.parametrize(
    ("name", "keys"),
    [("GEN", {}), ("YRS", {}), ("GSEL", {"duration": 1}), ("GSEL", {"duration": "ult"})],
)
@pytest.mark.parametrize("fast", [True, False])
def test_each_instance_is_the_table_of_its_cohort(standard, name, keys, fast):
    previous = decrement._set_fast_paths(fast)
    try:
        many = LifeTable(name, "f", cohort=COHORTS, interest_rate=0.02, **keys)
        one_by_one = [LifeTable(name, "f", cohort=c, interest_rate=0.02, **keys) for c in COHORTS]
    finally:
        decrement._set_fast_paths(previous)
    assert [state(t) for t in many] == [state(t) for t in one_by_one]
    ids = [t._instance_id for t in many]
    assert ids == sorted(set(ids))


def test_instances_share_no_vectors(standard):
    first, _, again = LifeTable("GEN", "m", cohort=[1960, 1970, 1960])
    first._decrement_base[:] = 0.5
    first._decrement[:] = 0.5
    assert not np.any(again._decrement_base == 0.5) and not np.any(again._decrement == 0.5)
    assert again._decrement_base is not again._decrement


def test_a_bad_cohort_later_in_the_list_builds_nothing(standard):
    year = _current_calendar_year()
    with exactly(ValueError, f"Cohort year must be between 1900 and {year}."):
        LifeTable("GEN", "m", cohort=[1960, 1970, year + 1])


def test_a_class_with_its_own_init_runs_it_for_every_instance(standard):
    calls = []

    class Counted(LifeTable):
        __slots__ = ()

        def __init__(self, *args, **kwargs):
            calls.append(kwargs.get("cohort", args[2] if len(args) > 2 else None))
            super().__init__(*args, **kwargs)

    tables = Counted("GEN", "m", cohort=[1960, 1970, 1980])
    assert calls == [1960, 1970, 1980]
    assert [t.cohort for t in tables] == [1960, 1970, 1980]


def test_a_subclass_keeps_its_slots_and_class(standard):
    class Tagged(LifeTable):
        __slots__ = ("tag",)

    tables = Tagged("GEN", "m", cohort=[1960, 1970], interest_rate=0.01)
    assert all(type(t) is Tagged and t.interest_rate == 0.01 for t in tables)
    for t in tables:
        with pytest.raises(AttributeError):
            _ = t.tag
    tables[1].tag = "x"
    assert tables[1].tag == "x"


def test_a_replaced_formula_is_called_for_every_cohort(standard, monkeypatch):
    seen = []

    def traced(*args):
        seen.append(args[3])
        return base._gen_exponential(*args)

    monkeypatch.setitem(base._GENERATIONAL_FORMULA_TYPE_MAP, "exponential", traced)
    LifeTable("GEN", "m", cohort=[1960, 1970])
    assert seen == [1960, 1970]


@pytest.mark.parametrize("enabled", [True, False])
def test_the_collector_setting_is_restored(standard, enabled):
    was = gc.isenabled()
    (gc.enable if enabled else gc.disable)()
    try:
        with warnings.catch_warnings():
            warnings.simplefilter("ignore", ResourceWarning)
            LifeTable("GEN", "m", cohort=list(range(1900, 2020)))
        assert gc.isenabled() is enabled
    finally:
        (gc.enable if was else gc.disable)()
