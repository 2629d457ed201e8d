"""Constants, types and generational formulas shared by the decrement tables.

The module holds the survivorship radix, the sex literal, the calendar-year clock used
when cohorts are validated, the modification dictionary accepted by ``modify_qx``, the
read-only per-table view of the global decimals, and the generational formulas that
turn base-year rates and improvement rates into the one-year rates of a cohort.

Formulas are looked up by name in ``_GENERATIONAL_FORMULA_TYPE_MAP`` so that one can be
replaced (or a new one registered) without touching the tables. Each is called as
``formula(q_base, improvement, ages, cohort, base_year)`` and returns a new float64
vector. Two-dimensional (age by calendar year) improvement scales need the grid of
years as well and go through ``_gen_projected_improvement`` instead.

It imports nothing but NumPy and ``veltrane.config``, so table files and tools can use
it without the compiled extension.
"""

from __future__ import annotations

import datetime
import operator
from collections.abc import Callable, Iterable, Sequence
from typing import Any, Final, Literal, TypeAlias, TypedDict

import numpy as np
from numpy.typing import NDArray

from veltrane.config import Config, DecimalsSettings

__all__ = [
    "_GENERATIONAL_FORMULA_TYPE_MAP",
    "_LX_RADIX",
    "GenerationalFormula",
    "ModifyDecrement",
    "SexInput",
    "SexLiteral",
    "_DecimalsConfig",
    "_current_calendar_year",
    "_gen_compound",
    "_gen_exponential",
    "_gen_exponential_damped",
    "_gen_projected_improvement",
]

#: Radix of every survivorship vector: l_x starts at one million lives.
_LX_RADIX: Final[float] = 1_000_000.0

#: Sex of a table: male, female or unisex.
SexLiteral = Literal["m", "f", "u"]
#: What the constructors and ``configure`` accept for a sex: a code in either case.
SexInput = Literal["m", "f", "u", "M", "F", "U"]

FloatVector: TypeAlias = NDArray[np.float64]

#: ``formula(q_base, improvement, ages, cohort, base_year) -> cohort rates``.
GenerationalFormula: TypeAlias = Callable[[FloatVector, FloatVector, FloatVector, int, int], FloatVector]

#: Horizon, in years, of the arctangent damping of an exponential trend. For t much
#: smaller than it the trend runs almost undamped; the cumulated trend never exceeds
#: pi/2 times it.
_TREND_DAMPING_HORIZON: Final[float] = 100.0


def _current_calendar_year() -> int:
    """Return today's calendar year.

    Read at every call, never cached: a long-running process that crosses New Year
    must validate cohorts against the new year.
    """
    return datetime.date.today().year


class ModifyDecrement(TypedDict, total=False):
    """Modifications accepted by ``modify_qx``; every key is optional.

    Attributes
    ----------
    age_shift : int
        Drops the first ``n`` ages of the rate vector, so a life aged x is given the
        rate of age x + n (rated up by n years).
    decrement_multiplier : float or sequence of float or ndarray
        Multiplies the rates: one factor for all ages, or one factor per age (a list, a
        tuple, an array or a pandas or Polars Series). Rates pushed above 1 are certain:
        a later ``aggravated_risk`` or ``table_combination`` sees them as 1.
    decrement_geometric_increase : tuple of (float, int)
        ``(c, start)``: the rate at index ``start + k`` is multiplied by ``(1 + c) ** k``
        for k >= 0; the rates before ``start`` are unchanged.
    aggravated_risk : float
        Factor ``f`` applied to the force of decrement: ``q' = 1 - (1 - q) ** f``.
        Unlike a multiplier it can never push a rate above 1.
    table_combination : table or list or tuple of tables
        Competing decrements merged into this table's rate.
    combination_mode : {"independent", "udd"}
        How ``table_combination`` merges: ``"independent"`` gives the total rate
        ``q = 1 - (1 - q_host) * prod_j (1 - q_j)``; ``"udd"`` combines them assuming
        each decrement is uniformly distributed over the year of age.
    """

    age_shift: int
    decrement_multiplier: float | Sequence[float] | NDArray[np.float64]
    decrement_geometric_increase: tuple[float, int]
    aggravated_risk: float
    # Typed loosely: naming the table type here would import the compiled extension.
    table_combination: Any
    combination_mode: Literal["independent", "udd"]


_DECIMALS_NAMES: Final[tuple[str, ...]] = tuple(DecimalsSettings.__slots__)


