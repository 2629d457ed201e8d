"""The active–disabled–dead model: the C++ chain against a plain NumPy chain, its conventions, refusals."""

from __future__ import annotations

import functools
import gc
import sys

import numpy as np
import pytest

from veltrane import DisabilityTable, ExitTable, LifeTable
from veltrane.multistate import DisabilityModel
from veltrane.tables import decrement

RATE = 0.04


def shown(table) -> np.ndarray:
    """The rates at ages 0..w as the table's data view shows them."""
    return table.view_data(include_age=False, show_normalized=True).to_series(0).to_numpy()


def reference_rates(table, mortality: bool):
    """rate(age, k): the table's rate in the k-th year of a life, along the select diagonal."""
    if table is None:
        return lambda age, k: 0.0
    if table.is_select:
        durations = [*range(table.start_duration, table.start_duration + table.select_period), "ult"]
        rows = [shown(type(table)(table.table_name, table.sex, duration=d)) for d in durations]
        first = durations.index(table.duration)
    else:
        rows, first = [shown(table)], 0
    w = rows[0].size - 1

    def rate(age: int, k: int) -> float:
        if age >= w if mortality else age > w:
            return 1.0 if mortality else 0.0
        return rows[min(first + k, len(rows) - 1)][age]

    return rate


def reference_paths(model, x: int, years: int, start: str) -> np.ndarray:
    qa, ia = reference_rates(model.active_mortality, True), reference_rates(model.incidence, False)
    qi, r = reference_rates(model.disabled_mortality, True), reference_rates(model.recovery, False)
    p = np.array([1.0, 0.0, 0.0] if start == "active" else [0.0, 1.0, 0.0])
    out = [p]
    for k in range(years):
        age = x + k
        # Mid-year moves: the movers face half a year of the new state's mortality.
        half = 0.5 if model.convention == "mid_year" else 0.0
        a, i, q, back = qa(age, k), ia(age, k), qi(age, k), r(age, k)
        moves = np.array(
            [
                [max(1.0 - a - i, 0.0), i * (1 - half * q), a + i * half * q],
                [back * (1 - half * a), max(1.0 - q - back, 0.0), q + back * half * a],
                [0.0, 0.0, 1.0],
            ]
        )
        p = p @ moves
        out.append(p)
    return np.array(out)


def last_age(model) -> int:
    return max(model.active_mortality.w, model.disabled_mortality.w)


def reference_annuity(paths: np.ndarray, n: int, payable: str, m: int, due: bool) -> float:
    """Every payment of 1/m at time t, made in the state of the last whole year floor(t)."""
    share = {"active": paths[:, 0], "disabled": paths[:, 1], "alive": paths[:, 0] + paths[:, 1]}[payable]
    j = np.arange(n * m) + (0 if due else 1)
    t = j / m
    return float(np.sum((1.0 + RATE) ** -t * share[np.floor(t).astype(int)]) / m)


def reference_insurance(paths: np.ndarray, n: int) -> float:
    k = np.arange(n)
    return float(np.sum((1.0 + RATE) ** -(k + 1.0) * (paths[k + 1, 2] - paths[k, 2])))


#: The models tested: without recovery, with it, and with it and mid-year moves.
KINDS = ("plain", "recovery", "mid-year")


@functools.cache
def model(kind: str, active: tuple = ("SULT", "u", None)) -> DisabilityModel:
    name, sex, duration = active
    return DisabilityModel(
        LifeTable(name, sex, duration=duration),
        DisabilityTable("CIDA1985_90", "m"),
        LifeTable("PBGC_DISABLED", "m"),
        recovery=ExitTable("KRIEGER_RECOVERY", "u") if kind != "plain" else None,
        convention="mid_year" if kind == "mid-year" else "end_of_year",
    )


