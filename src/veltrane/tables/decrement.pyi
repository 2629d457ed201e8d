"""Types of the compiled decrement-table module, for type checkers and editors."""

import inspect
from abc import ABCMeta, abstractmethod
from collections.abc import Callable, Iterable, Mapping, Sequence
from pathlib import Path
from types import NotImplementedType, TracebackType
from typing import (
    Any,
    ClassVar,
    Final,
    Literal,
    Self,
    SupportsFloat,
    SupportsIndex,
    TypeAlias,
    final,
    overload,
)

import numpy as np
import polars as pl
from numpy.typing import NDArray
from typing_extensions import disjoint_base

from veltrane.base import PaymentFrequencyLiteral, TableKey
from veltrane.tables.base import ModifyDecrement, SexInput, _DecimalsConfig
from veltrane.tables.source import TableSource

#: One age or duration: a Python or NumPy number.
_Scalar: TypeAlias = float | np.floating[Any] | np.integer[Any]
#: Many ages or durations: a sequence or an array (pandas and Polars series convert too).
_Vector: TypeAlias = Sequence[float] | NDArray[Any]
_Array: TypeAlias = NDArray[np.float64]
_Year: TypeAlias = int | np.integer[Any]
_Years: TypeAlias = Sequence[int] | NDArray[np.integer[Any]] | range
_Interpolator: TypeAlias = Callable[[_Array, _Array, _Array], _Array]

_COHORT_ADJUSTED_QX_CACHE_MAX: Final[int]
_Q_CERTAINTY_TOL: Final[float]
_CONFIGURE_UNSET: Final[object]

def _clear_cohort_unisex_cache() -> None: ...
def _set_fast_paths(enabled: bool) -> bool: ...
def _config_changed() -> None: ...
def _validate_table_class(table_class: object, name: str = "table_class") -> None: ...

