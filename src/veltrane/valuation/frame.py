"""The per-policy arrays of a valuation: product amounts, terms, ratings and interest columns
checked and laid out for the kernel, next to what ``read_policies`` makes of the policies."""

from __future__ import annotations

import functools
from collections import OrderedDict
from collections.abc import Collection
from dataclasses import dataclass
from typing import Any

import numpy as np
import polars as pl

from veltrane.config import Config
from veltrane.portfolio.plan import RatePlan
from veltrane.portfolio.policies import COLUMNS as POLICY_COLUMNS
from veltrane.portfolio.policies import PolicyBatch, _as_frame, read_policies
from veltrane.tables.decrement import TableRegistry
from veltrane.valuation.curve import YieldCurve
from veltrane.valuation.product import AMOUNT_FIELDS, TERM_FIELDS, Product

__all__ = ["RATINGS", "Laid", "Policies", "lay_out"]

#: Per-policy ratings, applied in this order as ``modify_qx`` applies its keys.
RATINGS = ("age_shift", "decrement_multiplier", "aggravated_risk")
# The kernel's fields (kernels/valuation.hpp): per group, and per policy (integer and real).
GROUP_FIELDS = ("row", "period", "female", "decimals")
INT_FIELDS = ("group", "age", "offset", "elapsed", "shift", "basis", "term", "deferral", "premium_term")
REAL_FIELDS = (
    "blend",
    "multiplier",
    "aggravation",
    "death",
    "survival",
    "endowment",
    "premium",
    "escalation",
)
# The product's amounts in the order of the real fields that follow the ratings.
AMOUNT_ORDER = ("death_benefit", "survival_benefit", "endowment", "premium", "escalation")
_INTERPOLATION = {"linear": 0, "exponential": 1, "hyperbolic": 2}
_LARGEST_AGGRAVATION = 100.0
_LARGEST_TERM = 100_000
# Discount factors tabulated at most (rates x steps of 1/m year): 128 MB.
_LARGEST_GRID = 1 << 24


def _bad(column: str, row: int, problem: str) -> ValueError:
    return ValueError(f"policies: column {column!r}, row {row}: {problem}")


def _numbers(frame: pl.DataFrame, column: str, what: str) -> np.ndarray:
    if column not in frame.columns:
        raise ValueError(f"policies: column {column!r} ({what}) is missing; the columns are {frame.columns}")
    series = frame[column]
    if not series.dtype.is_numeric() or series.dtype == pl.Boolean:
        raise ValueError(f"policies: column {column!r} ({what}) must hold numbers, got {series.dtype}")
    values = series.cast(pl.Float64)
    numbers = values.to_numpy().astype(np.float64, copy=False)
    if values.null_count() or not np.isfinite(numbers).all():
        bad = (values.is_null() | ~values.is_finite()).fill_null(True)
        row = int(bad.arg_true()[0])
        raise _bad(column, row, f"{what} must be a finite number, got {values[row]!r}")
    return numbers


def _whole(frame: pl.DataFrame, column: str, what: str, *, nullable: bool) -> np.ndarray:
    """Whole numbers >= 0; -1 where a nullable column is null."""
    if column not in frame.columns:
        raise ValueError(f"policies: column {column!r} ({what}) is missing; the columns are {frame.columns}")
    series = frame[column]
    if not series.dtype.is_numeric() or series.dtype == pl.Boolean:
        raise ValueError(f"policies: column {column!r} ({what}) must hold whole numbers, got {series.dtype}")
    values = series.cast(pl.Float64).fill_nan(None)
    missing = values.is_null()
    if missing.any() and not nullable:
        raise _bad(column, int(missing.arg_true()[0]), f"{what} is missing")
    filled = values.fill_null(0.0).to_numpy()
    bad = ~np.isfinite(filled) | (filled != np.round(filled)) | (filled < 0) | (filled > _LARGEST_TERM)
    if bad.any():
        row = int(np.argmax(bad))
        raise _bad(column, row, f"{what} must be a whole number in [0, {_LARGEST_TERM}], got {values[row]!r}")
    out = filled.astype(np.int64)
    out[missing.to_numpy()] = -1
    return out


