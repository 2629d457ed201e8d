"""Many tables from one constructor call: zip and cartesian modes, keyed results, pending shells."""

from __future__ import annotations

import contextlib
import gc
import re
import sys
import warnings

import numpy as np
import pytest

from conftest import exactly
from veltrane.base import TableKey
from veltrane.tables import decrement
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable


def fields(tables):
    return [(t.table_name, t.sex, t.cohort, t.duration, t.unisex_blend) for t in tables]


def next_id() -> int:
    """The id the next table will draw, read without drawing it."""
    return int(re.fullmatch(r"count\((\d+)\)", repr(decrement._table_instance_counter))[1])


@pytest.fixture
def kinds(tables, standard):
    tables.period("PERU", sexes=("m", "f", "u"))
    tables.select("USEL", sexes=("u",))


# fmt: off
ZIP = [
    (("GEN", "m"), {"cohort": [1950, 1960, np.int64(1970)]},
     [("GEN", "m", 1950, None, None), ("GEN", "m", 1960, None, None), ("GEN", "m", 1970, None, None)]),
    (("GEN", ("m", "F", "f")), {"cohort": 1960},
     [("GEN", "m", 1960, None, None), ("GEN", "f", 1960, None, None), ("GEN", "f", 1960, None, None)]),
    # A scalar sex grows with the first sequence, and drags the cohort already paired with it.
    ((["GEN", "YRS"], "f"), {"cohort": 1960},
     [("GEN", "f", 1960, None, None), ("YRS", "f", 1960, None, None)]),
    (("SEL", ("m", "f")), {"duration": [1, "ult"]},
     [("SEL", "m", None, 1, None), ("SEL", "f", None, "ult", None)]),
    (("PER", ("u", "m", "u")), {"unisex_blend": [0.3, None, 0.7]},
     [("PER", "u", None, None, 0.3), ("PER", "m", None, None, None), ("PER", "u", None, None, 0.7)]),
    (("PER", ("m", "u")), {"unisex_blend": 0.4},  # a scalar blend goes to the "u" tables only
     [("PER", "m", None, None, None), ("PER", "u", None, None, 0.4)]),
    ((("PERU",), "u"), {}, [("PERU", "u", None, None, None)]),
    (("USEL", "u"), {"duration": [1, 2, 3]},  # 3 lies past the select period: the ultimate column
     [("USEL", "u", None, 1, None), ("USEL", "u", None, 2, None), ("USEL", "u", None, 3, None)]),
]
# fmt: on


@pytest.mark.parametrize(("args", "kwargs", "expected"), ZIP)
def test_zip_pairs_in_order(kinds, args, kwargs, expected):
    result = LifeTable(*args, **kwargs)
    assert type(result) is tuple and fields(result) == expected
    assert all(type(t) is LifeTable and type(t.cohort) in (int, type(None)) for t in result)
    # Each table holds exactly what a single construction with its own arguments holds.
    for t, (name, sex, cohort, duration, blend) in zip(result, expected, strict=True):
        single = LifeTable(name, sex, cohort=cohort, duration=duration, unisex_blend=blend)
        np.testing.assert_array_equal(t._decrement_base, single._decrement_base)


# fmt: off
CARTESIAN = [
    (("GEN", ("m", "f")), {"cohort": (1960, 1970)},
     [("m", 1960, None), ("m", 1970, None), ("f", 1960, None), ("f", 1970, None)]),
    (("GEN", ("m", "m", "f")), {"cohort": [1960, 1960, 1970]},  # repeats are dropped, first kept
     [("m", 1960, None), ("m", 1970, None), ("f", 1960, None), ("f", 1970, None)]),
    (("GEN", "u"), {"cohort": (1960, 1970), "unisex_blend": [0.2, 0.8, 0.2]},
     [("u", 1960, 0.2), ("u", 1960, 0.8), ("u", 1970, 0.2), ("u", 1970, 0.8)]),
    (("GEN", ("m", "u")), {"cohort": 1960, "unisex_blend": 0.5}, [("m", 1960, None), ("u", 1960, 0.5)]),
]
# fmt: on


@pytest.mark.parametrize(("args", "kwargs", "expected"), CARTESIAN)
def test_cartesian_order_and_repeats(kinds, args, kwargs, expected):
    result = LifeTable(*args, cartesian=True, **kwargs)
    assert [(t.sex, t.cohort, t.unisex_blend) for t in result] == expected


