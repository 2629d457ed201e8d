"""The select path of a select-and-ultimate table: the rates of one life selected at a given age.

A select table keeps one duration column per table, so ``tpx(60, 3)`` at duration 1 reads the
first-year column for all three years. The path follows the diagonal instead: the life selected
at age x experiences q[x], q[x]+1, ... through the select period, then the ultimate column. It is
returned as a period table of the same class, so every function (tpx, ex, annuities,
insurances) applies to that life.
"""

from __future__ import annotations

import copy
import numbers
from typing import Any

import numpy as np
import polars as pl

from veltrane.tables.source import TableSource

__all__ = ["select_path", "select_path_origin"]


def select_path_origin(source: TableSource) -> tuple[Any, int, int | None] | None:
    """(select table, issue age, years) of a select path's source, or None for any other source.

    The select table is an unmodified copy taken when the path was made, so that the path can be
    rebuilt (in another process, for instance) whatever becomes of the original.
    """
    return getattr(source, "_path_origin", None)


def select_path(self: Any, issue_age: int, years: int | None = None) -> Any:
    """Return the rates of a life selected at ``issue_age`` as a period table of the same class.

    The new table reads, at the attained age ``issue_age + k``, the rate of duration
    ``start_duration + k`` while that lies within the select period, and the ultimate rate after
    it. Ages below ``issue_age`` carry no decrement and lie below the new table's ``start_age``,
    so functions there are as for any age below a table's first age. The new table keeps this
    table's class, sex, cohort rates, unisex blend and subclass settings (a life table's
    ``interest_rate``); its name is ``NAME[issue_age]`` and it can be modified like any table.

    Parameters
    ----------
    issue_age : int
        The age at selection, from the table's ``start_age`` to its last age.
    years : int, optional
        Follow the path for this many years: the new table ends at age ``issue_age + years``
        (at most the table's last age), where, as at the end of any table, every life leaves.
        Values over a term of at most ``years`` years are those of the full path; a whole-life
        value (``ex``, a whole-life annuity) is not. None follows the path to the end of the
        table.

    Returns
    -------
    DecrementTable
        A period table of the same class as this one.

    Raises
    ------
    ValueError
        The table is not select-and-ultimate, carries modifications (they belong on the path:
        call ``modify_qx`` on the result), or an argument is out of range.
    """
    self._ensure_ready("select_path")
    if not self._table.select:
        raise ValueError(f"select_path needs a select-and-ultimate table; {self.table_name!r} is not one")
    if self.modified:
        raise ValueError(
            "select_path reads the select rates before modifications; call it on the unmodified table "
            "and modify the path it returns"
        )
    first, last = int(self._table.start_age), int(self._table.w)
    x = _whole_number("issue_age", issue_age, first, last)
    end = last if years is None else min(last, x + _whole_number("years", years, 0, None))
    path = np.zeros(last + 1)
    for duration, ages in _durations(self._table, x, end):
        path[ages] = _rates_at(self, duration)[ages]
    result = _period_table(self, x, path[: end + 1])
    result._table._path_origin = (copy.copy(self), x, None if years is None else end - x)
    return result


def _whole_number(name: str, value: object, low: int, high: int | None) -> int:
    if isinstance(value, bool) or not isinstance(value, numbers.Integral):
        raise TypeError(f"select_path: {name} must be an integer, got {type(value).__name__}")
    number = int(value)
    if number < low or (high is not None and number > high):
        bounds = f"from {low} to {high}" if high is not None else f">= {low}"
        raise ValueError(f"select_path: {name} must be {bounds}, got {number}")
    return number


def _durations(source: TableSource, x: int, end: int) -> list[tuple[int | str, slice]]:
    """(duration, attained ages) along the diagonal from age x to age end."""
    start = source.start_duration if source.start_duration is not None else 1
    period = int(source.select_period or 0)
    steps: list[tuple[int | str, slice]] = [
        (start + k, slice(x + k, x + k + 1)) for k in range(min(period, end - x + 1))
    ]
    if x + period <= end:
        steps.append(("ult", slice(x + period, end + 1)))
    return steps


def _rates_at(table: Any, duration: int | str) -> np.ndarray:
    if table.duration == duration:
        rates: np.ndarray = table._decrement
        return rates
    column = copy.copy(table)
    column.duration = duration
    rates = column._decrement
    return rates


def _period_table(table: Any, x: int, rates: np.ndarray) -> Any:
    source = table._table
    sex = table.sex
    prefix = type(table)._DECREMENT_PREFIX_MAP[table.table_type]
    described = f"{table.table_name} ({sex}{_keys_text(table)})"
    metadata: dict[str, Any] = {
        "table_type": table.table_type,
        "description": f"Select path of {described} for a life selected at age {x}: the select "
        f"rates along the diagonal, then the ultimate rates.",
        "sexes": [sex],
        "sex_independent": bool(source.sex_independent),
        "omega": len(rates) - 1,
        "start_age": x,
    }
    if "source" in source.metadata:
        metadata["source"] = dict(source.metadata["source"])
    data = pl.DataFrame({"age": np.arange(len(rates), dtype=np.int64), f"{prefix}_{sex}": rates})
    path_source = TableSource.from_frame(f"{table.table_name}[{x}]", metadata, data)

    path = copy.copy(table)  # keeps the class and its own settings (a life table's interest rate)
    path._table = path_source
    path._table_is_private_copy = True
    path._cohort = None
    path._duration = None
    path._select_duration_set = False
    path._unisex_blend = None
    path._cause_split = None
    path._decrement_base = rates.copy()
    path.reset_modifications()  # the rates, w and the caches from the new source
    return path


def _keys_text(table: Any) -> str:
    keys = []
    if table.cohort is not None:
        keys.append(f"born {table.cohort}")
    if table.unisex_blend is not None:
        keys.append(f"blend {table.unisex_blend:g}")
    return "".join(f", {key}" for key in keys)
