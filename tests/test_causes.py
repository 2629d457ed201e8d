"""The rates of each cause of a table that merges competing decrements."""

from __future__ import annotations

import copy
import math

import numpy as np
import pytest

from conftest import exactly
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

NONE_IN_FORCE = (
    "Table 'PER' has no competing decrements in force: cause_rates() reads the causes merged by the last "
    "modify_qx({'table_combination': ...}) call, when no later step of that call changed the total."
)
MALFORMED = "Table 'PER': _cause_split is malformed"


@pytest.fixture
def causes(tables, standard):
    """Host death rates and the other tables' rates, kept below certainty so nothing is cut."""
    return {
        "PER": standard["PER"]["qx_m"][:-1],
        "EX": tables.period("EX", table_type="exit", prefix="ox")["ox_m"][:-1],
        "DI": tables.period("DI", table_type="disability", prefix="ix")["ix_m"][:-1],
    }


def constant_force(*q):
    total = 1 - np.prod([1 - r for r in q], axis=0)
    # The C library's log1p element by element: NumPy's own differs in the last bit on some CPUs.
    logs = [np.array([math.log1p(-v) for v in r]) for r in q]
    return [total * lg / np.sum(logs, axis=0) for lg in logs]


def udd(*q):
    """Each cause over a year in which every cause is spread uniformly (two or three causes)."""
    out = []
    for r in q:
        o = [s for s in q if s is not r]
        out.append(r * (1 - sum(o) / 2 + (o[0] * o[1] / 3 if len(o) == 2 else 0)))
    return out


@pytest.mark.parametrize(("mode", "split"), [("independent", constant_force), ("udd", udd)])
@pytest.mark.parametrize("others", [["EX"], ["EX", "DI"]])
def test_dependent_rates_split_the_total(causes, mode, others, split):
    t = LifeTable("PER", "m")
    tables = [ExitTable("EX", "m") if n == "EX" else DisabilityTable("DI", "m") for n in others]
    t.modify_qx({"table_combination": tables, "combination_mode": mode})
    frame = t.cause_rates()
    assert frame.columns == ["age", "total", "PER", *others]
    want = split(*(causes[n] for n in ["PER", *others]))
    for name, w in zip(["PER", *others], want, strict=True):
        np.testing.assert_allclose(frame[name].to_numpy()[:-1], w, rtol=0, atol=1e-12)
    np.testing.assert_array_equal(frame["total"].to_numpy(), t.qx())
    parts = frame.select(["PER", *others]).to_numpy().sum(axis=1)
    np.testing.assert_allclose(parts, frame["total"].to_numpy(), rtol=0, atol=5e-12)


def test_the_service_table(causes):
    t = LifeTable("PER", "m")
    t.modify_qx({"table_combination": ExitTable("EX", "m")})
    frame = t.cause_rates(service_table=True)
    assert frame.columns == ["age", "total", "PER", "EX", "lx", "d_PER", "d_EX"]
    np.testing.assert_array_equal(frame["lx"].to_numpy(), t.lx(np.arange(8)))
    dx = frame["d_PER"].to_numpy() + frame["d_EX"].to_numpy()
    # dx comes from the total rounded to 12 decimals: within half a unit of it times the radix.
    np.testing.assert_allclose(dx, t.dx(np.arange(8)), rtol=0, atol=5e-7)
    assert t.cause_rates(service_table=False).equals(t.cause_rates())
    with exactly(TypeError, "cause_rates(): service_table must be bool, got int"):
        t.cause_rates(1)
    with exactly(TypeError, "cause_rates() got an unexpected keyword argument 'x'"):
        t.cause_rates(x=True)


def test_an_age_shift_aligns_causes_by_calendar_age(causes):
    t = LifeTable("PER", "m")
    t.modify_qx({"age_shift": 2, "table_combination": ExitTable("EX", "m")})
    want = constant_force(causes["PER"][2:], causes["EX"][2:7])
    np.testing.assert_allclose(t.cause_rates()["EX"].to_numpy()[:5], want[1], rtol=0, atol=1e-12)


def test_repeated_names_are_numbered(causes):
    t = ExitTable("EX", "m")
    t.modify_qx({"table_combination": ExitTable("EX", "m")})
    assert t.cause_rates().columns == ["age", "total", "EX", "EX (2)"]


def test_the_split_follows_the_rates_it_belongs_to(causes):
    t = LifeTable("PER", "m")
    other = ExitTable("EX", "m")
    t.modify_qx({"table_combination": other})
    before = t.cause_rates()
    # Copies carry it; a batch rolled back brings it back.
    assert copy.deepcopy(t).cause_rates().equals(before)
    with pytest.raises(KeyError), t.batch_update():
        t.sex = "f"
        raise KeyError("abandon")
    assert t.cause_rates().equals(before)
    # A later step of the same call, a reset or a rebuild changes the total: no split then.
    for change in (
        lambda: t.modify_qx({"table_combination": other, "decrement_multiplier": 0.5}),
        t.reset_modifications,
        lambda: setattr(t, "sex", "f"),
    ):
        t.modify_qx({"table_combination": other})
        change()
        with exactly(ValueError, NONE_IN_FORCE):
            t.cause_rates()


def test_time_steps_keep_the_split_of_the_vector_they_restore(causes):
    g = LifeTable("GEN", "m", cohort=1960)
    with pytest.warns(UserWarning, match="table_combination reduced omega"):
        g.modify_qx({"table_combination": ExitTable("EX", "m")})
    before = g.cause_rates()
    snap = g._advance_actuarial_state_for_ts(1)
    with exactly(ValueError, NONE_IN_FORCE.replace("'PER'", "'GEN'")):
        g.cause_rates()
    g._restore_actuarial_state_from_ts_snapshot(snap)
    assert g.cause_rates().equals(before)


SPLITS = [  # written by hand: (the total it splits, cause names, udd mode, rates by cause and age)
    (lambda q: (q, ("PER",), False, np.zeros((1, 8))), MALFORMED),
    (lambda q: (q, ("PER", 3), False, np.zeros((2, 8))), MALFORMED),
    (lambda q: (q, ("PER", "EX"), False, np.zeros((2, 3))), MALFORMED),
    (lambda q: (q, ("PER", "EX"), False, [[0.0] * 8] * 2), MALFORMED),
    (lambda q: (np.zeros(8), ("PER", "EX"), False, np.zeros((2, 8))), NONE_IN_FORCE),
    (lambda q: "nonsense", NONE_IN_FORCE),
]  # fmt: skip


@pytest.mark.parametrize(("split", "message"), SPLITS)
def test_hand_written_splits_are_checked(causes, split, message):
    t = LifeTable("PER", "m")
    t._cause_split = split(t._decrement)
    with exactly(ValueError, message):
        t.cause_rates()