class _DecimalsConfig:
    """Read-only view of the global decimals, as seen from one table.

    Every attribute read goes to ``Config().decimals`` at the time of the read, so a
    change of the global settings shows at once in every table. Tables carry no
    decimals of their own; assigning through this view is refused.

    Examples
    --------
    >>> view = _DecimalsConfig()
    >>> view.qx
    12
    >>> with Config().override(decimals={"qx": 6}):
    ...     view.qx
    6
    """

    __slots__ = ()

    def __getattr__(self, name: str) -> int:
        # Only reached for names that are not class attributes: the decimals settings.
        if name in _DECIMALS_NAMES:
            value: int = getattr(Config().decimals, name)
            return value
        raise AttributeError(
            f"{type(self).__name__!r} object has no attribute {name!r}; known: {list(_DECIMALS_NAMES)}"
        )

    def __setattr__(self, name: str, value: object) -> None:
        raise AttributeError(
            f"table decimals are read from the global settings; "
            f"set Config().decimals.{name} = {value!r} instead"
        )

    def __delattr__(self, name: str) -> None:
        raise AttributeError(
            f"table decimals are read from the global settings and cannot be deleted; "
            f"set Config().decimals.{name} instead"
        )

    def __dir__(self) -> list[str]:
        # The settings are all there is to see; keeps tab completion to the point.
        return list(_DECIMALS_NAMES)

    def __repr__(self) -> str:
        decimals = Config().decimals
        inner = ", ".join(f"{name}={getattr(decimals, name)}" for name in _DECIMALS_NAMES)
        return f"<table decimals, read from Config().decimals: {inner}>"


# -- input checks -------------------------------------------------------------------------


def _as_vector(values: Any, name: str) -> FloatVector:
    arr = np.asarray(values, dtype=np.float64)
    if arr.ndim != 1:
        raise ValueError(f"{name} must be a 1-D vector, got an array of shape {arr.shape}")
    if not np.isfinite(arr).all():
        bad = int(np.flatnonzero(~np.isfinite(arr))[0])
        raise ValueError(f"{name} must be finite, got {arr[bad]} at index {bad}")
    return arr


def _as_year(value: Any, name: str) -> int:
    if isinstance(value, bool):
        raise TypeError(f"{name} must be an int (a calendar year), got bool")
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an int (a calendar year), got {type(value).__name__}") from None


def _check_lengths(**vectors: FloatVector) -> None:
    lengths = {name: vec.size for name, vec in vectors.items()}
    if len(set(lengths.values())) > 1:
        listed = ", ".join(f"{name}={n}" for name, n in lengths.items())
        raise ValueError(f"vectors must have equal lengths (one entry per age), got {listed}")


def _one_dimensional_inputs(
    q_base: FloatVector, improvement: FloatVector, ages: FloatVector, cohort: int, base_year: int
) -> tuple[FloatVector, FloatVector, FloatVector]:
    """Validate the common arguments; return q, lambda and the years from the base year."""
    q = _as_vector(q_base, "q_base")
    lam = _as_vector(improvement, "improvement")
    x = _as_vector(ages, "ages")
    _check_lengths(q_base=q, improvement=lam, ages=x)
    offset = _as_year(cohort, "cohort") - _as_year(base_year, "base_year")
    # Calendar year of age x is cohort + x, so t = Y - base = (cohort - base) + x.
    return q, lam, offset + x


def _apply_factor(q: FloatVector, factor: FloatVector) -> FloatVector:
    """Return ``clip(q * factor, 0, 1)`` as a new vector, with zero rates kept at zero.

    A back-projection far before the base year can overflow the factor to inf; zero
    rates are left out of the product so that 0 * inf never makes a NaN.
    """
    out = np.zeros_like(q)
    moving = q != 0.0
    np.multiply(q, factor, out=out, where=moving)
    return np.clip(out, 0.0, 1.0, out=out)


# -- one-dimensional generational formulas ------------------------------------------------


