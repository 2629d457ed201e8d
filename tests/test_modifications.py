"""modify_qx: each modification and each merge of competing decrements against NumPy, the refusals
with their exact messages, truncation at certainty, and the actuarial functions on the shortened table.

Every refusal must leave the table exactly as it was; warnings are errors under pytest, so a
truncation that is not expected fails the call that issued it.
"""

from __future__ import annotations

import gc
import re
import sys
from contextlib import nullcontext

import numpy as np
import pandas as pd
import polars as pl
import pytest

from veltrane.tables import decrement as dm
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

RADIX = 1_000_000.0
GUIDE = "Call summary() for details; see user guide 'Truncation at certainty' (modifying_decrements)."
CUT = "modify_* truncated omega from {} to {} (decrement reaches 1 at {}). " + GUIDE
COMBINED_CUT = "table_combination reduced omega from {} to {} (combined decrement reaches 1 at {}). " + GUIDE
KINDS = {"life": (LifeTable, "qx"), "disability": (DisabilityTable, "ix"), "exit": (ExitTable, "ox")}
AS, MU, GI, AR = "age_shift", "decrement_multiplier", "decrement_geometric_increase", "aggravated_risk"
TC, CM = "table_combination", "combination_mode"


def exactly(message, exc=ValueError):
    return pytest.raises(exc, match=f"^{re.escape(message)}$")


def warns(message):
    return pytest.warns(UserWarning, match=f"^{re.escape(message)}$")


def final(q):
    return np.round(np.clip(q, 0.0, 1.0), 12)


def state(t):
    """Every field a modification may write, and the identity of a cache."""
    rates = (t._decrement.tolist(), t._decrement_base.tolist())
    return (*rates, t.w, t.modified, t.modifications_applied, id(t._lx))


@pytest.fixture
def kinds(tables):
    """Male rates of a table of each kind (random, closed at age 7); EXIT2 is a second exit table."""
    cols = {k: tables.period(k.upper(), table_type=k, prefix=p)[f"{p}_m"] for k, (_, p) in KINDS.items()}
    tables.period("EXIT2", table_type="exit", prefix="ox")
    return cols


def make(kind, sex="m"):
    return KINDS[kind][0](kind.upper(), sex)


def write(tables, name, q, kind="exit", **meta):
    tables.write(name, {"table_type": kind, "sexes": ["m"], **meta}, {f"{KINDS[kind][1]}_m": q})


# -- each modification against NumPy ---------------------------------------------------------------


def geometric(q, c, start):
    return q * np.r_[np.ones(start + 1), (1 + c) ** np.arange(1, q.size - start)]


M = np.linspace(0.5, 1.5, 8)
# fmt: off
CASES = [  # modifications, NumPy reference, descriptors
    ({MU: np.float64(2)}, lambda q: q * 2, ["decrement_multiplier=2.0"]),
    ({MU: list(M)}, lambda q: q * M, ["decrement_multiplier=<array[8]>"]),
    ({GI: (0.05, 2)}, lambda q: geometric(q, 0.05, 2), ["decrement_geometric_increase=(0.05, 2)"]),
    *[({AR: f}, lambda q, f=f: 1 - (1 - q) ** f, [f"aggravated_risk={f}"]) for f in (2.0, 0.5)],
    ({AS: np.int64(3)}, lambda q: q[3:], ["age_shift=3"]),
    ({AS: 2, AR: 1.5, MU: 0.8}, lambda q: (1 - (1 - q[2:]) ** 1.5) * 0.8,
     ["age_shift=2", "aggravated_risk=1.5", "decrement_multiplier=0.8"]),
    ([{AS: 2, MU: 1.5}, {AR: 2.0}], lambda q: 1 - (1 - q) ** 2, ["aggravated_risk=2.0"]),  # the last only
    *[({MU: series(M)}, lambda q: q * M, ["decrement_multiplier=<array[8]>"])
      for series in (pd.Series, pl.Series)],  # a series is a vector multiplier
]
# fmt: on


@pytest.mark.parametrize(("mods", "reference", "descriptors"), CASES)
def test_each_modification_matches_numpy(kinds, mods, reference, descriptors):
    t = make("life")
    for one in mods if isinstance(mods, list) else [mods]:
        t.modify_qx(one)
    expected = final(reference(kinds["life"]))
    np.testing.assert_array_equal(t._decrement, expected)
    assert (t.w, t.modified, t.modifications_applied) == (expected.size - 1, True, descriptors)
    np.testing.assert_array_equal(t._decrement_base, kinds["life"])


