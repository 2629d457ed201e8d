"""Tables typed in from a page: rates and select grids with no name registered, pickled with their
data, and ratings of single ages for ``decrement_multiplier``."""

from __future__ import annotations

import math
import pickle
import warnings

import numpy as np
import pytest

from conftest import exactly
from veltrane.contingencies import annuity
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource


@pytest.mark.parametrize("cls", [LifeTable, ExitTable, DisabilityTable])
def test_from_rates_makes_a_working_unregistered_table(cls):
    closed = cls.from_rates([0.1, 0.2, 0.3], start_age=60)
    assert (closed.w, closed.start_age, closed.qx(61), closed.qx(62)) == (62, 60, 0.2, 1.0)
    kept = cls.from_rates([0.1, 0.2, 0.3], start_age=60, close=False, name="PAGE_12")
    assert (kept.w, kept.qx(62), kept.qx(63), kept.table_name) == (63, 0.3, 1.0, "PAGE_12")
    assert TableSource.registered() == [] and type(kept) is cls
    with pytest.raises(FileNotFoundError):
        TableSource("PAGE_12")


def test_tables_from_rates_pickle_with_their_data():
    t = LifeTable.from_rates({"m": [0.01, 0.02, 0.5], "f": [0.005, 0.01, 0.4]}, sex="f", close=False)
    t.modify_qx({"decrement_multiplier": 1.5})
    back, copied = pickle.loads(pickle.dumps(t)), pickle.loads(pickle.dumps(t.copy()))
    assert back.table_name == "RATES" and back.sex == "f" and back.modified
    assert np.array_equal(back._decrement, t._decrement) and np.array_equal(copied._decrement, t._decrement)
    assert TableSource.registered() == []


@pytest.mark.parametrize(
    ("kwargs", "exc", "message"),
    [
        ({"rates": [0.1], "close": 1}, TypeError, "from_rates: close must be True or False, got int"),
        ({"rates": {"m": [0.1]}, "sex": "f"}, ValueError, "from_rates: no rates for sex 'f', only for 'm'"),
        ({"rates": []}, ValueError, "rates['u'] must be a non-empty vector of numbers, got shape (0,)"),
    ],
)
def test_from_rates_refuses_bad_input(kwargs, exc, message):
    with exactly(exc, message):
        LifeTable.from_rates(**kwargs)
    assert TableSource.registered() == []


@pytest.fixture(scope="module")
def printed():
    """SSSM as printed: q[x], q[x]+1 by selection age 20..118, the ultimate column from 20."""
    s1 = LifeTable("SSSM", "u", duration=1)._decrement
    s2 = LifeTable("SSSM", "u", duration=2)._decrement
    ult = LifeTable("SSSM", "u", duration="ult")._decrement
    return [[s1[x], s2[x + 1]] for x in range(20, 119)], ult[20:]


def test_select_grid_by_selection_age_gives_the_select_table(printed):
    grid, ult = printed
    source = TableSource.from_select_grid("PRINTED", grid, ult, first_select_age=20, first_ultimate_age=20)
    mine = LifeTable.from_source(source, "u", duration=1)
    theirs = LifeTable("SSSM", "u", duration=1)
    for x in (20, 45, 65, 100):
        assert annuity(mine, x, i=0.05) == annuity(theirs, x, i=0.05)
    assert pickle.loads(pickle.dumps(mine)).qx(65) == mine.qx(65)
    # survivors as printed, l[x], l[x]+1, and l(x) of the ultimate column
    lx = np.cumprod(np.concatenate([[1e5], 1 - ult[:-1]]))
    scaled = [[lx[k + 2] / ((1 - q0) * (1 - q1)), lx[k + 2] / (1 - q1)] for k, (q0, q1) in enumerate(grid)]
    survivors = TableSource.from_select_grid(
        "PRINTED_L", scaled, lx, first_select_age=20, first_ultimate_age=20, survivors=True
    )
    np.testing.assert_allclose(
        survivors.data["qx_u_s1"].to_numpy(), source.data["qx_u_s1"].to_numpy(), atol=1e-14
    )


