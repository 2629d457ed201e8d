"""The table-file format: the metadata schema, the column names and the CSV/TOML pair on disk.

Everything here is pure parsing and checking; ``veltrane.tables.source`` turns the checked pieces
into ``TableSource`` objects. See ``docs/table-files.md`` for the format itself.
"""

from __future__ import annotations

import csv
import io
import itertools
import json
import math
import re
import reprlib
from collections.abc import Callable, Iterable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any, Final

import numpy as np
import polars as pl

#: Rate-column prefix of each table type.
RATE_PREFIX: Final[dict[str, str]] = {"life": "qx", "disability": "ix", "exit": "ox"}
SEXES: Final = ("m", "f", "u")
#: Sexes that may carry improvement columns; a unisex table may have a trend of its own.
MI_SEXES: Final = ("m", "f", "u")
MI_STRUCTURES: Final = ("flat", "year_indexed", "select_period")
FORMAT_VERSION: Final = 1
#: Calendar years accepted for ``base_year`` and ``grid_years``. Projections span the years
#: between the base year and the cohort's, so an absurd year would mean an absurd grid.
YEARS: Final = range(1000, 3001)
#: Largest ``select.period`` and ``select.start_duration``: every duration up to their sum is
#: spelled out as a column name somewhere, so they must stay small.
MAX_SELECT_DURATION: Final = 200
#: Largest first age of a table given in memory: the ages below it become rows of rate 0 that
#: no input paid for, so it must stay small (no decrement table starts anywhere near it).
MAX_FIRST_AGE: Final = 1000

# Key -> expected type, per section. ``int`` never accepts ``bool``.
_TOP_KEYS: Final[dict[str, type]] = {
    "format_version": int,
    "table_type": str,
    "description": str,
    "sexes": list,
    "sex_independent": bool,
    "omega": int,
    "start_age": int,
    "generational": dict,
    "select": dict,
    "source": dict,
}
_GENERATIONAL_KEYS: Final[dict[str, type]] = {
    "formula_type": str,
    "base_year": int,
    "mi_structure": str,
    "grid_years": list,
}
_SELECT_KEYS: Final[dict[str, type]] = {"period": int, "start_duration": int, "improvement_diagonal": str}
_SOURCE_KEYS: Final[dict[str, type]] = {
    "name": str,
    "authority": str,
    "reference": str,
    "url": str,
    "year": int,
    "notes": str,
    "table_identity": str,
    "provider": str,
    "content_type": str,
    "age_basis": str,
}
_TYPE_NAMES: Final = {
    int: "an integer",
    str: "a string",
    bool: "a boolean",
    list: "an array",
    dict: "a table",
}

# Durations and years are written without leading zeros, exactly as the core builds the names;
# ASCII digits only, and durations short enough to compare (any longer one is no known column).
_COLUMN_RE: Final = re.compile(r"(qx|ix|ox|mi)_([a-z]+)(?:_(s(?:0|[1-9][0-9]{0,5})|ult|[1-9][0-9]{3}))?")
# Cells are plain ASCII decimals, as write_table writes them: no "1.", ".5", "1_0", other
# scripts' digits or full-width forms, which Python's float() would quietly accept.
_NUMBER_RE: Final = re.compile(r"[+-]?[0-9]+(?:\.[0-9]+)?(?:[eE][+-]?[0-9]+)?")
# The same with the leading zero left out (".0144"), as some published XML tables write it.
_BARE_POINT_NUMBER_RE: Final = re.compile(r"[+-]?(?:[0-9]+|[0-9]*\.[0-9]+)(?:[eE][+-]?[0-9]+)?")
_AGE_RE: Final = re.compile(r"-?[0-9]{1,19}")  # negative ages get the ordering message
#: How messages describe the numbers that ``read_decimal`` takes.
NUMBER_FORM: Final = "ASCII decimal, e.g. 0.0125 or 1.25e-05"

# Values quoted in messages are abbreviated: a metadata value may be long or deeply nested.
_short = reprlib.Repr()
_short.maxlevel, _short.maxlist, _short.maxstring, _short.maxother = 3, 8, 60, 60


class TableFormatError(ValueError):
    """A table file (or in-memory table) breaks the format."""


