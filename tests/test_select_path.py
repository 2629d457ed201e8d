"""Select paths: a life selected at age x follows the select diagonal, then the ultimate column."""

from __future__ import annotations

import copy
import pickle

import numpy as np
import pytest

from veltrane import LifeTable, cli
from veltrane.contingencies import annuity
from veltrane.tables.source import TableSource

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
    blend = LifeTable("SEL", "u", duration=1, unisex_blend=0.3)
    path = blend.select_path(4)
    by_hand = diagonal(lambda d: LifeTable("SEL", "u", duration=d, unisex_blend=0.3), 4, 1, 2, blend.w)
    np.testing.assert_array_equal(path.qx(np.arange(blend.w + 1.0)), by_hand)
    assert path.sex == "u" and path.unisex_blend is None

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


def test_path_of_an_unpicklable_table_is_refused(tables):
    tables.select("SEL", period=2, start=1)
    path = LifeTable("SEL", "m", duration=1).select_path(2)
    TableSource.clear_cache()
    tables.select("SEL", period=2, start=1)  # new random rates under the same name
    with pytest.raises(ValueError, match="cannot pickle LifeTable 'SEL'"):
        pickle.dumps(path)


def test_command_line_follows_the_path(capsys):
    path = LifeTable("SSSM", "u", duration=1, interest_rate=0.05).select_path(65)
    for command, value in [
        ("annuity SSSM --selected-at 65 --age 65 --rate 0.05", annuity(path, 65)),
        ("eval SSSM --selected-at 65 tpx 65 3", path.tpx(65, 3)),
    ]:
        assert cli.main(command.split()) == 0 and float(capsys.readouterr().out) == value
    assert cli.main(["eval", "SULT", "--selected-at", "65", "ex", "65"]) == 2  # the path's own refusal
    err = capsys.readouterr().err
    assert err.count("\n") == 1 and "needs a select-and-ultimate table" in err
