"""Construction: the module surface, every check of __init__ with its exact message, pending shells."""

from __future__ import annotations

import math

import numpy as np
import pytest

from conftest import exactly
from veltrane.config import Config
from veltrane.tables import DecrementTable, decrement
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource


@pytest.fixture
def kinds(tables, standard):
    """One small table of every structure, plus a few files that lack what they promise."""
    tables.period("DIS", sexes=("m",), table_type="disability", prefix="ix")
    tables.year_indexed("PROJ", formula="projected_improvement")
    tables.select("SEL0", start=0)
    tables.select("USEL", sexes=("u",))
    q = tables.rates()
    tables.write("MISS", {"table_type": "life", "sexes": ["m", "f", "u"]}, {"qx_m": q})
    gen = {"formula_type": "compound", "base_year": 2000}
    meta = {"table_type": "life", "sexes": ["m", "f"], "generational": gen}
    tables.write("NOMI", meta, {"qx_m": q, "qx_f": q, "mi_m": q})
    years = meta | {"generational": {**gen, "mi_structure": "year_indexed", "grid_years": [2000, 2010]}}
    tables.write("NOYR", years, {"qx_m": q, "qx_f": q, "mi_m_2000": q, "mi_f_2010": q})
    by_duration = meta | {"generational": {**gen, "mi_structure": "select_period"}, "select": {"period": 2}}
    cols = {f"qx_{s}_{d}": q for s in "mf" for d in ("s1", "s2", "ult")}
    tables.write("NOSP", by_duration, cols | {"mi_m_s1": q, "mi_m_s2": q, "mi_f_ult": q, "mi_f_s1": q})
    return tables


def fresh(cls=LifeTable):
    """An allocated, uninitialised instance: lets a test call __init__ itself."""
    return cls.__new__(cls, "SULT", "u")


# -- module surface ------------------------------------------------------------------------------


def test_reset_hook_empties_the_unisex_cache():
    cache = decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX
    before = LifeTable("SULT", "u")._instance_id
    cache[("key",)] = np.zeros(1)
    with Config():
        Config().reset()
    assert decrement._COHORT_ADJUSTED_QX_CACHE_UNISEX is cache and not cache
    # The counter is process-wide and survives a reset: ids keep rising by one per table.
    assert LifeTable("SULT", "u")._instance_id == before + 1


def test_abstract_base():
    with pytest.raises(TypeError, match="abstract"):
        DecrementTable("SULT", "u")

    class Typed(DecrementTable):  # a plain Python subclass is a working table
        __slots__ = ()
        table_type = property(lambda self: "life")

    assert Typed("SULT", "u")._decrement_base[-1] == 1.0


# -- __init__: every refusal, with its message ---------------------------------------------------

SEX_REQUIRED = (
    "LifeTable(): 'sex' is required unless pending=True. Pass sex='m', 'f', or 'u', "
    "or use LifeTable('PER', pending=True)."
)
PERIOD_PENDING = (
    "pending=True has no effect on static period table 'PER'. A static period table requires no "
    "deferred metadata (cohort, duration). Use the normal constructor instead."
)
STATIC_COHORT = "Cohort should not be specified for static tables."


INIT_REFUSALS = [
    ("PER", {"sex": "m", "cohort": [1970, 1971]}, TypeError,
     "cohort in __init__ must be int or None, got sequence of length 2"),
    ("PER", {}, TypeError, SEX_REQUIRED),
    ("MISS", {"sex": "m"}, ValueError, "Missing required qx_* columns in table 'MISS': ['qx_f', 'qx_u']"),
    ("NOMI", {"sex": "m", "cohort": 1970}, ValueError,
     "Missing MI columns in generational table 'NOMI' (mi_structure='flat'): ['mi_f']"),
    ("NOYR", {"sex": "m", "cohort": 1970}, ValueError,
     "Missing MI columns in generational table 'NOYR' (mi_structure='year_indexed'): "
     "['mi_m_2010', 'mi_f_2000']"),
    ("NOSP", {"sex": "m", "cohort": 1970, "duration": 1}, ValueError,
     "Missing MI columns in generational table 'NOSP' (mi_structure='select_period'): "
     "['mi_m_ult', 'mi_f_s2']"),
    ("PER", {"sex": "m", "pending": True}, ValueError, PERIOD_PENDING),
    ("GEN", {"sex": "m"}, ValueError,
     "Table 'GEN' is a generational table: 'cohort' (year of birth) is required."),
    ("YRS", {"sex": "m"}, ValueError, "Table 'YRS' (year_indexed): 'cohort' (year of birth) is required."),
    ("PROJ", {"sex": "m"}, ValueError,
     "Table 'PROJ' uses 'projected_improvement': 'cohort' (year of birth) is required. "
     "The projection year for each age x is derived as cohort + x."),
    ("GSEL", {"sex": "m", "duration": 1}, ValueError,
     "Table 'GSEL' is a generational table (mi_structure='select_period'): "
     "'cohort' (year of birth) is required."),
    ("PER", {"sex": "m", "cohort": 1970}, ValueError, STATIC_COHORT),
    ("SEL0", {"sex": "m"}, ValueError,
     "Table 'SEL0' is a select-ultimate table (select_period=2, start_duration=0): 'duration' is required. "
     "Pass an integer >= 0 or duration='ult' for the ultimate column."),
    ("SEL", {"sex": "m", "duration": 1.0}, ValueError,
     "duration must be an integer >= 1 or 'ult' for select tables, got 1.0."),
]  # fmt: skip