def test_empty_cells_take_the_ultimate_rate_of_their_attained_age():
    source = TableSource.from_select_grid(
        "GAPS",
        [[0.01, 0.02], [0.011, None], [0.012, math.nan]],
        [0.03, 0.04, 0.05, 1.0],
        first_select_age=50,
        first_ultimate_age=51,
    )
    data = source.data.filter(source.data["age"] >= 50)
    assert data["qx_u_s1"].to_list() == [0.01, 0.011, 0.012, 0.05, 1.0]
    # selection age 49 is not printed; 51 and 52 have empty second cells: the ultimate rates at 52, 53
    assert data["qx_u_s2"].to_list() == [0.0, 0.02, 0.04, 0.05, 1.0]
    assert data["qx_u_ult"].to_list() == [0.0, 0.03, 0.04, 0.05, 1.0]


ROWS = "select: every row must have one cell per duration; row 2 has 1, row 1 has 2"
UNFILLED = "select: the empty cell at selection age 50, duration 1 (attained age 50) has no ultimate rate"
GAP = (
    "ultimate rates start at age 53, after the select period of the first selection age ends (age 52): "
    "that life would have no rates in between"
)
ABOVE = "select: the select cells reach age 52, above the last ultimate age 51"


@pytest.mark.parametrize(
    ("select", "ultimate", "first", "message"),
    [
        ([[0.1, 0.2], [0.1]], [0.3, 1.0], 50, ROWS),
        ([[None, 0.2]], [0.3, 0.4, 1.0], 51, UNFILLED + " to fill it"),
        ([[0.1, 0.2]], [0.3, 1.0], 53, GAP),
        ([[0.1, 0.2], [0.1, 0.2]], [0.3, 1.0], 50, ABOVE),
        ([["a", 0.2]], [0.3, 1.0], 50, "select must hold numbers, or None (or NaN) for empty cells"),
    ],
)
def test_bad_select_grids_are_refused(select, ultimate, first, message):
    with exactly(ValueError, message):
        TableSource.from_select_grid("BAD", select, ultimate, first_select_age=50, first_ultimate_age=first)
    assert TableSource.registered() == []


def test_multiplier_by_age_rates_single_ages():
    t = LifeTable("SULT", "u")
    factors = t.multiplier_by_age({65: 1.5, np.int64(70): 2})
    assert factors[65] == 1.5 and factors[70] == 2.0 and np.count_nonzero(factors != 1.0) == 2
    base = LifeTable("SULT", "u")
    t.modify_qx({"decrement_multiplier": factors})
    assert t.qx(65) == pytest.approx(1.5 * base._decrement[65], abs=1e-12)
    assert t.qx(64) == base.qx(64) and t.qx(71) == base.qx(71)


@pytest.mark.parametrize(
    ("factors", "exc", "message"),
    [
        ({65.5: 2}, ValueError, "multiplier_by_age: ages must be whole numbers, got 65.5"),
        ({True: 2}, ValueError, "multiplier_by_age: ages must be whole numbers, got True"),
        ({121: 2}, ValueError, "multiplier_by_age: age 121 lies outside 0..120 (w of table 'SULT')"),
        ({65: "x"}, ValueError, "multiplier_by_age: the factor at age 65 must be a finite number, got 'x'"),
        ([(65, 2)], TypeError, "multiplier_by_age: factors must be a mapping of age to factor, got list"),
    ],
)
def test_multiplier_by_age_refuses_bad_ages(factors, exc, message):
    t = LifeTable("SULT", "u")
    with exactly(exc, message):
        t.multiplier_by_age(factors)
    assert not t.modified


def test_an_extra_force_is_a_combination_with_a_constant_table():
    t, c = LifeTable("SULT", "u"), 0.01
    extra = ExitTable.from_rates([-math.expm1(-c)] * (t.w + 1), close=False)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        t.modify_qx({"table_combination": extra})
    base = LifeTable("SULT", "u")
    for x in (30, 65, 100):
        assert t.qx(x) == pytest.approx(1 - (1 - base.qx(x)) * math.exp(-c), abs=1e-12)


def test_from_source_leaves_a_named_source_as_it_is():
    named = TableSource("SULT")
    table = LifeTable.from_source(named, "u")
    assert table._table is not named and not hasattr(named, "_memory_data")
    assert table.qx(65) == LifeTable("SULT", "u").qx(65)
    assert pickle.loads(pickle.dumps(LifeTable("SULT", "u"))).table_name == "SULT"
    assert pickle.loads(pickle.dumps(table)).qx(65) == table.qx(65)
