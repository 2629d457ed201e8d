"""Tables from data in memory: registered sources, rate vectors, ages from above 0, survivors,
and unisex generational tables with their own trend."""

from __future__ import annotations

import numpy as np
import polars as pl
import pytest

import veltrane
from conftest import improved
from veltrane.config import Config
from veltrane.tables import decrement
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource


@pytest.fixture(autouse=True)
def clean():
    yield
    for name in TableSource.registered():
        TableSource.unregister(name)
    TableSource.clear_cache()
    decrement._clear_cohort_unisex_cache()


def test_registered_vectors_are_used_by_name_and_mark_ages_below_their_start():
    source = veltrane.register_table(TableSource.from_rates("MEM", [0.1, 0.2, 1.0], start_age=60))
    assert TableSource("MEM") is source
    assert (source.start_age, source.w) == (60, 62)
    table = LifeTable("MEM", "u")
    assert table.qx(60) == 0.1 and table.qx(59) == 0.0
    assert table.lx(60) == table.lx(0)  # nobody leaves before the first age
    TableSource.from_rates("EX", {"m": [0.1, 1.0], "f": [0.2, 1.0]}, table_type="exit").register()
    assert ExitTable("EX", "f").qx(0) == 0.2


def test_registration_shadows_files_and_unregister_brings_them_back(tables):
    tables.period("PER", sexes=("u",))
    on_file = LifeTable("PER", "u").qx(0)
    TableSource.from_rates("PER", [0.5] * 8).register()
    assert LifeTable("PER", "u").qx(0) == 0.5
    with Config().override(tables_path=[]):  # whatever the search path
        assert LifeTable("PER", "u").qx(0) == 0.5
    TableSource.unregister("PER")
    assert LifeTable("PER", "u").qx(0) == on_file
    with pytest.raises(KeyError, match="no table 'PER' is registered"):
        TableSource.unregister("PER")


def register_genmem(scale: float) -> None:
    q, mi = np.array([0.1, 0.2, 0.3, 1.0]) * scale, [0.01] * 4
    frame = pl.DataFrame({"age": range(4), "qx_m": q, "qx_f": q / 2, "mi_m": mi, "mi_f": mi})
    meta = {"table_type": "life", "generational": {"formula_type": "compound", "base_year": 2000}}
    TableSource.from_frame("GENMEM", meta, frame).register()


LX = pl.DataFrame({"age": [20, 21, 22], "lx_m": [1000.0, 900.0, 450.0]})


def two_ages(**columns) -> pl.DataFrame:
    return pl.DataFrame({"age": [0, 1], **columns})


def test_frame_starting_above_zero_and_survivors_become_rates():
    pd = pytest.importorskip("pandas")
    for frame in (LX, pd.DataFrame(LX.to_dict(as_series=False), index=[7, 8, 9])):  # the index plays no part
        source = TableSource.from_frame("LX", {"table_type": "life"}, frame)
        assert source.start_age == 20
        np.testing.assert_allclose(source.data["qx_m"], [0.0] * 20 + [0.1, 0.5, 1.0], rtol=1e-15)


def test_pandas_frames_with_mixed_columns_are_refused():
    pd = pytest.importorskip("pandas")  # repeated names: the portfolio's test of the same conversion
    mixed = pd.DataFrame({"age": [0, 1], "qx_u": [0.1, "x"]})
    with pytest.raises(ValueError, match=r"table 'P': column 'qx_u'"):
        TableSource.from_frame("P", {"table_type": "life"}, mixed)


def test_file_starting_above_zero_says_how_to_write_it(tables):
    (tables.directory / "LATE.toml").write_text('table_type = "life"\n')
    (tables.directory / "LATE.csv").write_text("age,qx_u\n20,0.1\n21,1\n")
    with pytest.raises(ValueError, match=r"ages must start at 0, got 20; .* set start_age = 20"):
        TableSource("LATE")


@pytest.mark.parametrize(
    ("data", "keys", "message"),
    [
        ([0.1, 1.5], {}, "rate 1.5 outside"),
        ({"m": [0.1], "f": [0.1, 0.2]}, {}, "vectors of one length"),
        ([0.1], {"start_age": -1}, "start_age must be a whole number"),
        ([0.1, 1.0], {"start_age": 10**9}, r"start_age must be a whole number in 0\.\.1000"),
        ([0.1], {"table_type": "death"}, "table_type must be one of"),
        (LX, {"start_age": 10}, "'start_age': 10 lies below the first age given, 20"),
        (LX.with_columns(lx_m=pl.Series([1.0, 2.0, 0.0])), {}, "survivors rise"),
        (two_ages(age=[10**9, 10**9 + 1], qx_u=[0.1, 1.0]), {}, "first age 1000000000 is above 1000"),
        (two_ages(lx_u=[0.0, 0.0]), {}, "survivors at the first age must be > 0"),
        (two_ages(lx_u=[5.0, None]), {}, "row 2: no number"),
        (two_ages(qx_u=[[0.1], [1.0]]), {}, r"List\(Float64\) column, expected numbers"),
        (two_ages(age=[20, 22], qx_u=[0.1, 1.0]), {}, "column 'age', row 2: age 22 follows 20"),
    ],
)
def test_bad_rates_and_frames_are_refused(data, keys, message):
    with pytest.raises(ValueError, match=message):
        if isinstance(data, pl.DataFrame):
            TableSource.from_frame("BAD", {"table_type": "life", **keys}, data)
        else:
            TableSource.from_rates("BAD", data, **keys)
    assert "BAD" not in TableSource.registered()


def test_unisex_generational_table_uses_its_own_trend(tables):
    q = tables.rates()
    cols = {f"qx_{s}": tables.rates() for s in "mf"} | {"qx_u": q, "mi_m": tables.improvement()}
    cols |= {"mi_f": tables.improvement(), "mi_u": np.full(len(q), 0.02)}
    meta = {"table_type": "life", "generational": {"formula_type": "exponential", "base_year": 2000}}
    tables.write("GU", meta, cols)
    expected = improved("exponential", q, cols["mi_u"], 1980, 2000)  # the unisex sex projected with mi_u
    got = LifeTable("GU", "u", cohort=1980).qx(np.arange(len(q) - 1))
    np.testing.assert_allclose(got, expected[:-1], rtol=1e-9)


def test_tables_built_before_a_new_registration_keep_their_rates_and_do_not_share_them():
    register_genmem(1.0)
    old = LifeTable("GENMEM", "u", cohort=1990, unisex_blend=1.0)
    register_genmem(0.5)  # drops the unisex cohort cache the old registration filled
    new = LifeTable("GENMEM", "u", cohort=1990, unisex_blend=1.0)
    for year in (1990, 1991, 1992):  # as built; then the stale table rebuilds first; then the new one
        for table in {1991: (old, new), 1992: (new, old)}.get(year, ()):
            table.cohort = year
        assert new.qx(1) == LifeTable("GENMEM", "m", cohort=year).qx(1)
        assert old.qx(1) == pytest.approx(2 * new.qx(1), rel=1e-9)


def test_numpy_start_ages_and_survivors_beside_rates():
    assert TableSource.from_rates("NP", [0.1, 1.0], start_age=np.int64(3)).start_age == 3
    mixed = two_ages(lx_m=[10.0, 5.0], qx_f=[0.1, 1.0])
    assert TableSource.from_frame("MF", {"table_type": "life"}, mixed).valid_sexes == ["m", "f"]