def test_cartesian_names_vary_slowest_and_dict_keys_hold_every_identifying_field(kinds):
    result = LifeTable(["YRS", "GEN", "YRS"], ("f", "m"), cohort=1960, cartesian=True)
    assert [(t.table_name, t.sex) for t in result] == [("YRS", "f"), ("YRS", "m"), ("GEN", "f"), ("GEN", "m")]
    result = LifeTable("SEL", ("m", "f"), duration=[1, "ult"], return_dict=True, cartesian=True)
    assert list(result) == [TableKey("SEL", s, None, d, None) for s in "mf" for d in (1, "ult")]
    assert all(type(k) is TableKey and fields([t]) == [tuple(k)] for k, t in result.items())
    blends = LifeTable("PER", "u", unisex_blend=[0.25, 0.75], return_dict=True)
    assert list(blends) == [TableKey("PER", "u", unisex_blend=w) for w in (0.25, 0.75)]


# fmt: off
REPEATED = [
    (("GEN", ("m", "f", "m")), {"cohort": (1960, 1970, 1960)},
     [TableKey("GEN", "m", 1960), TableKey("GEN", "f", 1970)], 2, [TableKey("GEN", "m", 1960)]),
    (("SEL", "m"), {"duration": [1, 2, 1, 2, 1]}, [TableKey("SEL", "m", duration=d) for d in (1, 2)], 4,
     [TableKey("SEL", "m", duration=d) for d in (1, 2)]),
]
# fmt: on


@pytest.mark.parametrize(("args", "kwargs", "keys", "last", "warned"), REPEATED)
def test_dict_results_keep_the_last_instance_of_a_repeated_key(kinds, args, kwargs, keys, last, warned):
    first = next_id()
    with pytest.warns(UserWarning) as caught:
        result = LifeTable(*args, return_dict=True, **kwargs)
    assert [str(w.message) for w in caught] == [
        f"return_dict=True: {key!r} occurs more than once; the dictionary keeps the last instance built "
        "for it. Use return_dict=False for a tuple of every instance."
        for key in warned
    ]
    assert all(w.filename == __file__ for w in caught)
    assert list(result) == keys  # each key where it first occurs, holding the last instance built for it
    assert result[keys[0]]._instance_id == first + last
    # Decided from the arguments: a warning turned into an error builds nothing.
    before = next_id()
    with warnings.catch_warnings(), pytest.raises(UserWarning):
        warnings.simplefilter("error")
        LifeTable(*args, return_dict=True, **kwargs)
    assert next_id() == before


def test_pending_shells(kinds):
    shells = LifeTable("GEN", ("m", "F"), pending=True)
    assert [(t.sex, t.metadata_pending, t._decrement) for t in shells] == [(s, True, None) for s in "mf"]
    unnamed = LifeTable(["GEN", "SEL"], pending=True)
    shown = [(t.table_name, t.sex, t.metadata_pending) for t in unnamed]
    assert shown == [("GEN", None, True), ("SEL", None, True)]
    shells[0].configure(cohort=1970)
    assert not shells[0].metadata_pending and shells[1].metadata_pending


def test_interest_rate_reaches_every_table(kinds):
    many = LifeTable(
        ["PER", "GEN"], "m", cohort=[None, 1970], cartesian=False, return_dict=True, interest_rate=0
    )
    assert [t.interest_rate for t in many.values()] == [0.0, 0.0]
    # Keywords go to the class's own __init__, which refuses them as for a single table.
    with pytest.raises(TypeError) as single:
        ExitTable("PER", "m", interest_rate=0.03)
    with exactly(TypeError, str(single.value)):
        ExitTable("PER", ("m", "f"), interest_rate=0.03)