# -- refusals ------------------------------------------------------------------------------------

# fmt: off
REFUSALS = [
    *[({AS: n}, "age_shift must be an integer in [0, 7]") for n in (8, 2.0, True)],
    ({AS: 5, MU: [1.0] * 8}, "decrement_multiplier array length (8) must match rate array length (3)"),
    ({MU: [1.0] * 7 + [np.nan]}, "All decrement_multiplier values must be finite (no NaN/Inf)"),
    ({MU: np.r_[np.ones(7), 0.0]}, "All decrement_multiplier values must be positive"),
    *[({MU: v}, "decrement_multiplier must be a positive number or array") for v in (0, float("nan"), "2")],
    # infinity is a positive number; the product is not finite
    *[({MU: v}, "decrement_multiplier produced non-finite values (NaN/Inf)") for v in (np.inf, 10**400)],
    ({MU: 5e6}, "decrement_multiplier produced unrealistically large rates (max=5.000e+06)"),
    ({GI: (-1, 3)}, "decrement_geometric_increase: invalid base (1+c)=0"),
    ({GI: (1.01, 0)}, "decrement_geometric_increase first value must be a number in [-1.0, 1.0]"),
    ({GI: (0.1, 8)}, "decrement_geometric_increase second value must be int in [0, 7]"),
    *[({GI: v}, "decrement_geometric_increase must be a pair (c, start)") for v in (0.1, (0.1, 2, 3))],
    *[({AR: f}, "aggravated_risk must be a positive number") for f in (0, "3")],
    ({AR: 100.0001}, "aggravated_risk factor is unrealistically large"),
    ({MU: 2.0, "qx_shift": 1}, "Unknown modification key: 'qx_shift'"),
    ({CM: "udd"}, "combination_mode requires table_combination in the same modification dict"),
    ({CM: 1, "qx": 1}, "combination_mode must be the string 'independent' or 'udd'"),
    ({AR: 0, CM: "UDD", TC: []},
     "Unknown combination_mode 'UDD'; allowed values are 'independent' and 'udd'"),
]
# fmt: on


@pytest.mark.parametrize(("mods", "message"), REFUSALS)
def test_refusals_leave_the_table_as_it_was(kinds, mods, message):
    t = make("life")
    t.modify_qx({MU: 0.5})
    t.lx(3)
    before = state(t)
    with exactly(message):
        t.modify_qx(mods)
    assert state(t) == before


def test_limits_of_growth_and_aggravation():
    t = LifeTable("SULT", "u")
    t.modify_qx({AR: 100.0})  # the largest factor accepted; certainty only at the end
    assert t.w == 120 and t._decrement[-1] == 1.0
    growth = (
        "decrement_geometric_increase: geometric growth too large (base={}, tail_len={}, approx_growth={})"
    )
    with exactly(growth.format("2.0", 120, "1.329227995784916e+36")):
        t.modify_qx({GI: (1.0, 0)})
    with exactly(growth.format(2, 80, 2**80)):  # an integer c keeps the growth exact
        t.modify_qx({GI: (1, 40)})
    with exactly("modifications must be a dict, got list", TypeError):
        t.modify_qx([(AS, 1)])


# -- rates pushed above 1 before a step that reads probabilities ----------------------------------

STEEP = np.array([0.1, 0.2, 0.3, 0.4, 0.3, 0.2, 0.1, 1.0])  # x4 reaches 1 at age 2, live rates after it
HUMP = np.array([0.1, 0.35, 0.1, 0.6, 0.1, 0.1, 0.1, 1.0])
SPIKE = np.r_[[0.1] * 5, 0.6, [0.1] * 14, 1.0]  # 21 rates; x2 makes age 5 certain
NOTE = "omega_truncated_by_certainty: {}->{} at {}".format
SHIFTED = "index 1 (calendar age 2 after age_shift=1)"


def capped(q, m):
    return np.minimum(q * m, 1.0)


