"""Table files: loading each structure, rejecting malformed files, search order, sharing and copies."""

from __future__ import annotations

import copy
import dataclasses
import math
import os
import pickle
import subprocess
import sys
from pathlib import Path

import numpy as np
import polars as pl
import pytest

from veltrane.config import Config
from veltrane.tables import source as source_module
from veltrane.tables.life import LifeTable
from veltrane.tables.source import BUNDLED_TABLES_DIR, TableSource, write_table

LIFE_M = 'table_type = "life"\nsexes = ["m"]\n'
GEN_M = LIFE_M + '[generational]\nformula_type = "exponential"\nbase_year = 2000\n'
YEARS_M = GEN_M + 'mi_structure = "year_indexed"\ngrid_years = [2015, 2016]\n'
SELECT_M = LIFE_M + "[select]\nperiod = 2\n"
TWO_AGES = "age,qx_m\n0,0.1\n1,0.2\n"


def _pair(directory: Path, name: str, toml: str, csv: str) -> None:
    (directory / f"{name}.toml").write_text(toml, encoding="utf-8")
    (directory / f"{name}.csv").write_text(csv, encoding="utf-8")


STRUCTURES = {  # metadata, columns, what the source reports
    "period": (
        {"table_type": "life", "start_age": 2},
        {"age": range(5), "qx_f": [0, 0, 0.1 + 0.2, 5e-324, 1], "qx_m": [0, 0, 0.5, 0.7, 1.0]},
        {"valid_sexes": ["f", "m"], "w": 4, "omega": 4, "start_age": 2, "sex_independent": False,
         "generational": False, "select": False}),
    "generational-flat": (
        {"table_type": "disability", "omega": 2,
         "generational": {"formula_type": "compound", "base_year": 2012}},
        {"age": range(4), "ix_m": [0.1] * 4, "mi_m": [0.01, -0.02, 0, 0]},
        {"valid_sexes": ["m"], "w": 3, "omega": 2, "generational_formula_type": "compound", "base_year": 2012,
         "mi_structure": "flat", "grid_years": None, "mi_by_duration": False}),
    "generational-year-indexed": (
        {"table_type": "life", "generational": {"formula_type": "projected_improvement", "base_year": 2014,
                                                "mi_structure": "year_indexed", "grid_years": [2015, 2016]}},
        {"age": range(2), "qx_f": [0.1, 1], "mi_f_2015": [0.01, 0], "mi_f_2016": [0.02, 0]},
        {"mi_structure": "year_indexed", "grid_years": [2015, 2016], "sex_independent": False}),
    "select": (
        {"table_type": "exit", "select": {"period": 2, "start_duration": 0},
         "source": {"name": "X", "year": 1999}},
        {"age": range(2), "ox_u_s0": [0.3, 0.2], "ox_u_s1": [0.2, 0.1], "ox_u_ult": [0.1, 0.1]},
        {"valid_sexes": ["u"], "sex_independent": True, "select": True, "select_period": 2,
         "start_duration": 0}),
    "select-generational": (
        {"table_type": "life", "sexes": ["m"], "select": {"period": 1, "improvement_diagonal": "issue"},
         "generational": {"formula_type": "exponential", "base_year": 2015, "mi_structure": "select_period"}},
        {"age": range(2), "qx_m_s1": [0.1, 0.2], "qx_m_ult": [0.2, 0.3], "mi_m_s1": [0.01, 0.01],
         "mi_m_ult": [0.02, 0.02]},
        {"mi_by_duration": True, "select_period": 1, "start_duration": 1,
         "select_improvement_diagonal": "issue"}),
}  # fmt: skip


@pytest.mark.parametrize(("metadata", "columns", "expected"), STRUCTURES.values(), ids=STRUCTURES)
def test_structures_load(tables, metadata, columns, expected):
    toml_path = write_table(tables.directory, "T", metadata, columns)
    src = TableSource("T")
    assert {key: getattr(src, key) for key in expected} == expected
    assert (src.file_name, src.file_path, src.metadata) == ("T", toml_path, metadata)
    assert src.data.columns == list(columns)
    for name, values in columns.items():  # every double comes back bit for bit
        assert src.data[name].to_list() == [float(v) if name != "age" else v for v in values]


