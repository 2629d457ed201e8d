"""Reading a frame of policies: column checks, table lookup and the grouping by table.

Each policy names its table and the keys that table needs; the checks here say which column and
which row (0-based position in the frame) is wrong, before any table is built.
"""

from __future__ import annotations

from collections.abc import Collection, Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
import polars as pl

from veltrane._frames import from_pandas, is_pandas_frame
from veltrane.tables.source import TableSource

__all__ = ["PolicyBatch", "TableGroup", "read_policies"]

REQUIRED = ("table_name", "sex")
#: The age columns, of which a frame gives exactly one: the attained age at the start of the
#: projection, or the age at issue (the attained age is then derived from the duration).
AGE_COLUMNS = ("age", "issue_age")
#: Every column a frame may have; any other is refused rather than silently ignored.
COLUMNS = (*REQUIRED, *AGE_COLUMNS, "cohort", "issue_year", "duration", "unisex_blend")
SEXES = ("m", "f", "u")
_MAX_AGE = 10_000
# Whole numbers beyond this are refused: every one up to it is exact as a float, and sums of
# two of them (issue_year - issue_age, issue_age + years) cannot overflow 64 bits.
_MAX_WHOLE = 2**53


@dataclass(frozen=True)
class TableGroup:
    """The policies that share one table: its name and keys, and what its file says.

    A blended group (sex "u" with a ``unisex_blend`` weight) holds policies of any weights: each
    policy's weight is in :attr:`PolicyBatch.blend`, and its rates are mixed from the male and
    female tables of the group's keys.
    """

    table_name: str
    sex: str
    cohort: int | None
    blended: bool
    table_type: str
    select: bool
    start_duration: int  # first select duration (1 when the table has none)
    select_period: int  # number of select columns (0 for a table without them)
    first_row: int  # the first policy of the group, for messages


@dataclass(frozen=True)
class PolicyBatch:
    """The policies as arrays: each one's table group, its age, its select duration offset and
    its unisex blend weight."""

    groups: tuple[TableGroup, ...]
    group: np.ndarray  # int32 index into groups, one per policy
    age: np.ndarray  # int32 age at the start of the projection
    duration_offset: np.ndarray  # int32 select duration at the start less the table's first one
    blend: np.ndarray | None  # float64 male weight, NaN off blended groups; None when no policy blends

    def __len__(self) -> int:
        return int(self.group.shape[0])


def _bad(column: str, row: int, problem: str) -> ValueError:
    return ValueError(f"policies: column {column!r}, row {row}: {problem}")


def _as_frame(policies: Any) -> pl.DataFrame:
    if isinstance(policies, pl.DataFrame):
        return policies
    if isinstance(policies, Mapping):
        try:
            return pl.DataFrame(dict(policies))
        except (TypeError, pl.exceptions.PolarsError) as exc:
            raise ValueError(f"policies: the columns do not make a frame: {exc}") from exc
    if is_pandas_frame(policies):
        return from_pandas(policies, "policies")
    module = type(policies).__module__
    raise TypeError(f"policies must be a polars or pandas DataFrame (or a mapping of columns), got {module}")


def _first(mask: pl.Series) -> int:
    return int(mask.arg_true()[0])


def _no_nulls(frame: pl.DataFrame, column: str) -> None:
    if frame[column].null_count():
        raise _bad(column, _first(frame[column].is_null()), "missing value")


def _strings(frame: pl.DataFrame, column: str) -> pl.Series:
    series = frame[column]
    if series.dtype == pl.Categorical or series.dtype == pl.Enum:
        series = series.cast(pl.String)
    if series.dtype != pl.String:
        raise ValueError(f"policies: column {column!r} must hold text, got {series.dtype}")
    return series


def _integers(frame: pl.DataFrame, column: str, *, nullable: bool) -> pl.Series:
    """The column as Int64; floats are accepted when whole (NaN counts as missing)."""
    series = frame[column]
    if series.dtype == pl.Null:
        return series.cast(pl.Int64)
    if series.dtype.is_float():
        series = series.fill_nan(None)  # pandas marks missing numbers with NaN
        finite = series.is_finite().fill_null(True)
        whole = (series.fill_nan(0.5).round(0) == series.fill_nan(0.5)).fill_null(True)
        bad = ~(finite & whole)
        if bad.any():
            row = _first(bad)
            raise _bad(column, row, f"{series[row]!r} is not a whole number")
    elif not series.dtype.is_integer():
        raise ValueError(f"policies: column {column!r} must hold whole numbers, got {series.dtype}")
    # Compared as floats: an unsigned or float value may not fit in Int64. The extremes are read
    # first; the mask is only made to name the row.
    low, high = series.min(), series.max()
    if low is not None and (float(low) < -_MAX_WHOLE or float(high) > _MAX_WHOLE):  # type: ignore[arg-type]
        huge = (series.cast(pl.Float64).abs() > _MAX_WHOLE).fill_null(False)
        row = _first(huge)
        raise _bad(column, row, f"{series[row]!r} is out of range")
    if not nullable and series.null_count():
        raise _bad(column, _first(series.is_null()), "missing value")
    return series.cast(pl.Int64)


