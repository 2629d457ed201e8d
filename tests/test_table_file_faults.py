"""Damaged and hostile table files: each is refused with a message naming the file, never loaded
half-right, never a crash, a hang or a huge allocation."""

from __future__ import annotations

import os
import re
from pathlib import Path

import polars as pl
import pytest

from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource, write_table

LIFE_M = 'table_type = "life"\nsexes = ["m"]\n'
ROWS = "".join(f"{x},0.{x + 1}\n" for x in range(8))  # ages 0..7
SEL2 = LIFE_M + "[select]\nperiod = 2\n"
GEN = LIFE_M + '[generational]\nformula_type = "exponential"\n'
SEL = LIFE_M + "[select]\n"


def _pair(directory: Path, toml: str | bytes, csv: str | bytes, name: str = "T") -> tuple[Path, Path]:
    paths = directory / f"{name}.toml", directory / f"{name}.csv"
    for path, text in zip(paths, (toml, csv), strict=True):
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
    return paths


def _refusal(name: str = "T") -> str:
    with pytest.raises(ValueError) as info:
        TableSource(name)
    return str(info.value)


def _frame_refusal(metadata: dict, **columns) -> str:
    with pytest.raises(ValueError) as info:
        TableSource.from_frame("mem", {"table_type": "life", **metadata}, pl.DataFrame(columns))
    return str(info.value)


REFUSED_RATES = ["1.", ".5", "1_0", "\u0660.\u0665", "\uff10.\uff15", "0x1", "1e", "\u22120.5", "nan"]
ACCEPTED_RATES = {"0.5": 0.5, "5e-1": 0.5, "5E-01": 0.5, "+0.25": 0.25, "1": 1.0, "5e-324": 5e-324}
CSV_FAULTS = [  # metadata, file body, the message after the file's name
    *[(LIFE_M, f"age,qx_m\n0,0.1\n1,{c}\n", f"column 'qx_m', age 1 (line 3): {c!r} is not a number")
      for c in REFUSED_RATES],
    *[(LIFE_M, f"age,qx_m\n0,0.1\n{c},0.2\n", f"column 'age', line 3: age {c!r} is not a whole number")
      for c in ["1_0", "\u0661", "+1", "1.", "9" * 20]],
    # headers take ASCII digits only: an Arabic-Indic one, one beyond int()'s limit
    *[(toml, f"age,{rates},{header}\n0,0.1,0.1\n", f"column {header!r} (header, line 1): unknown column")
      for toml, rates, header in [
          (SEL2, "qx_m_ult", "qx_m_s\u0661"),
          (SEL2, "qx_m_ult", "qx_m_s" + "1" * 5000),
          (LIFE_M + '[generational]\nmi_structure = "year_indexed"\n', "qx_m", "mi_m_2\u0660\u0661\u0665"),
      ]],
    (LIFE_M, "age,qx_m\n0,0.1\n1," + "1" * 200_000 + "\n", "line 3: field larger than field limit"),
]  # fmt: skip


@pytest.mark.parametrize(("toml", "csv", "problem"), CSV_FAULTS)
def test_faulty_cells_and_headers_name_file_column_and_line(tables, toml, csv, problem):
    _, path = _pair(tables.directory, toml, csv)
    assert _refusal().startswith(f"{path}: {problem}")


@pytest.mark.parametrize("rows", [1, 5, 7])
def test_csv_cut_before_omega_is_refused(tables, rows):
    toml, csv = _pair(tables.directory, LIFE_M + "omega = 7\n", "age,qx_m\n" + ROWS[: rows * 6])
    message = _refusal()
    assert message.startswith(f"{csv}: column 'age', line {rows + 1}: the ages end at {rows - 1}")
    assert "'omega' = 7" in message and str(toml) in message


def test_usual_number_forms_and_a_byte_order_mark_load(tables):
    cells = "".join(f"{x},{text}\n" for x, text in enumerate(ACCEPTED_RATES))
    _pair(tables.directory, "\ufeff" + LIFE_M, "\ufeffage,qx_m\n" + cells)
    assert TableSource("T").data.columns == ["age", "qx_m"]
    assert TableSource("T").data["qx_m"].to_list() == list(ACCEPTED_RATES.values())


@pytest.mark.parametrize("age", [1e20, -(2.0**70), 10**18])
def test_ages_beyond_int64_are_refused(tables, age):
    message = _frame_refusal({}, age=[0.0, age], qx_u=[0.1, 1.0])
    assert re.fullmatch(r"table 'mem': column 'age', row 2: age .* is out of range", message, re.S)
    _pair(tables.directory, LIFE_M, f"age,qx_m\n0,0.1\n{int(age)},0.2\n")
    assert re.search(r"column 'age', line 3: age .* is (out of range|not a whole number)", _refusal())


ENCODINGS = {  # how the file is written, what the message says
    "utf-16": (lambda text: text.encode("utf-16"), "the file is UTF-16 text"),
    "utf-16-be": (lambda text: b"\xfe\xff" + text.encode("utf-16-be"), "the file is UTF-16 text"),
    "utf-16-no-bom": (lambda text: text.encode("utf-16-le"), "line 1: a NUL byte"),
    "latin-1": (lambda text: (text + "# caf\u00e9\n").encode("latin-1"),
                "line 3: byte 0xe9, which is not UTF-8"),
}  # fmt: skip


