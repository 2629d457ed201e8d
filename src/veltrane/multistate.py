"""Multiple-state models on decrement tables: the active–disabled–dead model of disability insurance.

:class:`DisabilityModel` combines a life table for actives, a table of disability incidence, a
life table for the disabled and, optionally, an exit table of recovery rates into an annual
Markov chain, and values annuities and death benefits on it with a C++ kernel. The formulas and
conventions are in ``docs/disability.md``.

Examples
--------
>>> from veltrane import DisabilityTable, LifeTable
>>> from veltrane.multistate import DisabilityModel
>>> model = DisabilityModel(
...     LifeTable("SULT", "u"), DisabilityTable("CIDA1985_90", "m"), LifeTable("PBGC_DISABLED", "m")
... )
>>> round(model.annuity(40, 25, i=0.04), 10)  # disability pension of an active aged 40, to 65
0.5685884354
"""

from __future__ import annotations

import copy
import math
import numbers
from typing import TYPE_CHECKING, Any, Literal, overload

import numpy as np
import polars as pl

from veltrane.tables import decrement as _native
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

if TYPE_CHECKING:
    from collections.abc import Sequence

    from numpy.typing import NDArray

    from veltrane.tables.decrement import DecrementTable

    # One age and term gives a float; a sequence or an array of them, a float64 array.
    Number = float | np.floating[Any] | np.integer[Any]
    Many = Sequence[float] | NDArray[np.floating[Any]] | NDArray[np.integer[Any]]
    Numbers = Number | Many

__all__ = ["CONVENTIONS", "STATES", "DisabilityModel"]

State = Literal["active", "disabled"]
Payable = Literal["active", "disabled", "alive"]
Convention = Literal["end_of_year", "mid_year"]
#: The timing conventions of the moves between the live states.
CONVENTIONS = ("end_of_year", "mid_year")
#: The states of the model, in the order of the columns of ``state_probabilities``.
STATES = ("active", "disabled", "dead")

Rows = tuple[np.ndarray, int]
Chain = tuple[Rows, Rows, Rows, Rows | None, bool]


