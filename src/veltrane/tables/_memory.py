"""Tables given as data in memory: shaping a frame or a rate vector into the table format.

A frame whose ages start above 0 is given rows of rate 0 below its first age, which becomes
``start_age`` (nothing is filled with made-up rates); survivor columns ``lx_{sex}`` become
one-year rates ``{prefix}_{sex}``, closed at the last age.
"""

from __future__ import annotations

import re
from collections.abc import Mapping, Sequence
from typing import Any

import numpy as np
import polars as pl

from veltrane.tables import _table_format as fmt

_LX_COLUMN = re.compile(r"lx_([a-z]+)")


def rates_from_lx(lx: Sequence[float] | np.ndarray, where: str, column: str) -> np.ndarray:
    """One-year rates ``1 - l(x+1) / l(x)`` from survivors; 1 at the last age and wherever l(x) is 0."""
    values = np.asarray(lx, dtype=np.float64)
    if values.ndim != 1 or values.size == 0:
        raise fmt.TableFormatError(f"{where}: column {column!r}: survivors must be a non-empty vector")
    bad = np.flatnonzero(~np.isfinite(values) | (values < 0.0))
    if bad.size:
        i = int(bad[0])
        value = (
            "no number (an empty cell or NaN)" if np.isnan(values[i]) else f"survivors {float(values[i])!r}"
        )
        raise fmt.TableFormatError(
            f"{where}: column {column!r}, row {i + 1}: {value} (expected a number >= 0)"
        )
    if values[0] <= 0.0:
        # Nobody alive at the first age: there is no table to speak of, only rates of 1.
        raise fmt.TableFormatError(
            f"{where}: column {column!r}, row 1: survivors at the first age must be > 0"
        )
    rising = np.flatnonzero(np.diff(values) > 0.0)
    if rising.size:
        i = int(rising[0]) + 1
        raise fmt.TableFormatError(
            f"{where}: column {column!r}, row {i + 1}: survivors rise from {values[i - 1]!r} to {values[i]!r}"
        )
    q = np.ones_like(values)
    alive = values[:-1] > 0.0
    q[:-1][alive] = 1.0 - values[1:][alive] / values[:-1][alive]
    return np.clip(q, 0.0, 1.0)


def shape_frame(
    data: pl.DataFrame, metadata: Mapping[str, Any], where: str
) -> tuple[pl.DataFrame, dict[str, Any], int]:
    """The frame with lx columns as rates and rows from age 0; the metadata with ``start_age``;
    the number of rows added at the top (so that messages can count the caller's rows)."""
    meta = dict(metadata)
    prefix = fmt.RATE_PREFIX.get(meta.get("table_type", ""), "qx")
    renamed = {}
    for name in data.columns:
        match = _LX_COLUMN.fullmatch(name)
        if match is None:
            continue
        target = f"{prefix}_{match[1]}"
        if target in data.columns:
            raise fmt.TableFormatError(f"{where}: columns {name!r} and {target!r} give the same rates twice")
        try:
            survivors = data[name].cast(pl.Float64, strict=True).to_numpy()
        except pl.exceptions.PolarsError:
            raise fmt.TableFormatError(f"{where}: column {name!r}: survivors must be numbers") from None
        renamed[name] = (target, rates_from_lx(survivors, where, name))
    if renamed:
        order = [renamed[c][0] if c in renamed else c for c in data.columns]  # each in its place
        data = data.with_columns(pl.Series(target, q) for target, q in renamed.values()).select(order)
    if "age" not in data.columns or data.height == 0 or not data["age"].dtype.is_integer():
        return data, meta, 0
    first = data["age"][0]
    if first is None or first <= 0:
        return data, meta, 0
    if first > fmt.MAX_FIRST_AGE:
        raise fmt.TableFormatError(
            f"{where}: column 'age', row 1: the first age {first} is above {fmt.MAX_FIRST_AGE}; "
            "the ages below it would all be rows of rate 0"
        )
    start = meta.get("start_age")
    if isinstance(start, int) and not isinstance(start, bool) and start < first:
        raise fmt.TableFormatError(
            f"{where}: key 'start_age': {start} lies below the first age given, {first}"
        )
    if start is None:
        meta["start_age"] = first
    padding = pl.DataFrame(
        [pl.Series("age", range(first), dtype=data["age"].dtype)]
        + [pl.Series(c, [0] * first).cast(data[c].dtype) for c in data.columns if c != "age"]
    )
    return pl.concat([padding, data], how="vertical"), meta, first


def frame_from_rates(
    rates: Sequence[float] | np.ndarray | Mapping[str, Sequence[float] | np.ndarray],
    prefix: str,
    start_age: int,
) -> pl.DataFrame:
    """A frame of rates by age from ``start_age``: one vector (sex "u") or one per sex."""
    by_sex = dict(rates) if isinstance(rates, Mapping) else {"u": rates}
    vectors = {sex: np.asarray(v, dtype=np.float64) for sex, v in by_sex.items()}
    lengths = {v.shape for v in vectors.values()}
    if len(lengths) != 1 or len(next(iter(lengths))) != 1:
        raise ValueError(f"rates must be vectors of one length, got shapes {sorted(lengths)}")
    n = next(iter(vectors.values())).size
    return pl.DataFrame(
        [pl.Series("age", range(start_age, start_age + n), dtype=pl.Int64)]
        + [pl.Series(f"{prefix}_{sex}", v) for sex, v in vectors.items()]
    )