# The contingency kernels behind veltrane.contingencies.
def _annuity(
    table: DecrementTable,
    x: object,
    n: object = None,
    i: object = None,
    due: bool = True,
    m: object = 1,
    defer: object = 0,
    method: str = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float | NDArray[np.float64]: ...
def _insurance(
    table: DecrementTable,
    x: object,
    n: object = None,
    i: object = None,
    m: object = 1,
    defer: object = 0,
    endowment: bool = False,
    method: str = "exact",
    moment: int = 1,
    increasing: bool = False,
    decreasing: bool = False,
) -> float | NDArray[np.float64]: ...
def _life_table(table: DecrementTable) -> tuple[NDArray[np.float64], NDArray[np.float64]]: ...
def _interest(
    kind: str, i: object, m: int | None = 1, n: object = None, due: bool = True
) -> float | NDArray[np.float64]: ...
def _pure_endowment(
    table: DecrementTable, x: object, n: object, i: object = None
) -> float | NDArray[np.float64]: ...
def _net_premium_whole(
    table: DecrementTable, x: object, n: object = None, i: object = None, endowment: object = False
) -> float | NotImplementedType: ...
def _commutation(table: DecrementTable, i: object = None) -> tuple[NDArray[np.float64], ...]: ...
def _joint(
    kind: str,
    first: DecrementTable,
    second: DecrementTable,
    status: str,
    x: object,
    y: object,
    n: object = None,
    i: object = None,
    m: object = 1,
    due: object = True,
    defer: object = 0,
    endowment: object = False,
) -> float | NDArray[np.float64]: ...
def configure_all(
    tables: Iterable[DecrementTable] | Mapping[Any, DecrementTable],
    sex: SexInput | None = None,
    cohort: int | None = None,
    duration: int | str | None = None,
    unisex_blend: float | None = None,
    interest_rate: float | None = None,
) -> None:
    """Call ``configure`` with the given settings on every table (a dict's values, or any iterable)."""

@final
class _BatchUpdateContext:
    __signature__: ClassVar[inspect.Signature]
    def __init__(self, table: DecrementTable) -> None: ...
    def __enter__(self) -> Self: ...
    def __exit__(
        self,
        exc_type: type[BaseException] | None,
        exc_val: BaseException | None,
        exc_tb: TracebackType | None,
        /,
    ) -> None: ...

class DecrementTable(metaclass=ABCMeta):
    """Abstract base of the life, disability and exit tables."""

    _VALID_TABLE_COMBINATIONS: ClassVar[dict[str, set[str]]]
    _DECREMENT_PREFIX_MAP: ClassVar[dict[str, str]]
    _VECTORIAL_MEMORY_WARNING_THRESHOLD: ClassVar[int]
    _LX_INTERPOLATION_MAP: ClassVar[dict[str, _Interpolator]]
    #: The constructor's parameters as inspect.signature shows them.
    __signature__: ClassVar[inspect.Signature]

    # -- construction: scalars give one table, sequences a tuple, return_dict=True a dict ------
    # (type checkers that follow a __new__ returning another type, such as pyright, see the
    # tuple and the dict; mypy needs the plugin veltrane.mypy_plugin for them.)
    @overload
    def __new__(
        cls,
        table_name: str,
        sex: SexInput | None = None,
        cohort: _Year | None = None,
        unisex_blend: float | None = None,
        duration: int | str | None = None,
        cartesian: bool = False,
        return_dict: Literal[False] = False,
        pending: bool = False,
        **kwargs: Any,
    ) -> Self: ...
    @overload
    def __new__(  # type: ignore[misc]
        cls,
        table_name: str | Sequence[str],
        sex: SexInput | Sequence[SexInput] | None = None,
        cohort: _Year | _Years | None = None,
        unisex_blend: float | Sequence[float] | None = None,
        duration: int | str | Sequence[int | str] | None = None,
        cartesian: bool = False,
        *,
        return_dict: Literal[True],
        pending: bool = False,
        **kwargs: Any,
    ) -> dict[TableKey, Self]: ...
    @overload
    def __new__(  # type: ignore[misc]
        cls,
        table_name: str | Sequence[str],
        sex: SexInput | Sequence[SexInput] | None = None,
        cohort: _Year | _Years | None = None,
        unisex_blend: float | Sequence[float] | None = None,
        duration: int | str | Sequence[int | str] | None = None,
        cartesian: bool = False,
        return_dict: bool = False,
        pending: bool = False,
        **kwargs: Any,
    ) -> tuple[Self, ...]: ...
    def __init__(
        self,
        table_name: str,
        sex: SexInput | None = None,
        cohort: int | None = None,
        expected_table_type: str | None = None,
        unisex_blend: object = None,
        duration: object = None,
        pending: bool = False,
    ) -> None: ...
    def __hash__(self) -> int: ...
    def __eq__(self, other: object, /) -> bool: ...
    def __deepcopy__(self, memo: dict[int, Any] | None, /) -> Self: ...
    def copy(self) -> Self: ...

    # -- identity and structure ----------------------------------------------------------------
    @property
    @abstractmethod
    def table_type(self) -> str: ...
    @property
    def table(self) -> TableSource: ...
    @property
    def table_name(self) -> str: ...
    @property
    def generational(self) -> bool: ...
    @property
    def base_year(self) -> int | None: ...
    @property
    def omega(self) -> int: ...
    @property
    def start_age(self) -> int: ...
    @property
    def description(self) -> str: ...
    @property
    def valid_sexes(self) -> list[str]: ...
    @property
    def sex_independent(self) -> bool: ...
    @property
    def generational_formula_type(self) -> str | None: ...
    @property
    def metadata(self) -> dict[str, Any]: ...
    @property
    def modified(self) -> bool: ...
    @property
    def metadata_pending(self) -> bool: ...
    @property
    def select_improvement_diagonal(self) -> str | None: ...
    @property
    def select(self) -> bool: ...
    @property
    def select_period(self) -> int | None: ...
    @property
    def start_duration(self) -> int | None: ...
    @property
    def mi_by_duration(self) -> bool: ...
    @property
    def mi_structure(self) -> str | None: ...
    @property
    def grid_years(self) -> list[int] | None: ...
    @property
    def file_name(self) -> str: ...
    @property
    def file_path(self) -> Path: ...
    @property
    def data(self) -> pl.DataFrame: ...
    @property
    def w(self) -> int: ...
    @property
    def decimals(self) -> _DecimalsConfig: ...
    @property
    def modifications_applied(self) -> list[str]: ...
    @property
    def is_select(self) -> bool: ...

    # -- keys ------------------------------------------------------------------------------------
    @property
    def sex(self) -> str: ...
    @sex.setter
    def sex(self, value: SexInput) -> None: ...
    @property
    def cohort(self) -> int | None: ...
    @cohort.setter
    def cohort(self, value: object) -> None: ...
    @property
    def duration(self) -> int | str | None: ...
    @duration.setter
    def duration(self, value: object) -> None: ...
    @property
    def unisex_blend(self) -> float | None: ...
    @unisex_blend.setter
    def unisex_blend(self, value: object) -> None: ...

    # -- configuration and modifications ----------------------------------------------------------
    def configure(
        self,
        sex: SexInput | None = None,
        cohort: int | None = None,
        duration: int | str | None = None,
        unisex_blend: float | None = None,
    ) -> Self: ...
    def batch_update(self) -> _BatchUpdateContext: ...
    def modify_qx(self, modifications: ModifyDecrement) -> None: ...
    def reset_modifications(self) -> None: ...
    def cause_rates(self, service_table: bool = False) -> pl.DataFrame: ...

    # -- actuarial functions: a number gives a float, a sequence or array a float64 array ----------
    @overload
    def lx(self, x: None = None) -> _Array: ...
    @overload
    def lx(self, x: _Scalar) -> float: ...
    @overload
    def lx(self, x: _Vector) -> _Array: ...
    @overload
    def dx(self, x: None = None) -> _Array: ...
    @overload
    def dx(self, x: _Scalar) -> float: ...
    @overload
    def dx(self, x: _Vector) -> _Array: ...
    @overload
    def px(self, x: None = None, m: PaymentFrequencyLiteral = 1) -> _Array: ...
    @overload
    def px(self, x: _Scalar, m: PaymentFrequencyLiteral = 1) -> float: ...
    @overload
    def px(self, x: _Vector, m: PaymentFrequencyLiteral = 1) -> _Array: ...
    @overload
    def qx(self, x: None = None, m: PaymentFrequencyLiteral = 1) -> _Array: ...
    @overload
    def qx(self, x: _Scalar, m: PaymentFrequencyLiteral = 1) -> float: ...
    @overload
    def qx(self, x: _Vector, m: PaymentFrequencyLiteral = 1) -> _Array: ...
    @overload
    def tpx(self, x: _Scalar, t: _Scalar = 1) -> float: ...
    @overload
    def tpx(self, x: _Scalar | _Vector, t: _Vector) -> _Array: ...
    @overload
    def tpx(self, x: _Vector, t: _Scalar | _Vector = 1) -> _Array: ...
    @overload
    def tqx(self, x: _Scalar, t: _Scalar = 1) -> float: ...
    @overload
    def tqx(self, x: _Scalar | _Vector, t: _Vector) -> _Array: ...
    @overload
    def tqx(self, x: _Vector, t: _Scalar | _Vector = 1) -> _Array: ...
    @overload
    def ex(self, x: None = None, n: None = None, complete: bool = False) -> _Array: ...
    @overload
    def ex(self, x: _Scalar, n: _Scalar | None = None, complete: bool = False) -> float: ...
    @overload
    def ex(self, x: _Scalar | _Vector, n: _Vector, complete: bool = False) -> _Array: ...
    @overload
    def ex(self, x: _Vector, n: _Scalar | _Vector | None = None, complete: bool = False) -> _Array: ...
    @overload
    def mu(self, x: None = None) -> _Array: ...
    @overload
    def mu(self, x: _Scalar) -> float: ...
    @overload
    def mu(self, x: _Vector) -> _Array: ...
    @overload
    def lifetime_quantile(self, x: _Scalar, p: _Scalar) -> float: ...
    @overload
    def lifetime_quantile(self, x: _Scalar | _Vector, p: _Vector) -> _Array: ...
    @overload
    def lifetime_quantile(self, x: _Vector, p: _Scalar | _Vector) -> _Array: ...

    # -- views ------------------------------------------------------------------------------------
    def summary(self) -> str: ...
    def view_data(self, include_age: bool = True, show_normalized: bool = False) -> pl.DataFrame: ...
    def head(
        self, n: SupportsIndex = 10, include_age: bool = True, show_normalized: bool = False
    ) -> pl.DataFrame: ...
    def tail(
        self, n: SupportsIndex = 10, include_age: bool = True, show_normalized: bool = False
    ) -> pl.DataFrame: ...
    def select_path(self, issue_age: int, years: int | None = None) -> Self:
        """The period table of a life selected at ``issue_age``: q[x], q[x]+1, ..., then ultimate."""
    def plot(self, ax: Any = None, log: bool = True, what: Literal["qx", "lx", "ex"] = "qx") -> Any:
        """Draw the rates, survivors or expectation of life by age on a matplotlib axes."""

    # -- instance fields (internal; read by the library's own Python modules) ------------------------
    _instance_id: int
    _initialized: bool
    _table: TableSource
    _table_is_private_copy: bool
    _sex: str | None
    _cohort: int | None
    _duration: int | str | None
    _select_duration_set: bool
    _unisex_blend: float | None
    _metadata_pending: bool
    _decrement_base: _Array | None
    _decrement: _Array | None
    _lx: _Array | None
    _lx_raw: _Array | None
    _px: _Array | None
    _qx: _Array | None
    _decimals_config: _DecimalsConfig
    _decimals_decrement_cache: Any
    _modified: bool
    _modifications_applied: list[str]
    _modification_record: Any
    _cause_split: Any
    _w_mod: int | None
    _suspend_rebuild: bool
    _rebuilds_since_calc: int

    # -- internal operations, documented for subclasses and projection code ------------------------
    @property
    def _decimals_for_decrement(self) -> int: ...
    def _ensure_ready(self, method_name: str = "") -> None: ...
    def _check_metadata_complete(self) -> bool: ...
    def _apply_and_rebuild(
        self,
        *,
        sex: object = ...,
        cohort: object = ...,
        duration_internal: object = ...,
        unisex_blend: object = ...,
    ) -> None: ...
    def _capture_batch_snapshot(self) -> dict[str, object]: ...
    def _restore_batch_snapshot(self, snap: dict[str, object], /) -> None: ...
    def _invalidate_caches(self) -> None: ...
    def _modify_decrement(self, modifications: ModifyDecrement) -> None: ...
    def _compute_lx(self) -> _Array: ...
    def _compute_decrement(self) -> _Array: ...
    def _snapshot_actuarial_state_for_ts(self) -> dict[str, object]: ...
    def _restore_actuarial_state_from_ts_snapshot(self, snap: dict[str, object]) -> None: ...
    def _advance_actuarial_state_for_ts(self, ts: SupportsFloat) -> dict[str, object] | None: ...
    def _lx_at(self, x_arr: _Array, use_raw: bool = False) -> _Array: ...
    def _build_instance_dataframe(self) -> pl.DataFrame: ...
    def _generate_unisex_decrement(self, unisex_blend: object, /) -> None: ...
    def _get_select_col(self, sex: str, dur: int | None, /) -> str: ...
    def _get_mi_col(self, sex: str, dur: int | None, /) -> str: ...
    def _compute_select_decrement(self, sex: str, data: Any, w: int, prefix: str, /) -> _Array: ...
    def _validate_cohort_year(self, value: object, /) -> int: ...
    def _period_decrement(self, year: int, /) -> _Array: ...
    def _prob_decrement_interval(
        self,
        prob_type: str,
        x: object,
        m: object = 1,
        validate: bool = True,
        use_raw: bool = False,
        is_scalar_x_hint: object = None,
    ) -> float | _Array: ...
    def _prob_life_interval(
        self, prob_type: str, x: object, t: object = 1, validate: bool = True, use_raw: bool = False
    ) -> float | _Array: ...
    def _append_decrement_rate_sample_summary(
        self, lines: list[str], rate_symbol: str, decimals: int, rate_at_age: Callable[..., Any]
    ) -> None: ...
    @staticmethod
    def _safe_slice(arr: pl.DataFrame, n: int) -> pl.DataFrame: ...
    @staticmethod
    def _lx_interpolation_linear(lx: _Array, x: _Array, frac: _Array) -> _Array: ...
    @staticmethod
    def _lx_interpolation_exponential(lx: _Array, x: _Array, frac: _Array) -> _Array: ...
    @staticmethod
    def _lx_interpolation_hyperbolic(lx: _Array, x: _Array, frac: _Array) -> _Array: ...

@disjoint_base
class TableRegistry:
    """A bounded cache of configured tables, keyed by table identity and keys."""

    _DEFAULT_MAXSIZE: ClassVar[int]
    __signature__: ClassVar[inspect.Signature]
    _table_class: type[DecrementTable] | None
    _maxsize: int
    _cache: Any
    def __init__(self, table_class: type[DecrementTable] | None = None, *, maxsize: int = 256) -> None: ...
    def get_or_create(
        self,
        table_class: type[DecrementTable] | None,
        table_name: str,
        sex: SexInput | Sequence[SexInput],
        cohort: int | None = None,
        duration: int | str | None = None,
        unisex_blend: float | None = None,
        interest_rate: float | None = None,
        **extra_kwargs: Any,
    ) -> Any: ...
    def clear(self) -> None: ...
    def __len__(self) -> int: ...

# The chain kernels behind veltrane.multistate.
def _disability_check(rates: tuple[Any, ...]) -> tuple[int, int, str, float, float] | None: ...
def _disability_states(
    rates: tuple[Any, ...], x: object, years: object, start: object
) -> NDArray[np.float64]: ...
def _disability_annuity(
    rates: tuple[Any, ...],
    x: object,
    n: object,
    start: object,
    payable: object,
    v: object,
    m: object,
    due: object,
) -> float | NDArray[np.float64]: ...
def _disability_insurance(
    rates: tuple[Any, ...], x: object, n: object, start: object, v: object
) -> float | NDArray[np.float64]: ...

# The valuation kernel behind veltrane.valuation: one block of laid-out policies.
def _value_block(
    bank: NDArray[np.float64],
    discount: NDArray[np.float64],
    groups: NDArray[np.int64],
    ints: tuple[NDArray[np.int64], ...],
    reals: tuple[NDArray[np.float64], ...],
    n: int,
    m: int,
    due: bool,
    interpolation: int,
    scenarios: int,
    years: int,
    reserves: bool,
    flows: bool,
    flat: bool,
    threads: int,
    results: NDArray[np.float64] | None,
    offset: int,
) -> tuple[Any, ...]: ...

# A public function whose calls on a table go straight to its compiled counterpart.
@final
class _PublicCall:
    def __new__(
        cls,
        wrapped: Callable[..., Any],
        compiled: Callable[..., Any],
        required: int,
        positional: int,
        keywords: tuple[str, ...],
    ) -> _PublicCall: ...
    def __call__(self, *args: Any, **kwargs: Any) -> Any: ...
    def __get__(self, instance: object, owner: type | None = None, /) -> _PublicCall: ...
