"""The cash flows of one policy: benefits, premiums, terms, each a number or a column name."""

from __future__ import annotations

import math
import numbers
from dataclasses import dataclass, fields
from typing import Literal

__all__ = ["AMOUNT_FIELDS", "TERM_FIELDS", "Product"]

#: Fields holding amounts (real numbers) and years (whole numbers); each may name a column.
AMOUNT_FIELDS = ("death_benefit", "survival_benefit", "endowment", "premium", "escalation")
TERM_FIELDS = ("term", "deferral", "premium_term")
_INSTALMENTS = (1, 2, 3, 4, 6, 12)


@dataclass(frozen=True)
class Product:
    """A frozen description of the cash flows of one policy.

    Every amount and every term is a number, or the name of a column of the policies frame that
    gives it per policy. Terms count whole years from the valuation date (a policy anniversary):
    they are what remains of the policy.

    Parameters
    ----------
    death_benefit : float or str
        Paid at the end of the policy year of death, within the term.
    survival_benefit : float or str
        An annuity of this amount a year while alive, from ``deferral`` to ``term``, in ``m``
        instalments, in advance (``due=True``) or in arrears.
    endowment : float or str
        Paid at the end of the term if alive (needs a term).
    term : int, str or None
        Years of cover from the valuation date; None runs to the table's last age.
    deferral : int or str
        Years before the survival benefits start.
    premium : float, str or None
        Level annual premium paid in advance while alive, for ``premium_term`` years; None for the
        net premium (equivalence principle at issue, see ``docs/valuation.md``).
    premium_term : int, str or None
        Years of premiums; None: the term.
    escalation : float or str
        Compound yearly growth of the benefits: year k pays (1 + escalation)^k times the amounts.
    m : {1, 2, 3, 4, 6, 12}
        Instalments a year of the survival benefit.
    due : bool
        Survival benefits at the start (True) or the end (False) of each period.
    method : "exact"
        The annuity is valued payment by payment with the table's interpolation within the year.
    """

    death_benefit: float | str = 0.0
    survival_benefit: float | str = 0.0
    endowment: float | str = 0.0
    term: int | str | None = None
    deferral: int | str = 0
    premium: float | str | None = 0.0
    premium_term: int | str | None = None
    escalation: float | str = 0.0
    m: int = 1
    due: bool = True
    method: Literal["exact"] = "exact"

    def __post_init__(self) -> None:
        for name in AMOUNT_FIELDS:
            value = getattr(self, name)
            if isinstance(value, str) or (value is None and name == "premium"):
                continue
            if isinstance(value, bool) or not isinstance(value, numbers.Real) or not math.isfinite(value):
                raise ValueError(f"Product: {name} must be a finite number or a column name, got {value!r}")
        if not isinstance(self.escalation, str) and self.escalation <= -1.0:
            raise ValueError(f"Product: escalation must be > -1, got {self.escalation!r}")
        for name in TERM_FIELDS:
            value = getattr(self, name)
            if isinstance(value, str) or (value is None and name != "deferral"):
                continue
            if isinstance(value, bool) or not isinstance(value, numbers.Integral) or value < 0:
                raise ValueError(
                    f"Product: {name} must be a whole number >= 0 or a column name, got {value!r}"
                )
        if isinstance(self.m, bool) or self.m not in _INSTALMENTS:
            raise ValueError(f"Product: m must be one of {_INSTALMENTS}, got {self.m!r}")
        if not isinstance(self.due, bool):
            raise ValueError(f"Product: due must be True or False, got {self.due!r}")
        if self.method != "exact":
            raise ValueError(f"Product: method must be 'exact', got {self.method!r}")
        if self.term is None and not isinstance(self.endowment, str) and self.endowment != 0:
            raise ValueError("Product: an endowment is paid at the end of a term: give term")
        if self.premium is None and self.premium_term == 0:
            raise ValueError("Product: a net premium needs a premium term of at least one year")

    def columns(self) -> tuple[str, ...]:
        """The column names the product reads, in field order."""
        return tuple(
            value
            for f in fields(self)
            if isinstance(value := getattr(self, f.name), str) and f.name != "method"
        )