@dataclass
class Laid:
    """A frame of policies ready for the kernel."""

    plan: RatePlan
    n: int
    groups: np.ndarray  # (groups, len(GROUP_FIELDS)) int64
    # One array per field: a value per policy, or a single value shared by every policy.
    ints: tuple[np.ndarray, ...]  # int64, INT_FIELDS
    reals: tuple[np.ndarray, ...]  # float64, REAL_FIELDS
    discount: np.ndarray  # (bases, steps) float64
    scenarios: int
    scenario_set: bool
    years: int  # columns of the reserves and cash flows
    flat: bool  # every basis is one rate (not a curve)
    m: int
    due: bool
    interpolation: int

    def __len__(self) -> int:
        return self.n

    def fields(self, block: slice) -> tuple[tuple[np.ndarray, ...], tuple[np.ndarray, ...]]:
        """The per-policy fields of the policies of ``block``."""

        def cut(a: np.ndarray) -> np.ndarray:
            return a if a.shape[0] == 1 and self.n != 1 else a[block]

        return tuple(cut(a) for a in self.ints), tuple(cut(a) for a in self.reals)


def _field(values: np.ndarray, dtype: type) -> np.ndarray:
    """One field: a single value when every policy has the same one."""
    values = np.ascontiguousarray(values, dtype=dtype)
    if values.size <= 1:
        return values
    first = values[0]
    same = np.isnan(values).all() if first != first else values[-1] == first and (values == first).all()
    return values[:1].copy() if same else values


def _amount(frame: pl.DataFrame, product: Product, name: str) -> np.ndarray:
    value = getattr(product, name)
    if isinstance(value, str):
        return _numbers(frame, value, f"product.{name}")
    return np.full(1, np.nan if value is None else float(value))


def _years(frame: pl.DataFrame, product: Product, name: str) -> np.ndarray:
    value = getattr(product, name)
    if isinstance(value, str):
        return _whole(frame, value, f"product.{name}", nullable=name != "deferral")
    return np.full(1, -1 if value is None else int(value), dtype=np.int64)


def _ratings(frame: pl.DataFrame) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    # A rating not given is one value for every policy.
    shift = np.zeros(1, dtype=np.int64)
    multiplier = np.ones(1)
    aggravation = np.ones(1)
    if "age_shift" in frame.columns:
        shift = _whole(frame, "age_shift", "rating", nullable=False)
    if "decrement_multiplier" in frame.columns:
        multiplier = _numbers(frame, "decrement_multiplier", "rating")
        if (multiplier <= 0).any():
            row = int(np.argmax(multiplier <= 0))
            raise _bad("decrement_multiplier", row, f"must be > 0, got {float(multiplier[row])!r}")
    if "aggravated_risk" in frame.columns:
        aggravation = _numbers(frame, "aggravated_risk", "rating")
        bad = (aggravation <= 0) | (aggravation > _LARGEST_AGGRAVATION)
        if bad.any():
            row = int(np.argmax(bad))
            raise _bad(
                "aggravated_risk",
                row,
                f"must be in (0, {_LARGEST_AGGRAVATION:g}], got {float(aggravation[row])!r}",
            )
    return shift, multiplier, aggravation


# Plans of recent calls with a caller's registry, with the rate vectors they were made from: a
# valuation repeated on the same registry reuses its tables and bank while those are unchanged
# (a rebuild or a modification of a table replaces its vectors).
_PLANS: OrderedDict[tuple[Any, ...], tuple[RatePlan, tuple[Any, ...]]] = OrderedDict()
_KEPT_PLANS = 4


def _vectors(plan: RatePlan) -> tuple[Any, ...]:
    return tuple(v for t in plan.tables for v in (t._decrement, t._decrement_base))


def _plan(groups: tuple[Any, ...], width: int, registry: TableRegistry | None) -> RatePlan:
    if registry is None:
        return RatePlan(groups, width)
    d = Config().decimals
    key = (id(registry), groups, width, (d.qx, d.ix, d.ox, d.px, d.tpx, d.tqx))
    kept = _PLANS.get(key)
    if kept is not None and kept[0].registry is registry:
        plan, vectors = kept
        if all(a is b for a, b in zip(_vectors(plan), vectors, strict=True)):
            _PLANS.move_to_end(key)
            return plan
    plan = RatePlan(groups, width, registry)
    _PLANS[key] = (plan, _vectors(plan))
    while len(_PLANS) > _KEPT_PLANS:
        _PLANS.popitem(last=False)
    return plan