# fmt: off
ABOVE_ONE = [  # table, modifications, the rates before the final cut, the warning (text, w), descriptors
    (STEEP, {MU: 4.0, AR: 2.0}, lambda q: 1 - (1 - capped(q, 4)) ** 2, (CUT.format(7, 2, "age 2"), 2),
     ["decrement_multiplier=4.0", "aggravated_risk=2.0", NOTE(7, 2, "age 2")]),
    # a geometric tail on a table closed at q = 1 once made 1 - (1 - 2.25) ** 1.5 = NaN
    (STEEP, {GI: (0.5, 5), AR: 1.5}, lambda q: 1 - (1 - np.r_[q[:6], 0.15, 1.0]) ** 1.5,
     None, ["decrement_geometric_increase=(0.5, 5)", "aggravated_risk=1.5"]),
    # the table is cut only once, at the end: after the shift, counted on the shifted vector
    (STEEP, {MU: 4.0, AS: 1, AR: 2.0}, lambda q: 1 - (1 - capped(q, 4)[1:]) ** 2,
     (CUT.format(6, 1, SHIFTED), 1),
     ["decrement_multiplier=4.0", "age_shift=1", "aggravated_risk=2.0", NOTE(6, 1, SHIFTED)]),
    # a shift past the certain age leaves nothing to cut: every age was still there to shift
    (SPIKE, {MU: 2.0, AR: 1.0, AS: 12}, lambda q: capped(q, 2)[12:], None,
     ["decrement_multiplier=2.0", "aggravated_risk=1.0", "age_shift=12"]),
    # the merge cuts the table itself (and warns of it); the end of the pass finds nothing more
    (STEEP, {MU: 4.0, TC: "FLAT"}, lambda q: 1 - (1 - capped(q, 4)) * 0.9,
     (COMBINED_CUT.format(7, 2, "age 2"), 2),
     ["decrement_multiplier=4.0", "table_combination=(ExitTable)",
      "omega_truncated_by_combination: 7->2 at age 2"]),
    # x2 makes age 3 certain, the aggravation age 1 (1 - 0.3 ** 100 == 1.0): one cut, at the first
    (HUMP, {MU: 2.0, AR: 100.0}, lambda q: 1 - (1 - capped(q, 2)) ** 100, (CUT.format(7, 1, "age 1"), 1),
     ["decrement_multiplier=2.0", "aggravated_risk=100.0", NOTE(7, 1, "age 1")]),
]
# fmt: on


@pytest.mark.parametrize(("q", "mods", "rates", "cut", "descriptors"), ABOVE_ONE)
def test_rates_above_one_are_capped_between_keys_cut_at_the_end(tables, q, mods, rates, cut, descriptors):
    write(tables, "HIGH", q, kind="life")
    write(tables, "FLAT", [0.1] * 8)
    t = LifeTable("HIGH", "m")
    mods = {k: ExitTable(v, "m") if k == TC else v for k, v in mods.items()}
    with warns(cut[0]) if cut else nullcontext() as record:  # other warnings are errors
        t.modify_qx(mods)
    expected = final(rates(q))
    if cut:
        assert len(record) == 1
        expected = expected[: cut[1] + 1]
    np.testing.assert_array_equal(t._decrement, expected)
    assert (t.modifications_applied, t.w) == (descriptors, expected.size - 1)


# -- truncation at certainty ---------------------------------------------------------------------

# fmt: off
TRUNCATIONS = [  # q, w, age_offset -> kept length, detail
    ([0.1, 0.2, 1.0], 2, 0, 3, None),                          # certain only at the end
    ([0.1, 1.0, 0.0, 1.0 - 1e-13, 5e-13], 4, 0, 5, None),      # followed only by zeros and ones
    ([0.1, 1.5, 0.3, 1.0], 3, 0, 2, "3->1 at age 1"),
    ([0.1, 1.0 - 5e-13, 0.3, 1.0], 3, 0, 2, "3->1 at age 1"),  # within the tolerance of 1
    ([0.1, 1.0 - 1e-11, 0.3, 1.0], 3, 0, 4, None),             # beyond it
    ([0.1, 1.0, 0.3, 1.0], 9, 4, 2, "9->1 at index 1 (calendar age 5 after age_shift=4)"),
    ([0.1, 1.0, 0.3, 1.0], 1, 0, 4, None),                     # the cut would not lower w
]
# fmt: on