# -- metadata ---------------------------------------------------------------------------------------
@dataclass(frozen=True, slots=True)
class Generational:
    formula_type: str | None
    base_year: int | None
    mi_structure: str
    grid_years: tuple[int, ...] | None


@dataclass(frozen=True, slots=True)
class Select:
    period: int
    start_duration: int
    improvement_diagonal: str | None

    @property
    def durations(self) -> range:
        return range(self.start_duration, self.start_duration + self.period)


@dataclass(frozen=True, slots=True)
class TableMeta:
    """Checked metadata; ``None`` marks a value to be derived from the columns."""

    table_type: str
    description: str
    sexes: tuple[str, ...] | None
    sex_independent: bool | None
    omega: int | None
    start_age: int
    generational: Generational | None
    select: Select | None
    source: dict[str, str | int]


def _is_type(value: object, expected: type) -> bool:
    if expected is int:
        return isinstance(value, int) and not isinstance(value, bool)
    if expected is list:  # TOML gives lists; callers of from_frame may pass tuples
        return isinstance(value, (list, tuple))
    return isinstance(value, expected)


def _section(raw: object, keys: Mapping[str, type], prefix: str, where: str) -> dict[str, Any]:
    if not isinstance(raw, dict):
        raise TableFormatError(f"{where}: key {prefix.rstrip('.')!r} must be a table, got {_short.repr(raw)}")
    for key, value in raw.items():
        if key not in keys:
            raise TableFormatError(
                f"{where}: unknown metadata key {_short.repr(prefix + str(key))} (known: {', '.join(keys)})"
            )
        if not _is_type(value, keys[key]):
            raise TableFormatError(
                f"{where}: key {prefix + key!r} must be {_TYPE_NAMES[keys[key]]}, "
                f"got {type(value).__name__} {_short.repr(value)}"
            )
    return raw


def _fail(where: str, key: str, problem: str) -> TableFormatError:
    return TableFormatError(f"{where}: key {key!r}: {problem}")


def parse_metadata(raw: Mapping[str, Any], where: str) -> TableMeta:
    """Check the types, keys and internal consistency of a metadata mapping."""
    top = _section(dict(raw), _TOP_KEYS, "", where)
    if top.get("format_version", FORMAT_VERSION) != FORMAT_VERSION:
        raise _fail(where, "format_version", f"this version reads format {FORMAT_VERSION} only")
    if "table_type" not in top:
        raise _fail(where, "table_type", f"required (one of {', '.join(RATE_PREFIX)})")
    if top["table_type"] not in RATE_PREFIX:
        raise _fail(
            where,
            "table_type",
            f"must be one of {', '.join(RATE_PREFIX)}, got {_short.repr(top['table_type'])}",
        )

    sexes = top.get("sexes")
    if sexes is not None:
        if not sexes or any(s not in SEXES for s in sexes) or len(set(sexes)) != len(sexes):
            raise _fail(where, "sexes", f"must list distinct sexes out of m, f, u, got {_short.repr(sexes)}")
        sexes = tuple(sexes)
    sex_independent = top.get("sex_independent")
    if sex_independent and sexes is not None and sexes != ("u",):
        raise _fail(where, "sex_independent", f"a sex-independent table has sexes ['u'], not {list(sexes)}")

    for key in ("omega", "start_age"):
        if top.get(key, 0) < 0:
            raise _fail(where, key, f"must not be negative, got {top[key]}")
    start_age = top.get("start_age", 0)
    if "omega" in top and top["omega"] < start_age:
        raise _fail(where, "omega", f"{top['omega']} lies below start_age {start_age}")

    select = None
    if "select" in top:
        sel = _section(top["select"], _SELECT_KEYS, "select.", where)
        if not 1 <= sel.get("period", 0) <= MAX_SELECT_DURATION:
            raise _fail(
                where,
                "select.period",
                f"required, a whole number of years in 1..{MAX_SELECT_DURATION}, got {sel.get('period')}",
            )
        if not 0 <= sel.get("start_duration", 1) <= MAX_SELECT_DURATION:
            raise _fail(
                where,
                "select.start_duration",
                f"must lie in 0..{MAX_SELECT_DURATION}, got {sel['start_duration']}",
            )
        if "improvement_diagonal" in sel and "generational" not in top:
            raise _fail(where, "select.improvement_diagonal", "only meaningful with a [generational] table")
        select = Select(sel["period"], sel.get("start_duration", 1), sel.get("improvement_diagonal"))

    generational = None
    if "generational" in top:
        generational = _parse_generational(top["generational"], select is not None, where)

    source = dict(_section(top.get("source", {}), _SOURCE_KEYS, "source.", where))
    return TableMeta(
        table_type=top["table_type"],
        description=top.get("description", ""),
        sexes=sexes,
        sex_independent=sex_independent,
        omega=top.get("omega"),
        start_age=start_age,
        generational=generational,
        select=select,
        source=source,
    )