def check_basis(interest: Any, curve: Any) -> None:
    """Exactly one of ``interest`` and ``curve``, each of the right kind."""
    if (interest is None) == (curve is None):
        raise ValueError(
            "value: give exactly one of interest (a rate or a column name) and curve (a YieldCurve)"
        )
    if curve is not None and not isinstance(curve, YieldCurve):
        raise ValueError(f"value: curve must be a YieldCurve, got {type(curve).__name__}")
    if interest is not None and not isinstance(interest, str):
        if isinstance(interest, bool) or not isinstance(interest, int | float | np.floating | np.integer):
            raise ValueError(f"value: interest must be a number or a column name, got {interest!r}")
        if not np.isfinite(interest) or interest <= -1.0:
            raise ValueError(f"value: interest must be a finite rate > -1, got {interest!r}")


@dataclass(frozen=True)
class PolicyPart:
    """What a frame says of its policies, whatever the product: tables, ages, durations, ratings."""

    frame: pl.DataFrame
    batch: PolicyBatch
    shift: np.ndarray
    multiplier: np.ndarray
    aggravation: np.ndarray
    elapsed: np.ndarray  # years since issue (one 0 for policies given by attained age)

    @functools.cached_property
    def fields(self) -> tuple[tuple[np.ndarray, ...], tuple[np.ndarray, ...]]:
        """The kernel fields that describe the policies (every product's): group, age, select
        offset, years since issue, age shift; blend, multiplier, aggravation."""
        batch = self.batch
        blend = batch.blend if batch.blend is not None else np.full(1, np.nan)
        ints = (batch.group, batch.age, batch.duration_offset, self.elapsed, self.shift)
        reals = (blend, self.multiplier, self.aggravation)
        return tuple(_field(a, np.int64) for a in ints), tuple(_field(a, np.float64) for a in reals)

    def to_end(self, width: int) -> np.ndarray:
        """Years from issue to the last column of a bank of ``width`` ages: nobody survives it."""
        kept: dict[int, np.ndarray] = self.__dict__.setdefault("_to_end", {})
        if width not in kept:
            ints = self.fields[0]
            start = ints[1] - ints[3] + ints[4]  # the age at issue, shifted
            np.minimum(start, width - 1, out=start)
            np.subtract(width, start, out=start)
            kept.clear()
            kept[width] = start
        return kept[width]


def read_policy_part(frame: pl.DataFrame, other_columns: Collection[str]) -> PolicyPart:
    """The ratings and ``read_policies`` of a frame whose ``other_columns`` are read elsewhere."""
    shift, multiplier, aggravation = _ratings(frame)
    batch = read_policies(frame, other_columns={*other_columns, *RATINGS})
    elapsed = np.zeros(1, dtype=np.int64)
    if "issue_age" in frame.columns:
        elapsed = batch.age.astype(np.int64) - frame["issue_age"].cast(pl.Int64).to_numpy()
    return PolicyPart(frame, batch, shift, multiplier, aggravation, elapsed)


class Policies:
    """Policies checked and grouped once, to be valued many times.

    ``value(Policies(frame), product, ...)`` gives what ``value(frame, product, ...)`` gives, without
    reading the policy columns again: worth it when the same policies are valued on several
    products, rates, curves or scenario sets. The tables are looked up in ``registry`` (a
    ``value`` call may only name the same one); the frame is kept, and the columns a product or
    an interest column names are read from it at each call (the other columns are let be: each
    product reads its own). A later change to the caller's frame (``replace_column``, say) does
    not reach it. Frames in memory only (not with ``out``).

    Parameters
    ----------
    policies : polars.DataFrame, pandas.DataFrame or mapping of columns
        As for :func:`value`; columns other than the policy columns and ratings are left for the
        products and interest columns of later calls.
    registry : TableRegistry, optional
        Where tables are looked up and kept; by default a registry of their own.

    Raises
    ------
    ValueError
        A bad policy column or value, as :func:`value` reports it.
    """

    def __init__(self, policies: Any, *, registry: TableRegistry | None = None) -> None:
        # A clone shares the columns' memory, and no later change to the caller's frame reaches it.
        frame = _as_frame(policies).clone()
        others = [c for c in frame.columns if c not in POLICY_COLUMNS]
        self._part = read_policy_part(frame, others)
        # Without one, a registry of their own keeps their tables from one call to the next.
        self._registry = registry if registry is not None else TableRegistry()

    @property
    def registry(self) -> TableRegistry:
        """The registry the tables are looked up in (their own when none was given)."""
        return self._registry

    def __len__(self) -> int:
        return self._part.frame.height

    def __repr__(self) -> str:
        return f"<Policies: {len(self):,} policies on {len(self._part.batch.groups)} tables>"