@pytest.mark.parametrize(("q", "w", "offset", "kept", "detail"), TRUNCATIONS)
def test_truncation_at_certainty(q, w, offset, kept, detail):
    out, new_w, old, text = dm._truncate_decrement_at_certainty(q, w, age_offset=offset)
    np.testing.assert_array_equal(out, np.minimum(q, 1.0)[:kept])
    assert (new_w, old, text) == ((w, None, None) if detail is None else (kept - 1, w, detail))


def test_a_truncated_table_answers_every_function(tables):
    write(tables, "CUT", STEEP, kind="life")
    t = LifeTable("CUT", "m")
    before = state(t)
    with pytest.raises(UserWarning):  # a warning made an error stops the call before anything is written
        t.modify_qx({MU: 4.0})
    assert state(t) == before
    with warns(CUT.format(7, 2, "age 2")) as record:
        t.modify_qx({MU: 4.0})
    assert record[0].filename == __file__  # the warning points at the caller's line
    kept = np.array([0.4, 0.8, 1.0])
    np.testing.assert_array_equal(t._decrement, kept)
    assert (t.w, t.modifications_applied) == (2, [f"{MU}=4.0", NOTE(7, 2, "age 2")])
    lx = RADIX * np.cumprod(np.r_[1.0, 1 - kept[:-1]])
    np.testing.assert_allclose(t.lx([0, 1, 2, 2.5, 3, 7]), [*lx, 0, 0, 0], rtol=1e-12)
    np.testing.assert_allclose(t.qx([0, 1, 2, 5]), [0.4, 0.8, 1.0, 1.0])
    assert t.qx(1.5) == 1.0 and t.tqx(0, 3) == 1.0
    np.testing.assert_allclose(t.tpx([0, 1], [1, 2]), [[0.6, 0.12], [0.2, 0.0]], atol=1e-12)
    assert "Note: modify truncated omega at certainty (7->2 at age 2)" in t.summary()


# -- table combination ---------------------------------------------------------------------------


def udd2(a, b):
    return a * (1 - b / 2) + b * (1 - a / 2)


def udd3(a, b, c):
    return sum(x * (1 - y / 2 - z / 2 + y * z / 3) for x, y, z in ((a, b, c), (b, a, c), (c, a, b)))


COMBINATIONS = [
    (["exit"], None, lambda h, o: 1 - (1 - h) * (1 - o[0])),
    (["exit", "disability"], "independent", lambda h, o: 1 - (1 - h) * (1 - o[0]) * (1 - o[1])),
    (["exit"], "udd", lambda h, o: udd2(h, o[0])),
    (["disability", "exit"], "udd", lambda h, o: udd3(h, *o)),
]


@pytest.mark.parametrize("shift", [0, 3])
@pytest.mark.parametrize(("others", "mode", "reference"), COMBINATIONS)
def test_combination_matches_numpy(kinds, others, mode, reference, shift):
    t, tabs = make("life"), [make(k) for k in others]
    t.modify_qx({AS: shift, TC: tabs if len(tabs) > 1 else tabs[0]} | ({} if mode is None else {CM: mode}))
    rates = [kinds[k][shift:] for k in others]  # aligned by calendar age
    np.testing.assert_array_equal(t._decrement, final(reference(kinds["life"][shift:], rates)))
    names = ", ".join(type(o).__name__ for o in tabs)
    modes = [] if mode is None else [f"combination_mode={mode}"]
    assert t.modifications_applied == [f"age_shift={shift}", f"table_combination=({names})", *modes]
    assert all(
        not o.modified and o._decrement.tolist() == kinds[k].tolist()
        for o, k in zip(tabs, others, strict=True)
    )


def test_combination_helpers_match_numpy():
    rng = np.random.default_rng(7)
    h, a, b = rng.uniform(0, 1, 9), rng.uniform(0, 1, 6), rng.uniform(0, 1, 12)
    for offset in (0, 2, 7):
        al, bl = (np.r_[v, np.zeros(20)][offset : offset + 9] for v in (a, b))  # 0 beyond the end
        np.testing.assert_array_equal(dm._align_other_by_calendar_age(a, 9, offset), al)
        np.testing.assert_array_equal(dm._combine_decrements_udd2(h, a, offset), udd2(h, al))
        np.testing.assert_array_equal(dm._combine_decrements_udd3(h, a, b, offset), udd3(h, al, bl))
        # both modes give the same total; they differ only in how it is split by cause
        independent = dm._combine_decrements_independent(h, [a, b], offset)
        np.testing.assert_allclose(independent, udd3(h, al, bl), rtol=1e-14)
    # Too few causes; too many is refused through modify_qx in test_combination_refusals.
    with exactly("combination_mode='udd' is limited to 2 or 3 causes (host plus 1 or 2 other tables); "
                 "got 1 causes with 0 other table(s)."):  # fmt: skip
        dm._combine_decrements_udd(h, [])
    assert dm._raise_table_combination_rate_out_of_range([0.1, 1.0 + 1e-13, -1e-13], "host") is None
    with exactly("table_combination: host decrement rate outside [0, 1] at index 2 (age 2) (q=1)."):
        dm._raise_table_combination_rate_out_of_range([0.1, 0.2, 1.0 + 1e-11], "host")


