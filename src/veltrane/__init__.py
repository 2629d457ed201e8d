"""Veltrane: actuarial decrement tables (life, disability and exit) with a C++ core.

The table classes are imported on first use, so that light modules (configuration,
table files) load without the compiled extension.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from veltrane.base import PaymentFrequencyLiteral, TableKey
from veltrane.config import Config

if TYPE_CHECKING:
    from veltrane.contingencies import annuity, commutation, insurance, net_premium, pure_endowment
    from veltrane.tables import DecrementTable, DisabilityTable, ExitTable, LifeTable, TableRegistry
    from veltrane.tables.listing import catalogue
    from veltrane.tables.source import TableSource, register_table, write_table

__all__ = [
    "Config",
    "DecrementTable",
    "DisabilityTable",
    "ExitTable",
    "LifeTable",
    "PaymentFrequencyLiteral",
    "TableKey",
    "TableRegistry",
    "TableSource",
    "annuity",
    "catalogue",
    "commutation",
    "insurance",
    "net_premium",
    "pure_endowment",
    "register_table",
    "write_table",
]
__version__ = "0.1.0"

_TABLE_EXPORTS = frozenset({"DecrementTable", "DisabilityTable", "ExitTable", "LifeTable", "TableRegistry"})
_CONTINGENCY_EXPORTS = frozenset({"annuity", "commutation", "insurance", "net_premium", "pure_endowment"})


def __getattr__(name: str) -> Any:
    if name in _TABLE_EXPORTS:
        from veltrane import tables

        return getattr(tables, name)
    if name in _CONTINGENCY_EXPORTS:
        from veltrane import contingencies

        return getattr(contingencies, name)
    if name == "catalogue":
        from veltrane.tables.listing import catalogue

        return catalogue
    if name in ("write_table", "register_table", "TableSource"):  # Polars, not the compiled extension
        from veltrane.tables import source

        return getattr(source, name)
    raise AttributeError(f"module 'veltrane' has no attribute {name!r}")


def __dir__() -> list[str]:
    # The lazily loaded names too, so that dir(), help() and tab completion show them.
    return sorted({*globals(), *__all__})
