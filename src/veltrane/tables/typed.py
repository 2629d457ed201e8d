"""The common construction of the concrete table classes (life, disability, exit)."""

from __future__ import annotations

from typing import ClassVar

from veltrane.tables.decrement import DecrementTable


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
        table_name: str,
        sex: str | None = None,
        cohort: int | None = None,
        unisex_blend: float | None = None,
        duration: int | str | None = None,
        cartesian: bool = False,
        return_dict: bool = False,
        pending: bool = False,
    ) -> None:
        DecrementTable.__init__(
            self,
            table_name,
            sex,
            cohort,
            expected_table_type=self._TABLE_TYPE,
            unisex_blend=unisex_blend,
            duration=duration,
            pending=pending,
        )

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