def _parse_generational(raw: object, has_select: bool, where: str) -> Generational:
    # A missing formula, base year or grid is left to the table classes, which name what the
    # requested cohort needs; what is given must still be well formed.
    gen = _section(raw, _GENERATIONAL_KEYS, "generational.", where)
    if gen.get("formula_type") == "":
        raise _fail(where, "generational.formula_type", "must not be empty")
    if "base_year" in gen and gen["base_year"] not in YEARS:
        raise _fail(
            where,
            "generational.base_year",
            f"must be a calendar year in {_span(YEARS)}, got {gen['base_year']}",
        )
    grid = gen.get("grid_years")
    structure = gen.get("mi_structure", "flat" if grid is None else "year_indexed")
    if structure not in MI_STRUCTURES:
        raise _fail(
            where,
            "generational.mi_structure",
            f"must be one of {', '.join(MI_STRUCTURES)}, got {_short.repr(structure)}",
        )
    if structure == "select_period" and not has_select:
        raise _fail(where, "generational.mi_structure", "'select_period' needs a [select] table")
    if grid is not None:
        if structure != "year_indexed":
            raise _fail(where, "generational.grid_years", f"only used with 'year_indexed', not {structure!r}")
        if (
            not grid
            or not all(_is_type(y, int) for y in grid)
            or any(a >= b for a, b in itertools.pairwise(grid))
        ):
            raise _fail(
                where, "generational.grid_years", f"must be strictly ascending years, got {_short.repr(grid)}"
            )
        if grid[0] not in YEARS or grid[-1] not in YEARS:
            raise _fail(
                where,
                "generational.grid_years",
                f"must be calendar years in {_span(YEARS)}, got {_short.repr(grid)}",
            )
        grid = tuple(grid)
    return Generational(gen.get("formula_type"), gen.get("base_year"), structure, grid)


# -- columns ----------------------------------------------------------------------------------------
@dataclass(frozen=True, slots=True)
class Column:
    """A parsed column name: prefix, sex and at most one of duration / ult / year."""

    prefix: str
    sex: str
    duration: int | None = None
    ult: bool = False
    year: int | None = None

    @property
    def is_rate(self) -> bool:
        return self.prefix != "mi"


def parse_column(name: str) -> Column | None:
    match = _COLUMN_RE.fullmatch(name)
    if match is None:
        return None
    prefix, sex, tail = match.groups()
    if tail is None:
        return Column(prefix, sex)
    if tail == "ult":
        return Column(prefix, sex, ult=True)
    if tail.startswith("s"):
        return Column(prefix, sex, duration=int(tail[1:]))
    if prefix != "mi":
        return None  # year-indexed columns exist for improvement only
    return Column(prefix, sex, year=int(tail))


def check_columns(names: Sequence[str], meta: TableMeta, where: str) -> list[str]:
    """Check the header against the metadata; return the table's sexes.

    The sexes are the declared ones, or else those having rate columns, in file order.

    Only columns that are present are judged: a column that should be there but is not (a declared
    sex without rates, a generational table without improvement columns, a missing select duration
    or grid year) is left to the table classes, which report it for the sex actually requested.
    """
    if "age" not in names:
        raise TableFormatError(f"{where}: column 'age' missing (header, line 1)")
    seen: set[str] = set()
    rate_sexes: list[str] = []
    prefix = RATE_PREFIX[meta.table_type]
    for name in names:

        def bad(problem: str, name: str = name) -> TableFormatError:
            return TableFormatError(f"{where}: column {name!r} (header, line 1): {problem}")

        if name in seen:
            raise bad("appears twice")
        seen.add(name)
        if name == "age":
            continue
        col = parse_column(name)
        if col is None:
            raise bad("unknown column (age, qx/ix/ox_{sex}[_s{d}|_ult], mi_{sex}[_{year}|_s{d}|_ult])")
        if col.is_rate:
            _check_rate_column(col, meta, prefix, bad)
            if col.sex not in rate_sexes:
                rate_sexes.append(col.sex)
        else:
            _check_improvement_column(col, meta, bad)
    return list(meta.sexes) if meta.sexes is not None else rate_sexes