HEADERS = [  # columns the header may not have, the last one named
    (LIFE_M, "qx_male"), (LIFE_M, "qx_m,qx_f"), (LIFE_M, "ix_m"), (LIFE_M, "qx_m,qx_m"),
    (LIFE_M, "qx_m_s1"), (LIFE_M, "qx_m,mi_m"), ('table_type = "life"\nsex_independent = true\n', "qx_m"),
    (SELECT_M, "qx_m"), (SELECT_M, "qx_m_s3"), (GEN_M, "qx_m,mi_u"), (GEN_M, "qx_m,mi_m_2015"),
    (YEARS_M, "qx_m,mi_m_2017"),
]  # fmt: skip
MALFORMED = [  # metadata, rates, the file named, what the message must name
    (LIFE_M, "age,qx_m\n0,0.1\n2,0.1\n", "csv", "column 'age'", "line 3"),
    (LIFE_M, "age,qx_m\n0,0.1\n1,0.1\n1,0.1\n", "csv", "column 'age'", "line 4"),
    (LIFE_M, "age,qx_m\n1,0.1\n", "csv", "column 'age'", "line 2"),
    (LIFE_M, "age,qx_m\n0,0.1\n\n1,\n", "csv", "column 'qx_m'", "age 1 (line 4)"),
    (LIFE_M, "age,qx_m\n0,0.1\n1,1.5\n", "csv", "column 'qx_m'", "age 1 (line 3)"),
    ('table_type = "life"\nsexes = ["m", "f"]\n', "age,qx_m,qx_f\n0,0.1\n", "csv", "column 'qx_f'", "line 2"),
    (LIFE_M + "start_age = 1\n", TWO_AGES, "csv", "column 'qx_m'", "age 0 (line 2)"),
    (GEN_M, "age,qx_m,mi_m\n0,0.1,0.01\n1,0.1,inf\n", "csv", "column 'mi_m'", "age 1 (line 3)"),
    *[(toml, f"age,{c}\n0" + ",0.1" * (c.count(",") + 1) + "\n", "csv", f"column {c.split(',')[-1]!r}",
       "line 1") for toml, c in HEADERS],
    *[(toml, TWO_AGES, "toml", key, "") for toml, key in [
        (LIFE_M + 'colour = "red"\n', "'colour'"), (LIFE_M + "start_age = true\n", "'start_age'"),
        (LIFE_M + "start_age = 3\n", "'start_age'"),
        (LIFE_M + "format_version = 2\n", "'format_version'"), ('sexes = ["m"]\n', "'table_type'"),
        ('table_type = "death"\n', "'table_type'"), ('table_type = "life"\nsexes = ["x"]\n', "'sexes'"),
        (LIFE_M + "sex_independent = true\n", "'sex_independent'"), (LIFE_M + "omega = \n", "invalid TOML"),
        (LIFE_M + "[select]\nperiod = 0\n", "'select.period'"),
        (LIFE_M + "[select]\nperiod = 1\nimprovement_diagonal = 'issue'\n", "'select.improvement_diagonal'"),
        (GEN_M + 'mi_structure = "year_indexed"\ngrid_years = [2016, 2015]\n', "'generational.grid_years'"),
        (GEN_M + 'mi_structure = "flat"\ngrid_years = [2015]\n', "'generational.grid_years'"),
        (GEN_M + 'mi_structure = "select_period"\n', "'generational.mi_structure'"),
        (GEN_M + 'mi_structure = "by_age"\n', "'generational.mi_structure'"),
    ]],
]  # fmt: skip


