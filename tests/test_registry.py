"""The registry of configured tables: one shared instance per key, least recently used evicted."""

from __future__ import annotations

import gc
import sys
import weakref

import pytest

import veltrane
from conftest import exactly
from veltrane.tables import decrement
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

DecrementTable, TableRegistry = decrement.DecrementTable, decrement.TableRegistry
ABSTRACT = "table_class must be a concrete DecrementTable subclass; {} is abstract."


class Abstract(DecrementTable):
    __slots__ = ()


@pytest.fixture
def files(tables, standard):
    tables.period("EXT", table_type="exit", prefix="ox")


def keys(registry):
    return [key[1:3] for key in registry._cache]  # (table name, sex), oldest first


# fmt: off
CONSTRUCTION_REFUSALS = [
    ((), {"maxsize": 0}, ValueError, "maxsize must be a positive integer"),
    ((), {"maxsize": True}, TypeError, "maxsize must be an int, got bool"),
    ((Abstract,), {}, TypeError, ABSTRACT.format("Abstract")),
    ((int,), {}, TypeError, "table_class must be a DecrementTable subclass, got int."),
    (("LifeTable",), {}, TypeError, "table_class must be a type, got str."),
]
# fmt: on


@pytest.mark.parametrize(("args", "kwargs", "exc", "message"), CONSTRUCTION_REFUSALS)
def test_construction_refusals(args, kwargs, exc, message):
    with exactly(exc, message):
        TableRegistry(*args, **kwargs)


def test_surface(files):
    with exactly(TypeError, "cls must be a DecrementTable subclass, got _DecrementTableBase."):
        decrement._validate_table_class(DecrementTable.__mro__[1], name="cls")
    registry = TableRegistry(maxsize=2**70)
    assert (registry._maxsize, TableRegistry()._maxsize) == (2**70, TableRegistry._DEFAULT_MAXSIZE)
    assert repr(registry) == "TableRegistry(0 entries)" and len(registry) == 0
    assert veltrane.TableRegistry is veltrane.tables.TableRegistry is TableRegistry


def test_same_key_same_table_and_keys_as_passed(files):
    registry = TableRegistry(LifeTable)
    first = registry.get_or_create(None, "PER", "m", interest_rate=0.03)
    assert registry.get_or_create(LifeTable, "PER", "m", interest_rate=0.05) is first
    assert first.interest_rate == 0.03  # a hit ignores the call's other arguments
    assert registry.get_or_create(None, "PER", "M") is not first  # keys are taken as passed
    assert type(registry.get_or_create(ExitTable, "EXT", "f")) is ExitTable
    pending = registry.get_or_create(None, "GEN", "m", pending=True)  # extra keywords go through
    assert pending.metadata_pending
    assert list(registry._cache)[1:3] == [
        (LifeTable, "PER", "M", None, None, None),
        (ExitTable, "EXT", "f", None, None, None),
    ]
    assert repr(registry) == "TableRegistry(4 entries)"


def test_least_recently_used_is_evicted(files):
    registry = TableRegistry(LifeTable, maxsize=2)
    a = registry.get_or_create(None, "PER", "m")
    registry.get_or_create(None, "PER", "f")
    assert registry.get_or_create(None, "PER", "m") is a
    registry.get_or_create(None, "GEN", "m", cohort=1970)
    assert keys(registry) == [("PER", "m"), ("GEN", "m")]
    single = TableRegistry(LifeTable, maxsize=1)
    last = [single.get_or_create(None, "PER", sex) for sex in "mf"][-1]
    assert keys(single) == [("PER", "f")] and single.get_or_create(None, "PER", "f") is last


# fmt: off
FAILED_CALLS = [
    (lambda r: r.get_or_create(None, "PER", "m"), TypeError,
     "table_class must be provided either at registry construction or per get_or_create() call."),
    (lambda r: r.get_or_create(LifeTable, "PER", "u", interest_rate=0.03), ValueError, None),
    (lambda r: r.get_or_create(LifeTable, "GEN", "m", cohort=1970, interest_rate="4%"), TypeError,
     "interest_rate must be a real number, got str"),
    (lambda r: r.get_or_create(LifeTable, "GEN", "m", cohort=[1970]), TypeError, "unhashable type: 'list'"),
    (lambda r: r.get_or_create(LifeTable, "GEN", "m", cohort=(1970, 1800)), ValueError, None),
]
# fmt: on


@pytest.mark.parametrize(("call", "exc", "message"), FAILED_CALLS)
def test_failed_calls_leave_the_cache_as_it_was(files, call, exc, message):
    registry = TableRegistry(maxsize=2)
    registry.get_or_create(LifeTable, "PER", "m")
    registry.get_or_create(LifeTable, "PER", "f")
    before = list(registry._cache.items())
    with pytest.raises(exc) as err:
        call(registry)
    if message is not None:  # the interpreter's own wording grows around its core in 3.14
        assert str(err.value) == message or (message in str(err.value) and exc is TypeError)
    assert list(registry._cache.items()) == before


@pytest.mark.parametrize(
    ("sex", "cohort", "count"), [(("m", "f"), 1970, 2), ("m", (1960, 1970, 1980), 3), ("m", (1970,), 1)]
)
def test_what_the_class_returns_is_cached_as_it_is(files, sex, cohort, count):
    registry = TableRegistry(LifeTable)
    made = registry.get_or_create(None, "GEN", sex, cohort=cohort)
    assert type(made) is tuple and len(made) == count and all(type(t) is LifeTable for t in made)
    assert registry.get_or_create(None, "GEN", sex, cohort=cohort) is made
    assert list(registry._cache.values()) == [made]


def test_tables_are_released(files):
    registry = TableRegistry(LifeTable, maxsize=1)
    name, sex = "PER", "m"
    table = registry.get_or_create(None, name, sex)
    held = [sys.getrefcount(x) for x in (table, name, sex)]
    for _ in range(100):
        assert registry.get_or_create(None, name, sex) is table
    assert [sys.getrefcount(x) for x in (table, name, sex)] == held
    ref = weakref.ref(table)
    del table
    registry.clear()
    assert ref() is None and len(registry) == 0
    evicted = weakref.ref(registry.get_or_create(None, name, sex))
    registry.get_or_create(None, name, "f")
    assert evicted() is None
    dropped = weakref.ref(registry.get_or_create(None, name, sex))
    del registry
    assert dropped() is None


class Holder(LifeTable):
    """A table that can refer back to its registry (through its instance dictionary)."""


def test_a_cycle_through_a_table_is_collected(files):
    registry = TableRegistry(Holder)
    table = registry.get_or_create(None, "PER", "m")
    table.registry = registry
    ref = weakref.ref(registry)
    del registry, table
    gc.collect()
    assert ref() is None
