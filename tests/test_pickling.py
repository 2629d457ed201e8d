"""Tables and registries pickle as name, keys and modifications and come back bit for bit."""

from __future__ import annotations

import copy
import multiprocessing
import pickle
from concurrent.futures import ProcessPoolExecutor
from contextlib import nullcontext

import numpy as np
import pytest

from veltrane import Config, TableRegistry
from veltrane.tables.decrement import DecrementTable
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource, write_table

LONG = 30  # rows of the longer tables written here (ages 0..29)


class SlottedLife(LifeTable):
    """A subclass with slots of its own and a dictionary."""

    __slots__ = ("__dict__", "__private", "note")


def roundtrip(obj):
    return pickle.loads(pickle.dumps(obj, protocol=pickle.HIGHEST_PROTOCOL))


def assert_same(a: DecrementTable, b: DecrementTable) -> None:
    assert type(a) is type(b) and a is not b
    keys = ("table_name", "sex", "cohort", "duration", "unisex_blend", "metadata_pending", "_modified", "w")
    assert [getattr(a, k) for k in keys] == [getattr(b, k) for k in keys]
    assert list(a._modifications_applied) == list(b._modifications_applied)
    if a.metadata_pending:
        assert b._decrement is None
        return
    for name in ("_decrement_base", "_decrement"):
        assert getattr(a, name).tobytes() == getattr(b, name).tobytes()
    ages = np.arange(a.start_age, a.w + 1, dtype=np.float64)
    assert a.lx(ages).tobytes() == b.lx(ages).tobytes() and a.qx(ages).tobytes() == b.qx(ages).tobytes()


def halved_in_memory(table: DecrementTable, column: str) -> DecrementTable:
    """The same table over rates held in memory instead of the file its name finds."""
    data = table._table.data
    table._table = TableSource.from_frame(
        table.table_name, table._table.metadata, data.with_columns(data[column] / 2)
    )
    return table


@pytest.fixture
def kinds(tables):
    """A life, an exit and a disability table of LONG ages, and a second exit table."""
    for name, kind, prefix in (
        s.split() for s in ("LIFE life qx", "LAPSE exit ox", "LAPSE2 exit ox", "DIS disability ix")
    ):
        cols = {f"{prefix}_{s}": tables.rates(0.001, 0.05, LONG) for s in "mf"}
        tables.write(name, {"table_type": kind, "sexes": ["m", "f"]}, cols)
    return tables


# fmt: off
STRUCTURES = [  # a table of each structure, unisex blends, and pending shells
    ("SULT", {"sex": "u", "interest_rate": 0.025}), ("PER", {"sex": "f"}),
    ("YRS", {"sex": "f", "cohort": 1990}),
    *[("SSSM", {"sex": "u", "duration": d, "interest_rate": 0.025}) for d in (1, 7, "ult")],
    ("GEN", {"sex": "u", "cohort": 1955, "unisex_blend": 0.3}), ("SEL", {"sex": "m", "duration": 2}),
    ("GSEL", {"sex": "f", "duration": 1, "cohort": 1970}), ("GEN", {"sex": "m", "pending": True}),
    ("SEL", {"cohort": None, "pending": True}), ("GEN", {"unisex_blend": 0.4, "pending": True}),
]
# fmt: on


@pytest.mark.parametrize(("name", "keys"), STRUCTURES)
def test_bundled_tables_and_every_structure_round_trip(standard, name, keys):
    table = LifeTable(name, **keys)
    back = roundtrip(table)
    assert_same(table, back)
    assert back.interest_rate == table.interest_rate
    if table.metadata_pending:  # the shell completes like the original
        sex = "m" if table.unisex_blend is None else "u"
        rest = {"sex": sex} | ({"duration": 1} if name == "SEL" else {"cohort": 1960})
        table.configure(**rest)
        back.configure(**rest)
        assert_same(table, back)


def merged(names):
    """Tables for table_combination, named as given ("LAPSE", ["DIS", "LAPSE"], ...)."""
    make = lambda n: (ExitTable if n == "LAPSE" else DisabilityTable)(n, "m")  # noqa: E731
    return make(names) if isinstance(names, str) else type(names)(map(make, names))


# fmt: off
MODIFICATIONS = [
    {"age_shift": 3}, {"decrement_multiplier": 1.37}, {"decrement_multiplier": np.int64(2)},
    {"decrement_geometric_increase": (0.05, 10)}, {"aggravated_risk": 2.5},
    {"decrement_multiplier": 40.0},  # cut at certainty
    {"age_shift": 2, "aggravated_risk": 1.5, "decrement_multiplier": 0.8},
]
COMBINATIONS = [
    {"table_combination": ["LAPSE"], "combination_mode": "udd"},
    {"combination_mode": "independent", "table_combination": ("LAPSE",)},
    {"table_combination": ["DIS", "LAPSE"]},
    {"age_shift": 4, "table_combination": "LAPSE", "aggravated_risk": 1.2},
]
# fmt: on
KINDS = [(LifeTable, "LIFE"), (ExitTable, "LAPSE2"), (DisabilityTable, "DIS")]