def _source(name: str, row: int) -> TableSource:
    try:
        return TableSource(name)
    except FileNotFoundError as exc:
        raise _bad("table_name", row, f"unknown table {name!r} ({exc})") from exc
    except (OSError, ValueError) as exc:
        raise _bad("table_name", row, f"table {name!r} cannot be read: {exc}") from exc


def read_policies(policies: Any, other_columns: Collection[str] = ()) -> PolicyBatch:
    """Check a frame of policies and group them by table.

    Columns: ``table_name`` and ``sex`` (text); the age as exactly one of ``age`` (whole number,
    the attained age at the start of the projection) or ``issue_age`` (the age at issue: the
    attained age is ``issue_age`` plus the years since issue, ``duration`` less the first
    duration); ``cohort`` (year of birth) or, with ``issue_age``, ``issue_year`` (calendar year
    of issue) for generational tables; ``duration`` (select duration at the start; on other
    tables the policy year from 1, read only with ``issue_age``) for select tables;
    ``unisex_blend`` (male weight) for sex "u" on tables without a unisex column. Columns that a
    policy's table does not need are ignored for it; columns not named here are refused, but for
    ``other_columns`` (read by the caller).
    """
    frame = _as_frame(policies)
    unknown = [c for c in frame.columns if c not in COLUMNS and c not in other_columns]
    if unknown:
        listed = ", ".join(repr(c) for c in unknown)
        raise ValueError(
            f"policies: unknown column{'s' if len(unknown) > 1 else ''} {listed}; the columns read are "
            f"{', '.join(repr(c) for c in COLUMNS)} (drop the others before projecting)"
        )
    missing = [c for c in REQUIRED if c not in frame.columns]
    given = [c for c in AGE_COLUMNS if c in frame.columns]
    if missing or len(given) != 1:
        ages = "one of 'age' (at the start) and 'issue_age' (at issue)"
        wanted = ", ".join(repr(c) for c in missing) + (" and " if missing and len(given) != 1 else "")
        wanted += "" if len(given) == 1 else (f"{ages}, not both" if given else ages)
        raise ValueError(f"policies: columns needed: {wanted}; the columns are {frame.columns}")
    age_column = given[0]
    if frame.height == 0:
        raise ValueError("policies: the frame has no rows")
    for column in (*REQUIRED, age_column):
        _no_nulls(frame, column)
    names = _strings(frame, "table_name")
    sexes = _strings(frame, "sex")
    age = _integers(frame, age_column, nullable=False)
    _check_ages(age, age_column)
    if age_column == "age" and "issue_year" in frame.columns:
        raise ValueError(
            "policies: column 'issue_year' is the calendar year of issue and needs 'issue_age'; "
            "with 'age' give the year of birth as 'cohort'"
        )
    cohort = _cohorts(frame, age)
    blend = _blends(frame)

    # Text is handled once per distinct key, not once per policy: the policies are grouped by
    # their keys as given, each key is checked, and keys that name the same table are merged.
    # The weight is not part of the key (only whether there is one): distinct weights cost a
    # number per policy, not a table each.
    columns: dict[str, pl.Series] = {"table_name": names, "sex": sexes}
    if cohort is not None:
        columns["cohort"] = cohort
    if blend is not None:
        columns["blended"] = blend.is_not_null()
    keys = pl.DataFrame(columns).with_row_index("row")
    # Each policy's group is numbered by the first row of its key, in order of first rows.
    first_row = keys.select(pl.col("row").first().over(list(columns))).to_series().to_numpy()
    starts = first_row == np.arange(frame.height)
    raw_group = (np.cumsum(starts) - 1)[first_row]
    # Each key as given, with the first row that gives it.
    firsts = np.flatnonzero(starts)
    take = pl.Series(firsts)
    count = len(firsts)
    described = zip(
        names.gather(take).to_list(),
        sexes.gather(take).to_list(),
        cohort.gather(take).to_list() if cohort is not None else [None] * count,
        columns["blended"].gather(take).to_list() if blend is not None else [False] * count,
        firsts.tolist(),
        strict=True,
    )
    sources: dict[str, TableSource] = {}
    merged: dict[tuple[str, str, int | None, bool], int] = {}
    groups: list[TableGroup] = []
    remap = np.empty(count, dtype=np.int32)
    for raw, (name, sex_given, coh, blended, first) in enumerate(described):
        sex = sex_given.lower()
        if sex not in SEXES:
            raise _bad("sex", first, f"{sex_given!r} is not one of 'm', 'f', 'u'")
        if blended and sex != "u":
            raise _bad("unisex_blend", first, f"a blend is only valid for sex 'u', not {sex!r}")
        source = sources.get(name) or sources.setdefault(name, _source(name, first))
        if source.generational and coh is None:
            raise _bad("cohort", first, "a generational table needs a year of birth (cohort or issue_year)")
        key = (name, sex, int(coh) if source.generational else None, bool(blended))
        g = merged.get(key)
        if g is None:
            g = merged[key] = len(groups)
            groups.append(
                TableGroup(
                    table_name=name,
                    sex=sex,
                    cohort=key[2],
                    blended=key[3],
                    table_type=source.table_type,
                    select=bool(source.select),
                    start_duration=int(source.start_duration or 1),
                    select_period=int(source.select_period or 0) if source.select else 0,
                    first_row=int(first),
                )
            )
        remap[raw] = g
    group = remap[raw_group]
    offset = _duration_offsets(frame, group, groups)
    attained = age.to_numpy()
    if age_column == "issue_age":
        attained = attained + _years_since_issue(frame, group, groups, offset)
        _check_ages(pl.Series(attained), "duration", "issue_age + years since issue = ")
    weights = None
    if blend is not None and any(g.blended for g in groups):
        weights = np.ascontiguousarray(blend.fill_null(float("nan")).to_numpy(), dtype=np.float64)
    return PolicyBatch(tuple(groups), group, attained.astype(np.int32), offset, weights)


