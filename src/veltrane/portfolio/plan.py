"""The tables of a batch and the one matrix of rates that the projection reads.

A ``RatePlan`` holds one table per distinct key (through a ``TableRegistry``) and, for select
tables, one per select column. Its *bank* stacks their rate vectors as rows of one float64
matrix, 1.0 from each table's last age on (the table's own qx there: a life leaves its table by
the end of the last age), so that every policy-year is a single gather. A plan pickles as its
tables; the bank is rebuilt where it is used, once per process.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from veltrane.portfolio.policies import PolicyBatch, TableGroup
from veltrane.tables.decrement import DecrementTable, TableRegistry
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

__all__ = ["RatePlan"]

CLASSES: dict[str, type[DecrementTable]] = {
    "life": LifeTable,
    "disability": DisabilityTable,
    "exit": ExitTable,
}


class RatePlan:
    """The tables of a batch of policies and the layout of their rates in the bank.

    Parameters
    ----------
    groups
        The table groups of a :class:`PolicyBatch`.
    width
        Number of ages (columns) the bank must hold: at least the oldest age reached plus one.
    registry
        Where tables are looked up and kept; a new one when omitted.
    """

    def __init__(
        self, groups: tuple[TableGroup, ...], width: int, registry: TableRegistry | None = None
    ) -> None:
        self.groups = groups
        needed = sum(group.select_period + 1 for group in groups)  # a select table: every column
        self.registry = registry if registry is not None else TableRegistry(maxsize=max(256, needed))
        rows: list[DecrementTable] = []
        first_row = np.empty(len(groups), dtype=np.int64)
        period = np.empty(len(groups), dtype=np.int32)
        for g, group in enumerate(groups):
            first_row[g] = len(rows)
            period[g] = group.select_period
            rows.extend(self._tables(group))
        self.tables = tuple(rows)
        self.first_row = first_row
        self.period = period
        self.width = max(int(width), max(len(t._decrement) for t in rows) + 1)
        self._bank: np.ndarray | None = None

    def _tables(self, group: TableGroup) -> list[DecrementTable]:
        cls = CLASSES[group.table_type]
        durations: list[int | str | None]
        if group.select:
            durations = [*range(group.start_duration, group.start_duration + group.select_period), "ult"]
        else:
            durations = [None]
        try:
            return [
                self.registry.get_or_create(
                    cls, group.table_name, group.sex, group.cohort, duration, group.unisex_blend
                )
                for duration in durations
            ]
        except (ValueError, TypeError, OSError) as exc:
            raise ValueError(
                f"policies: row {group.first_row}: table {group.table_name!r} cannot be built for sex "
                f"{group.sex!r}, cohort {group.cohort}, unisex_blend {group.unisex_blend}: {exc}"
            ) from exc

    @classmethod
    def for_batch(cls, batch: PolicyBatch, years: int, registry: TableRegistry | None = None) -> RatePlan:
        """The plan of a batch projected over ``years`` years."""
        return cls(batch.groups, int(batch.age.max()) + years + 1, registry)

    @property
    def bank(self) -> np.ndarray:
        """Rates by (table row, age): float64, C-contiguous, 1.0 from each table's last age on."""
        if self._bank is None:
            bank = np.ones((len(self.tables), self.width), dtype=np.float64)
            for r, table in enumerate(self.tables):
                # At its last age w a table's qx is 1 whatever rate the file gives there (a table
                # that is not closed): nobody stays in it past w.
                last = int(table.w)
                bank[r, :last] = table._decrement[:last]
            self._bank = bank
        return self._bank

    def __getstate__(self) -> dict[str, Any]:
        state = self.__dict__.copy()
        state["_bank"] = None  # rebuilt from the tables where the plan is unpickled
        return state

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)