@pytest.mark.parametrize(
    ("cls", "name", "mods"),
    [(*kind, m) for kind in KINDS for m in MODIFICATIONS] + [(LifeTable, "LIFE", m) for m in COMBINATIONS],
)
def test_modifications_and_combinations_round_trip_with_their_copies(kinds, cls, name, mods):
    table = cls(name, "m")
    if "table_combination" in mods:
        mods = mods | {"table_combination": merged(mods["table_combination"])}
    with pytest.warns(UserWarning) if mods.get("decrement_multiplier") == 40.0 else nullcontext():
        table.modify_qx(mods)
    assert_same(table, roundtrip(table))
    assert_same(table, roundtrip(table.copy()))


def test_later_changes_to_what_was_applied_do_not_travel(kinds):
    table = LifeTable("LIFE", "f")
    factors = np.linspace(0.5, 1.5, LONG)
    table.modify_qx({"decrement_multiplier": factors})
    factors[:] = 9.0  # the caller's array changes afterwards; the table's rates do not
    assert_same(table, roundtrip(table))
    lapse = ExitTable("LAPSE", "m")
    lapse.modify_qx({"decrement_multiplier": 0.5})
    host = LifeTable("LIFE", "m")
    host.modify_qx({"table_combination": lapse})
    lapse.modify_qx({"decrement_multiplier": 3.0})  # later changes do not reach the host's rates
    assert_same(host, roundtrip(host))
    nested = ExitTable("LAPSE2", "m")
    nested.modify_qx({"table_combination": lapse})  # an exit table combined with a combined one
    assert_same(nested, roundtrip(nested))


def test_subclass_slots_and_dict_round_trip(kinds):
    table = SlottedLife("LIFE", "m", interest_rate=0.04)
    table._SlottedLife__private, table.note, table.extra = [1, 2], "policy 7", {"a": 1}
    back = roundtrip(table)
    assert_same(table, back)
    state = (back.interest_rate, back._SlottedLife__private, back.note, back.extra)
    assert state == (0.04, [1, 2], "policy 7", {"a": 1})


def test_modifications_under_other_decimals_advanced_or_in_a_batch_come_back_exactly(kinds, standard):
    table = LifeTable("LIFE", "m")
    with Config().override(decimals={"qx": 5}):
        table.modify_qx({"decrement_multiplier": 1.234567})
    assert_same(table, roundtrip(table))
    # pickling is refused inside batch_update; a rolled-back batch keeps the record
    table.modify_qx({"aggravated_risk": 2.0})
    with table.batch_update():
        table.sex = "f"
        with pytest.raises(ValueError, match="inside batch_update"):
            pickle.dumps(table)
    with pytest.raises(ZeroDivisionError), table.batch_update():
        table.sex = "m"
        1 / 0  # noqa: B018
    assert_same(table, roundtrip(table))
    table = LifeTable("GSEL", "m", duration=1, cohort=1970)
    table.modify_qx({"aggravated_risk": 2.0})
    snapshot = table._advance_actuarial_state_for_ts(1.0)
    assert_same(table, roundtrip(table))
    table._restore_actuarial_state_from_ts_snapshot(snapshot)
    assert_same(table, roundtrip(table))


def test_registry_round_trips_in_order(kinds):
    registry = TableRegistry(LifeTable, maxsize=3)
    for cls, name, sex in ((None, "LIFE", "m"), (None, "LIFE", "f"), (ExitTable, "LAPSE", "m")):
        registry.get_or_create(cls, name, sex)
    registry.get_or_create(None, "LIFE", "m")  # most recently used now
    back = roundtrip(registry)
    assert repr(back) == repr(registry) and back._maxsize == 3 and back._table_class is LifeTable
    assert list(back._cache) == list(registry._cache)
    for key, table in registry._cache.items():
        assert_same(table, back._cache[key])
    assert back.get_or_create(None, "LIFE", "f") is back._cache[(LifeTable, "LIFE", "f", None, None, None)]
    pair = registry.get_or_create(None, "LIFE", ("m", "f"))  # an entry of many tables
    restored = roundtrip(registry)._cache[next(reversed(registry._cache))]
    assert isinstance(restored, tuple) and len(restored) == 2
    for before, after in zip(pair, restored, strict=True):
        assert_same(before, after)


