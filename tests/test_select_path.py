"""Select paths: a life selected at age x follows the select diagonal, then the ultimate column."""

from __future__ import annotations

import copy
import math
import pickle

import numpy as np
import pytest

from veltrane import LifeTable, cli
from veltrane.config import Config
from veltrane.contingencies import annuity, insurance, net_premium, pure_endowment

AGES = np.arange(121.0)


def diagonal(table_of, x: int, start: int, period: int, w: int) -> np.ndarray:
    """The path built by hand, rate by rate, from tables keyed on each duration."""
    out = np.zeros(w + 1)
    for age in range(x, w + 1):
        duration = start + age - x
        out[age] = table_of(duration if duration < start + period else "ult").qx(age)
    return out


@pytest.mark.parametrize("duration", [1, 2, "ult"])
def test_bundled_select_model_by_hand(duration):
    # q[x] = 0.81 q(x) and q[x]+1 = 0.9 q(x+1) on the ultimate table, then q(x) itself.
    path = LifeTable("SSSM", "u", duration=duration, interest_rate=0.05).select_path(60)
    q = LifeTable("SULT", "u").qx(AGES)
    hand = np.concatenate([np.zeros(60), [0.81 * q[60], 0.9 * q[61]], q[62:]])
    np.testing.assert_allclose(path.qx(AGES), hand, rtol=1e-10, atol=0)
    # Survival and annuities follow the diagonal, not the table's one column.
    assert path.tpx(60, 3) == pytest.approx(np.prod(1 - hand[60:63]), rel=1e-12)
    survival = np.concatenate([[1.0], np.cumprod(1 - hand[60:])])[:61]
    assert annuity(path, 60) == pytest.approx(float(1.05 ** -np.arange(61) @ survival), rel=1e-10)
    assert path.interest_rate == 0.05 and path.start_age == 60 and path.table_name == "SSSM[60]"


@pytest.mark.parametrize(("period", "start"), [(2, 1), (3, 0), (1, 1)])
@pytest.mark.parametrize("generational", [None, "exponential"])
@pytest.mark.parametrize("x", [0, 3, 7])
def test_path_reads_each_duration_on_its_diagonal(tables, period, start, generational, x):
    tables.select("SEL", period=period, start=start, generational=generational)

    def table_of(duration):
        return LifeTable("SEL", "f", cohort=1970 if generational else None, duration=duration)

    w = table_of("ult").w
    path = table_of(start).select_path(x)
    np.testing.assert_array_equal(path.qx(np.arange(w + 1.0)), diagonal(table_of, x, start, period, w))
    assert path.cohort is None and path.duration is None and not path._table.select


def test_years_ends_the_path_and_the_original_is_untouched():
    table = LifeTable("SSSM", "u", duration=2)
    before = table.qx(AGES)
    short = table.select_path(70, years=5)
    assert short.w == 75 and short.qx(75) == 1.0 and table.select_path(118, years=10).w == 120
    np.testing.assert_array_equal(short.qx(AGES[:75]), table.select_path(70).qx(AGES[:75]))
    # The path is a table of its own: modifying it leaves the select table as it was.
    short.modify_qx({"decrement_multiplier": 2.0})
    np.testing.assert_array_equal(table.qx(AGES), before)
    assert table.duration == 2 and not table.modified
    table.modify_qx({"decrement_multiplier": 1.2})
    with pytest.raises(ValueError, match="before modifications"):
        table.select_path(60)


def test_keeps_the_class_and_the_unisex_blend(tables):
    tables.select("SEL", period=2, start=1)
    path = LifeTable("SEL", "u", duration=1, unisex_blend=0.3).select_path(4)
    assert path.sex == "u" and path.unisex_blend is None  # the diagonal: below, with the blended tables

    class Tagged(LifeTable):
        __slots__ = ("tag",)

    tagged = Tagged("SEL", "m", duration=1)
    tagged.tag = "block 7"
    tagged_path = tagged.select_path(2)
    assert type(tagged_path) is Tagged and tagged_path.tag == "block 7"


@pytest.mark.parametrize(
    ("name", "duration", "args", "error", "message"),
    [
        ("SULT", None, (60,), ValueError, "needs a select-and-ultimate table"),
        ("SSSM", 1, (121,), ValueError, "issue_age must be from 20 to 120"),
        ("SSSM", 1, (True,), TypeError, "issue_age must be an integer"),
        ("SSSM", 1, (60, -1), ValueError, "years must be >= 0"),
        ("SSSM", None, (60,), ValueError, "'duration'"),
    ],
)
def test_refusals(name, duration, args, error, message):
    with pytest.raises(error, match=message):
        LifeTable(name, "u", duration=duration).select_path(*args)