@functools.cache
def paths(kind: str, start: str, active: tuple = ("SULT", "u", None)) -> dict[int, np.ndarray]:
    """Reference paths from every age to the end of the model."""
    chosen = model(kind, active)
    end = last_age(chosen) + 1
    return {x: reference_paths(chosen, x, end - x, start) for x in range(end)}


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("start", ["active", "disabled"])
def test_states_and_insurances_are_the_numpy_chain(kind, start):
    chosen, expected = model(kind), paths(kind, start)
    ages = np.arange(last_age(chosen) + 1)
    years = 60
    ours = chosen.state_probabilities(ages, years, start=start)
    assert ours.shape == (ages.size, years + 1, 3)
    for x in ages:
        want = expected[x][: years + 1]
        np.testing.assert_allclose(ours[x, : want.shape[0]], want, rtol=0, atol=1e-12)
        rest = ours[x, want.shape[0] :]  # after the end of the model: everyone dead
        assert np.all(rest[:, :2] == 0.0) and np.allclose(rest[:, 2], 1.0, rtol=0, atol=1e-14)
    np.testing.assert_array_equal(chosen.state_probabilities(45, 10, start=start), ours[45, :11])
    frame = chosen.state_frame(60, 5, start=start)
    assert frame["age"].to_list() == list(range(60, 66))
    np.testing.assert_array_equal(frame.select("active", "disabled", "dead").to_numpy(), ours[60, :6])
    end = last_age(chosen) + 1
    for n in (None, 20):
        want = [reference_insurance(expected[x], end - x if n is None else min(n, end - x)) for x in ages]
        np.testing.assert_allclose(
            chosen.insurance(ages, n, i=RATE, start=start), want, rtol=1e-12, atol=1e-15
        )
    # Whole life: 1 - d times the annuity-due while alive.
    alive = chosen.annuity(ages, i=RATE, start=start, payable="alive")
    d = RATE / (1 + RATE)
    np.testing.assert_allclose(chosen.insurance(ages, i=RATE, start=start), 1 - d * alive, rtol=0, atol=1e-12)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("start", ["active", "disabled"])
@pytest.mark.parametrize("payable", ["disabled", "active", "alive"])
@pytest.mark.parametrize(("m", "due"), [(1, True), (1, False), (12, True), (4, False)])
@pytest.mark.parametrize("n", [None, 15])
def test_annuities_are_the_numpy_chain(kind, start, payable, m, due, n):
    chosen, expected = model(kind), paths(kind, start)
    ages = np.arange(last_age(chosen) + 1)
    ours = chosen.annuity(ages, n, i=RATE, start=start, payable=payable, m=m, due=due)
    end = last_age(chosen) + 1
    want = [
        reference_annuity(expected[x], end - x if n is None else min(n, end - x), payable, m, due)
        for x in ages
    ]
    np.testing.assert_allclose(ours, want, rtol=1e-12, atol=1e-15)
    assert chosen.annuity(40, n, i=RATE, start=start, payable=payable, m=m, due=due) == ours[40]


@pytest.mark.parametrize(
    "active",
    [("SSSM", "u", 1), ("SSSM", "u", 2), ("SSSM", "u", "ult"), ("CSO2001", "f", 3)],
    ids=["select-d1", "select-d2", "select-ult", "cso-d3"],
)
def test_a_select_table_follows_its_diagonal(active):
    chosen, expected = model("recovery", active), paths("recovery", "active", active)
    ages = np.arange(20, 90)
    ours = chosen.annuity(ages, i=RATE, payable="alive")
    end = last_age(chosen) + 1
    want = [reference_annuity(expected[x], end - x, "alive", 1, True) for x in ages]
    np.testing.assert_allclose(ours, want, rtol=1e-12)
    # The life selected at 50 is the select path of that age, a period table.
    if active[2] == 1:
        along = DisabilityModel(
            LifeTable(active[0], active[1], duration=1).select_path(50),
            chosen.incidence,
            chosen.disabled_mortality,
            recovery=chosen.recovery,
        )
        assert along.annuity(50, i=RATE, payable="alive") == pytest.approx(ours[30], rel=1e-14)


def test_a_generational_active_table_gives_its_cohort_rates():
    cohort = LifeTable("IAM2012", "f", cohort=1960)
    chosen = DisabilityModel(cohort, DisabilityTable("CIDA1985_30", "f"), LifeTable("RP2014DR", "f"))
    ages = np.arange(20, 66)
    want = [
        reference_annuity(reference_paths(chosen, x, 121 - x, "active"), 121 - x, "active", 1, True)
        for x in ages
    ]
    np.testing.assert_allclose(chosen.annuity(ages, i=RATE, payable="active"), want, rtol=1e-12)
    assert chosen.annuity(40, i=RATE, payable="active") != DisabilityModel(
        LifeTable("IAM2012", "f", cohort=1990), chosen.incidence, chosen.disabled_mortality
    ).annuity(40, i=RATE, payable="active")


