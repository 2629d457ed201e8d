"""Period views of tables: the rates in force in one calendar year."""

from __future__ import annotations

from typing import Any

import numpy as np
from numpy.typing import NDArray

from veltrane.tables.base import _current_calendar_year
from veltrane.tables.source import TableSource

__all__ = ["period_rates"]


def _table_class(table_type: str) -> Any:
    from veltrane.tables.disability import DisabilityTable
    from veltrane.tables.exit import ExitTable
    from veltrane.tables.life import LifeTable

    classes = {"life": LifeTable, "disability": DisabilityTable, "exit": ExitTable}
    if table_type not in classes:
        raise ValueError(f"Unknown table_type {table_type!r}")
    return classes[table_type]


def period_rates(
    table_name: str,
    sex: str,
    year: int,
    *,
    duration: int | str | None = None,
    unisex_blend: float | None = None,
) -> NDArray[np.float64]:
    """Return the one-year rates of calendar year ``year`` for every age of a table.

    On a generational table age x reads the rate of the cohort born in ``year - x`` at age x, so
    the vector is the diagonal of the cohort tables that a period (cross-sectional) view of
    mortality shows. Any calendar year from 1000 to 3000 is accepted, including years whose
    birth cohorts lie outside the years a table constructor accepts: the projection formula is
    applied to them directly. A table that is not generational has the same rates in every
    year: they are returned as they are.

    Parameters
    ----------
    table_name : str
        The table's name.
    sex : {"m", "f", "u"}
        The sex; ``"u"`` needs a native unisex column or ``unisex_blend``.
    year : int
        The calendar year.
    duration : int or "ult", optional
        For a select table, the duration column to read (default ``"ult"``).
    unisex_blend : float, optional
        The male weight of a blended unisex table: each sex is projected, then blended.

    Returns
    -------
    ndarray of float64
        The rates by age 0 .. w, rounded as the table's rates are.

    Examples
    --------
    >>> from veltrane.tables.period import period_rates
    >>> q2030 = period_rates("DEMO_GEN", "m", 2030)  # doctest: +SKIP
    """
    source = TableSource(table_name)
    cls = _table_class(source.table_type)
    keys: dict[str, Any] = {"unisex_blend": unisex_blend}
    if source.generational:
        # Any cohort the constructor accepts will do: the view replaces it age by age.
        base = source.base_year if source.base_year is not None else 1900
        keys["cohort"] = min(max(int(base), 1900), _current_calendar_year())
    if source.select:
        keys["duration"] = "ult" if duration is None else duration
    elif duration is not None:
        raise ValueError(
            f"duration is only valid for select tables. Table '{table_name}' is not a select table."
        )
    table = cls(table_name, sex, **keys)
    rates: NDArray[np.float64] = table._period_decrement(year)
    return rates
