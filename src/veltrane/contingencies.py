"""Life contingencies on any decrement table: annuities, insurances, endowments, premiums, commutation.

The values are computed by C++ kernels from the table's unrounded survivorship, under the
configured ``lx_interpolation`` wherever a fraction of a year enters, and are not rounded (unlike
the table functions ``qx``, ``tpx``, ...). The annual effective interest rate ``i`` is taken from
the call, or else from the table's ``interest_rate`` (life tables carry one); any finite rate
above -1 is a basis, negative ones included.

On a select table at a select duration d, a life aged x is at duration d + k at age x + k (the
ultimate column once past the select period), as for the life selected d - 1 years before, whose
``select_path`` gives the same values; a fractional age follows the diagonal of the whole age
below it. ``duration="ult"`` values on the ultimate column. The table functions (``tpx``, ...)
and :func:`commutation` read the table's one column.

Ages ``x`` may be a number or a vector (fractional ages too, up to the table's last age ``w``),
and so may terms ``n``: a vector of ages and a vector of terms pair element by element, and a
single value goes with every element of the other. A number in gives a float out, otherwise a
float64 vector. In the year after ``w`` the survivors at ``w`` leave uniformly (see
``docs/annuities.md``).

Two lives: :class:`JointLife` (a joint-life or last-survivor status of two lives, each on its
own table) takes the place of a table in :func:`annuity`, :func:`insurance`,
:func:`pure_endowment` and :func:`net_premium`, with the pair of ages ``x=(x, y)``;
:func:`reversionary_annuity` and :func:`contingent_insurance` value a life against another (see
``docs/joint-lives.md``).

Examples
--------
>>> from veltrane import LifeTable
>>> from veltrane.contingencies import annuity, insurance
>>> t = LifeTable("SULT", "u", interest_rate=0.05)
>>> round(annuity(t, 65), 10), round(insurance(t, 65), 10)
(13.5497900377, 0.354771903)
"""

from __future__ import annotations

import functools
from typing import TYPE_CHECKING, Any, Literal, overload

import numpy as np
import polars as pl

from veltrane._joint import JointLife
from veltrane.tables import decrement as _native

if TYPE_CHECKING:
    from collections.abc import Sequence

    from numpy.typing import NDArray

    from veltrane.tables.decrement import DecrementTable

    # One age or term gives a float; a sequence or an array of them, a float64 array.
    Number = float | np.floating[Any] | np.integer[Any]
    Many = Sequence[float] | NDArray[np.floating[Any]] | NDArray[np.integer[Any]]
    Numbers = Number | Many
    # The ages of two lives (a JointLife): a pair of numbers gives a float, else a float64 array.
    Pair = tuple[Number, Number]
    Pairs = tuple[Numbers, Numbers]

__all__ = [
    "JointLife",
    "annuity",
    "commutation",
    "contingent_insurance",
    "insurance",
    "life_table",
    "net_premium",
    "pure_endowment",
    "reversionary_annuity",
]

AnnuityMethod = Literal["exact", "udd", "woolhouse", "woolhouse2"]
InsuranceMethod = Literal["exact", "udd"]

#: The columns of :func:`commutation`, in order.
COMMUTATION_COLUMNS = ("age", "lx", "dx", "Dx", "Nx", "Sx", "Cx", "Mx", "Rx")
#: The columns of :func:`life_table`, in order.
LIFE_TABLE_COLUMNS = ("age", "lx", "dx", "qx", "Lx", "Tx", "mx", "ex")


