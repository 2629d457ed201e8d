"""Valuation of portfolios: present values, net premiums, reserves and cash flows of many
policies on their decrement tables, at a flat rate or on yield curves, in one pass each.

``value(policies, product, interest=...)`` reads a frame of policies as
:func:`veltrane.portfolio.project` does, builds each distinct table once and values the
policies in blocks in a C++ kernel. See ``docs/valuation.md``.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from veltrane.valuation.curve import YieldCurve
from veltrane.valuation.frame import Policies
from veltrane.valuation.product import Product
from veltrane.valuation.value import DEFAULT_BLOCK_SIZE, FLOWS, Valuation, value

if TYPE_CHECKING:
    from veltrane.valuation.parallel import value_dask

__all__ = [
    "DEFAULT_BLOCK_SIZE",
    "FLOWS",
    "Policies",
    "Product",
    "Valuation",
    "YieldCurve",
    "value",
    "value_dask",
]


def __getattr__(name: str) -> Any:
    if name == "value_dask":  # Dask is optional: imported on first use
        from veltrane.valuation.parallel import value_dask

        return value_dask
    raise AttributeError(f"module 'veltrane.valuation' has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted({*globals(), *__all__})