@pytest.mark.parametrize(("toml", "csv", "which", "what", "where"), MALFORMED)
def test_malformed_files_are_named_with_the_column_or_key_and_the_line(tables, toml, csv, which, what, where):
    _pair(tables.directory, "BAD", toml, csv)
    with pytest.raises(ValueError) as info:
        TableSource("BAD")
    message = str(info.value)
    assert str(tables.directory / f"BAD.{which}") in message and what in message and where in message


GAPS = {  # metadata, rates, the sexes the source still offers
    "declared-sex-without-rates": ('table_type = "life"\nsexes = ["m", "f"]\n', TWO_AGES, ["m", "f"]),
    "no-improvement": (GEN_M, TWO_AGES, ["m"]),
    "missing-grid-year": (YEARS_M, "age,qx_m,mi_m_2015\n0,0.1,0.01\n", ["m"]),
    "missing-select-columns": (SELECT_M, "age,qx_m_s1\n0,0.1\n", ["m"]),
    "no-formula": (LIFE_M + '[generational]\nmi_structure = "year_indexed"\n',
                   "age,qx_m,mi_m_2015\n0,0.1,0.01\n", ["m"]),
}  # fmt: skip


@pytest.mark.parametrize(("toml", "csv", "valid_sexes"), GAPS.values(), ids=GAPS)
def test_missing_columns_are_left_to_the_tables(tables, toml, csv, valid_sexes):
    _pair(tables.directory, "GAPPY", toml, csv)
    assert TableSource("GAPPY").valid_sexes == valid_sexes


def test_written_tables_and_frames_are_checked_like_files(tmp_path):
    columns = {"age": [0, 1], "qx_m": [0.1, None]}
    with pytest.raises(ValueError, match=r"column 'qx_m', age 1 \(line 3\): empty cell"):
        write_table(tmp_path, "T", {"table_type": "life"}, columns)
    assert list(tmp_path.iterdir()) == []  # nothing written
    write_table(tmp_path, "T", {"table_type": "life"}, columns, validate=False)
    assert (tmp_path / "T.csv").read_text() == "age,qx_m\n0,0.1\n1,\n"

    def frame(r):
        return TableSource.from_frame("mem", {"table_type": "life"}, pl.DataFrame({"age": [0, 1], "qx_u": r}))

    src = frame(["0.5", "1"])
    assert (src.data["qx_u"].to_list(), src.file_path) == ([0.5, 1.0], None)
    with pytest.raises(ValueError, match=r"table 'mem': column 'qx_u', age 1 \(row 2\): rate 2.0"):
        frame([0.5, 2.0])


def test_search_order_bundled_last_and_a_missing_table_lists_every_directory(tables, tmp_path):
    with pytest.raises(FileNotFoundError) as info:
        TableSource("NOPE")
    assert all(str(d) in str(info.value) for d in ("'NOPE'", tables.directory, BUNDLED_TABLES_DIR))
    (tables.directory / "HALF.toml").write_text(LIFE_M)
    with pytest.raises(FileNotFoundError, match=r"HALF\.csv"):
        TableSource("HALF")
    first, second = tmp_path / "a", tmp_path / "b"
    for directory, rate in ((first, 0.1), (second, 0.2)):
        directory.mkdir()
        for name in ("T", "SULT"):
            write_table(directory, name, {"table_type": "life"}, {"age": [0], "qx_u": [rate]})
    with Config().override(tables_path=[first, second]):
        assert TableSource("T").data["qx_u"][0] == 0.1
        assert TableSource("SULT").file_path == first / "SULT.toml"  # user tables shadow bundled ones
    with Config().override(tables_path=[second, first]):
        assert TableSource("T").data["qx_u"][0] == 0.2
    with Config().override(tables_path=[]):
        assert TableSource("SULT").file_path == BUNDLED_TABLES_DIR / "SULT.toml"