@pytest.mark.parametrize(("host", "other"), [(h, o) for h in KINDS for o in KINDS])
def test_combination_validity_matrix(kinds, host, other):
    allowed = {"life": {"exit", "disability"}, "disability": {"exit"}, "exit": {"exit"}}
    t = make(host)
    if other in allowed[host]:
        t.modify_qx({TC: make(other)})
        assert t.modifications_applied == [f"table_combination=({KINDS[other][0].__name__})"]
    else:
        with exactly(f"Cannot combine '{host}' with '{other}'"):
            t.modify_qx({TC: make(other)})


def test_combination_refusals(kinds, tables):
    t, e, e2, shifted, cut = make("life"), make("exit"), ExitTable("EXIT2", "m"), make("exit"), make("exit")
    shifted.modify_qx({AS: 1})
    with pytest.warns(UserWarning):
        cut.modify_qx({MU: np.r_[1.0, 1e3, np.ones(6)]})
    t.modify_qx({AR: 2.0})  # copies below are of the modified table
    refusals = [
        (t, "table_combination: cannot combine a table with itself."),
        ([e, e2, e], "table_combination: duplicate table instance in the others list."),
        ([e, e.copy()], "table_combination: duplicate table instance in the others list."),
        ([e, 3], "table_combination: expected DecrementTable, got int"),
        ((), "table_combination: sequence must not be empty"),
        ({"e": e}, "table_combination must be a DecrementTable, list, or tuple; got dict"),
        (make("exit", "f"), "Cannot combine tables with different sexes: self.sex=m, other.sex=f"),
        ([make("disability"), e, e2], "combination_mode='udd' is limited to 2 or 3 causes (host plus 1 or 2 "
         "other tables); got 4 causes with 3 other table(s)."),
        (shifted, "table_combination: ExitTable was shortened by a prior age_shift modification. Apply "
         "age_shift on the table you are modifying (e.g. LifeTable.modify_qx), not on the other table. To "
         "align by calendar age, use {'age_shift': n, 'table_combination': other} on the table you are "
         "modifying."),
        (cut, "table_combination: ExitTable decrement array length (2) does not match its base length (8). "
         "Truncated or corrupt tables cannot be combined."),
    ]  # fmt: skip
    before = state(t)
    for value, message in refusals:
        with exactly(message):
            t.modify_qx({TC: value, CM: "udd"})
    assert state(t) == before
    write(tables, "LATE", [0.0, 0.0, 0.1, 0.2, 1.0], start_age=2)
    late = ExitTable("LATE", "m")
    late._decrement[0] = 0.01
    below = "positive decrement below start_age={}{}. Cannot align by age index."
    with exactly("table_combination: ExitTable has " + below.format(2, "")):
        make("life").modify_qx({TC: late})
    write(tables, "LATEL", [0.0, 0.0, 0.0, 0.1, 0.2, 1.0], kind="life", start_age=3)
    host = LifeTable("LATEL", "m")
    host._decrement_base[1] = 0.01
    for shift, where in [(0, "age 1"), (1, "index 0 (calendar age 1 after age_shift=1)")]:
        with exactly("table_combination: host has " + below.format(3, f" at {where}")):
            host.modify_qx({AS: shift, TC: e})
    corrupt = make("life")
    corrupt._decrement_base[3] = -0.5  # rates above 1 are certain deaths; below 0 nothing makes sense
    with exactly("table_combination: host decrement rate outside [0, 1] at index 3 (age 3) (q=-0.5)."):
        corrupt.modify_qx({TC: e})