PENDING = "LifeTable(): {} is not compatible with pending=True. "
PENDING_SEQUENCE = (
    "LifeTable(): {0} as a sequence is not compatible with pending=True. "
    "Pass a scalar {0} or omit it (deferred via configure())."
)
NO_NATIVE = (
    "unisex_blend parameter is required when creating instance for sex='u' because table '{0}' "
    "lacks column '{1}'.\nExample: LifeTable('{0}', ('m', 'f', 'u'), unisex_blend=0.5)"
)
LENGTHS = "{} sequence length ({}) must match {} sequence length ({}) when both have length > 1"
MIXED = (
    "cartesian=True requires all table_names to have the same {0} structure. Mixed {1} tables produce "
    "invalid combinations. Use zip mode (cartesian=False) with {2}=[int, None, ...] instead."
)
BLEND_AXIS = (
    "unisex_blend as a sequence with cartesian=True requires all sex values to be 'u' (blend is a cartesian "
    "axis and is not valid for 'm' or 'f'). Use zip mode (cartesian=False) for mixed sex with per-instance "
    "blends, or pass a scalar unisex_blend."
)
NO_U = (
    "Cannot specify unisex_blend=0.5 when sex only contains ('m', 'f') (no 'u'). "
    "Use sex='u' or include 'u' in the tuple to apply unisex blending."
)
M_SET = "Cannot specify unisex_blend=0.5 when sex='m' is explicitly set. Use sex='u' to apply unisex blending"
NO_SEX = "LifeTable(): 'sex' is required unless pending=True. Pass sex='m', 'f', or 'u'."

# fmt: off
REFUSALS = [
    # Lengths that cannot be paired; they are reported before anything about the blend.
    (("GEN", ("m", "f", "f")), {"cohort": (1960, 1970)}, ValueError, LENGTHS.format("sex", 3, "cohort", 2)),
    (("GEN", ("u", "u", "u")), {"cohort": (1960, 1970), "unisex_blend": []}, ValueError,
     LENGTHS.format("sex", 3, "cohort", 2)),
    ((["GEN", "YRS", "GEN"], "m"), {"cohort": [1960, 1970], "unisex_blend": 0.5}, ValueError,
     LENGTHS.format("sex", 2, "table_name", 3)),
    ((["GEN", "YRS"], ("m", "f", "f")), {}, ValueError, LENGTHS.format("sex", 3, "table_name", 2)),
    (("GEN", "u"), {"cohort": [1, 2, 3], "unisex_blend": [0.1, 0.2]}, ValueError,
     "unisex_blend sequence length (2) must match cohort sequence length (3) when sex is scalar"),
    (("PER", ("u", "u", "u")), {"unisex_blend": [0.1, 0.2]}, ValueError,
     "unisex_blend sequence length (2) must match instance count (3)"),
    # Blend sequences, element by element.
    (("PER", "u"), {"unisex_blend": []}, ValueError,
     "unisex_blend sequence must contain at least one blend weight"),
    (("PER", "u"), {"unisex_blend": ["0.5"]}, TypeError, "unisex_blend element 0 must be numeric, got str"),
    (("PER", ("m", "u")), {"unisex_blend": [None, None]}, TypeError,
     "unisex_blend element 1 must be float, got None"),
    (("PER", "u"), {"unisex_blend": [1.5]}, ValueError,
     "unisex_blend element 0 must be in [0.0, 1.0], got 1.5"),
    (("PER", ("u", "f")), {"unisex_blend": [0.5, 0.5]}, ValueError,
     "unisex_blend element 1=0.5 provided for sex='f'; unisex_blend is only valid when sex='u'"),
    (("PER", ("m", "F", "m")), {"unisex_blend": 0.5}, ValueError, NO_U),
    (("PER", "m"), {"cohort": [None], "unisex_blend": 0.5}, ValueError, M_SET + "."),
    (("GEN", ("m", "u")), {"cohort": 1960, "unisex_blend": [0.5], "cartesian": True}, ValueError, BLEND_AXIS),
    # Native unisex columns, looked up for the duration of a select table.
    ((["PERU", "PER"], "u"), {}, ValueError, NO_NATIVE.format("PER", "qx_u")),
    (("SEL", "u"), {"duration": ["ult", 1]}, ValueError, NO_NATIVE.format("SEL", "qx_u_ult")),
    # Cartesian products of tables of different structures.
    ((["PER", "GEN"], "m"), {"cartesian": True}, ValueError,
     MIXED.format("generational", "generational/period", "cohort")),
    ((["PER", "SEL"], "m"), {"cartesian": True}, ValueError,
     MIXED.format("select", "select/non-select", "duration")),
    # Pending shells.
    (("GEN", ("m", "f")), {"pending": True, "cartesian": True}, ValueError,
     PENDING.format("cartesian=True") + "Create individual pending instances and configure them separately."),
    (("GEN", ("m", "f")), {"pending": True, "return_dict": True}, ValueError,
     PENDING.format("return_dict=True") + "Use TableRegistry for keyed caching of configured instances."),
    (("GEN", "m"), {"pending": True, "cohort": [1960]}, ValueError, PENDING_SEQUENCE.format("cohort")),
    ((["GEN"],), {}, TypeError, NO_SEX),
    # Arguments of the wrong kind.
    (("GEN", "m"), {"cohort": [1960, True]}, TypeError, "cohort element 1 must be int or None, got bool"),
    (("GEN", "m"), {"cohort": [np.float64(1960.0)]}, TypeError,
     "cohort element 0 must be exact int, got 1960.0"),
    (("SEL", "m"), {"duration": [False]}, TypeError,
     "duration element 0 must be int, 'ult', or None, got bool"),
    ((["PER", 3], "m"), {}, TypeError, "table_name element 1 must be str, got int"),
    (((), "m"), {}, ValueError, "table_name sequence must contain at least one table name"),
    (("PER", ["m", None]), {}, TypeError, "sex must be a string or a list/tuple of strings"),
    (("GEN", "m"), {"cohort": "1960"}, TypeError, "cohort must be int or sequence of int, got str"),
    # Every name is opened before the first table is built.
    ((["PER", "NOPE"], "m"), {}, FileNotFoundError, None),
]
# fmt: on