def _check_ages(age: pl.Series, column: str, what: str = "") -> None:
    low, high = age.min(), age.max()
    if low is None or (low >= 0 and high <= _MAX_AGE):  # type: ignore[operator]
        return
    if (age < 0).any():
        row = _first(age < 0)
        raise _bad(column, row, f"{what}{age[row]} is negative")
    if (age > _MAX_AGE).any():
        row = _first(age > _MAX_AGE)
        raise _bad(column, row, f"{what}{age[row]} is not an age")


def _years_since_issue(
    frame: pl.DataFrame, group: np.ndarray, groups: list[TableGroup], offset: np.ndarray
) -> np.ndarray:
    """Whole years from issue to the start: the select offset on select tables, and on others the
    policy year less 1 (0 where no duration is given)."""
    select = np.array([g.select for g in groups], dtype=bool)[group]
    years = offset.astype(np.int64)
    if select.all() or "duration" not in frame.columns:
        return years
    policy_year = _integers(frame, "duration", nullable=True)
    early = (~select) & (policy_year < 1).fill_null(False).to_numpy()
    if early.any():
        row = int(np.argmax(early))
        raise _bad("duration", row, f"{policy_year[row]} is not a policy year (they count from 1)")
    return np.where(select, years, policy_year.fill_null(1).to_numpy() - 1)


def _duration_offsets(frame: pl.DataFrame, group: np.ndarray, groups: list[TableGroup]) -> np.ndarray:
    """Each policy's select duration at the start less its table's first one (0 off select tables)."""
    select = np.array([g.select for g in groups], dtype=bool)[group]
    if not select.any():
        return np.zeros(frame.height, dtype=np.int32)
    if "duration" not in frame.columns:
        raise _bad(
            "duration", int(np.argmax(select)), "a select table needs a select duration (column 'duration')"
        )
    series = _integers(frame, "duration", nullable=True)
    if series.null_count():
        lacking = select & series.is_null().to_numpy()
        if lacking.any():
            raise _bad("duration", int(np.argmax(lacking)), "a select table needs a select duration")
        series = series.fill_null(0)
    duration = series.to_numpy()
    start = np.array([g.start_duration for g in groups], dtype=np.int64)[group]
    low = select & (duration < start)
    if low.any():
        row = int(np.argmax(low))
        raise _bad(
            "duration", row, f"{duration[row]} is below the table's first select duration {start[row]}"
        )
    # Past the select period every duration reads the ultimate column: keep the offset small.
    offset = np.where(select, np.minimum(duration - start, 1_000_000), 0)
    return offset.astype(np.int32)


def _cohorts(frame: pl.DataFrame, age: pl.Series) -> pl.Series | None:
    if "cohort" in frame.columns:
        cohort = _integers(frame, "cohort", nullable=True)
        if "issue_year" in frame.columns:
            year = _integers(frame, "issue_year", nullable=True)
            derived = year - age
            clash = (cohort.is_not_null() & derived.is_not_null() & (cohort != derived)).fill_null(False)
            if clash.any():
                row = _first(clash)
                raise _bad(
                    "cohort", row, f"{cohort[row]} disagrees with issue_year - issue_age = {derived[row]}"
                )
            cohort = cohort.fill_null(derived)
        return cohort
    if "issue_year" in frame.columns:
        return _integers(frame, "issue_year", nullable=True) - age
    return None


def _blends(frame: pl.DataFrame) -> pl.Series | None:
    if "unisex_blend" not in frame.columns:
        return None
    blend = frame["unisex_blend"]
    if not (blend.dtype.is_numeric() or blend.dtype == pl.Null):
        raise ValueError(f"policies: column 'unisex_blend' must hold numbers, got {blend.dtype}")
    blend = blend.cast(pl.Float64).fill_nan(None)
    out_of_range = ((blend < 0.0) | (blend > 1.0)).fill_null(False)
    if out_of_range.any():
        row = _first(out_of_range)
        raise _bad("unisex_blend", row, f"{blend[row]!r} is not in [0.0, 1.0]")
    return blend
