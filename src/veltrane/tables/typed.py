"""The common construction of the concrete table classes (life, disability, exit)."""

from __future__ import annotations

from collections.abc import Sequence
from typing import Any, ClassVar, TypeAlias

from numpy.typing import NDArray

from veltrane.tables.decrement import DecrementTable

# What a constructor call accepts: one value per key for one table, or sequences of them for many
# (each instance's __init__ then sees one value of each).
TableNames: TypeAlias = str | Sequence[str]
Sexes: TypeAlias = str | Sequence[str] | None
Cohorts: TypeAlias = int | Sequence[int] | NDArray[Any] | None
Blends: TypeAlias = float | Sequence[float] | None
Durations: TypeAlias = int | str | Sequence[int | str] | None


class TypedTable(DecrementTable):
    """A decrement table of one fixed kind: checks that the table file is of that kind.

    Concrete subclasses set ``_TABLE_TYPE`` and implement ``table_type``.
    """

    __slots__ = ()
    _TABLE_TYPE: ClassVar[str]
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
    ) -> None:
        DecrementTable.__init__(
            self,
            table_name,  # type: ignore[arg-type]  # one value each here: the many-table call fans out
            sex,  # type: ignore[arg-type]
            cohort,  # type: ignore[arg-type]
            expected_table_type=self._TABLE_TYPE,
            unisex_blend=unisex_blend,
            duration=duration,
            pending=pending,
        )

    def _repr_html_(self) -> str:
        """What a notebook shows: the table's identity, structure, sample rates and their shape."""
        from veltrane.tables.display import table_html

        return table_html(self)

    def summary(self) -> str:
        """A report of the table, then five sample rates from each end of it.

        Returns
        -------
        str
            Lines joined by newlines: name, sex, structure, keys, the omega in force,
            modifications, and the sample rates (with the base rate beside a modified one).
        """
        text = super().summary()
        if self.metadata_pending or self._decrement is None:
            return text  # no rates to sample: the report says what the table lacks
        lines = text.split("\n")
        symbol = self._DECREMENT_PREFIX_MAP[self._TABLE_TYPE]
        self._append_decrement_rate_sample_summary(lines, symbol, self._decimals_for_decrement, self.qx)
        return "\n".join(lines)
