"""The tables of a batch and the one matrix of rates that the projection reads.

A ``RatePlan`` holds one table per distinct key (through a ``TableRegistry``) and, for select
tables, one per select column. Its *bank* stacks their rate vectors as rows of one float64
matrix, 1.0 from each table's last age on (the table's own qx there: a life leaves its table by
the end of the last age), so that every policy-year is a single gather. A blended group (sex "u"
with a weight per policy) has the rows of its male and of its female tables instead, holding the
single-sex rates rounded as a blended table rounds them before mixing; each policy mixes them
with its own weight. A plan pickles as its tables; the bank is rebuilt where it is used, once
per process.
"""

from __future__ import annotations

from typing import Any

import numpy as np

from veltrane.config import Config
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
    """The tables of a batch of policies, the layout of their rates in the bank, and the decimals
    of the results.

    The decimals are those in force where the plan is made: a worker process rounds as the
    process that sent it the plan.

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
        # A select table: every column; a blend: the male and the female tables.
        needed = sum((group.select_period + 1) * (2 if group.blended else 1) for group in groups)
        self.registry = registry if registry is not None else TableRegistry(maxsize=max(256, needed))
        rows: list[DecrementTable] = []
        # Per row: None for a table's rates in use, or the decimals to which a blend rounds them.
        blend_decimals: list[int | None] = []
        first_row = np.empty(len(groups), dtype=np.int64)
        female_offset = np.zeros(len(groups), dtype=np.int64)
        period = np.empty(len(groups), dtype=np.int32)
        decimals = np.empty(len(groups), dtype=np.int32)
        for g, group in enumerate(groups):
            first_row[g] = len(rows)
            period[g] = group.select_period
            if group.blended:
                male, female = self._tables(group, "m"), self._tables(group, "f")
                female_offset[g] = len(male)
                tables = male + female
            else:
                tables = self._tables(group, group.sex)
            decimals[g] = int(tables[0]._decimals_for_decrement)
            rows.extend(tables)
            blend_decimals.extend([int(decimals[g]) if group.blended else None] * len(tables))
        self.tables = tuple(rows)
        self.blend_decimals = tuple(blend_decimals)
        self.first_row = first_row
        self.female_offset = female_offset
        self.period = period
        self.decimals = decimals
        settings = Config().decimals
        self.px_decimals, self.tpx_decimals, self.tqx_decimals = settings.px, settings.tpx, settings.tqx
        self.width = max(int(width), max(len(_rates(t)) for t in rows) + 1)
        self._bank: np.ndarray | None = None

    def _tables(self, group: TableGroup, sex: str) -> list[DecrementTable]:
        cls = CLASSES[group.table_type]
        durations: list[int | str | None]
        if group.select:
            durations = [*range(group.start_duration, group.start_duration + group.select_period), "ult"]
        else:
            durations = [None]
        try:
            return [
                self.registry.get_or_create(cls, group.table_name, sex, group.cohort, duration)  # type: ignore[arg-type]
                for duration in durations
            ]
        except (ValueError, TypeError, OSError) as exc:
            blend = f" with a unisex_blend (mixed from its {sex!r} rates)" if group.blended else ""
            raise ValueError(
                f"policies: row {group.first_row}: table {group.table_name!r} cannot be built for sex "
                f"{group.sex!r}{blend}, cohort {group.cohort}: {exc}"
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
            for r, (table, decimals) in enumerate(zip(self.tables, self.blend_decimals, strict=True)):
                if decimals is None:
                    # At its last age w a table's qx is 1 whatever rate the file gives there (a
                    # table that is not closed): nobody stays in it past w.
                    last = int(table.w)
                    bank[r, :last] = _rates(table)[:last]
                else:
                    # A blended table mixes the single-sex base rates rounded to its decimals,
                    # and ends where they end.
                    base = _rates(table, base=True)
                    last = len(base) - 1
                    np.round(base[:last], decimals, out=bank[r, :last])
            self._bank = bank
        return self._bank

    def __getstate__(self) -> dict[str, Any]:
        state = self.__dict__.copy()
        state["_bank"] = None  # rebuilt from the tables where the plan is unpickled
        state["registry"] = None  # the tables travel once, as themselves
        return state

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__dict__.update(state)


def _rates(table: DecrementTable, *, base: bool = False) -> np.ndarray:
    """The rates in use (or the base rates) of a table that is ready, as every planned table is."""
    rates = table._decrement_base if base else table._decrement
    if rates is None:
        raise ValueError(f"table {table.table_name!r} has no rates: complete its keys with configure()")
    return rates