@pytest.mark.parametrize("which", ["toml", "csv"])
@pytest.mark.parametrize(("encode", "problem"), ENCODINGS.values(), ids=ENCODINGS)
def test_files_not_in_utf8_are_refused_by_name(tables, which, encode, problem):
    texts: dict[str, str | bytes] = {"toml": LIFE_M, "csv": "age,qx_m\n0,0.1\n"}
    texts[which] = encode(texts[which])
    paths = dict(zip(texts, _pair(tables.directory, texts["toml"], texts["csv"]), strict=True))
    message = _refusal()
    assert message.startswith(f"{paths[which]}: ") and problem in message


@pytest.mark.parametrize("depth", [5, 50, 100_000])
@pytest.mark.parametrize(("opening", "closing"), [("[", "]"), ("{a = ", "}")], ids=["array", "table"])
def test_nested_toml_is_refused_by_name_with_a_short_message(tables, depth, opening, closing):
    description = "description = " + opening * depth + "1" + closing * depth
    toml, _ = _pair(tables.directory, LIFE_M + description, ROWS)
    message = _refusal()
    assert message.startswith(f"{toml}: ") and len(message) < len(str(toml)) + 200
    assert ("invalid TOML" in message) if depth > 1000 else ("'description' must be a string" in message)


NOT_FILES = {  # maker, exception type, what the message calls it
    "directory": (Path.mkdir, IsADirectoryError, "is a directory, not a file"),
    "fifo": (os.mkfifo, OSError, "is a FIFO (named pipe), not a regular file"),
    "symlink-loop": (lambda p: os.symlink(p.name, p), OSError, "is a symbolic link loop"),
    "dangling-symlink": (lambda p: os.symlink("nowhere.csv", p), FileNotFoundError,
                         "is a symbolic link to nowhere.csv, which does not exist"),
}  # fmt: skip


@pytest.mark.skipif(not hasattr(os, "mkfifo"), reason="needs POSIX file types")
@pytest.mark.parametrize("suffix", [".csv", ".toml"])
@pytest.mark.parametrize(("make", "error", "what"), NOT_FILES.values(), ids=NOT_FILES)
def test_entries_that_are_not_files_are_named_for_what_they_are(tables, suffix, make, error, what):
    _pair(tables.directory, LIFE_M, "age,qx_m\n0,0.1\n")
    path = tables.directory / f"T{suffix}"
    path.unlink()
    make(path)
    with pytest.raises(error) as info:
        TableSource("T")
    assert str(info.value) == f"table 'T': {path} {what}"


YEARS = GEN + 'mi_structure = "year_indexed"\ngrid_years = '
HUGE_METADATA = [
    (GEN + "base_year = 10000000\n", "generational.base_year", "in 1000..3000, got 10000000"),
    (GEN + "base_year = 999\n", "generational.base_year", "got 999"),
    (YEARS + "[2000, 10000000]\n", "generational.grid_years", "1000"),
    (YEARS + "[-5, 2000]\n", "generational.grid_years", "1000"),
    (SEL + "period = 201\n", "select.period", "in 1..200, got 201"),
    (SEL + "period = 2\nstart_duration = 201\n", "select.start_duration", "in 0..200, got 201"),
    (SEL + "period = 2\nstart_duration = 9223372036854775807\n", "select.start_duration", "0..200"),
]


@pytest.mark.parametrize(("toml", "key", "problem"), HUGE_METADATA)
def test_metadata_out_of_bounds_is_refused(tables, toml, key, problem):
    path, _ = _pair(tables.directory, toml, "age,qx_m\n0,0.1\n")
    message = _refusal()
    assert message.startswith(f"{path}: key {key!r}: ") and problem in message


AT_BOUNDS = [GEN + "base_year = 1000\n", GEN + "base_year = 3000\n", YEARS + "[1000, 3000]\n"]


@pytest.mark.parametrize("toml", [*AT_BOUNDS, SEL + "period = 200\nstart_duration = 200\n"])
def test_metadata_at_the_bounds_loads(tables, toml):
    columns = "qx_m_ult" if "[select]" in toml else "qx_m"
    _pair(tables.directory, toml, f"age,{columns}\n0,0.1\n")
    assert TableSource("T").table_type == "life"


def test_frames_names_and_written_metadata_are_checked_before_any_file(tmp_path):
    message = _frame_refusal({"omega": 5}, age=[0, 1], qx_u=[0.1, 1.0])
    assert message.startswith("table 'mem': column 'age', row 2: the ages end at 1, short of")
    with pytest.raises(ValueError, match="bare file name"):
        TableSource("T\0")
    nested: list[object] = []
    nested.append(nested)  # would send the TOML writer into endless recursion
    with pytest.raises(ValueError, match="'sexes'"):
        write_table(tmp_path, "T", {"table_type": "life", "sexes": nested}, {"age": [0], "qx_m": [0.1]})
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("start", [0, 3])
def test_select_improvement_by_duration_loads_and_builds_from_any_start_duration(tables, start):
    tables.select("G", start=start, generational="exponential", sexes=("m",))
    assert TableSource("G").start_duration == start
    assert LifeTable("G", "m", cohort=1950, duration="ult").qx(0) > 0
