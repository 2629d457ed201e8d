"""The common construction of the concrete table classes (life, disability, exit)."""

from __future__ import annotations

import numbers
from collections.abc import Mapping, Sequence
from typing import TYPE_CHECKING, Any, ClassVar, TypeAlias, TypeVar, cast

import numpy as np
from numpy.typing import NDArray

from veltrane.tables.base import SexInput
from veltrane.tables.decrement import DecrementTable

if TYPE_CHECKING:
    from veltrane.tables.source import TableSource

# What a constructor call accepts: one value per key for one table, or sequences of them for many
# (each instance's __init__ then sees one value of each).
TableNames: TypeAlias = str | Sequence[str]
Sexes: TypeAlias = SexInput | Sequence[SexInput] | None
Cohorts: TypeAlias = int | Sequence[int] | NDArray[Any] | None
Blends: TypeAlias = float | Sequence[float] | None
Durations: TypeAlias = int | str | Sequence[int | str] | None
Rates: TypeAlias = Sequence[float] | NDArray[Any] | Mapping[str, Sequence[float] | NDArray[Any]]

Self = TypeVar("Self", bound="TypedTable")


class TypedTable(DecrementTable):
    """A decrement table of one fixed kind: checks that the table file is of that kind.

    Concrete subclasses set ``_TABLE_TYPE`` and implement ``table_type``.
    """

    __slots__ = ()
    _TABLE_TYPE: ClassVar[str]
    # __init__ below only checks its arguments and builds the table from them, so a
    # many-table call may copy one instance for further cohorts instead of running it again.
    _INIT_BUILDS_FROM_ARGUMENTS: ClassVar[bool] = True

    def __init__(
        self,
        table_name: TableNames,
        sex: Sexes = None,
        cohort: Cohorts = None,
        unisex_blend: Blends = None,
        duration: Durations = None,
        cartesian: bool = False,
        return_dict: bool = False,
        pending: bool = False,
    ) -> None:
        DecrementTable.__init__(
            self,
            table_name,  # type: ignore[arg-type]  # one value each here: the many-table call fans out
            sex,  # type: ignore[arg-type]
            cohort,  # type: ignore[arg-type]
            expected_table_type=self._TABLE_TYPE,
            unisex_blend=unisex_blend,
            duration=duration,
            pending=pending,
        )

    @classmethod
    def from_source(
        cls: type[Self], source: TableSource, sex: SexInput = "u", *, duration: int | str | None = None
    ) -> Self:
        """A table of this class on ``source`` as it is, with no name registered anywhere.

        Parameters
        ----------
        source : TableSource
            Built from data (``TableSource.from_rates``, ``from_frame``, ``from_select_grid``);
            its tables pickle with its data.
        sex : str, default "u"
        duration : int or "ult", optional
            The duration of a select table, as for the constructor.

        Returns
        -------
        A table of this class named ``source.table_name``.
        """
        from veltrane.tables import _unnamed

        return _unnamed.build(source, lambda name: cls(name, sex, duration=duration))

    @classmethod
    def from_rates(
        cls: type[Self],
        rates: Rates,
        *,
        start_age: int = 0,
        sex: SexInput = "u",
        close: bool = True,
        name: str = "RATES",
    ) -> Self:
        """A period table of this class from one-year rates typed in, with no name registered anywhere.

        Parameters
        ----------
        rates : sequence of float, or mapping of sex to sequence of float
            One-year rates by age from ``start_age`` (one vector, or one per sex of one length).
        start_age : int, default 0
            Age of the first rate; the ages below it carry rate 0 and lie before the table's start.
        sex : str, default "u"
            The sex of the table (one of the mapping's keys; a single vector serves any sex).
        close : bool, default True
            True: the last rate given is the last age w, where every life leaves (the rate
            there counts as 1, as at the end of any table). False: every rate given is kept and
            one age is added above them at which the table closes.
        name : str, default "RATES"
            The table's name, shown in summaries and messages (never registered).

        Returns
        -------
        A table of this class; it pickles with its rates.

        Examples
        --------
        >>> from veltrane import LifeTable
        >>> t = LifeTable.from_rates([0.1, 0.2, 0.3], start_age=60, close=False)
        >>> t.w, t.qx(62), t.qx(63)
        (63, 0.3, 1.0)
        """
        from veltrane.tables import _memory
        from veltrane.tables.source import TableSource

        if not isinstance(close, bool | np.bool_):
            raise TypeError(f"from_rates: close must be True or False, got {type(close).__name__}")
        if not isinstance(sex, str):
            raise TypeError(f"from_rates: sex must be a str, got {type(sex).__name__}")
        sex = cast("SexInput", sex.lower())
        by_sex = dict(rates) if isinstance(rates, Mapping) else {sex: rates}
        if sex not in by_sex:
            raise ValueError(f"from_rates: no rates for sex {sex!r}, only for {', '.join(map(repr, by_sex))}")
        vectors = {key: _memory.rate_vector(value, f"rates[{key!r}]") for key, value in by_sex.items()}
        if not close:
            vectors = {key: np.append(v, 1.0) for key, v in vectors.items()}
        source = TableSource.from_rates(name, vectors, table_type=cls._TABLE_TYPE, start_age=start_age)
        return cls.from_source(source, sex)

    def multiplier_by_age(self, factors: Mapping[int, float]) -> NDArray[np.float64]:
        """The vector of ``modify_qx``'s ``decrement_multiplier`` that rates given ages only.

        Parameters
        ----------
        factors : mapping of int to float
            Factor by whole age in 0..w; every other age gets 1.

        Returns
        -------
        numpy.ndarray
            float64, of length w + 1.

        Examples
        --------
        >>> from veltrane import LifeTable
        >>> t = LifeTable("SULT", "u")
        >>> m = t.multiplier_by_age({65: 1.5})
        >>> m.size, m[65], m[64]
        (121, 1.5, 1.0)
        """
        if not isinstance(factors, Mapping):
            raise TypeError(
                f"multiplier_by_age: factors must be a mapping of age to factor, got {type(factors).__name__}"
            )
        w = int(self.w)
        out = np.ones(w + 1)
        for age, factor in factors.items():
            if isinstance(age, bool) or not isinstance(age, numbers.Integral):
                raise ValueError(f"multiplier_by_age: ages must be whole numbers, got {age!r}")
            if not 0 <= int(age) <= w:
                raise ValueError(
                    f"multiplier_by_age: age {int(age)} lies outside 0..{w} (w of table {self.table_name!r})"
                )
            if (
                isinstance(factor, bool)
                or not isinstance(factor, numbers.Real)
                or not np.isfinite(float(factor))
            ):
                raise ValueError(
                    f"multiplier_by_age: the factor at age {int(age)} must be a finite number, got {factor!r}"
                )
            out[int(age)] = float(factor)
        return out

    def _repr_html_(self) -> str:
        """What a notebook shows: the table's identity, structure, sample rates and their shape."""
        from veltrane.tables.display import table_html

        return table_html(self)

    def summary(self) -> str:
        """A report of the table, then five sample rates from each end of it.

        Returns
        -------
        str
            Lines joined by newlines: name, sex, structure, keys, the omega in force,
            modifications, and the sample rates (with the base rate beside a modified one).
        """
        text = super().summary()
        if self.metadata_pending or self._decrement is None:
            return text  # no rates to sample: the report says what the table lacks
        lines = text.split("\n")
        symbol = self._DECREMENT_PREFIX_MAP[self._TABLE_TYPE]
        self._append_decrement_rate_sample_summary(lines, symbol, self._decimals_for_decrement, self.qx)
        return "\n".join(lines)