def rate_vector(values: Any, label: str) -> np.ndarray:
    """A non-empty vector of rates, as float64; ValueError naming ``label`` otherwise."""
    try:
        vector = np.asarray(values, dtype=np.float64)
    except (TypeError, ValueError):
        raise ValueError(f"{label} must be a vector of numbers") from None
    if vector.ndim != 1 or vector.size == 0:
        raise ValueError(f"{label} must be a non-empty vector of numbers, got shape {vector.shape}")
    return vector


def _grid(select: Any) -> np.ndarray:
    """A select block as a float64 matrix, None and NaN as NaN; rows of one length."""
    rows = [list(row) for row in select] if not isinstance(select, np.ndarray) else None
    if rows is not None:
        if not rows:
            raise ValueError("select must have at least one row (a row per selection age)")
        lengths = [len(row) for row in rows]
        for k, size in enumerate(lengths):
            if size != lengths[0]:
                raise ValueError(
                    f"select: every row must have one cell per duration; row {k + 1} has {size}, row 1 has "
                    f"{lengths[0]}"
                )
        select = [[np.nan if cell is None else cell for cell in row] for row in rows]
    try:
        grid = np.asarray(select, dtype=np.float64)
    except (TypeError, ValueError):
        raise ValueError("select must hold numbers, or None (or NaN) for empty cells") from None
    if grid.ndim != 2 or grid.shape[1] == 0:
        raise ValueError(
            "select must be a matrix (a row per selection age, a column per duration), "
            f"got shape {grid.shape}"
        )
    return grid


def _rates_from_survivors(
    grid: np.ndarray, ultimate: np.ndarray, first_select: int, first_ultimate: int
) -> tuple[np.ndarray, np.ndarray]:
    """Select rates q[x]+t = 1 - l[x]+t+1 / l[x]+t (the last duration ending on l(x + k) of the
    ultimate column) and ultimate rates 1 - l(y + 1) / l(y), 1 at the last age."""
    rows, k = grid.shape
    ult_q = rates_from_lx(ultimate, "from_select_grid", "ultimate")
    nxt = np.full(grid.shape, np.nan)
    nxt[:, :-1] = grid[:, 1:]
    for r in range(rows):
        y = first_select + r + k
        if first_ultimate <= y < first_ultimate + ultimate.size:
            nxt[r, -1] = ultimate[y - first_ultimate]
    with np.errstate(divide="ignore", invalid="ignore"):
        q = 1.0 - nxt / grid
    return q, ult_q


def select_frame(
    select: Any,
    ultimate: Any,
    *,
    first_select_age: int,
    first_ultimate_age: int,
    prefix: str,
    sex: str,
    survivors: bool,
) -> tuple[pl.DataFrame, dict[str, Any]]:
    """The columns by attained age (``{prefix}_{sex}_s{d}`` and ``_ult``) of a select block printed
    by selection age, and the select metadata."""
    for label, age in (("first_select_age", first_select_age), ("first_ultimate_age", first_ultimate_age)):
        if (
            isinstance(age, bool)
            or not isinstance(age, int | np.integer)
            or not 0 <= age <= fmt.MAX_FIRST_AGE
        ):
            raise ValueError(f"{label} must be a whole number in 0..{fmt.MAX_FIRST_AGE}, got {age!r}")
    grid = _grid(select)
    ult = rate_vector(ultimate, "ultimate")
    if survivors:
        grid, ult = _rates_from_survivors(grid, ult, first_select_age, first_ultimate_age)
    rows, k = grid.shape
    if first_ultimate_age > first_select_age + k:
        raise ValueError(
            f"ultimate rates start at age {first_ultimate_age}, after the select period of the first "
            "selection "
            f"age ends (age {first_select_age + k}): that life would have no rates in between"
        )
    last = first_ultimate_age + ult.size - 1
    if first_select_age + rows - 1 + k - 1 > last:
        raise ValueError(
            f"select: the select cells reach age {first_select_age + rows + k - 2}, "
            f"above the last ultimate age {last}"
        )
    first = min(first_select_age, first_ultimate_age)
    ages = np.arange(first, last + 1)
    ult_column = np.zeros(ages.size)
    ult_column[first_ultimate_age - first :] = ult
    columns = {}
    for t in range(k):
        column = np.zeros(ages.size)
        for index, y in enumerate(ages):
            x = int(y) - t
            cell = (
                grid[x - first_select_age, t] if first_select_age <= x < first_select_age + rows else np.nan
            )
            if not np.isnan(cell):
                column[index] = cell
            elif y >= first_ultimate_age:
                column[index] = ult_column[index]
            elif first_select_age <= x < first_select_age + rows:
                raise ValueError(
                    f"select: the empty cell at selection age {x}, duration {t + 1} "
                    f"(attained age {y}) has no "
                    "ultimate rate to fill it"
                )
        columns[f"{prefix}_{sex}_s{t + 1}"] = column
    columns[f"{prefix}_{sex}_ult"] = ult_column
    frame = pl.DataFrame({"age": ages.astype(np.int64), **columns})
    metadata = {"select": {"period": k, "start_duration": 1}, "sexes": [sex], "start_age": first}
    return frame, metadata
