"""Decrement tables: the abstract base, the life, disability and exit tables, and their registry."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from veltrane.tables.decrement import DecrementTable, TableRegistry
    from veltrane.tables.disability import DisabilityTable
    from veltrane.tables.exit import ExitTable
    from veltrane.tables.life import LifeTable
    from veltrane.tables.period import period_rates

__all__ = ["DecrementTable", "DisabilityTable", "ExitTable", "LifeTable", "TableRegistry", "period_rates"]

_HOMES = {
    "DecrementTable": "veltrane.tables.decrement",
    "LifeTable": "veltrane.tables.life",
    "DisabilityTable": "veltrane.tables.disability",
    "ExitTable": "veltrane.tables.exit",
    "TableRegistry": "veltrane.tables.decrement",
    "period_rates": "veltrane.tables.period",
}


def __getattr__(name: str) -> Any:
    home = _HOMES.get(name)
    if home is None:
        raise AttributeError(f"module 'veltrane.tables' has no attribute {name!r}")
    import importlib

    return getattr(importlib.import_module(home), name)


def __dir__() -> list[str]:
    # The lazily loaded names too, so that dir(), help() and tab completion show them.
    return sorted({*globals(), *__all__})