def _gen_exponential(
    q_base: FloatVector, improvement: FloatVector, ages: FloatVector, cohort: int, base_year: int
) -> FloatVector:
    """Project base rates with an exponential trend.

    ``q(x, Y) = q(x, base) * exp(-lambda(x) * (Y - base))`` with Y = cohort + x.

    This is the log-linear trend of the German and Austrian annuity tables (DAV 1994 R,
    DAV 2004 R, AVÖ 1996 R) and of the Spanish PER tables.

    Parameters
    ----------
    q_base : ndarray of float64
        One-year rates in the base year, indexed by age from 0.
    improvement : ndarray of float64
        Trend ``lambda(x)`` per age, same length; negative values mean deterioration.
    ages : ndarray of float64
        Ages 0.0, 1.0, ..., w.
    cohort : int
        Year of birth.
    base_year : int
        Calendar year of ``q_base``.

    Returns
    -------
    ndarray of float64
        The cohort's one-year rates, a new vector clipped to [0, 1].

    Raises
    ------
    ValueError
        If the vectors are not 1-D, differ in length or hold non-finite values.
    """
    q, lam, t = _one_dimensional_inputs(q_base, improvement, ages, cohort, base_year)
    with np.errstate(over="ignore"):
        factor = np.exp(-lam * t)
    return _apply_factor(q, factor)


def _gen_compound(
    q_base: FloatVector, improvement: FloatVector, ages: FloatVector, cohort: int, base_year: int
) -> FloatVector:
    """Project base rates with a compound (geometric) annual improvement.

    ``q(x, Y) = q(x, base) * (1 - lambda(x)) ** (Y - base)`` with Y = cohort + x.

    This is how the SOA one-dimensional projection scales are applied (Scale AA with
    the 1994 GAR, Scale G2 with the 2012 IAM, Scale B with the 1971 IAM).

    Parameters
    ----------
    q_base : ndarray of float64
        One-year rates in the base year, indexed by age from 0.
    improvement : ndarray of float64
        Annual improvement rate per age, same length, below 1.
    ages : ndarray of float64
        Ages 0.0, 1.0, ..., w.
    cohort : int
        Year of birth.
    base_year : int
        Calendar year of ``q_base``.

    Returns
    -------
    ndarray of float64
        The cohort's one-year rates, a new vector clipped to [0, 1].

    Raises
    ------
    ValueError
        If the vectors are not 1-D, differ in length or hold non-finite values, or if
        an improvement rate of 1 or more would be applied (at any age whose calendar
        year differs from the base year): a rate cannot improve by 100 % or more.
    """
    q, lam, t = _one_dimensional_inputs(q_base, improvement, ages, cohort, base_year)
    moving = t != 0.0
    bad = moving & (lam >= 1.0)
    if bad.any():
        age = int(np.flatnonzero(bad)[0])
        years = int(t[age])
        raise ValueError(
            f"compound improvement rate must be below 1, got {lam[age]} at age {age} "
            f"(projected {years} year{'' if abs(years) == 1 else 's'} from the base year)"
        )
    # At the base year itself the factor is 1 whatever lambda; keep 1 - lambda positive there.
    keep = np.where(moving, 1.0 - lam, 1.0)
    with np.errstate(over="ignore"):
        factor = np.power(keep, t)
    return _apply_factor(q, factor)


def _gen_exponential_damped(
    q_base: FloatVector, improvement: FloatVector, ages: FloatVector, cohort: int, base_year: int
) -> FloatVector:
    """Project base rates with an exponential trend damped by an arctangent.

    ``q(x, Y) = q(x, base) * exp(-lambda(x) * D * atan((Y - base) / D))`` with
    Y = cohort + x and D = 100 years.

    Near the base year the trend is the plain exponential one; far from it the
    cumulated improvement levels off at ``lambda(x) * D * pi / 2``, so a long
    projection cannot drive the rates towards zero. This is the damped trend of the
    Austrian annuity table AVÖ 2005 R.

    Parameters
    ----------
    q_base : ndarray of float64
        One-year rates in the base year, indexed by age from 0.
    improvement : ndarray of float64
        Trend ``lambda(x)`` per age, same length.
    ages : ndarray of float64
        Ages 0.0, 1.0, ..., w.
    cohort : int
        Year of birth.
    base_year : int
        Calendar year of ``q_base``.

    Returns
    -------
    ndarray of float64
        The cohort's one-year rates, a new vector clipped to [0, 1].

    Raises
    ------
    ValueError
        If the vectors are not 1-D, differ in length or hold non-finite values.
    """
    q, lam, t = _one_dimensional_inputs(q_base, improvement, ages, cohort, base_year)
    damped = _TREND_DAMPING_HORIZON * np.arctan(t / _TREND_DAMPING_HORIZON)
    with np.errstate(over="ignore"):
        factor = np.exp(-lam * damped)
    return _apply_factor(q, factor)