def _check_rate_column(col: Column, meta: TableMeta, prefix: str, bad: Callable[[str], Exception]) -> None:
    if col.prefix != prefix:
        raise bad(f"holds {col.prefix} rates, but a {meta.table_type} table holds {prefix} rates")
    if col.sex not in SEXES:
        raise bad(f"unknown sex {col.sex!r} (m, f or u)")
    if meta.sexes is not None and col.sex not in meta.sexes:
        raise bad(f"sex {col.sex!r} is not among the declared sexes {list(meta.sexes)}")
    if meta.sex_independent and col.sex != "u":
        raise bad("a sex-independent table holds only 'u' rates")
    if meta.select is None:
        if col.duration is not None or col.ult:
            raise bad("select column in a table without a [select] table")
    elif col.duration is None and not col.ult:
        raise bad(
            f"a select table holds {prefix}_{col.sex}_s{{d}} and {prefix}_{col.sex}_ult, not plain rates"
        )
    elif col.duration is not None and col.duration not in meta.select.durations:
        raise bad(f"duration {col.duration} outside the select durations {_span(meta.select.durations)}")


def _check_improvement_column(col: Column, meta: TableMeta, bad: Callable[[str], Exception]) -> None:
    if col.sex not in MI_SEXES:
        raise bad(f"unknown sex {col.sex!r} (m, f or u)")
    gen = meta.generational
    if gen is None:
        raise bad("improvement column in a table without a [generational] table")
    if meta.sexes is not None and col.sex not in meta.sexes:
        raise bad(f"sex {col.sex!r} is not among the declared sexes {list(meta.sexes)}")
    if col.year is not None:
        kind = "year_indexed"
    else:
        kind = "select_period" if col.duration is not None or col.ult else "flat"
    if kind != gen.mi_structure:
        raise bad(f"a {kind} improvement column, but mi_structure is {gen.mi_structure!r}")
    if col.year is not None and gen.grid_years is not None and col.year not in gen.grid_years:
        raise bad(f"year {col.year} is not in generational.grid_years")
    if col.duration is not None and meta.select is not None and col.duration not in meta.select.durations:
        raise bad(f"duration {col.duration} outside the select durations {_span(meta.select.durations)}")


def _span(r: range) -> str:
    return f"{r.start}..{r.stop - 1}"


# -- values -----------------------------------------------------------------------------------------
RowName = Callable[[int], str]


def convert_frame(data: pl.DataFrame, where: str, row_name: RowName) -> pl.DataFrame:
    """Return ``data`` with ``age`` as Int64 and every other column Float64, checking each cell."""
    if data.height == 0:
        raise TableFormatError(f"{where}: the table has no rows")
    ages = _to_ages(data["age"], where, row_name)
    _check_ages(ages, where, row_name)
    out = {"age": pl.Series("age", ages, dtype=pl.Int64)}
    for name in data.columns:
        if name != "age":
            out[name] = pl.Series(name, _to_floats(data[name], where, ages, row_name), dtype=pl.Float64)
    return pl.DataFrame(out).select(data.columns)


def _cell(where: str, column: str, row: str, problem: str) -> TableFormatError:
    return TableFormatError(f"{where}: column {column!r}, {row}: {problem}")