@pytest.mark.parametrize("entry", ["missing", "file"])
def test_tables_path_variable_warns_of_entries_that_are_not_directories(monkeypatch, tmp_path, entry):
    bad = tmp_path / "tables"
    if entry == "file":
        bad.write_text("")
    monkeypatch.setenv("VELTRANE_TABLES_PATH", os.pathsep.join([str(tmp_path), str(bad)]))
    problem = "does not exist" if entry == "missing" else "is not a directory"
    with Config():
        with pytest.warns(UserWarning, match=f"^VELTRANE_TABLES_PATH: {bad} {problem}; ") as record:
            Config().reset()
        assert Config().tables_path == (tmp_path, bad)
    assert len(record) == 1 and record[0].filename == __file__  # points at the caller of reset()


def test_sources_are_shared_until_the_path_files_or_cache_change(tables, tmp_path):
    write_table(tables.directory, "T", {"table_type": "life"}, {"age": [0], "qx_u": [0.1]})
    src = TableSource("T")
    assert TableSource("T") is src
    other = tmp_path / "other"
    with Config().override(tables_path=[other, tables.directory]):
        assert TableSource("T") is not src
    assert TableSource("T") is src
    TableSource.clear_cache()
    assert TableSource("T") is not src
    write_table(tables.directory, "T", {"table_type": "life"}, {"age": [0], "qx_u": [0.3]})
    assert TableSource("T").data["qx_u"][0] == 0.3
    src = TableSource("T")
    Config().reset()
    Config().tables_path = [tables.directory]
    assert TableSource("T") is not src


def test_write_table_is_exported_lazily():
    script = (
        "import sys, veltrane; from veltrane import write_table; "
        "assert write_table is sys.modules['veltrane.tables.source'].write_table; "
        "assert 'veltrane.tables.decrement' not in sys.modules"
    )
    subprocess.run([sys.executable, "-c", script], check=True)


def test_copies_pickling_and_fresh_valid_sexes(tables):
    tables.period()
    TableSource("PER").valid_sexes.append("u")
    LifeTable("PER", "m").valid_sexes.append("x")
    assert TableSource("PER").valid_sexes == LifeTable("PER", "m").valid_sexes == ["m", "f"]
    src = TableSource.from_frame("mem", {"table_type": "life"}, pl.DataFrame({"age": [0], "qx_u": [0.5]}))
    shallow = copy.copy(src)
    assert shallow is not src and shallow.data is src.data
    shallow._data = shallow.data.with_columns(qx_u=pl.lit(0.25), qx_m=pl.lit(0.75))
    shallow._valid_sexes = ["m", "u"]  # as a blend adds a sex to a table's own copy
    assert (src.data["qx_u"][0], src.valid_sexes) == (0.5, ["u"])
    deep = copy.deepcopy(shallow)
    assert deep.data is not shallow.data and deep.data.equals(shallow.data)
    restored = pickle.loads(pickle.dumps(shallow))
    assert (restored.data["qx_m"][0], restored.valid_sexes, restored.table_type) == (0.75, ["m", "u"], "life")
    src.metadata["table_type"] = "exit"
    assert src.metadata["table_type"] == "life"


def test_bundled_tables_follow_their_laws():
    with Config().override(tables_path=[]):
        sult, sssm = TableSource("SULT"), TableSource("SSSM")
    ages = np.arange(121)
    mu_integral = 0.00022 + 2.7e-6 * 1.124**ages * (1.124 - 1) / math.log(1.124)
    law = np.where(ages < 20, 0.0, 1.0 - np.exp(-mu_integral))
    law[120] = 1.0
    q = sult.data["qx_u"].to_numpy()
    np.testing.assert_allclose(q, law, rtol=1e-11, atol=0)
    assert (sult.start_age, sult.omega, sult.w, sult.valid_sexes) == (20, 120, 120, ["u"])
    assert sult.sex_independent is True and (sssm.select_period, sssm.start_duration) == (2, 1)
    assert sssm.data["qx_u_ult"].to_list() == q.tolist()
    for column, factor in (("qx_u_s1", 0.81), ("qx_u_s2", 0.9)):
        assert sssm.data[column].to_list() == [1.0 if x == 1.0 else factor * x for x in q.tolist()]


