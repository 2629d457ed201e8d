"""Many cohorts in one constructor call: instances copied from the first one must be the tables
that one construction per cohort gives."""

from __future__ import annotations

import functools
import gc
import warnings

import numpy as np
import pytest

from conftest import exactly
from veltrane import LifeTable
from veltrane.tables import decrement
from veltrane.tables.base import _current_calendar_year
from veltrane.tables.typed import TypedTable

COHORTS = [1960, 1900, 1960, 2001, 1975, 1960]


def state(table: LifeTable) -> tuple:
    keys = ("table_name", "sex", "cohort", "duration", "w", "interest_rate", "_modifications_applied")
    keys += ("modified", "metadata_pending")
    vectors = (table._decrement_base, table._decrement, table.qx([0, 3.5, 7]))
    return (*[getattr(table, k) for k in keys], *[v.tobytes() for v in vectors])


@pytest.mark.parametrize(
    ("name", "keys"), [("GEN", {}), ("YRS", {}), ("GSEL", {"duration": 1}), ("GSEL", {"duration": "ult"})]
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


@pytest.mark.parametrize(
    ("own_init", "declared", "runs"), [(False, False, 0), (True, False, 3), (True, True, 1)]
)
def test_a_subclass_keeps_its_class_and_slots_and_runs_its_own_init(standard, own_init, declared, runs):
    calls = []

    class Tagged(LifeTable):
        __slots__ = ("tag",)
        if own_init:  # then it runs for every instance, unless the class declares it need not

            def __init__(self, *args, **kwargs):
                calls.append(kwargs.get("cohort", args[2] if len(args) > 2 else None))
                super().__init__(*args, **kwargs)

        if declared:
            _INIT_BUILDS_FROM_ARGUMENTS = True

    tables = Tagged("GEN", "m", cohort=[1960, 1970, 1980], interest_rate=0.01)
    assert [t.cohort for t in tables] == [1960, 1970, 1980]
    assert calls == [1960, 1970, 1980][:runs]
    assert all(type(t) is Tagged and t.interest_rate == 0.01 for t in tables)
    for t in tables:
        with pytest.raises(AttributeError):
            _ = t.tag
    tables[1].tag = "x"
    assert tables[1].tag == "x"


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


def counting(init, calls):
    def counted(self, *args, **kwargs):
        calls.append(args[2] if len(args) > 2 else kwargs["cohort"])
        init(self, *args, **kwargs)

    return counted


# A replaced __init__ (a patch, a decorator) is called for every instance, wherever it sits.
REPLACEMENTS = [
    (LifeTable, counting),
    (LifeTable, lambda init, calls: functools.wraps(init)(counting(init, calls))),
    (TypedTable, counting),
]


@pytest.mark.parametrize(("owner", "replace"), REPLACEMENTS)
def test_a_replaced_init_runs_for_every_instance(standard, monkeypatch, owner, replace):
    calls = []
    monkeypatch.setattr(owner, "__init__", replace(owner.__init__, calls))
    tables = LifeTable("GEN", "m", cohort=[1960, 1970, 1960], interest_rate=0.01)
    assert calls == [1960, 1970, 1960]
    assert [t.cohort for t in tables] == [1960, 1970, 1960] and all(t.interest_rate == 0.01 for t in tables)
    monkeypatch.undo()  # the original again: the first instance is copied for the others
    LifeTable("GEN", "m", cohort=[1960, 1970])
    assert calls == [1960, 1970, 1960]