@pytest.mark.parametrize(("args", "kwargs", "exc", "message"), REFUSALS)
def test_refusals_build_nothing(kinds, args, kwargs, exc, message):
    before = next_id()
    with pytest.raises(exc) if message is None else exactly(exc, message):
        LifeTable(*args, **kwargs)
    assert next_id() == before


# fmt: off
EMPTY = [
    (("SULT", "u"), {"cohort": []}),
    (("GEN", ("m", "f")), {"cohort": [], "cartesian": True}),
    (("GEN", []), {"pending": True}),
    (("PER", "u"), {"cohort": np.array([], dtype=np.int64), "unisex_blend": 0.5}),
]
# fmt: on


@pytest.mark.parametrize(("args", "kwargs"), EMPTY)
def test_an_empty_key_sequence_gives_no_tables(kinds, args, kwargs):
    before = next_id()
    assert LifeTable(*args, **kwargs) == ()
    if not kwargs.get("pending"):
        assert LifeTable(*args, return_dict=True, **kwargs) == {}
    assert next_id() == before


def test_memory_warning_above_one_hundred():
    assert len(LifeTable(["SULT"] * 100, "u")) == 100  # filterwarnings=error: any warning would raise
    names = ["SULT"] * 101
    with pytest.warns(ResourceWarning) as caught:
        assert len(LifeTable(names, "u")) == 101
    (warning,) = caught
    assert str(warning.message).startswith(
        "Creating 101 table instances in a single vectorial call. Each instance independently caches its "
        "actuarial data; for generational tables this may reach ~300 KB per instance (~29.6 MB for 101 "
        "instances). For portfolios with many distinct cohorts, consider building a dict of unique tables "
        "and passing a per-policy list to the batch API:\n"
    )
    assert warning.filename == __file__  # the caller's line
    before = next_id()
    with warnings.catch_warnings(), pytest.raises(ResourceWarning):
        warnings.simplefilter("error")
        LifeTable(names, "u")
    assert next_id() == before


def test_calls_keep_no_reference(kinds):
    name, cohort, weight, rate = "".join(["GE", "N"]), int("1975"), float("0.375"), float("0.02")
    names, blends = [name, name], [weight, None]
    # The last is refused by the second table's __init__, after the first was built.
    refusals = [{"unisex_blend": [weight, "x"]}] + [
        {"unisex_blend": blends, "cohort": cohorts} for cohorts in ([cohort] * 3, [cohort, 1800])
    ]

    def calls():
        LifeTable(names, ("u", "m"), cohort=cohort, unisex_blend=blends, return_dict=True, interest_rate=rate)
        LifeTable(name, ("u", "m"), cohort=[cohort, cohort], unisex_blend=weight, cartesian=True)
        for refused in refusals:
            with contextlib.suppress(TypeError, ValueError):
                LifeTable(names, ("u", "m"), **refused)

    calls()  # warm-up: the unisex cache keeps what it needs
    gc.collect()
    before = [sys.getrefcount(o) for o in (name, cohort, weight, rate, names, blends)]
    for _ in range(50):
        calls()
    gc.collect()
    assert [sys.getrefcount(o) for o in (name, cohort, weight, rate, names, blends)] == before