class DisabilityModel:
    """The active–disabled–dead model as an annual Markov chain.

    A life is active, disabled or dead. Each year it moves once, at the end of the year, with the
    tables' rates at its age taken as the dependent one-year probabilities of each move: an
    active life aged x dies with probability ``q^a_x`` (``active_mortality``), becomes disabled
    with ``i_x`` (``incidence``) and otherwise stays active; a disabled life dies with ``q^i_x``
    (``disabled_mortality``), recovers with ``r_x`` (``recovery``; 0 without one) and otherwise
    stays disabled.

    Each table gives the rates its ``view_data`` shows (its rates in force, modifications
    included, at its decimals), read when a value is asked for, so a table changed after the
    model was made is read as it is then. A mortality table ends every life at its last age w
    (rate 1 there and beyond); an incidence or recovery table gives its published rate at its
    own w and 0 beyond it, so that, say, CIDA (ages 20-65) disables nobody after 65. Below a
    table's first published age (its ``start_age``) its rates are 0. A generational table gives
    the rates of its cohort; a select table, read from its ``duration`` at the starting age x,
    follows its select diagonal: at age x + k the rate of duration ``duration`` + k, the
    ultimate rate after the select period.

    With ``convention="mid_year"`` the moves between the live states happen in the middle of the
    year and are followed by half a year of the new state's mortality in the same year: an
    active life becomes disabled and survives the year with ``i_x (1 - q^i_x / 2)`` and dies
    with ``q^a_x + i_x q^i_x / 2``; a disabled life recovers with ``r_x (1 - q^a_x / 2)`` and dies
    with ``q^i_x + r_x q^a_x / 2``.

    Parameters
    ----------
    active_mortality : LifeTable
        Mortality of active lives.
    incidence : DisabilityTable
        One-year probabilities of becoming disabled.
    disabled_mortality : LifeTable
        Mortality of disabled lives.
    recovery : ExitTable, optional
        One-year probabilities that a disabled life recovers (becomes active again).
    convention : {"end_of_year", "mid_year"}
        When the moves between the live states happen (see above); deaths are counted in the
        year they happen either way.

    Raises
    ------
    TypeError
        A table of the wrong class.
    ValueError
        An unknown convention, a table is pending, a modified select table (modify its
        ``select_path`` instead), or the rates of a year sum above 1 (the message names the age).
    """

    __slots__ = ("_mid_year", "_tables")

    def __init__(
        self,
        active_mortality: LifeTable,
        incidence: DisabilityTable,
        disabled_mortality: LifeTable,
        *,
        recovery: ExitTable | None = None,
        convention: Convention = "end_of_year",
    ) -> None:
        for name, table, kind in (
            ("active_mortality", active_mortality, LifeTable),
            ("incidence", incidence, DisabilityTable),
            ("disabled_mortality", disabled_mortality, LifeTable),
            ("recovery", recovery, ExitTable),
        ):
            if table is None and name == "recovery":
                continue
            if not isinstance(table, kind):
                raise TypeError(
                    f"DisabilityModel: {name} must be a {kind.__name__}, got {type(table).__name__}"
                )
        if not isinstance(convention, str) or convention not in CONVENTIONS:
            raise ValueError(
                f"DisabilityModel: convention must be one of {', '.join(CONVENTIONS)}, got {convention!r}"
            )
        self._tables = (active_mortality, incidence, disabled_mortality, recovery)
        self._mid_year = convention == "mid_year"
        self._rates()  # refuses a model whose rates cannot be probabilities, before it is used

    @property
    def active_mortality(self) -> LifeTable:
        """The mortality table of active lives."""
        return self._tables[0]

    @property
    def incidence(self) -> DisabilityTable:
        """The table of disability incidence."""
        return self._tables[1]

    @property
    def disabled_mortality(self) -> LifeTable:
        """The mortality table of disabled lives."""
        return self._tables[2]

    @property
    def recovery(self) -> ExitTable | None:
        """The table of recovery rates, or None."""
        return self._tables[3]

    @property
    def convention(self) -> Convention:
        """When the moves between the live states happen: "end_of_year" or "mid_year"."""
        return "mid_year" if self._mid_year else "end_of_year"

    def __repr__(self) -> str:
        names = ["None" if t is None else f"{t.table_name}[{t.sex}]" for t in self._tables]
        return (
            f"DisabilityModel(active_mortality={names[0]}, incidence={names[1]}, "
            f"disabled_mortality={names[2]}, recovery={names[3]}"
            f"{', convention=' + repr(self.convention) if self._mid_year else ''})"
        )

    def state_probabilities(self, x: Numbers, years: int, start: State = "active") -> NDArray[np.float64]:
        """Probabilities of being active, disabled and dead after 0, 1, ..., ``years`` years.

        Parameters
        ----------
        x : int or array-like
            Ages at the start, whole numbers from 0 to the later last age of the two mortality
            tables.
        years : int
            Years to follow (>= 0).
        start : {"active", "disabled"}
            The state at age x.

        Returns
        -------
        ndarray
            For a single age, (years + 1) rows of the three probabilities (active, disabled,
            dead), row k at age x + k; for a vector of ages, one such block per age.
        """
        return _native._disability_states(self._rates(), x, years, start)

    def state_frame(self, x: float, years: int, start: State = "active") -> pl.DataFrame:
        """:meth:`state_probabilities` of one age as a frame: year, age, active, disabled, dead."""
        if not isinstance(x, numbers.Real) or isinstance(x, bool):
            raise TypeError(f"[state_frame] x must be a single number, got {type(x).__name__}")
        p = self.state_probabilities(x, years, start)
        k = np.arange(p.shape[0], dtype=np.int64)
        columns = {"year": k, "age": k + round(float(x))}
        return pl.DataFrame(columns | {state: p[:, j] for j, state in enumerate(STATES)})

    @overload
    def annuity(
        self,
        x: Number,
        n: Number | None = None,
        *,
        i: float | None = None,
        start: State = "active",
        payable: Payable = "disabled",
        m: int = 1,
        due: bool = True,
    ) -> float: ...
    @overload
    def annuity(
        self,
        x: Numbers,
        n: Many,
        *,
        i: float | None = None,
        start: State = "active",
        payable: Payable = "disabled",
        m: int = 1,
        due: bool = True,
    ) -> NDArray[np.float64]: ...
    @overload
    def annuity(
        self,
        x: Many,
        n: Numbers | None = None,
        *,
        i: float | None = None,
        start: State = "active",
        payable: Payable = "disabled",
        m: int = 1,
        due: bool = True,
    ) -> NDArray[np.float64]: ...
    def annuity(
        self,
        x: Numbers,
        n: Numbers | None = None,
        *,
        i: float | None = None,
        start: State = "active",
        payable: Payable = "disabled",
        m: int = 1,
        due: bool = True,
    ) -> float | NDArray[np.float64]:
        """Present value of 1 a year, payable ``m`` times a year while in the ``payable`` state.

        The state is that of the last anniversary: a payment at k + j/m years (0 < j < m) is
        made if the life was in the payable state at k, one at a whole k if it is there at k.

        Parameters
        ----------
        x : int or array-like
            Ages at the start (whole numbers).
        n : int or array-like, optional
            Term in whole years (payments within [0, n)); None until every life is dead.
        i : float, optional
            Annual effective interest rate (>= 0); defaults to the ``interest_rate`` of
            ``active_mortality``.
        start : {"active", "disabled"}
            The state at age x.
        payable : {"disabled", "active", "alive"}
            Paid while disabled (a disability pension, the default), while active, or while
            alive in either state.
        m : {1, 2, 3, 4, 6, 12}
            Payments a year, of 1/m each.
        due : bool, default True
            At the start of each period; False: at its end.

        Returns
        -------
        float or ndarray
            A float for a single age and term, otherwise a float64 vector.
        """
        v = self._discount(i, "annuity")
        return _native._disability_annuity(self._rates(), x, n, start, payable, v, m, due)

    @overload
    def insurance(
        self, x: Number, n: Number | None = None, *, i: float | None = None, start: State = "active"
    ) -> float: ...
    @overload
    def insurance(
        self, x: Numbers, n: Many, *, i: float | None = None, start: State = "active"
    ) -> NDArray[np.float64]: ...
    @overload
    def insurance(
        self, x: Many, n: Numbers | None = None, *, i: float | None = None, start: State = "active"
    ) -> NDArray[np.float64]: ...
    def insurance(
        self, x: Numbers, n: Numbers | None = None, *, i: float | None = None, start: State = "active"
    ) -> float | NDArray[np.float64]:
        """Present value of 1 paid at the end of the year of death, in either live state.

        Parameters
        ----------
        x : int or array-like
            Ages at the start (whole numbers).
        n : int or array-like, optional
            Term in whole years; None for the whole of life.
        i : float, optional
            Annual effective interest rate (>= 0); defaults to the ``interest_rate`` of
            ``active_mortality``.
        start : {"active", "disabled"}
            The state at age x.

        Returns
        -------
        float or ndarray
        """
        v = self._discount(i, "insurance")
        return _native._disability_insurance(self._rates(), x, n, start, v)

    def _discount(self, i: float | None, method: str) -> float:
        own = i is None
        if own:
            i = self.active_mortality.interest_rate
            if i is None:
                raise ValueError(
                    f"[{method}] i is required: pass i=... or give the active mortality table an "
                    "interest_rate"
                )
        if isinstance(i, bool) or not isinstance(i, numbers.Real):
            raise TypeError(f"[{method}] i must be a number, got {type(i).__name__}")
        rate = float(i)
        if not (math.isfinite(rate) and rate >= 0):
            which = "i (the active mortality table's interest_rate)" if own else "i"
            raise ValueError(f"[{method}] {which} must be a finite number >= 0, got {rate!r}")
        return 1.0 / (1.0 + rate)

    def _rates(self) -> Chain:
        """Each table's rows of rates (by duration for a select table) and its first row, checked."""
        a, inc, d, r = (None if t is None else _rows(t) for t in self._tables)
        assert a is not None and inc is not None and d is not None
        rates = (a, inc, d, r, self._mid_year)
        bad = _native._disability_check(rates)
        if bad is not None:
            age, year, state, death, other = bad
            table = self.active_mortality if state == "active" else self.disabled_mortality
            other_name = "incidence" if state == "active" else "recovery"
            on_path = f" (year {year} of the select path)" if year and _is_select(self._tables) else ""
            raise ValueError(
                f"DisabilityModel: the rates of the {state} state at age {age}{on_path} are not "
                f"probabilities of one year: death {death!r} ({table.table_name}) and {other_name} "
                f"{other!r} must be >= 0 and sum to at most 1"
            )
        return rates


def _is_select(tables: tuple[DecrementTable | None, ...]) -> bool:
    return any(t is not None and t.is_select for t in tables)


def _rows(table: DecrementTable) -> Rows:
    """The table's rates at ages 0..w as its data view shows them, one row per select duration."""
    table._ensure_ready("DisabilityModel")
    decimals = table._decimals_for_decrement
    ages = table.w + 1
    if not table.is_select:
        return np.round(np.asarray(table._decrement)[:ages], decimals)[np.newaxis, :], 0
    if table.modified:
        raise ValueError(
            f"DisabilityModel: {table.table_name!r} is a modified select table; its modifications "
            "apply to one duration only. Modify its select_path(...) instead."
        )
    start = table.start_duration if table.start_duration is not None else 1
    period = int(table.select_period or 0)
    durations: list[int | str] = [start + k for k in range(period)] + ["ult"]
    # One copy walked through the durations: the table itself is never touched.
    column = copy.copy(table)
    rows = np.empty((len(durations), ages))
    for row, d in zip(rows, durations, strict=True):
        column.duration = d
        row[:] = np.round(np.asarray(column._decrement)[:ages], decimals)
    duration = table.duration
    first = period if duration in (None, "ult") else min(int(duration) - start, period)
    return rows, first