def _to_ages(series: pl.Series, where: str, row_name: RowName) -> np.ndarray:
    ages = np.empty(series.len(), dtype=np.int64)
    for i, value in enumerate(series.to_list()):
        age = _whole_number(value)
        if age is None:
            problem = "empty cell" if value is None else f"age {_short.repr(value)} is not a whole number"
            raise _cell(where, "age", row_name(i), problem)
        if abs(age) >= 10**18:  # far beyond any row count, and beyond the int64 column
            raise _cell(where, "age", row_name(i), f"age {_short.repr(value)} is out of range")
        ages[i] = age
    return ages


def read_decimal(text: str, *, bare_point: bool = False) -> float | None:
    """The number an ASCII decimal (``0.0125``, ``-3``, ``1.25e-05``) writes, else None.

    ``bare_point`` also takes a fraction without its leading zero (``.0144``). Underscores, other
    scripts' digits, full-width forms, ``inf`` and ``nan`` are no numbers here.
    """
    pattern = _BARE_POINT_NUMBER_RE if bare_point else _NUMBER_RE
    return float(text) if pattern.fullmatch(text) else None


def read_whole(text: str) -> int | None:
    """The integer that ASCII digits with an optional minus sign write (at most 19), else None."""
    return int(text) if _AGE_RE.fullmatch(text) else None


def _whole_number(value: object) -> int | None:
    if isinstance(value, str):
        return read_whole(value.strip())
    if isinstance(value, float):
        return int(value) if value.is_integer() else None
    return value if isinstance(value, int) and not isinstance(value, bool) else None


def _check_ages(ages: np.ndarray, where: str, row_name: RowName) -> None:
    bad = np.flatnonzero(ages != np.arange(len(ages)))
    if bad.size == 0:
        return
    i = int(bad[0])
    if i == 0:
        problem = (
            f"ages must start at 0, got {ages[0]}; give the ages below the first published one "
            f"rate 0 and set start_age = {ages[0]}"
        )
    elif ages[i] == ages[i - 1]:
        problem = f"age {ages[i]} appears twice"
    elif ages[i] < ages[i - 1]:
        problem = f"age {ages[i]} follows {ages[i - 1]}: ages must ascend"
    else:
        lo, hi = ages[i - 1] + 1, ages[i] - 1
        problem = f"age {ages[i]} follows {lo - 1}: " + (
            f"age {lo} missing" if lo == hi else f"ages {lo}..{hi} missing"
        )
    raise _cell(where, "age", row_name(i), problem)


def _to_floats(series: pl.Series, where: str, ages: np.ndarray, row_name: RowName) -> np.ndarray:
    def at(i: int) -> str:
        return f"age {ages[i]} ({row_name(i)})"

    if series.dtype == pl.Boolean or series.dtype.is_nested():
        raise _cell(where, series.name, at(0), f"{series.dtype} column, expected numbers")
    if series.dtype.is_numeric():
        nulls = np.flatnonzero(series.is_null().to_numpy())
        if nulls.size:
            raise _cell(where, series.name, at(int(nulls[0])), "empty cell")
        values = series.cast(pl.Float64).to_numpy()
    else:
        values = np.empty(series.len(), dtype=np.float64)
        try:
            text = series.cast(pl.String, strict=False).to_list()
        except pl.exceptions.PolarsError:
            raise _cell(where, series.name, at(0), f"{series.dtype} column, expected numbers") from None
        for i, cell in enumerate(text):
            if cell is None or not cell.strip():
                raise _cell(where, series.name, at(i), "empty cell")
            value = read_decimal(cell.strip())
            if value is None:
                problem = f"{_short.repr(cell.strip())} is not a number ({NUMBER_FORM})"
                raise _cell(where, series.name, at(i), problem)
            values[i] = value
    col = parse_column(series.name)
    if col is not None and col.is_rate:
        outside = np.flatnonzero(~((values >= 0.0) & (values <= 1.0)))
        if outside.size:
            i = int(outside[0])
            raise _cell(where, series.name, at(i), f"rate {float(values[i])!r} outside [0, 1]")
    else:
        bad = np.flatnonzero(~np.isfinite(values))
        if bad.size:
            i = int(bad[0])
            raise _cell(where, series.name, at(i), f"improvement {float(values[i])!r} is not finite")
    return values