def _policy_part(
    policies: Any, registry: TableRegistry | None
) -> tuple[PolicyPart | None, pl.DataFrame, TableRegistry | None]:
    """The policies read already (a Policies) and its frame and registry, or the frame to read."""
    if not isinstance(policies, Policies):
        return None, _as_frame(policies), registry
    if registry is not None and registry is not policies.registry:
        raise ValueError("value: these Policies look their tables up in their own registry; give no other")
    return policies._part, policies._part.frame, policies.registry


def lay_out(
    policies: Any, product: Product, interest: Any, curve: YieldCurve | None, registry: TableRegistry | None
) -> Laid:
    """Check everything and lay out the arrays; nothing is computed before every check passed."""
    part, frame, registry = _policy_part(policies, registry)
    read = set(product.columns()) | {c for c in RATINGS if c in frame.columns}
    if isinstance(interest, str):
        read.add(interest)
    clash = sorted(read & set(POLICY_COLUMNS))
    if clash:
        raise ValueError(
            f"value: column {clash[0]!r} describes the policies; name another column for amounts"
        )
    missing = [c for c in sorted(read) if c not in frame.columns]
    if missing:
        raise ValueError(
            f"policies: column {missing[0]!r} named by the product or interest is missing; "
            f"the columns are {frame.columns}"
        )
    n = frame.height
    amounts = {name: _amount(frame, product, name) for name in AMOUNT_FIELDS}
    if (amounts["escalation"] <= -1.0).any():
        row = int(np.argmax(amounts["escalation"] <= -1.0))
        raise _bad(
            str(product.escalation),
            row,
            f"escalation must be > -1, got {float(amounts['escalation'][row])!r}",
        )
    terms = {name: _years(frame, product, name) for name in TERM_FIELDS}
    if product.premium is None and (terms["premium_term"] == 0).any():
        row = int(np.argmax(terms["premium_term"] == 0))
        raise _bad(str(product.premium_term), row, "a net premium needs a premium term of at least one year")
    rates: np.ndarray | None = None
    if isinstance(interest, str):
        rates = _numbers(frame, interest, "interest")
        if (rates <= -1.0).any():
            row = int(np.argmax(rates <= -1.0))
            raise _bad(interest, row, f"interest must be > -1, got {float(rates[row])!r}")
    if part is None:
        part = read_policy_part(frame, read)
    batch, shift = part.batch, part.shift
    plan = _plan(batch.groups, int(batch.age.max()) + int(shift.max()) + 2, registry)
    width = plan.width
    term = terms["term"]
    to_end = part.to_end(width)
    elapsed = part.fields[0][3]
    if term.size == 1:  # one term for every policy
        walked = to_end if term[0] < 0 else np.minimum(elapsed + term[0], to_end)
    else:
        walked = np.where(term >= 0, np.minimum(elapsed + term, to_end), to_end)
    horizon = walked - elapsed
    m = product.m
    steps = (int(walked.max()) + 1) * m + 1
    if rates is not None:
        distinct, basis = np.unique(rates, return_inverse=True)
        if distinct.size * steps > _LARGEST_GRID:
            raise ValueError(
                f"policies: column {interest!r} holds {distinct.size:,} distinct rates, too many to "
                f"tabulate their discount factors; round the rates (to basis points, say)"
            )
        discount = np.ascontiguousarray(
            np.stack([YieldCurve.flat(float(r)).grid(steps, m)[0] for r in distinct])
        )
        scenarios, scenario_set = 1, False
        basis = basis.astype(np.int64)
    else:
        chosen = curve if curve is not None else YieldCurve.flat(float(interest))
        discount = chosen.grid(steps, m)
        scenarios, scenario_set = chosen.scenarios, chosen.scenario_set
        basis = np.zeros(1, dtype=np.int64)
    groups = np.ascontiguousarray(
        np.stack([plan.first_row, plan.period, plan.female_offset, plan.decimals], axis=1), dtype=np.int64
    )
    policy_ints, policy_reals = part.fields
    ints = (
        *policy_ints,
        *(_field(values, np.int64) for values in (basis, term, terms["deferral"], terms["premium_term"])),
    )
    reals = (*policy_reals, *(_field(amounts[name], np.float64) for name in AMOUNT_ORDER))
    return Laid(
        plan=plan,
        n=n,
        groups=groups,
        ints=ints,
        reals=reals,
        discount=discount,
        scenarios=scenarios,
        scenario_set=scenario_set,
        years=max(1, int(horizon.max())),
        flat=curve is None,
        m=m,
        due=product.due,
        interpolation=_INTERPOLATION[str(Config().lx_interpolation)],
    )