#: Generational formulas by the name used in table files. Replaceable entries.
_GENERATIONAL_FORMULA_TYPE_MAP: dict[str, GenerationalFormula] = {
    "exponential": _gen_exponential,
    "compound": _gen_compound,
    "exponential_damped": _gen_exponential_damped,
}


# -- two-dimensional improvement scales ---------------------------------------------------


def _as_grid_years(grid_years: Iterable[int]) -> NDArray[np.int64]:
    years = [_as_year(year, "grid_years entry") for year in grid_years]
    if not years:
        raise ValueError("grid_years is empty: a two-dimensional scale needs at least one year column")
    grid = np.asarray(years, dtype=np.int64)
    steps = np.diff(grid)
    if (steps <= 0).any():
        at = int(np.flatnonzero(steps <= 0)[0])
        raise ValueError(
            f"grid_years must be strictly ascending, got {years[at]} followed by {years[at + 1]}"
        )
    return grid


def _gen_projected_improvement(
    q_base: FloatVector,
    mi_matrix: NDArray[np.float64],
    *,
    cohort: int,
    base_year: int,
    grid_years: list[int],
) -> FloatVector:
    """Project base rates with a two-dimensional (age by calendar year) improvement scale.

    For age x the target calendar year is Y = cohort + x and

    - ``q(x, Y) = q(x, base) * prod_{y=base+1..Y} (1 - MI(x, y))`` when Y > base,
    - ``q(x, Y) = q(x, base) / prod_{y=Y+1..base} (1 - MI(x, y))`` when Y < base,
    - ``q(x, Y) = q(x, base)`` when Y = base.

    This is how the SOA two-dimensional scales (MP-2014 to MP-2021) are applied to a
    base table such as RP-2014 or Pri-2012.

    ``MI(x, y)`` is read from the column of the first grid year not earlier than y;
    years before the first grid year use the first column and years after the last
    grid year the last one (the scale is extended flat, as its ultimate rates are).

    Parameters
    ----------
    q_base : ndarray of float64
        One-year rates in the base year, indexed by age from 0.
    mi_matrix : ndarray of float64, shape (len(q_base), len(grid_years))
        Improvement rates: one row per age, one column per grid year.
    cohort : int
        Year of birth.
    base_year : int
        Calendar year of ``q_base``.
    grid_years : list of int
        Calendar years of the columns, strictly ascending (not necessarily consecutive).

    Returns
    -------
    ndarray of float64
        The cohort's one-year rates, a new vector clipped to [0, 1].

    Raises
    ------
    ValueError
        If the shapes do not match, ``grid_years`` is empty or not ascending, or an
        improvement rate used by the projection is 1 or more or not finite.
    """
    q = _as_vector(q_base, "q_base")
    mi = np.asarray(mi_matrix, dtype=np.float64)
    grid = _as_grid_years(grid_years)
    if mi.ndim != 2:
        raise ValueError(f"mi_matrix must be 2-D (ages x grid years), got an array of shape {mi.shape}")
    if mi.shape != (q.size, grid.size):
        raise ValueError(
            f"mi_matrix has shape {mi.shape}, expected (len(q_base), len(grid_years)) "
            f"= ({q.size}, {grid.size})"
        )
    cohort = _as_year(cohort, "cohort")
    base = _as_year(base_year, "base_year")
    if q.size == 0:
        return q.copy()

    target = cohort + np.arange(q.size, dtype=np.int64)
    # Every year whose improvement can enter some age's product: (earliest, latest].
    span = np.arange(min(base, int(target[0])) + 1, max(base, int(target[-1])) + 1, dtype=np.int64)
    columns = np.minimum(np.searchsorted(grid, span, side="left"), grid.size - 1)
    rates = mi[:, columns]  # ages x span years, a few tens of thousands of cells
    low = np.minimum(target, base)[:, None]
    high = np.maximum(target, base)[:, None]
    used = (span > low) & (span <= high)

    bad = used & ~(np.isfinite(rates) & (rates < 1.0))
    if bad.any():
        age, j = (int(i) for i in np.argwhere(bad)[0])
        raise ValueError(
            f"improvement rate must be finite and below 1, got {rates[age, j]} at age {age} "
            f"for calendar year {int(span[j])} (grid column {int(grid[columns[j]])})"
        )

    log_keep = np.log1p(-np.where(used, rates, 0.0)).sum(axis=1)
    # Forward the product multiplies, backward it divides: the sign of Y - base.
    direction = np.sign(target - base)
    with np.errstate(over="ignore"):
        factor = np.exp(direction * log_keep)
    return _apply_factor(q, factor)