@overload
def annuity(
    table: DecrementTable,
    x: Number,
    n: Number | None = None,
    *,
    i: float | None = None,
    due: bool = True,
    m: int | None = 1,
    defer: float = 0,
    method: AnnuityMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float: ...
@overload
def annuity(
    table: DecrementTable,
    x: Many,
    n: Number | None = None,
    *,
    i: float | None = None,
    due: bool = True,
    m: int | None = 1,
    defer: float = 0,
    method: AnnuityMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> NDArray[np.float64]: ...
@overload
def annuity(
    table: DecrementTable,
    x: Number | Many,
    n: Many,
    *,
    i: float | None = None,
    due: bool = True,
    m: int | None = 1,
    defer: float = 0,
    method: AnnuityMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> NDArray[np.float64]: ...


@overload
def annuity(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    table: JointLife,
    x: Pair,
    n: Number | None = None,
    *,
    i: float | None = None,
    due: bool = True,
    m: int | None = 1,
    defer: float = 0,
    method: AnnuityMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float: ...
@overload
def annuity(
    table: JointLife,
    x: Pairs,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    due: bool = True,
    m: int | None = 1,
    defer: float = 0,
    method: AnnuityMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> NDArray[np.float64]: ...


def annuity(
    table: DecrementTable | JointLife,
    x: Numbers | Pairs,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    due: bool = True,
    m: int | None = 1,
    defer: float = 0,
    method: AnnuityMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float | NDArray[np.float64]:
    """Present value of a life annuity of 1 a year, payable ``m`` times a year in instalments of 1/m.

    Parameters
    ----------
    table : DecrementTable or JointLife
        The table whose survivorship the payments depend on, or two lives.
    x : float or array-like
        Ages in [0, w]; for a JointLife the pair (x, y).
    n : float or array-like, optional
        Term in years (payments stop at ``defer + n``); None for a whole-life annuity.
    i : float, optional
        Annual effective interest rate (> -1); defaults to the table's ``interest_rate``.
    due : bool, default True
        Payments at the start of each period (annuity-due); False: at the end (immediate).
        No effect on a continuous annuity.
    m : {1, 2, 3, 4, 6, 12} or None
        Payments per year; None: paid continuously (the integral of v^t tpx).
    defer : float, default 0
        Years before the first period begins.
    method : {"exact", "udd", "woolhouse", "woolhouse2"}
        "exact" sums every payment with the table's own survival at fractional ages (``n`` and
        ``defer`` in whole periods of 1/m; any real ones for m=None, integrated in closed form
        under the table's interpolation); "udd" applies alpha(m) and beta(m) to the annual
        annuity; "woolhouse" is Woolhouse's formula with three terms, "woolhouse2" with two (these
        three need whole years). "woolhouse" is refused (ValueError) where its second correction
        outweighs its first, at very high rates or forces of decrement, where it means nothing.
    moment : {1, 2}
        2: the second moment E[Y^2] of the present value Y of the payments, for an annuity-due
        (or continuous) without ``defer``, valued exactly, at i != 0: with the value ``a`` at i
        and ``a2`` at the doubled force (1 + i)^2 - 1, E[Y^2] = 2 (a - a2) / d^(m) + a2 / m
        (2 (a - a2) / delta continuously). The variance is E[Y^2] - a^2.
    increasing : bool, default False
        Payments of k + 1 a year in the k-th year (from 0) after ``defer``: (Iä). Whole years.
    decreasing : bool, default False
        Payments of n - k a year in the k-th year, over the term ``n``: (Dä). Whole years.

    Returns
    -------
    float or ndarray
        A float for a single age and term, otherwise a float64 vector.

    Raises
    ------
    ValueError
        Among others: ``i`` <= -1, a value beyond the range of a float (rates near -1), a select
        table at a select duration that carries modifications (use ``select_path``).
    """
    if isinstance(table, JointLife):
        if method != "exact" or moment != 1 or increasing or decreasing:
            _joint_options("annuity", method, moment, increasing, decreasing)
        return table._value("annuity", x, n, i, m, due, defer)
    return _native._annuity(table, x, n, i, due, m, defer, method, moment, increasing, decreasing)


@overload
def insurance(
    table: DecrementTable,
    x: Number,
    n: Number | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    defer: float = 0,
    endowment: bool = False,
    method: InsuranceMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float: ...
@overload
def insurance(
    table: DecrementTable,
    x: Many,
    n: Number | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    defer: float = 0,
    endowment: bool = False,
    method: InsuranceMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> NDArray[np.float64]: ...
@overload
def insurance(
    table: DecrementTable,
    x: Number | Many,
    n: Many,
    *,
    i: float | None = None,
    m: int | None = 1,
    defer: float = 0,
    endowment: bool = False,
    method: InsuranceMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> NDArray[np.float64]: ...


@overload
def insurance(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    table: JointLife,
    x: Pair,
    n: Number | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    defer: float = 0,
    endowment: bool = False,
    method: InsuranceMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float: ...
@overload
def insurance(
    table: JointLife,
    x: Pairs,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    defer: float = 0,
    endowment: bool = False,
    method: InsuranceMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> NDArray[np.float64]: ...


def insurance(
    table: DecrementTable | JointLife,
    x: Numbers | Pairs,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    defer: float = 0,
    endowment: bool = False,
    method: InsuranceMethod = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float | NDArray[np.float64]:
    """Present value of 1 paid on leaving the table (death, for a life table).

    Parameters
    ----------
    table : DecrementTable or JointLife
        The table whose decrements the benefit depends on, or two lives (paid on the failure
        of their status).
    x : float or array-like
        Ages in [0, w]; for a JointLife the pair (x, y).
    n : float or array-like, optional
        Term in whole years (cover from ``defer`` to ``defer + n``); None for whole life.
    i : float, optional
        Annual effective interest rate (> -1); defaults to the table's ``interest_rate``.
    m : {1, 2, 3, 4, 6, 12} or None, default 1
        The benefit is paid at the end of the 1/m-year period of death: m = 1 at the end of the
        year, None at the moment of death.
    defer : float, default 0
        Whole years before the cover begins.
    endowment : bool, default False
        Also pay 1 on survival to ``defer + n`` (an endowment insurance; needs ``n``).
    method : {"exact", "udd"}
        With m other than 1: "exact" values the deaths within each year under the table's own
        interpolation (in closed form, or by Gauss-Legendre quadrature under the hyperbolic one);
        "udd" multiplies the benefit at the end of the year by i / i^(m) (i / delta for None),
        the values under a uniform distribution of deaths. Under linear interpolation they agree.
    moment : {1, 2}
        2: the second moment of the present value of the benefit, the value at the doubled
        force, 1 + i' = (1 + i)^2. The variance is that less the square of the value.
    increasing : bool, default False
        A benefit of k + 1 on leaving in the k-th year of cover (from 0): (IA).
    decreasing : bool, default False
        A benefit of n - k on leaving in the k-th year of a term ``n``: (DA).

    Returns
    -------
    float or ndarray
    """
    if isinstance(table, JointLife):
        if method != "exact" or moment != 1 or increasing or decreasing:
            _joint_options("insurance", method, moment, increasing, decreasing)
        return table._value("insurance", x, n, i, m, True, defer, endowment)
    return _native._insurance(table, x, n, i, m, defer, endowment, method, moment, increasing, decreasing)


@overload
def pure_endowment(table: DecrementTable, x: Number, n: Number, *, i: float | None = None) -> float: ...  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
@overload
def pure_endowment(
    table: DecrementTable, x: Number | Many, n: Number | Many, *, i: float | None = None
) -> NDArray[np.float64]: ...
@overload
def pure_endowment(table: JointLife, x: Pair, n: Number, *, i: float | None = None) -> float: ...  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
@overload
def pure_endowment(
    table: JointLife, x: Pairs, n: Numbers, *, i: float | None = None
) -> NDArray[np.float64]: ...


def pure_endowment(
    table: DecrementTable | JointLife, x: Numbers | Pairs, n: Numbers, *, i: float | None = None
) -> float | NDArray[np.float64]:
    """Present value of 1 paid after ``n`` years on survival: v^n l(x + n) / l(x).

    Parameters
    ----------
    table : DecrementTable or JointLife
    x : float or array-like
        Ages in [0, w]; for a JointLife the pair (x, y) (the status's survival in place of l).
    n : float or array-like
        Years (>= 0; any real number).
    i : float, optional
        Annual effective interest rate (> -1); defaults to the table's ``interest_rate``.

    Returns
    -------
    float or ndarray
    """
    if isinstance(table, JointLife):
        return table._value("pure_endowment", x, n, i=i)
    return _native._pure_endowment(table, x, n, i)


@overload
def net_premium(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    table: DecrementTable,
    x: Number,
    n: Number | None = None,
    *,
    i: float | None = None,
    endowment: bool = False,
    m: int | None = 1,
    benefit_m: int | None = 1,
    premium_term: Number | None = None,
    method: AnnuityMethod = "exact",
) -> float: ...
@overload
def net_premium(
    table: DecrementTable,
    x: Number | Many,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    endowment: bool = False,
    m: int | None = 1,
    benefit_m: int | None = 1,
    premium_term: Numbers | None = None,
    method: AnnuityMethod = "exact",
) -> NDArray[np.float64]: ...


@overload
def net_premium(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    table: JointLife,
    x: Pair,
    n: Number | None = None,
    *,
    i: float | None = None,
    endowment: bool = False,
    m: int | None = 1,
    benefit_m: int | None = 1,
    premium_term: Number | None = None,
    method: AnnuityMethod = "exact",
) -> float: ...
@overload
def net_premium(
    table: JointLife,
    x: Pairs,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    endowment: bool = False,
    m: int | None = 1,
    benefit_m: int | None = 1,
    premium_term: Numbers | None = None,
    method: AnnuityMethod = "exact",
) -> NDArray[np.float64]: ...


def net_premium(
    table: DecrementTable | JointLife,
    x: Numbers | Pairs,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    endowment: bool = False,
    m: int | None = 1,
    benefit_m: int | None = 1,
    premium_term: Numbers | None = None,
    method: AnnuityMethod = "exact",
) -> float | NDArray[np.float64]:
    """Level annual net premium (equivalence principle) of a whole-life, term or endowment insurance.

    P = A / ä: the insurance of sum 1 (:func:`insurance` with ``n``, ``endowment`` and
    ``m=benefit_m``) over the annuity-due of the premiums (:func:`annuity` over ``premium_term``,
    by default the whole term ``n``, payable ``m`` times a year with ``method``). The result is the
    yearly total: each instalment is P / m.

    Parameters
    ----------
    table : DecrementTable or JointLife
    x : float or array-like
        Ages in [0, w]; for a JointLife the pair (x, y) (cover and premiums on its status).
    n : float or array-like, optional
        Term of the cover in whole years; None for whole life.
    i : float, optional
        Annual effective interest rate (> -1); defaults to the table's ``interest_rate``.
    endowment : bool, default False
        An endowment insurance (needs ``n``) instead of a term or whole-life insurance.
    m : {1, 2, 3, 4, 6, 12} or None
        Premium instalments per year; None: paid continuously (a fully continuous premium with
        ``benefit_m=None``).
    benefit_m : {1, 2, 3, 4, 6, 12} or None
        As ``m`` of :func:`insurance`: when the benefit is paid.
    premium_term : float or array-like, optional
        Years of premium payment (limited payments); at most ``n``.
    method : {"exact", "udd", "woolhouse", "woolhouse2"}
        How the premium annuity is valued (see :func:`annuity`); the benefit is valued with
        ``method="udd"`` when it is "udd", otherwise exactly.

    Returns
    -------
    float or ndarray
        NaN at an age where no life remains.
    """
    paying = n if premium_term is None else premium_term
    # A whole age and term need none of the vector checks below: two float calls, which the
    # table's cached columns answer.
    whole = premium_term is None and type(x) is int and (n is None or (type(n) is int and n > 0))
    if paying is not None and not whole:
        # A premium paid over no time has no level amount; the functions below check the rest.
        label = "n" if premium_term is None else "premium_term"
        try:
            term = np.asarray(paying, dtype=np.float64)
        except (TypeError, ValueError):
            raise TypeError(f"[net_premium] {label} must be a number or an array of numbers") from None
        if not np.all(term > 0):
            raise ValueError(f"[net_premium] {label} must be positive")
    if premium_term is not None and n is not None:
        excess = np.asarray(premium_term, dtype=np.float64) > np.asarray(n, dtype=np.float64)
        if np.any(excess):
            raise ValueError("[net_premium] premium_term must not exceed n")
    if isinstance(table, JointLife):
        _joint_options("net_premium", method)
        benefit = table._value("insurance", x, n, i=i, m=benefit_m, endowment=endowment)
        payments = table._value("annuity", x, paying, i=i, m=m)
    else:
        benefit_method = "udd" if method == "udd" else "exact"
        benefit = _native._insurance(table, x, n, i, benefit_m, 0, endowment, benefit_method)
        payments = _native._annuity(table, x, paying, i, True, m, 0, method)
    if whole and payments:
        return float(benefit) / float(payments)
    with np.errstate(divide="ignore", invalid="ignore"):
        premium = np.divide(benefit, payments)
    return float(premium) if np.ndim(premium) == 0 else premium


def _joint_options(
    function: str, method: str, moment: int = 1, increasing: bool = False, decreasing: bool = False
) -> None:
    """Refuses, for two lives, the options valued on one life's table alone."""
    if method != "exact":
        raise ValueError(
            f"[{function}] two lives are valued with method='exact' (their survival is exact), got {method!r}"
        )
    if moment != 1:
        raise ValueError(f"[{function}] moment=2 is for one life")
    if increasing or decreasing:
        raise ValueError(f"[{function}] increasing and decreasing benefits are for one life")


@overload
def reversionary_annuity(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    failing_table: DecrementTable,
    x: Number,
    payee_table: DecrementTable,
    y: Number,
    n: Number | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    due: bool = True,
) -> float: ...
@overload
def reversionary_annuity(
    failing_table: DecrementTable,
    x: Numbers,
    payee_table: DecrementTable,
    y: Numbers,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    due: bool = True,
) -> NDArray[np.float64]: ...


def reversionary_annuity(
    failing_table: DecrementTable,
    x: Numbers,
    payee_table: DecrementTable,
    y: Numbers,
    n: Numbers | None = None,
    *,
    i: float | None = None,
    m: int | None = 1,
    due: bool = True,
) -> float | NDArray[np.float64]:
    """Annuity to the payee (aged y) from the death of the failing life (aged x): a_y - a_xy.

    A widow's pension: payable while the payee lives after the failing life has died, over the
    first ``n`` years (None: for life). Each life on its own table; ``i`` from the call or else
    from the failing table's ``interest_rate``; ``m`` and ``due`` as for :func:`annuity`, for both
    annuities alike (so with ``due=True`` it is ä_y - ä_xy).

    Returns
    -------
    float or ndarray

    Examples
    --------
    >>> from veltrane import LifeTable
    >>> t = LifeTable("SULT", "u", interest_rate=0.05)
    >>> couple = annuity(JointLife(t, t), (65, 60))
    >>> round(reversionary_annuity(t, 65, t, 60) - (annuity(t, 60) - couple), 12)
    0.0
    """
    rate = i if i is not None else getattr(failing_table, "interest_rate", None)
    if not isinstance(payee_table, _native.DecrementTable):
        raise TypeError(
            f"[reversionary_annuity] payee_table must be a DecrementTable, got {type(payee_table).__name__}"
        )
    couple = JointLife(failing_table, payee_table)._value("annuity", (x, y), n, i=rate, m=m, due=due)
    # The payee's ages broadcast over the pair's (a number with an array of x).
    ages = np.broadcast_to(np.asarray(y, dtype=np.float64), np.shape(couple)) if np.ndim(couple) else y
    payee = _native._annuity(payee_table, ages, n, rate, due, m)
    value = np.subtract(payee, couple)
    return float(value) if np.ndim(value) == 0 else value


@overload
def contingent_insurance(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    first_table: DecrementTable,
    x: Number,
    second_table: DecrementTable,
    y: Number,
    n: Number | None = None,
    *,
    i: float | None = None,
) -> float: ...
@overload
def contingent_insurance(
    first_table: DecrementTable,
    x: Numbers,
    second_table: DecrementTable,
    y: Numbers,
    n: Numbers | None = None,
    *,
    i: float | None = None,
) -> NDArray[np.float64]: ...


def contingent_insurance(
    first_table: DecrementTable,
    x: Numbers,
    second_table: DecrementTable,
    y: Numbers,
    n: Numbers | None = None,
    *,
    i: float | None = None,
) -> float | NDArray[np.float64]:
    """1 paid at the end of the year of the first life's death if it dies before the second.

    The sum over the years k (within ``n`` whole years; None: for life) of v^(k+1) times the
    probability that the first life (aged x) dies in year k + 1 while the second (aged y) is
    alive: the integral over the year of the first's density of death, -l1'(x + t) / l1(x),
    times the second's survival l2(y + t) / l2(y), each under its own table's interpolation
    within the year (under linear interpolation, q_x kpxy (1 - q_y / 2) at whole ages).
    ``i`` from the call or else from the first table's ``interest_rate``.

    Returns
    -------
    float or ndarray
    """
    return JointLife(first_table, second_table)._value("contingent", (x, y), n, i=i)


def commutation(table: DecrementTable, i: float | None = None) -> pl.DataFrame:
    """Commutation columns of the table at interest ``i``, one row per integer age 0..w.

    They are a function of the age alone: a select table gives those of its one column (on a
    select duration, ``table.select_path(x)`` gives the columns of the life selected at x).

    ``lx`` is the unrounded survivorship (``table.lx()`` rounds it to ``decimals.lx``);
    ``dx = lx - l(x+1)`` (all of ``lw`` at the last age); ``Dx = v^x lx``, ``Cx = v^(x+1) dx``;
    ``Nx``, ``Sx``, ``Mx``, ``Rx`` sum ``Dx``, ``Nx``, ``Cx``, ``Mx`` from the age upwards. So
    ``Nx / Dx`` is the annual annuity-due and ``Mx / Dx`` the whole-life insurance.

    Parameters
    ----------
    table : DecrementTable
    i : float, optional
        Annual effective interest rate (> -1); defaults to the table's ``interest_rate``.

    Returns
    -------
    polars.DataFrame
        Columns age (Int64), lx, dx, Dx, Nx, Sx, Cx, Mx, Rx (Float64).
    """
    columns = _native._commutation(table, i)
    ages = np.arange(columns[0].size, dtype=np.int64)
    return pl.DataFrame(dict(zip(COMMUTATION_COLUMNS, (ages, *columns), strict=True)))


def life_table(table: DecrementTable) -> pl.DataFrame:
    """The life-table columns of the table, one row per integer age 0..w.

    ``lx`` is the unrounded survivorship, ``dx = lx - l(x+1)``, ``qx = dx / lx``; ``Lx`` the
    years lived in the year of age (the integral of l over it, under the configured
    ``lx_interpolation``; the year after w uniform, so ``Lw = lw / 2``), ``Tx`` their sum from
    the age upwards, ``mx = dx / Lx`` the central rate and ``ex = Tx / lx`` the complete
    expectation of life. Where no life remains every column but ``age`` is 0. Like
    :func:`commutation`, a select table gives the columns of its one duration column.

    Parameters
    ----------
    table : DecrementTable

    Returns
    -------
    polars.DataFrame
        Columns age (Int64), lx, dx, qx, Lx, Tx, mx, ex (Float64).

    Examples
    --------
    >>> from veltrane import LifeTable
    >>> frame = life_table(LifeTable("SULT", "u"))
    >>> row = frame.row(65, named=True)
    >>> round(row["ex"], 6) == round(LifeTable("SULT", "u").ex(65, complete=True), 6)
    True
    """
    lx, dx = _native._commutation(table, 0.0)[:2]
    L, T = _native._life_table(table)
    with np.errstate(divide="ignore", invalid="ignore"):
        qx = np.where(lx > 0, dx / np.where(lx > 0, lx, 1.0), 0.0)
        mx = np.where(L > 0, dx / np.where(L > 0, L, 1.0), 0.0)
        ex = np.where(lx > 0, T / np.where(lx > 0, lx, 1.0), 0.0)
    ages = np.arange(lx.size, dtype=np.int64)
    return pl.DataFrame(dict(zip(LIFE_TABLE_COLUMNS, (ages, lx, dx, qx, L, T, mx, ex), strict=True)))


def _call_through(
    function: Any, compiled: Any, required: int, positional: int, keywords: tuple[str, ...]
) -> Any:
    """``function`` with its calls on a table sent straight to ``compiled`` (which takes the same
    arguments, and may return NotImplemented to leave a call to ``function``): a scalar value
    read from a cached column then costs no Python frame."""
    fast = _native._PublicCall(function, compiled, required, positional, keywords)
    return functools.update_wrapper(fast, function)


if not TYPE_CHECKING:
    annuity = _call_through(
        annuity,
        _native._annuity,
        2,
        3,
        ("i", "due", "m", "defer", "method", "moment", "increasing", "decreasing"),
    )
    insurance = _call_through(
        insurance,
        _native._insurance,
        2,
        3,
        ("i", "m", "defer", "endowment", "method", "moment", "increasing", "decreasing"),
    )
    pure_endowment = _call_through(pure_endowment, _native._pure_endowment, 3, 3, ("i",))
    # Whole ages and terms only; the compiled function passes every other call back.
    net_premium = _call_through(net_premium, _native._net_premium_whole, 2, 3, ("i", "endowment"))
