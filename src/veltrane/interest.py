"""Interest theory: equivalent rates, the UDD factors and annuities-certain.

Every function takes an annual effective rate ``i`` > -1 (a number or an array) and is computed
by the same C++ functions that the life contingencies use, in forms that keep full precision at
i = 0, at tiny rates of either sign and at large ones (no cancellation: ``expm1``, ``log1p`` and
series where the textbook quotients would lose their digits). A number in gives a float out;
arrays (``i`` and ``n``) broadcast against each other and give a float64 array of their shape.

``m`` is the number of payments or conversions a year (any whole number from 1); where the
function allows it, ``m=None`` stands for continuous payment (the limit as m grows).

Examples
--------
>>> from veltrane.interest import annuity_certain, discount_rate, force, nominal_rate
>>> round(discount_rate(0.05), 12), round(force(0.05), 12), round(nominal_rate(0.05, 12), 12)
(0.047619047619, 0.048790164169, 0.048889485403)
>>> round(annuity_certain(10, 0.05), 10), round(annuity_certain(10, 0.05, due=False), 10)
(8.1078216756, 7.7217349292)
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, overload

import numpy as np

from veltrane.tables import decrement as _native

if TYPE_CHECKING:
    from collections.abc import Sequence

    from numpy.typing import NDArray

    Number = float | np.floating[Any] | np.integer[Any]
    Many = Sequence[float] | NDArray[np.floating[Any]] | NDArray[np.integer[Any]]
    Numbers = Number | Many

__all__ = [
    "accumulated_annuity_certain",
    "annuity_certain",
    "discount_rate",
    "force",
    "nominal_discount_rate",
    "nominal_rate",
    "udd_alpha",
    "udd_beta",
]


def _call(kind: str, i: Numbers, m: int | None = 1, n: Numbers | None = None, due: bool = True) -> Any:
    """The kernel over i (and n), broadcast to their common shape."""
    single_i = np.ndim(i) == 0 and not isinstance(i, list | tuple)
    single_n = n is None or (np.ndim(n) == 0 and not isinstance(n, list | tuple))
    if single_i and single_n:
        return _native._interest(kind, i, m, n, due)
    try:
        rates = np.asarray(i, dtype=np.float64)
        terms = None if n is None else np.asarray(n, dtype=np.float64)
    except (TypeError, ValueError):
        raise TypeError(f"[{kind}] i and n must be numbers or arrays of numbers") from None
    try:
        shape = np.broadcast_shapes(rates.shape, () if terms is None else terms.shape)
    except ValueError:
        assert terms is not None  # one shape always broadcasts
        raise ValueError(
            f"[{kind}] n and i must broadcast to one shape, got shapes {terms.shape} and {rates.shape}"
        ) from None
    flat_i = np.ascontiguousarray(np.broadcast_to(rates, shape)).ravel()
    flat_n = None if terms is None else np.ascontiguousarray(np.broadcast_to(terms, shape)).ravel()
    out = np.asarray(_native._interest(kind, flat_i, m, flat_n, due), dtype=np.float64)
    return out.reshape(shape)


@overload
def discount_rate(i: Number) -> float: ...
@overload
def discount_rate(i: Many) -> NDArray[np.float64]: ...
def discount_rate(i: Numbers) -> float | NDArray[np.float64]:
    """The annual effective rate of discount d = i / (1 + i) = 1 - v."""
    return _call("discount_rate", i)  # type: ignore[no-any-return]


@overload
def force(i: Number) -> float: ...
@overload
def force(i: Many) -> NDArray[np.float64]: ...
def force(i: Numbers) -> float | NDArray[np.float64]:
    """The force of interest delta = ln(1 + i)."""
    return _call("force", i)  # type: ignore[no-any-return]


@overload
def nominal_rate(i: Number, m: int | None) -> float: ...
@overload
def nominal_rate(i: Many, m: int | None) -> NDArray[np.float64]: ...
def nominal_rate(i: Numbers, m: int | None) -> float | NDArray[np.float64]:
    """The nominal rate of interest convertible m times a year, i^(m) = m ((1 + i)^(1/m) - 1).

    ``m=None``: the force of interest (the limit).
    """
    return _call("nominal_rate", i, m)  # type: ignore[no-any-return]


@overload
def nominal_discount_rate(i: Number, m: int | None) -> float: ...
@overload
def nominal_discount_rate(i: Many, m: int | None) -> NDArray[np.float64]: ...
def nominal_discount_rate(i: Numbers, m: int | None) -> float | NDArray[np.float64]:
    """The nominal rate of discount convertible m times a year, d^(m) = m (1 - (1 + i)^(-1/m)).

    ``m=None``: the force of interest (the limit).
    """
    return _call("nominal_discount_rate", i, m)  # type: ignore[no-any-return]


@overload
def udd_alpha(i: Number, m: int | None) -> float: ...
@overload
def udd_alpha(i: Many, m: int | None) -> NDArray[np.float64]: ...
def udd_alpha(i: Numbers, m: int | None) -> float | NDArray[np.float64]:
    """alpha(m) = i d / (i^(m) d^(m)), 1 at i = 0 (i d / delta^2 for ``m=None``).

    Under a uniform distribution of deaths the m-thly annuity-due is
    alpha(m) ä - beta(m) (1 - E) (E the pure endowment at the end of the term).
    """
    return _call("udd_alpha", i, m)  # type: ignore[no-any-return]


@overload
def udd_beta(i: Number, m: int | None) -> float: ...
@overload
def udd_beta(i: Many, m: int | None) -> NDArray[np.float64]: ...
def udd_beta(i: Numbers, m: int | None) -> float | NDArray[np.float64]:
    """beta(m) = (i - i^(m)) / (i^(m) d^(m)), (m - 1) / 2m at i = 0 ((i - delta) / delta^2 for ``m=None``)."""
    return _call("udd_beta", i, m)  # type: ignore[no-any-return]


@overload
def annuity_certain(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    n: Number | None, i: Number, *, due: bool = True, m: int | None = 1
) -> float: ...
@overload
def annuity_certain(
    n: Numbers | None, i: Numbers, *, due: bool = True, m: int | None = 1
) -> NDArray[np.float64]: ...
def annuity_certain(
    n: Numbers | None, i: Numbers, *, due: bool = True, m: int | None = 1
) -> float | NDArray[np.float64]:
    """Present value of 1 a year for n years, paid in instalments of 1/m, with certainty.

    (1 - v^n) / d^(m) for payments at the start of each period (``due=True``, ä), (1 - v^n) / i^(m)
    at their end (a), (1 - v^n) / delta for ``m=None`` (paid continuously). n itself at i = 0.

    Parameters
    ----------
    n : float or array-like, or None
        Years (>= 0; any real number); None for a perpetuity (infinite at i <= 0).
    i : float or array-like
        Annual effective rate (> -1).
    due : bool, default True
        Payments at the start of each period; False: at the end.
    m : int or None, default 1
        Payments a year; None: continuously.
    """
    return _call("annuity_certain", i, m, n, due)  # type: ignore[no-any-return]


@overload
def accumulated_annuity_certain(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    n: Number, i: Number, *, due: bool = True, m: int | None = 1
) -> float: ...
@overload
def accumulated_annuity_certain(
    n: Numbers, i: Numbers, *, due: bool = True, m: int | None = 1
) -> NDArray[np.float64]: ...
def accumulated_annuity_certain(
    n: Numbers, i: Numbers, *, due: bool = True, m: int | None = 1
) -> float | NDArray[np.float64]:
    """The payments of :func:`annuity_certain` accumulated to time n: ((1 + i)^n - 1) / d^(m) (s-n).

    ``due=False`` divides by i^(m), ``m=None`` by delta; n itself at i = 0. ``n`` must be given.
    """
    if n is None:
        raise ValueError("[accumulated_annuity_certain] n is required")
    return _call("accumulated_annuity_certain", i, m, n, due)  # type: ignore[no-any-return]
