"""Decrement tables: the abstract base, the life, disability and exit tables, and their registry."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

if TYPE_CHECKING:
    from veltrane.tables.decrement import DecrementTable, TableRegistry
    from veltrane.tables.disability import DisabilityTable
    from veltrane.tables.exit import ExitTable
    from veltrane.tables.life import LifeTable

__all__ = ["DecrementTable", "DisabilityTable", "ExitTable", "LifeTable", "TableRegistry"]

_HOMES = {
    "DecrementTable": "veltrane.tables.decrement",
    "LifeTable": "veltrane.tables.life",
    "DisabilityTable": "veltrane.tables.disability",
    "ExitTable": "veltrane.tables.exit",
    "TableRegistry": "veltrane.tables.decrement",
}


def __getattr__(name: str) -> Any:
    home = _HOMES.get(name)
    if home is None:
        raise AttributeError(f"module 'veltrane.tables' has no attribute {name!r}")
    import importlib

    return getattr(importlib.import_module(home), name)
