"""Types shared across the package: table keys, numeric types and payment frequencies."""

from __future__ import annotations

from typing import Final, Literal, NamedTuple, get_args

import numpy as np

__all__ = ["PAYMENT_FREQUENCIES", "_NUMERIC_TYPES", "PaymentFrequencyLiteral", "TableKey"]

#: Payments per year accepted by ``px`` and ``qx``: annual, half-yearly, every four
#: months, quarterly, every two months and monthly.
PaymentFrequencyLiteral = Literal[1, 2, 3, 4, 6, 12]
PAYMENT_FREQUENCIES: Final[tuple[int, ...]] = get_args(PaymentFrequencyLiteral)

#: Types accepted as a single number (``bool`` is refused separately wherever it matters).
_NUMERIC_TYPES: Final = (int, float, np.integer, np.floating)


class TableKey(NamedTuple):
    """Identity of a configured table: the key of registries and of keyed constructions.

    Parameters
    ----------
    table_name : str
        Name of the table file, without extension.
    sex : str
        "m", "f" or "u".
    cohort : int or None
        Year of birth for generational tables.
    duration : int, "ult" or None
        Policy duration for select-ultimate tables.
    unisex_blend : float or None
        Male weight of a blended unisex table.
    """

    table_name: str
    sex: str
    cohort: int | None = None
    duration: int | str | None = None
    unisex_blend: float | None = None
