"""Life tables: one-year mortality rates q by age."""

from __future__ import annotations

import math
from collections.abc import Callable, Mapping
from numbers import Real
from typing import ClassVar

from veltrane.tables.base import SexInput
from veltrane.tables.typed import Blends, Cohorts, Durations, Sexes, TableNames, TypedTable

__all__ = ["LifeTable"]


def _check_interest_rate(value: object) -> float | None:
    if value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, Real):
        raise TypeError(f"interest_rate must be a real number, got {type(value).__name__}")
    rate = float(value)
    if not math.isfinite(rate) or rate <= -1.0:
        raise ValueError(f"interest_rate must be a finite number > -1, got {value!r}")
    return rate


class LifeTable(TypedTable):
    """A life table: mortality rates ``qx`` from a table file of type "life".

    Parameters
    ----------
    table_name, sex, cohort, unisex_blend, duration, pending
        As for :class:`~veltrane.tables.decrement.DecrementTable`.
    interest_rate : float, optional
        Annual effective interest rate carried with the table for valuation code (> -1).

    Examples
    --------
    >>> from veltrane import LifeTable
    >>> LifeTable("SULT", "u").table_type
    'life'
    """

    __slots__ = ("_interest_rate",)
    _TABLE_TYPE: ClassVar[str] = "life"
    # How a pickled recipe's value of a slot is checked before it is set (as the argument is).
    _SLOT_CHECKS: ClassVar[Mapping[str, Callable[[object], object]]] = {
        "_interest_rate": _check_interest_rate
    }
    # __init__ below only checks its arguments and builds the table from them, so a
    # many-table call may copy one instance for further cohorts instead of running it again.
    _INIT_BUILDS_FROM_ARGUMENTS: ClassVar[bool] = True

    def __init__(
        self,
        table_name: TableNames,
        sex: Sexes = None,
        cohort: Cohorts = None,
        unisex_blend: Blends = None,
        duration: Durations = None,
        cartesian: bool = False,
        return_dict: bool = False,
        pending: bool = False,
        interest_rate: float | None = None,
    ) -> None:
        if self._initialized:
            return
        rate = _check_interest_rate(interest_rate)
        super().__init__(table_name, sex, cohort, unisex_blend, duration, cartesian, return_dict, pending)
        self._interest_rate = rate

    def configure(
        self,
        sex: SexInput | None = None,
        cohort: int | None = None,
        duration: int | str | None = None,
        unisex_blend: float | None = None,
        interest_rate: float | None = None,
    ) -> LifeTable:
        """Set several keys with one rebuild, and optionally the interest rate.

        As :meth:`DecrementTable.configure`; ``interest_rate`` (> -1) is checked first and
        stored only once the keys are accepted. Returns the table.
        """
        rate = _check_interest_rate(interest_rate)
        keys = (sex, cohort, duration, unisex_blend)
        if rate is None or any(key is not None for key in keys):
            super().configure(sex=sex, cohort=cohort, duration=duration, unisex_blend=unisex_blend)
        if rate is not None:
            self._interest_rate = rate
        return self

    @property
    def table_type(self) -> str:
        """Always "life"."""
        return "life"

    @property
    def interest_rate(self) -> float | None:
        """The annual effective interest rate given at construction, or None."""
        try:
            return self._interest_rate
        except AttributeError:
            return None