def cached_names() -> list[str]:
    return [name for name, _ in source_module._cache]


def test_the_cache_drops_sources_of_paths_no_longer_in_force_and_the_oldest(tables, tmp_path, monkeypatch):
    outer = TableSource("SULT")
    before = cached_names().count("SULT")  # one per search path in force or to be restored
    for i in range(20):  # each block searches a directory of its own first
        with Config().override(tables_path=[tmp_path / str(i)]):
            TableSource("SULT")
            with Config().override(tables_path=[tmp_path / "inner"]):
                TableSource("SULT")  # the paths of the open blocks still apply after this one
            assert cached_names().count("SULT") == before + 2
    assert TableSource("SULT") is outer  # its path applied again after every block
    write_table(tables.directory, "T", {"table_type": "life"}, {"age": [0], "qx_u": [0.1]})
    TableSource("T")  # a load drops what the blocks left behind
    assert cached_names().count("SULT") == before
    # The cache keeps the most recently loaded sources.
    monkeypatch.setattr(source_module, "_CACHE_MAX", 3)
    for name in "ABCD":
        write_table(tables.directory, name, {"table_type": "life"}, {"age": [0], "qx_u": [0.1]})
    first = TableSource("A")
    for name in "BCD":
        TableSource(name)
    assert cached_names() == ["B", "C", "D"]
    assert TableSource("A") is not first and first.data.equals(TableSource("A").data)


@pytest.mark.parametrize("given_by", ["setting", "variable"])
def test_relative_tables_path_entries_mean_the_directory_of_when_they_were_given(
    tmp_path, monkeypatch, given_by
):
    with Config():
        for folder, rate in (("a", 0.1), ("b", 0.2)):
            rates = {"age": [0], "qx_u": [rate]}
            write_table(tmp_path / folder / "tables", "REL", {"table_type": "life"}, rates)
            monkeypatch.chdir(tmp_path / folder)
            if given_by == "setting":
                Config().tables_path = ["tables"]
            else:
                monkeypatch.setenv("VELTRANE_TABLES_PATH", "tables")
                Config().reset()
            assert Config().tables_path == (tmp_path / folder / "tables",)
            assert TableSource("REL").data["qx_u"][0] == rate
        monkeypatch.chdir(tmp_path / "a")
        assert TableSource("REL").data["qx_u"][0] == 0.2  # still b's directory
    TableSource.clear_cache()


def five_rates() -> TableSource:
    return TableSource.from_rates("FIVE", [0.1, 0.2, 0.3, 0.4, 1.0])


@pytest.mark.parametrize(
    ("edit", "message"),
    [
        (lambda s: setattr(s, "_w", 120), "last age \\(w = 120\\) disagree"),
        (lambda s: setattr(s, "_data", s._data.head(0)), "the table has no rows"),
        (lambda s: setattr(s, "_meta", dataclasses.replace(s._meta, start_age=-5)), "parsed metadata"),
        (lambda s: setattr(s, "_metadata", {**s._metadata, "start_age": -5}), "must not be negative"),
        (lambda s: setattr(s, "_data", s._data.with_columns(qx_u=pl.lit(1.5))), "rate 1.5 outside"),
        (lambda s: setattr(s, "_valid_sexes", ["m"]), "not among the declared sexes"),
        (lambda s: setattr(s, "_file_name", "OTHER"), "damaged"),
    ],
)
def test_a_damaged_source_pickle_is_refused_as_a_damaged_file_would_be(edit, message):
    src = copy.copy(five_rates())
    edit(src)
    data = pickle.dumps(src)
    with pytest.raises(ValueError, match=message):
        pickle.loads(data)
    back = pickle.loads(pickle.dumps(five_rates()))
    assert (back.w, back.start_age, back.valid_sexes) == (4, 0, ["u"])
    assert back._digest() == five_rates()._digest()