@pytest.mark.parametrize(("name", "kwargs", "exc", "message"), INIT_REFUSALS)
def test_init_refuses(kinds, name, kwargs, exc, message):
    t = fresh()
    with exactly(exc, message):
        DecrementTable.__init__(t, name, **kwargs)
    assert not t._initialized


@pytest.mark.parametrize("element", [1970.0, 1970.7, "1970", True])
def test_cohort_sequence_holds_an_integer(kinds, element):
    # A one-element sequence unwraps; a non-integer inside it is refused, not truncated.
    refused = r"^Cohort year must be an integer\.$|^cohort must be int"
    with pytest.raises((TypeError, ValueError), match=refused):
        DecrementTable.__init__(fresh(), "GEN", "m", cohort=[element])
    ready = fresh()
    DecrementTable.__init__(ready, "GEN", "m", cohort=(np.int64(1970),))
    assert type(ready.cohort) is int
    np.testing.assert_array_equal(ready._decrement_base, LifeTable("GEN", "m", cohort=1970)._decrement_base)


PUBLIC_REFUSALS = [
    (lambda: LifeTable("DIS", "m"), ValueError, "Table 'DIS' is of type 'disability', expected 'life'."),
    (lambda: LifeTable("PER", "u", unisex_blend=True), TypeError,
     "Expected numeric input for unisex_blend"),
    (lambda: LifeTable("PER", 5), TypeError, "sex must be a string or a list/tuple of strings"),
    (lambda: LifeTable("PER", "m", cohort=1970.0), TypeError, "cohort must be exact int, got 1970.0"),
    (lambda: LifeTable("PER", "m", duration=True), TypeError,
     "duration must be int, 'ult', or sequence of int/'ult', got bool"),
]  # fmt: skip


@pytest.mark.parametrize(("call", "exc", "message"), PUBLIC_REFUSALS)
def test_public_constructor_refuses(kinds, call, exc, message):
    with exactly(exc, message):
        call()


def test_unknown_table_type(kinds, monkeypatch):
    monkeypatch.setattr(TableSource, "table_type", property(lambda self: "bogus"))
    with exactly(ValueError, "Unknown table_type 'bogus' in table 'PER'."):
        DecrementTable.__init__(fresh(), "PER", "m")


# -- successful construction ---------------------------------------------------------------------


READY = [
    (LifeTable, "PER", {"sex": "F"}, None, None),
    (DisabilityTable, "DIS", {"sex": "m"}, None, None),
    (LifeTable, "GEN", {"sex": "m", "cohort": np.int32(1970)}, 1970, None),
    (LifeTable, "GEN", {"sex": "m", "cohort": 1970, "pending": True}, 1970, None),  # complete: built now
    (LifeTable, "GSEL", {"sex": "f", "cohort": 1960, "duration": np.int64(2)}, 1960, 2),
    (LifeTable, "SEL0", {"sex": "m", "duration": 0}, None, 0),
    (LifeTable, "USEL", {"sex": "u", "duration": 1}, None, 1),  # native unisex select columns
]  # fmt: skip


@pytest.mark.parametrize(("cls", "name", "kwargs", "cohort", "duration"), READY)
def test_ready_table_invariants(kinds, cls, name, kwargs, cohort, duration):
    t = cls(name, **kwargs)
    assert t.sex == kwargs["sex"].lower() and t.cohort == cohort and t.duration == duration
    assert type(t.cohort) is (int if cohort else type(None))
    assert t._decrement_base.dtype == np.float64 and len(t._decrement_base) == t.table.w + 1
    np.testing.assert_array_equal(t._decrement, t._decrement_base)
    assert t._decrement is not t._decrement_base and t._lx is None and t._rebuilds_since_calc == 0
    assert not t.modified and t.modifications_applied == [] and not t.metadata_pending and t.w == t.table.w
    assert t._select_duration_set is (duration is not None)


def test_pending_shells(kinds):
    only_cohort = LifeTable("GSEL", cohort=np.int64(1970), pending=True)
    assert type(only_cohort._cohort) is int and only_cohort.w == only_cohort.table.w
    select = LifeTable("GSEL", "M", duration="ult", pending=True)
    assert (select.sex, select.duration, select._select_duration_set) == ("m", "ult", True)
    assert select.metadata_pending and select._decrement is None


def test_second_init_changes_nothing(kinds):
    t = LifeTable("GEN", "m", cohort=1970)
    ident, base = t._instance_id, t._decrement_base
    DecrementTable.__init__(t, "PER", "f")
    LifeTable.__init__(t, "GEN", "f", cohort=1980, interest_rate=0.5)
    assert (t.table_name, t.sex, t.cohort, t._instance_id) == ("GEN", "m", 1970, ident)
    assert t._decrement_base is base and t.interest_rate is None


FINITE = "interest_rate must be a finite number > -1, got "
RATES = [(None, None), (0.03, 0.03), (0, 0.0), (np.float64(-0.5), -0.5),
         ("0.03", (TypeError, "interest_rate must be a real number, got str")),
         (math.nan, (ValueError, FINITE + "nan")), (-1, (ValueError, FINITE + "-1"))]  # fmt: skip


@pytest.mark.parametrize(("rate", "stored"), RATES)
def test_interest_rate(rate, stored):
    if isinstance(stored, tuple):
        with exactly(*stored):
            LifeTable("SULT", "u", interest_rate=rate)
        return
    t = LifeTable("SULT", "u", interest_rate=rate)
    assert t.interest_rate == stored and type(t.interest_rate) is type(stored)
    assert t.copy().interest_rate == stored