def test_incidence_ends_after_its_last_age_and_mortality_at_each_life_its_own():
    chosen = model("plain")
    p = chosen.state_probabilities(65, 2)
    published = shown(chosen.incidence)[65]
    assert published < 0.1  # the table's own functions would make it a certainty at w = 65
    assert p[1, 1] == pytest.approx(published, abs=1e-15)
    assert chosen.annuity(66, i=RATE) == 0.0  # nobody becomes disabled after 65
    assert chosen.disabled_mortality.w == 110 < chosen.active_mortality.w == 120
    assert chosen.annuity(110, i=RATE, start="disabled") == 1.0  # paid at 110, dead by 111
    assert chosen.annuity(120, i=RATE, start="active", payable="active") == 1.0
    p = chosen.state_probabilities(100, 25, start="disabled")
    assert np.all(p[11:, :2] == 0.0) and np.allclose(p[11:, 2], 1.0, rtol=0, atol=1e-15)


def test_tables_are_read_at_the_call_and_interest_else_from_the_active_table():
    incidence, disabled = DisabilityTable("CIDA1985_90", "m"), LifeTable("PBGC_DISABLED", "m")
    chosen = DisabilityModel(LifeTable("SULT", "u", interest_rate=RATE), incidence, disabled)
    before = chosen.annuity(40, 25)
    assert before == model("plain").annuity(40, 25, i=RATE)
    assert chosen.annuity(40, i=0.0) == model("plain").annuity(40, i=0.0)
    incidence.modify_qx({"decrement_multiplier": 2.0})
    assert chosen.annuity(40, 25, i=RATE) > before
    incidence.reset_modifications()
    assert chosen.annuity(40, 25, i=RATE) == before


def test_rates_summing_above_one_are_refused_with_the_age(tables):
    tables.write("ACT", {"table_type": "life", "sexes": ["u"]}, {"qx_u": [0.1, 0.5, 0.7, 1.0]})
    tables.write("INC", {"table_type": "disability", "sexes": ["u"]}, {"ix_u": [0.2, 0.4, 0.4]})
    incidence = DisabilityTable("INC", "u")
    rates = incidence._decrement.copy()
    with pytest.raises(ValueError, match=r"active state at age 2 .*death 0\.7 \(ACT\) and incidence 0\.4"):
        DisabilityModel(LifeTable("ACT", "u"), incidence, LifeTable("ACT", "u"))
    assert not incidence.modified and np.array_equal(incidence._decrement, rates)  # nothing changed

    # A table modified after the model was made: the next call refuses.
    tables.write("INC2", {"table_type": "disability", "sexes": ["u"]}, {"ix_u": [0.2, 0.3, 0.2]})
    fine = DisabilityModel(LifeTable("ACT", "u"), DisabilityTable("INC2", "u"), LifeTable("ACT", "u"))
    fine.incidence.modify_qx({"decrement_multiplier": 2.0})
    with pytest.raises(ValueError, match="active state at age 1 "):
        fine.annuity(0, i=RATE)
    # Incidence ending at the actives' last age would disable lives that die with certainty there.
    tables.write("INC3", {"table_type": "disability", "sexes": ["u"]}, {"ix_u": [0.0, 0.0, 0.0, 0.1]})
    with pytest.raises(ValueError, match="active state at age 3 "):
        DisabilityModel(LifeTable("ACT", "u"), DisabilityTable("INC3", "u"), LifeTable("ACT", "u"))


