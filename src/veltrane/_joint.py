"""Two independent lives: the joint-life and last-survivor statuses (``veltrane.contingencies.JointLife``)."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Literal, overload

import numpy as np

from veltrane.tables import decrement as _native

if TYPE_CHECKING:
    from collections.abc import Sequence

    from numpy.typing import NDArray

    Number = float | np.floating[Any] | np.integer[Any]
    Many = Sequence[float] | NDArray[np.floating[Any]] | NDArray[np.integer[Any]]
    Numbers = Number | Many

Status = Literal["joint", "last"]
STATUSES: tuple[Status, ...] = ("joint", "last")
# The names in messages of the values that are not functions of their own.
METHODS = {"tpx": "JointLife.tpx", "ex": "JointLife.ex", "ex_complete": "JointLife.ex"}


def pair(x: object, method: str) -> tuple[Any, Any]:
    """The two ages of a pair ``(x, y)`` (a tuple or a list of two), or a TypeError naming ``method``."""
    if not isinstance(x, (tuple, list)) or len(x) != 2:
        raise TypeError(
            f"[{method}] the age of two lives is a pair (x, y) of numbers or of arrays, got {x!r}"
        )
    return x[0], x[1]


class JointLife:
    """Two independent lives, each on its own table, valued as one status.

    ``status="joint"`` lasts while both lives survive, ``"last"`` while at least one does. Each
    life follows its own table exactly as one life does in :mod:`veltrane.contingencies` (its
    interpolation at fractional ages, the diagonal of a select table at a select duration), and
    the status survives t years with probability tpx * tpy (joint) or tpx + tpy - tpx * tpy
    (last). Its age is a pair ``(x, y)`` of numbers, or of arrays of one length (a number goes
    with every element of the other). :func:`~veltrane.contingencies.annuity`,
    :func:`~veltrane.contingencies.insurance`, :func:`~veltrane.contingencies.pure_endowment`
    and :func:`~veltrane.contingencies.net_premium` take a JointLife in place of a table, the
    rate from the call or else from the first table's ``interest_rate``. Values are unrounded.

    Parameters
    ----------
    first, second : DecrementTable
        The tables of the lives aged x and y (they may be the same table).
    status : {"joint", "last"}

    Examples
    --------
    >>> from veltrane import LifeTable
    >>> t = LifeTable("SULT", "u")
    >>> couple = JointLife(t, t)
    >>> round(couple.tpx((65, 65), 10), 10) == round(t.tpx(65, 10) ** 2, 10)
    True
    """

    __slots__ = ("_first", "_second", "_status")

    def __init__(
        self, first: _native.DecrementTable, second: _native.DecrementTable, *, status: Status = "joint"
    ):
        for label, table in (("first", first), ("second", second)):
            if not isinstance(table, _native.DecrementTable):
                raise TypeError(f"[JointLife] {label} must be a DecrementTable, got {type(table).__name__}")
        if status not in STATUSES:
            raise ValueError(f"[JointLife] status must be 'joint' or 'last', got {status!r}")
        self._first = first
        self._second = second
        self._status: Status = status

    @property
    def first(self) -> _native.DecrementTable:
        """The table of the first life (aged x)."""
        return self._first

    @property
    def second(self) -> _native.DecrementTable:
        """The table of the second life (aged y)."""
        return self._second

    @property
    def status(self) -> Status:
        """``"joint"`` (both alive) or ``"last"`` (at least one alive)."""
        return self._status

    def __repr__(self) -> str:
        return f"JointLife({self._first!r}, {self._second!r}, status={self._status!r})"

    def _value(
        self,
        kind: str,
        x: object,
        n: object = None,
        i: object = None,
        m: object = 1,
        due: object = True,
        defer: object = 0,
        endowment: object = False,
    ) -> float | NDArray[np.float64]:
        """The compiled value ``kind`` at the pair of ages ``x`` (for the contingency functions)."""
        first, second = pair(x, METHODS.get(kind, kind))
        return _native._joint(
            kind, self._first, self._second, self._status, first, second, n, i, m, due, defer, endowment
        )

    @overload
    def tpx(self, x: tuple[Number, Number], t: Number) -> float: ...  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    @overload
    def tpx(self, x: tuple[Numbers, Numbers], t: Numbers) -> NDArray[np.float64]: ...
    def tpx(self, x: tuple[Numbers, Numbers], t: Numbers) -> float | NDArray[np.float64]:
        """Probability that the status survives ``t`` years (any real t >= 0) from the ages ``(x, y)``."""
        return self._value("tpx", x, t)

    @overload
    def tqx(self, x: tuple[Number, Number], t: Number) -> float: ...  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
    @overload
    def tqx(self, x: tuple[Numbers, Numbers], t: Numbers) -> NDArray[np.float64]: ...
    def tqx(self, x: tuple[Numbers, Numbers], t: Numbers) -> float | NDArray[np.float64]:
        """Probability that the status fails within ``t`` years: 1 - tpx."""
        p = self._value("tpx", x, t)
        return 1.0 - p if isinstance(p, float) else np.subtract(1.0, p)

    @overload
    def ex(  # type: ignore[overload-overlap]  # NumPy scalars are arrays to mypy
        self, x: tuple[Number, Number], complete: bool = False, *, n: Number | None = None
    ) -> float: ...
    @overload
    def ex(
        self, x: tuple[Numbers, Numbers], complete: bool = False, *, n: Numbers | None = None
    ) -> NDArray[np.float64]: ...
    def ex(
        self, x: tuple[Numbers, Numbers], complete: bool = False, *, n: Numbers | None = None
    ) -> float | NDArray[np.float64]:
        """Expectation of the status's future lifetime: curtate (the sum of kpxy, k = 1, 2, ...) or complete.

        ``n`` limits it to ``n`` years (whole years when curtate).
        """
        if not isinstance(complete, (bool, np.bool_)):
            raise TypeError(f"[JointLife.ex] complete must be True or False, got {type(complete).__name__}")
        return self._value("ex_complete" if complete else "ex", x, n)
