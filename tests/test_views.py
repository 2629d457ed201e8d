"""Data views of a table (view_data, head, tail), their column names, and _safe_slice."""

from __future__ import annotations

import numpy as np
import polars as pl
import pytest

from conftest import exactly
from veltrane.config import MAX_DECIMALS, Config
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable


def test_start_age_cut_and_ends():
    t = LifeTable("SULT", "u")  # rates start at age 20
    assert t.head(3)["age"].to_list() == [20, 21, 22]
    assert t.head(3, show_normalized=True)["age"].to_list() == [0, 1, 2]
    assert t.tail(2)["age"].to_list() == [119, 120]
    assert t.view_data().height == 101 and t.view_data(show_normalized=True).height == 121
    assert t.head(2, include_age=False).columns == ["qx_u"]
    assert t.head(0).height == 0 and t.head(500).height == 101
    assert t.head()["age"].to_list() == list(range(20, 30))


def test_modified_table_shows_base_rates_and_current_omega(standard):
    cols = standard["PER"]
    t = LifeTable("PER", "m")
    base = cols["qx_m"]
    # A modification as modify_qx leaves it: shifted by two ages, multiplied, w lowered.
    t._decrement = np.minimum(base[2:] * 1.1, 1.0)
    t._w_mod = base.size - 3
    t._modified = True
    frame = t.view_data()
    assert frame.columns == ["age", "qx_m", "qx_m_original"]
    assert frame.height == t.w + 1 == base.size - 2
    np.testing.assert_array_equal(frame["qx_m"].to_numpy(), np.round(np.minimum(base[2:] * 1.1, 1.0), 12))
    np.testing.assert_array_equal(frame["qx_m_original"].to_numpy(), np.round(base[: t.w + 1], 12))
    assert t.tail(1)["age"].to_list() == [t.w]


@pytest.mark.parametrize(
    ("duration", "label"), [(1, "qx_u_s1"), (2, "qx_u_s2"), (3, "qx_u_ult"), ("ult", "qx_u_ult")]
)
def test_select_columns(duration, label):
    t = LifeTable("SSSM", "u", duration=duration)
    frame = t.view_data(show_normalized=True)
    assert frame.columns == ["age", label]
    np.testing.assert_array_equal(frame[label].to_numpy(), np.round(t._decrement, 12))


def test_improvement_column(standard):
    cols = standard["GEN"]
    t = LifeTable("GEN", "m", cohort=1960)
    frame = t.view_data(show_normalized=True)
    assert frame.columns == ["age", "qx_m", "mi_m"]
    np.testing.assert_array_equal(frame["mi_m"].to_numpy(), cols["mi_m"])
    assert LifeTable("GEN", "u", cohort=1960, unisex_blend=0.5).view_data().columns == ["age", "qx_u"]
    s = LifeTable("GSEL", "f", cohort=1970, duration=1)
    assert s.view_data().columns == ["age", "qx_f_s1", "mi_f_s1"]


KINDS = [(LifeTable, "life", "qx"), (DisabilityTable, "disability", "ix"), (ExitTable, "exit", "ox")]


@pytest.mark.parametrize(("cls", "table_type", "prefix"), KINDS)
def test_decimals_follow_the_table_type(tables, cls, table_type, prefix):
    cols = tables.period(name="T", table_type=table_type, prefix=prefix)
    with Config().override(decimals={prefix: 3}):  # each kind has the setting named by its prefix
        t = cls("T", "f")
        assert t._decimals_for_decrement == 3
        assert t.decimals.qx == Config().decimals.qx and t.decimals is t.decimals
        frame = t.view_data()
    assert frame.schema == {"age": pl.Int32, f"{prefix}_f": pl.Float64}
    assert frame["age"].to_list() == list(range(t.w + 1)) and t.view_data(include_age=False).width == 1
    np.testing.assert_array_equal(frame[f"{prefix}_f"].to_numpy(), np.round(cols[f"{prefix}_f"], 3))


# fmt: off
SLICES = [  # sequence, n, head, tail
    ([*range(12)], 5, [*range(5)], [*range(7, 12)]), ([*range(6)], 5, [*range(5)], [*range(1, 6)]),
    ([*range(5)], 5, [*range(5)], [*range(5)]), ([1, 2, 3], 5, [1, 2, 3], [1, 2, 3]), ([], 5, [], []),
    ([*range(4)], 0, [], []),
]
# fmt: on


@pytest.mark.parametrize(("arr", "n", "first", "last"), SLICES)
def test_safe_slice(arr, n, first, last):
    head, tail = LifeTable._safe_slice(arr, n)
    assert (head, tail) == (first, last)
    if len(arr) <= n:
        assert tail is arr


# fmt: off
BAD_ARGUMENTS = [
    (lambda t: t.head(-1), ValueError, "head: n must be >= 0, got -1"),
    (lambda t: t.tail(True), TypeError, "tail: n must be an int, got bool"),
    (lambda t: t.head(2.5), TypeError, "head: n must be an int, got float"),
    (lambda t: t._safe_slice([1], -2), ValueError, "_safe_slice: n must be >= 0"),
    (lambda t: t.view_data(sex="m"), TypeError, "view_data() got an unexpected keyword argument 'sex'"),
    # A decimals cache written by hand; the bound is the settings' own.
    *((lambda t, v=v: (setattr(t, "_decimals_decrement_cache", v), t.qx(50)), ValueError,
       f"Table 'SULT': _decimals_decrement_cache must be an int in [0, {MAX_DECIMALS}], got {v!r}")
      for v in (MAX_DECIMALS + 1, -1, 2**31, "3")),
]
# fmt: on


@pytest.mark.parametrize(("call", "exc", "message"), BAD_ARGUMENTS)
def test_bad_arguments(call, exc, message):
    with pytest.raises(exc) as info:
        call(LifeTable("SULT", "u"))
    assert str(info.value).startswith(message)


def test_pending_table_has_no_view(standard):
    t = LifeTable("SEL", "m", pending=True)
    message = "Table 'SEL' is not ready: assign 'duration' before calculations (lt.configure(duration=...))."
    with exactly(ValueError, message):
        t.view_data()
    t.duration = 2
    assert t.head(1).columns == ["age", "qx_m_s2"]