def test_paths_pickle_through_their_select_table():
    select = LifeTable("SSSM", "u", duration=2, interest_rate=0.04)
    path = select.select_path(60, years=30)
    path.modify_qx({"decrement_multiplier": 1.1})
    for sent in (path, copy.copy(path), select.select_path(25)):
        back = pickle.loads(pickle.dumps(sent))
        assert back.table_name == sent.table_name and back.w == sent.w and back.interest_rate == 0.04
        assert back._decrement.tobytes() == sent._decrement.tobytes()
        assert back._decrement_base.tobytes() == sent._decrement_base.tobytes()
    # The select table may change afterwards: the path keeps what it was followed from.
    select.duration = 1
    assert pickle.loads(pickle.dumps(path))._decrement.tobytes() == path._decrement.tobytes()


def test_command_line_follows_the_path(capsys):
    path = LifeTable("SSSM", "u", duration=1, interest_rate=0.05).select_path(65)
    for command, value in [
        ("annuity SSSM --selected-at 65 --age 65 --rate 0.05", annuity(path, 65)),
        ("eval SSSM --selected-at 65 tpx 65 3", path.tpx(65, 3)),
        ("annuity SSSM --duration 1 --age 65 --rate 0.05", annuity(path, 65)),  # the life selected at 65
        ("eval SSSM --duration 1 ex 65.5", path.ex(65.5)),
    ]:
        assert cli.main(command.split()) == 0 and float(capsys.readouterr().out) == value
    assert cli.main(["eval", "SULT", "--selected-at", "65", "ex", "65"]) == 2  # the path's own refusal
    err = capsys.readouterr().err
    assert err.count("\n") == 1 and "needs a select-and-ultimate table" in err


# -- a select table at a duration: the contingency functions follow the diagonal ---------------


def contingency_values(table, x: float) -> list[float]:
    """Every kind of contingency value of a life aged x (i = 3 %)."""
    return [
        table.ex(x),
        table.ex(x, complete=True),
        annuity(table, x, i=0.03),
        annuity(table, x, 3, i=0.03, m=4, due=False),
        annuity(table, x, i=0.03, m=12, defer=1, method="udd"),
        annuity(table, x, i=0.03, m=12, method="woolhouse"),
        annuity(table, x, 2, i=0.03, m=2, method="woolhouse2"),
        insurance(table, x, i=0.03),
        insurance(table, x, 2, i=0.03, m=None, endowment=True),
        insurance(table, x, i=0.03, m=12, defer=1),
        pure_endowment(table, x, 2.5, i=0.03),
        net_premium(table, x, 3, i=0.03, m=12),
    ]


@pytest.mark.parametrize(("x", "duration"), [(45, 1), (60, 2), (60.25, 1), (61.75, 2), (118, 1), (120, 2)])
def test_a_life_at_a_duration_is_the_life_selected_that_many_years_before(x, duration):
    """Aged x at duration d: selected at x - (d - 1), so valued on that select path (a fractional
    age on the diagonal of the whole age below it)."""
    table = LifeTable("SSSM", "u", duration=duration)
    path = table.select_path(math.floor(x) - (duration - 1))
    np.testing.assert_allclose(contingency_values(table, x), contingency_values(path, x), rtol=1e-12)


def diagonal_curtate_ex(table_of, x: int, duration: int, first_ultimate: int) -> float:
    """The curtate expectation of life at age x and a duration, by products along the diagonal."""
    w = table_of("ult").w

    def rate(age: int, d: int) -> float:
        return table_of(d if d < first_ultimate else "ult")._decrement[age]  # unrounded

    return sum(math.prod(1 - rate(x + k, duration + k) for k in range(n)) for n in range(1, w + 1 - x))