@pytest.mark.parametrize(
    ("call", "error", "message"),
    [
        (lambda m: m.annuity(float("nan"), i=RATE), ValueError, "x must be finite"),
        (lambda m: m.annuity([40, np.nan], i=RATE), ValueError, r"x\[1\] must be finite"),
        (lambda m: m.annuity(40.5, i=RATE), ValueError, "x must be whole numbers"),
        (lambda m: m.annuity(121, i=RATE), ValueError, r"x must lie in 0\.\.120"),
        (lambda m: m.annuity(40, 2.5, i=RATE), ValueError, "n must be a whole number"),
        (lambda m: m.annuity([40, 50], [1, 2, 3], i=RATE), ValueError, "x and n must have the same length"),
        (lambda m: m.annuity(40, i=RATE, payable="dead"), ValueError, "payable must be"),
        (lambda m: m.annuity(40, i=RATE, start="dead"), ValueError, "start must be 'active' or 'disabled'"),
        (lambda m: m.annuity(40, i=RATE, m=5), ValueError, "m must be one of"),
        (lambda m: m.annuity(40, i=RATE, due=1), TypeError, "due must be True or False"),
        (lambda m: m.annuity(40), ValueError, "i is required"),
        (lambda m: m.annuity(40, i=-0.01), ValueError, "i must be a finite number >= 0"),
        (lambda m: m.annuity(40, i="4%"), TypeError, "i must be a number"),
        (lambda m: m.insurance("40", i=RATE), TypeError, "x must be a number or a sequence"),
        (lambda m: m.state_probabilities(40, 2.5), ValueError, "years must be a whole number"),
        (lambda m: m.state_probabilities(40, 10**9), ValueError, "years must be a whole number"),
        (lambda m: m.state_frame([40], 5), TypeError, "x must be a single number"),
    ],
)
def test_bad_arguments_are_refused(call, error, message):
    with pytest.raises(error, match=message):
        call(model("plain"))


def test_wrong_tables_and_conventions_are_refused():
    life, incidence = LifeTable("SULT", "u"), DisabilityTable("CIDA1985_90", "m")
    with pytest.raises(TypeError, match="incidence must be a DisabilityTable, got LifeTable"):
        DisabilityModel(life, life, life)
    with pytest.raises(TypeError, match="recovery must be a ExitTable, got DisabilityTable"):
        DisabilityModel(life, incidence, life, recovery=incidence)
    with pytest.raises(ValueError, match="convention must be one of end_of_year, mid_year, got 'midyear'"):
        DisabilityModel(life, incidence, life, convention="midyear")
    with pytest.raises(ValueError, match=r"not ready: assign 'cohort'.*DisabilityModel"):
        DisabilityModel(LifeTable("IAM2012", "m", pending=True), incidence, life)
    select = LifeTable("SSSM", "u", duration=1)
    select.modify_qx({"decrement_multiplier": 1.1})
    with pytest.raises(ValueError, match=r"modified select table.*select_path"):
        DisabilityModel(select, incidence, life)


@pytest.mark.parametrize(
    ("rates", "error"),
    [
        ((), TypeError),
        ((1, 2, 3, 4), TypeError),
        ((*((np.zeros((1, 3)), 0),) * 4,), TypeError),  # no convention
        ((*((np.zeros(3), 0),) * 4, False), ValueError),  # a vector where rows are needed
        ((*((np.zeros((1, 3)), 1),) * 4, False), ValueError),  # no such first row
        ((*((np.zeros((0, 3)), 0),) * 4, False), ValueError),
        ((*((np.zeros((1, 3)), "a"),) * 4, False), TypeError),
        ((*((np.zeros((1, 3)), 0),) * 4, 1), TypeError),  # the convention is a flag
    ],
)
def test_the_kernel_binding_refuses_malformed_rates(rates, error):
    with pytest.raises(error):
        decrement._disability_check(rates)


def test_long_vectors_run_without_the_interpreter_and_agree():
    chosen = model("recovery")
    ages = np.tile(np.arange(121.0), 50)  # long enough for the kernel to release the GIL
    ours = chosen.annuity(ages, np.full(ages.size, 10.0), i=RATE, payable="alive", m=12)
    np.testing.assert_array_equal(
        ours, np.tile(chosen.annuity(np.arange(121.0), 10, i=RATE, payable="alive", m=12), 50)
    )
    block = chosen.state_probabilities(ages[:600], 5)
    np.testing.assert_array_equal(block[121 + 40], chosen.state_probabilities(40, 5))


def test_no_reference_is_kept_or_lost():
    rates = model("recovery")._rates()
    ages, terms = np.arange(20.0, 60.0), np.full(40, 10.0)
    held = [rates[0][0], rates[1][0], ages, terms]
    before = [sys.getrefcount(obj) for obj in held]
    for _ in range(100):
        decrement._disability_annuity(rates, ages, terms, "active", "alive", 0.96, 12, True)
        decrement._disability_insurance(rates, ages, None, "disabled", 0.96)
        decrement._disability_states(rates, ages, 3, "active")
        decrement._disability_check(rates)
        with pytest.raises(ValueError):
            decrement._disability_annuity(rates, ages, terms, "active", "nobody", 0.96, 12, True)
    gc.collect()
    assert [sys.getrefcount(obj) for obj in held] == before