TWICE = "table_combination: the ExitTable combined is a copy of the table being modified; the same decrement "
TWICE += "counts twice."


def test_a_copy_of_the_host_is_merged_with_a_warning(kinds):
    t = make("exit")
    t.modify_qx({AR: 2.0})  # the copy carries the modified rates
    copied = t.copy()
    q = copied._decrement.copy()
    with warns(TWICE):
        t.modify_qx({TC: [copied]})
    np.testing.assert_array_equal(t._decrement, final(1 - (1 - kinds["exit"]) * (1 - q)))
    assert t.modifications_applied == ["table_combination=(ExitTable)"]
    with (
        warns(TWICE),
        exactly("table_combination: duplicate table instance in the others list."),
    ):
        t.modify_qx({TC: [copied, copied.copy()]})


def test_a_shorter_other_table_adds_nothing_beyond_its_end_and_certainty_cuts(kinds, tables):
    write(tables, "SHORT", [0.1] * 5)
    t = make("life")
    t.modify_qx({AS: 2, TC: ExitTable("SHORT", "m")})
    other = np.r_[[0.1] * 3, [0] * 3]  # aligned: ages 2..4, then nothing
    np.testing.assert_array_equal(t._decrement, final(1 - (1 - kinds["life"][2:]) * (1 - other)))
    write(tables, "CLOSED", [0.1, 0.1, 1.0, 0.1, 0.1])  # everyone leaves at age 2: the host ends there
    where = "index 1 (calendar age 2 after age_shift=1)"
    with warns(COMBINED_CUT.format(6, 1, where)):
        t.modify_qx({AS: 1, TC: [ExitTable("CLOSED", "m")]})
    cut = f"omega_truncated_by_combination: 6->1 at {where}"
    assert t.w == 1 and t.modifications_applied == ["age_shift=1", "table_combination=(ExitTable)", cut]


def test_generational_and_select_keys_must_agree(tables):
    flat = [0.0] * 8  # no improvement: only the keys matter here
    for name, kind, year in [("GEN", "life", 2000), ("GEX", "exit", 2005)]:
        cols = {f"{KINDS[kind][1]}_{s}": np.r_[[0.05] * 7, 1.0] for s in "mf"} | {"mi_m": flat, "mi_f": flat}
        gen = {"formula_type": "exponential", "base_year": year}
        tables.write(name, {"table_type": kind, "sexes": ["m", "f"], "generational": gen}, cols)
    tables.select()
    select = {"table_type": "exit", "sexes": ["m"], "select": {"period": 2, "start_duration": 1}}
    tables.write("SEX", select, {f"ox_m_{s}": [0.05] * 8 for s in ("s1", "s2", "ult")})
    host = LifeTable("GEN", "m", cohort=1970)
    with exactly("Cannot combine tables with different cohorts: self.cohort=1970, other.cohort=1980"):
        host.modify_qx({TC: ExitTable("GEX", "m", cohort=1980)})
    years = "(host=2000, other=2005). Each table applies its own cohort projection before the merge."
    with warns("table_combination: combining generational tables with different base_year " + years):
        host.modify_qx({TC: ExitTable("GEX", "m", cohort=1970)})
    pending = "table_combination: ExitTable has no decrement rates yet (its metadata is pending). "
    with (
        pytest.warns(UserWarning, match=re.escape(years)),
        exactly(pending + "Complete it with configure() before combining."),
    ):
        host.modify_qx({TC: ExitTable("GEX", "m", pending=True)})
    host = LifeTable("SEL", "m", duration=1)
    with exactly("Cannot combine tables with different durations: self.duration=1, other.duration=2"):
        host.modify_qx({TC: ExitTable("SEX", "m", duration=2)})
    host.modify_qx({TC: ExitTable("SEX", "m", duration="ult")})
    assert host.modified


def test_no_references_leak(kinds):
    t, e, d = make("life"), make("exit"), make("disability")
    mods = {MU: np.full(8, 0.9), TC: [e, d], CM: "udd"}
    watched = (e, d, mods, mods[MU], mods[TC])
    t.modify_qx(mods)
    gc.collect()
    before = [sys.getrefcount(o) for o in watched]
    for _ in range(100):
        t.modify_qx(mods)
        with pytest.raises(ValueError):
            t.modify_qx({**mods, AR: -1})
    gc.collect()
    assert [sys.getrefcount(o) for o in watched] == before