@pytest.mark.parametrize(
    ("sex", "keys", "period", "start"),
    [("f", {"cohort": 1970}, 3, 0), ("m", {"cohort": 1985}, 2, 1), ("u", {"unisex_blend": 0.3}, 2, 1)],
)
def test_generational_and_blended_select_tables_follow_their_diagonal(tables, sex, keys, period, start):
    generational = "exponential" if "cohort" in keys else None
    tables.select("SEL", period=period, start=start, generational=generational)
    for duration in range(start, start + period + 1):
        table = LifeTable("SEL", sex, duration=duration, **keys)
        # Curtate expectations at every age against the products along each diagonal; a life
        # younger than its years since selection starts the diagonal at age 0.
        hand = [
            diagonal_curtate_ex(
                lambda d: LifeTable("SEL", sex, duration=d, **keys), x, duration, start + period
            )
            for x in range(8)
        ]
        np.testing.assert_allclose(table.ex(), hand, rtol=1e-13)
        for x in (3, 4.5, 7):
            issue = math.floor(x) - (duration - start)
            if issue >= 0 and duration < start + period:  # past the period: the ultimate column
                expected = contingency_values(table.select_path(issue), x)
                np.testing.assert_allclose(contingency_values(table, x), expected, rtol=1e-12)
        # Vectors of ages: each element as its own scalar call, bit for bit.
        ages = np.array([6, 0.5, 3, 3.25, 0, 6])
        np.testing.assert_array_equal(
            annuity(table, ages, i=0.03, m=4), [annuity(table, a, i=0.03, m=4) for a in ages]
        )
        np.testing.assert_array_equal(
            table.ex(ages, complete=True), [table.ex(a, complete=True) for a in ages]
        )


def test_the_table_is_left_as_it_was_and_counts_no_rebuilds():
    table = LifeTable("SSSM", "u", duration=1, interest_rate=0.05)
    table.lx()
    fields = ("_decrement_base", "_decrement", "_lx_raw", "_lx")
    held = [getattr(table, name) for name in fields]
    for _ in range(40):  # a chained-rebuild warning would be an error here
        annuity(table, [60, 61.5], m=12)
        table.ex(60)
    assert all(getattr(table, name) is value for name, value in zip(fields, held, strict=True))
    assert table.duration == 1 and not table.modified


def test_values_follow_every_change_of_the_table(tables):
    """The duration columns a table's calls reuse are never those of another state or copy."""
    tables.select("SEL", period=3, start=1, generational="exponential")
    base = {"cohort": 1960, "duration": 1, "unisex_blend": 0.5}

    def value(table):
        return [*annuity(table, [1, 2.5], i=0.05, m=12).tolist(), table.ex(1)]

    def fresh(**keys):
        return value(LifeTable("SEL", "u", **(base | keys)))

    table = LifeTable("SEL", "u", **base)
    assert value(table) == fresh()
    for key, new in [("duration", 2), ("cohort", 1970), ("unisex_blend", 0.2)]:
        setattr(table, key, new)
        base[key] = new
        assert value(table) == fresh()
    with Config().override(decimals={"qx": 3}):  # the blend rounds each sex to the rate decimals
        assert value(table) == fresh()
    # A time step moves the table along the diagonal and back; copies go their own ways.
    before = value(table)
    snapshot = table._advance_actuarial_state_for_ts(1)
    assert value(table) == fresh(duration=3, cohort=1971)
    table._restore_actuarial_state_from_ts_snapshot(snapshot)
    assert value(table) == before
    for twin in (copy.copy(table), copy.deepcopy(table)):
        twin.duration = 1
        assert value(twin) == fresh(duration=1) and value(table) == before


def test_modifications_of_a_select_column_are_refused_on_the_diagonal():
    table = LifeTable("SSSM", "u", duration=1, interest_rate=0.05)
    table.modify_qx({"decrement_multiplier": 1.1})
    for call in (lambda: annuity(table, 60), lambda: insurance(table, 60), lambda: table.ex(60)):
        with pytest.raises(ValueError, match=r"modif.*select_path\(x\)"):
            call()
    # On the ultimate column (or past the select period) there is no diagonal: the modified rates apply.
    for duration in ("ult", 3):
        past = LifeTable("SSSM", "u", duration=duration, interest_rate=0.05)
        past.modify_qx({"decrement_multiplier": 1.1})
        survival = np.concatenate([[1.0], np.cumprod(1 - past.qx(AGES[60:]))])[:61]
        assert annuity(past, 60) == pytest.approx(float(1.05 ** -np.arange(61) @ survival), rel=1e-10)


def test_published_select_table_at_duration_one():
    male = LifeTable("CSO2017", "m", duration=1, interest_rate=0.04)
    assert insurance(male, 45) == pytest.approx(0.2500, abs=5e-5)
    assert insurance(male, 45) == insurance(male.select_path(45), 45)