def check_start_age(data: pl.DataFrame, start_age: int, where: str, row_name: RowName) -> None:
    """Rates below the first meaningful age must be 0, so that no age before it carries weight."""
    for name in data.columns:
        col = parse_column(name)
        if col is None or not col.is_rate:
            continue
        head = data[name].to_numpy()[:start_age]
        nonzero = np.flatnonzero(head != 0.0)
        if nonzero.size:
            i = int(nonzero[0])
            problem = f"rate {float(head[i])!r} below start_age {start_age} (must be 0)"
            raise _cell(where, name, f"age {i} ({row_name(i)})", problem)


# -- files ------------------------------------------------------------------------------------------
def read_csv_cells(handle: Iterable[str], where: str) -> tuple[pl.DataFrame, list[int]]:
    """Read a table CSV into a frame of text cells (empty cells as null), checking its shape.

    Returns the frame and the line number of each of its rows, for messages.
    """
    reader = csv.reader(handle)
    try:
        return _read_rows(reader, where)
    except csv.Error as exc:  # e.g. a field beyond the csv module's size limit
        raise TableFormatError(f"{where}: line {reader.line_num}: {exc}") from None


def _read_rows(reader: Any, where: str) -> tuple[pl.DataFrame, list[int]]:
    header = [cell.strip() for cell in next(reader, [])]
    if not header or any(not name for name in header):
        raise TableFormatError(f"{where}: line 1: the header needs a name for every column")
    cells: list[list[str | None]] = [[] for _ in header]
    lines: list[int] = []
    for row in reader:
        if not row or all(not c.strip() for c in row):
            continue  # blank lines carry nothing
        if len(row) != len(header):
            column = header[len(row)] if len(row) < len(header) else header[-1]
            raise TableFormatError(
                f"{where}: column {column!r}, line {reader.line_num}: {len(row)} fields, "
                f"the header has {len(header)}"
            )
        lines.append(reader.line_num)
        for target, cell in zip(cells, row, strict=True):
            target.append(cell.strip() or None)
    if len(set(header)) != len(header):
        dup = next(n for n in header if header.count(n) > 1)
        raise TableFormatError(f"{where}: column {dup!r} (header, line 1): appears twice")
    return pl.DataFrame([pl.Series(n, c, dtype=pl.String) for n, c in zip(header, cells, strict=True)]), lines


def format_cell(value: object) -> str:
    """Text of one CSV cell: floats in shortest round-trip form, so the file keeps every bit."""
    if value is None:
        return ""
    if isinstance(value, (bool, np.bool_)):
        return str(value)
    if isinstance(value, (int, np.integer)):
        return str(int(value))
    if isinstance(value, (float, np.floating)):
        return repr(float(value))
    return str(value)


def csv_text(columns: Mapping[str, Iterable[object]]) -> str:
    cells = {name: [format_cell(v) for v in values] for name, values in columns.items()}
    lengths = {len(c) for c in cells.values()}
    if len(lengths) > 1:
        raise ValueError(f"columns differ in length: { {n: len(c) for n, c in cells.items()} }")
    out = io.StringIO()
    writer = csv.writer(out, lineterminator="\n")
    writer.writerow(cells)
    writer.writerows(zip(*cells.values(), strict=True))
    return out.getvalue()


def _toml_value(value: object, key: str) -> str:
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, int):
        return str(value)
    if isinstance(value, float):
        if math.isnan(value):
            return "nan"
        return repr(value) if math.isfinite(value) else ("-inf" if value < 0 else "inf")
    if isinstance(value, str):
        return json.dumps(value, ensure_ascii=False)  # JSON string escapes are valid TOML
    if isinstance(value, (list, tuple)):
        return "[" + ", ".join(_toml_value(v, key) for v in value) + "]"
    raise TypeError(f"metadata key {key!r}: cannot write {type(value).__name__} to TOML")


def toml_text(metadata: Mapping[str, Any]) -> str:
    """Serialise the (two-level) metadata mapping; tables go after the top-level keys."""
    lines = [f"{k} = {_toml_value(v, k)}" for k, v in metadata.items() if not isinstance(v, Mapping)]
    for name, table in metadata.items():
        if isinstance(table, Mapping):
            lines += ["", f"[{name}]"]
            lines += [f"{k} = {_toml_value(v, f'{name}.{k}')}" for k, v in table.items()]
    return "\n".join(lines) + "\n"