# -- refusals -------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("case", "message"),
    [
        ("in memory", "not built from the table file that the name 'LIFE' finds now"),
        ("file rewritten", "was not built from the table file"),
        ("merged from memory", "the table merged by table_combination cannot be pickled"),
        ("rates edited", "were not made by modify_qx"),
    ],
)
def test_tables_that_cannot_be_rebuilt_are_refused(kinds, case, message):
    table = LifeTable("LIFE", "m")
    if case == "in memory":
        halved_in_memory(table, "qx_m")
    elif case == "file rewritten":
        kinds.write("LIFE", {"table_type": "life", "sexes": ["m"]}, {"qx_m": kinds.rates(n=LONG)})
    elif case == "merged from memory":  # the merge itself works
        table.modify_qx({"table_combination": halved_in_memory(ExitTable("LAPSE", "m"), "ox_m")})
    else:
        table.modify_qx({"aggravated_risk": 2.0})
        table._decrement = table._decrement.copy()
    with pytest.raises(ValueError, match=message):
        pickle.dumps(table)
    if case == "merged from memory":  # without the merge the table is its file again
        table.reset_modifications()
        assert_same(table, roundtrip(table))


def test_unpickling_where_the_file_differs_or_is_missing(kinds, tmp_path_factory):
    data = pickle.dumps(LifeTable("LIFE", "m"))
    elsewhere = tmp_path_factory.mktemp("elsewhere")
    with Config().override(tables_path=[elsewhere]):
        with pytest.raises(FileNotFoundError, match="no table file of that name in this process"):
            pickle.loads(data)
        meta = {"table_type": "life", "sexes": ["m"]}
        write_table(elsewhere, "LIFE", meta, {"age": [0, 1], "qx_m": [0.1, 1.0]})
        with pytest.raises(ValueError, match="differs from the one the table was built from"):
            pickle.loads(data)


# -- worker processes -----------------------------------------------------------------------------


def rates_in_worker(table: DecrementTable) -> tuple[bytes, bytes, list[str]]:
    ages = np.arange(table.start_age, table.w + 1, dtype=np.float64)
    return table._decrement.tobytes(), table.lx(ages).tobytes(), list(table._modifications_applied)


def test_tables_through_a_spawned_process_pool(kinds, monkeypatch):
    monkeypatch.setenv("VELTRANE_TABLES_PATH", str(kinds.directory))
    host = LifeTable("LIFE", "f", interest_rate=0.02)
    host.modify_qx({"age_shift": 1, "table_combination": ExitTable("LAPSE", "f"), "combination_mode": "udd"})
    select = LifeTable("SSSM", "u", duration=1)
    select.modify_qx({"decrement_multiplier": np.linspace(0.9, 1.1, 121)})
    sent = [host, select, LifeTable("SULT", "u")]
    with ProcessPoolExecutor(2, mp_context=multiprocessing.get_context("spawn")) as pool:
        got = list(pool.map(rates_in_worker, sent))
    assert got == [rates_in_worker(t) for t in sent]


def test_damaged_recipes_and_registries_are_refused_without_touching_the_core(kinds):
    table = LifeTable("LIFE", "m")
    function, (good,) = table.__reduce__()
    bad = [
        good._replace(slots=(("_w_mod", 10**9),)),  # a field of the core, not a slot of the class
        good._replace(slots=(("_decrement", np.zeros(3)),)),
        good._replace(slots=5),
        good._replace(descriptors=[1, 2]),
        good._replace(modifications=(("table_combination", 5),)),
        tuple(good)[:3],
    ]
    for recipe in bad:
        with pytest.raises(ValueError, match="damaged"):
            function(recipe)
    for bad in ("abc", -5, float("nan"), True):  # a slot is checked as its argument is
        with pytest.raises(ValueError, match=r"'_interest_rate' to a value the table refuses .*damaged"):
            function(good._replace(slots=(("_interest_rate", bad),)))
    assert function(good._replace(slots=(("_interest_rate", 2),))).interest_rate == 2.0
    registry = TableRegistry(LifeTable)
    for name in ("LIFE", "SULT"):
        registry.get_or_create(None, name, "m" if name == "LIFE" else "u")
    rebuild_registry, (cls, maxsize, entries) = registry.__reduce__()
    (k1, t1), (k2, t2) = entries
    # entries of the wrong shape; tables under each other's keys, or under a key of another class
    damages = [(1, ((1, 2),)), (1, entries[:1] * 2), (1, 5), (maxsize, ((k1, t2), (k2, t1)))]
    damages += [(maxsize, (((cls_, *k1[1:]), t1),)) for cls_ in (ExitTable, int)]
    for size, damaged in damages:
        with pytest.raises(ValueError, match=r"cannot unpickle a TableRegistry.*damaged"):
            rebuild_registry(cls, size, damaged)


@pytest.mark.parametrize("copy_of", [roundtrip, copy.copy, copy.deepcopy])
@pytest.mark.parametrize("sex", ["m", "f"])
def test_a_blend_accepted_on_a_single_sex_table_is_kept_by_copies(kinds, copy_of, sex):
    table = LifeTable("LIFE", sex).configure(unisex_blend=0.3)
    back = copy_of(table)
    assert back.unisex_blend == 0.3
    assert_same(table, back)
    back.configure(sex="u")  # the blend applies once the sex is unisex
    np.testing.assert_array_equal(
        back._decrement_base, LifeTable("LIFE", "u", unisex_blend=0.3)._decrement_base
    )
