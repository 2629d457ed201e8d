"""``value``: present values, premiums, reserves and cash flows of a frame of policies."""

from __future__ import annotations

import html
from collections.abc import Iterator
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np
import polars as pl

from veltrane.tables import decrement as _native
from veltrane.tables.decrement import TableRegistry
from veltrane.valuation.curve import YieldCurve
from veltrane.valuation.frame import Laid, Policies, check_basis, lay_out
from veltrane.valuation.product import Product

__all__ = ["CHUNK", "DEFAULT_BLOCK_SIZE", "FLOWS", "Valuation", "value"]

#: Policies per chunk of the per-year sums: blocks are cut on multiples of it.
CHUNK = 1024
#: Policies valued at a time (a multiple of CHUNK).
DEFAULT_BLOCK_SIZE = 64 * CHUNK
#: The per-year sums of :attr:`Valuation.cash_flows`, in the kernel's order.
FLOWS = ("in_force", "deaths", "death_benefits", "survival_benefits", "endowments", "premiums")
RESULTS = ("pv_benefits", "pv_premiums", "net_premium", "reserve")


@dataclass(frozen=True)
class Valuation:
    """The result of :func:`value`.

    Per-policy arrays have shape (policies,), or (scenarios, policies) for a scenario set;
    ``reserves`` (with ``reserves_by_year=True``) adds a last axis of years: the prospective
    reserve at each anniversary k, per policy in force then.
    """

    pv_benefits: np.ndarray
    pv_premiums: np.ndarray
    net_premium: np.ndarray
    reserve: np.ndarray
    cash_flows: pl.DataFrame
    reserves: np.ndarray | None = None
    scenario_set: bool = False
    #: ``policies`` (their number) and the sums over the policies of the four results (per
    #: scenario for a scenario set).
    totals: dict[str, Any] = field(default_factory=dict)

    def __len__(self) -> int:
        return int(self.reserve.shape[-1])

    def to_frame(self) -> pl.DataFrame:
        """One row per policy (and scenario): ``policy``, [``scenario``,] the four results."""
        n = len(self)
        columns: dict[str, Any] = {}
        if self.scenario_set:
            s = self.reserve.shape[0]
            columns["scenario"] = np.repeat(np.arange(s, dtype=np.int32), n)
            columns["policy"] = np.tile(np.arange(n, dtype=np.int64), s)
        else:
            columns["policy"] = np.arange(n, dtype=np.int64)
        for name in RESULTS:
            columns[name] = getattr(self, name).reshape(-1)
        frame = pl.DataFrame(columns)
        return frame.select("policy", *(["scenario"] if self.scenario_set else []), *RESULTS)

    def __repr__(self) -> str:
        shown = ", ".join(f"{k}={v:,.2f}" for k, v in self.totals.items() if isinstance(v, float))
        return f"<Valuation of {self.totals.get('policies', len(self)):,} policies: {shown}>"

    def _repr_html_(self) -> str:
        """What a notebook shows: the totals, then the first years of the cash flows."""
        rows = "".join(
            f"<tr><th style='text-align:left'>{html.escape(k)}</th><td>{html.escape(str(v))}</td></tr>"
            for k, v in self.totals.items()
        )
        flows = self.cash_flows.head(10)._repr_html_()
        caption = "<small>cash flows by year</small>"
        return f"<div><strong>Valuation</strong><table>{rows}</table>{caption}{flows}</div>"


def _check_whole(name: str, value: Any, low: int) -> int:
    if isinstance(value, bool) or not isinstance(value, int | np.integer) or int(value) < low:
        raise ValueError(f"value: {name} must be a whole number >= {low}, got {value!r}")
    return int(value)


def check_run(threads: Any, block_size: Any, workers: Any) -> int:
    """The effective block size (a multiple of CHUNK); ValueError for a bad argument."""
    _check_whole("threads", threads, 1)
    if workers is not None:
        _check_whole("workers", workers, 1)
    size = DEFAULT_BLOCK_SIZE if block_size is None else _check_whole("block_size", block_size, 1)
    return -(-size // CHUNK) * CHUNK


def blocks(n: int, block_size: int) -> Iterator[slice]:
    """Slices of at most ``block_size`` policies, each starting on a chunk border."""
    for start in range(0, n, block_size):
        yield slice(start, min(n, start + block_size))


def block_arguments(laid: Laid, block: slice, reserves: bool) -> tuple[Any, ...]:
    """The kernel's arguments after the bank, for one block (views of its policies' fields)."""
    ints, reals = laid.fields(block)
    return (
        laid.discount,
        laid.groups,
        ints,
        reals,
        block.stop - block.start,
        laid.m,
        int(laid.due),
        laid.interpolation,
        laid.scenarios,
        laid.years,
        int(reserves),
        1,
        int(laid.flat),
    )


def run_block(
    bank: np.ndarray, args: tuple[Any, ...], threads: int, results: np.ndarray | None = None, offset: int = 0
) -> tuple[Any, ...]:
    """The kernel on one block with ``threads`` threads; its results go to a new array, or to
    ``results`` from column ``offset`` on."""
    # Arrays that travelled (Dask) may arrive unaligned or read-only: the kernel reads aligned ones.
    discount, groups = (np.require(a, requirements=("C", "A")) for a in args[:2])
    ints, reals = (tuple(np.require(a, requirements=("C", "A")) for a in fields) for fields in args[2:4])
    bank = np.require(bank, requirements=("C", "A"))
    result: tuple[Any, ...] = _native._value_block(  # type: ignore[call-arg]
        bank, discount, groups, ints, reals, *args[4:], threads, results, offset
    )
    return result


class Totals:
    """Per-year sums added chunk by chunk in policy order, whatever the blocks."""

    def __init__(self, scenarios: int) -> None:
        self.sums = np.zeros((scenarios, len(FLOWS), 0))

    def add(self, partials: np.ndarray) -> None:
        years = partials.shape[-1]
        if years > self.sums.shape[-1]:
            grown = np.zeros((*self.sums.shape[:2], years))
            grown[..., : self.sums.shape[-1]] = self.sums
            self.sums = grown
        target = self.sums[..., :years]
        for chunk in partials:
            target += chunk

    def frame(self, curve: YieldCurve | None, scenario_set: bool) -> pl.DataFrame:
        """The sums by year; discount factors at the start of each year when one curve applies."""
        scenarios, _, years = self.sums.shape
        discount = None if curve is None else curve.grid(max(years, 1), 1)
        frames = []
        for s in range(scenarios):
            columns: dict[str, Any] = {"year": np.arange(years, dtype=np.int32)}
            if scenario_set:
                columns["scenario"] = np.full(years, s, dtype=np.int32)
            for f, name in enumerate(FLOWS):
                columns[name] = self.sums[s, f]
            if discount is not None:
                columns["discount_factor"] = discount[s, :years]
            else:
                columns["discount_factor"] = np.full(years, np.nan)
            frames.append(pl.DataFrame(columns))
        return pl.concat(frames)


def value(
    policies: Any,
    product: Product,
    *,
    interest: float | str | None = None,
    curve: YieldCurve | None = None,
    registry: TableRegistry | None = None,
    threads: int = 1,
    block_size: int | None = None,
    workers: int | None = None,
    progress: bool = False,
    reserves_by_year: bool = False,
    out: str | Path | None = None,
) -> Valuation:
    """Value every policy of a frame: present values, premiums, reserves and cash flows.

    Parameters
    ----------
    policies : polars.DataFrame, polars.LazyFrame, pandas.DataFrame, mapping, path, or Policies
        One row per policy, described as for :func:`veltrane.portfolio.project` (``table_name``,
        ``sex``, ``age`` or ``issue_age``, ``cohort`` or ``issue_year``, ``duration``,
        ``unisex_blend``), plus the columns the product names, an interest column if one is
        named, and the ratings ``age_shift``, ``decrement_multiplier``, ``aggravated_risk``
        (each the numbers of ``modify_qx`` with that key on the policy's table). A path names a
        Parquet or CSV file; a file or a LazyFrame is read a batch of rows at a time.
        :class:`Policies` are a frame read once for many calls.
    product : Product
        The cash flows of each policy.
    interest : float or str, optional
        An annual effective rate, or the name of a column of rates per policy.
    curve : YieldCurve, optional
        Spot rates by term (a set of scenarios adds a scenario axis). Exactly one of ``interest``
        and ``curve``.
    registry : TableRegistry, optional
        Where tables are looked up and kept.
    threads : int
        Threads over the blocks' chunks; the results are the same bits for any number.
    block_size : int, optional
        Policies valued at a time, rounded up to a multiple of 1024.
    workers : int, optional
        Worker processes (see :func:`veltrane.portfolio.project`); the same bits as in-process.
    progress : bool
        Show a progress bar (tqdm).
    reserves_by_year : bool
        Also return the (policies x years) prospective reserves at each anniversary (not with
        ``out``).
    out : str or Path, optional
        Write the per-policy results (``Valuation.to_frame()``) to this Parquet file, batch by
        batch; the returned Valuation then keeps the totals and cash flows but no per-policy
        arrays. Nothing is written at ``out`` unless every policy was valued.

    Returns
    -------
    Valuation

    Raises
    ------
    ValueError
        A bad argument, or a bad column or value (the message names column and row); for a
        frame in memory, raised before any policy is valued.
    """
    if not isinstance(product, Product):
        raise ValueError(f"value: product must be a Product, got {type(product).__name__}")
    check_basis(interest, curve)
    size = check_run(threads, block_size, workers)
    run = Run(threads, size, workers, reserves_by_year)
    if out is not None and isinstance(policies, Policies):
        raise ValueError("value: out= reads its policies batch by batch; give the frame, not Policies")
    if out is not None or isinstance(policies, str | Path | pl.LazyFrame):
        from veltrane.valuation.stream import value_stream

        return value_stream(policies, product, interest, curve, registry, run, progress, out)
    laid = lay_out(policies, product, interest, curve, registry)
    totals = Totals(laid.scenarios)
    with progress_bar(progress, len(laid)) as bar:
        arrays = run.arrays(laid, totals, bar)
    return finish(arrays, totals, basis_curve(interest, curve), laid.scenario_set)


def basis_curve(interest: Any, curve: YieldCurve | None) -> YieldCurve | None:
    """The one curve every policy is discounted on, or None for an interest column."""
    if curve is not None:
        return curve
    return None if isinstance(interest, str) else YieldCurve.flat(float(interest))


@dataclass(frozen=True)
class Run:
    """How the blocks are computed."""

    threads: int
    block_size: int
    workers: int | None
    reserves: bool

    def arrays(self, laid: Laid, totals: Totals, bar: Any) -> dict[str, np.ndarray]:
        """The per-policy arrays of laid-out policies; their per-year sums are added to ``totals``."""
        cut = list(blocks(len(laid), self.block_size))
        results = np.empty((4, laid.scenarios, len(laid)))
        if self.workers is None or self.workers == 1 or len(cut) == 1:
            outputs = in_process(laid, cut, self.threads, self.reserves, results)
        else:
            from veltrane.valuation.parallel import in_workers

            outputs = in_workers(laid, cut, self.threads, self.workers, self.reserves)
        return collect(laid, cut, outputs, self.reserves, totals, bar, results)


def in_process(
    laid: Laid, cut: list[slice], threads: int, reserves: bool, results: np.ndarray
) -> Iterator[tuple[Any, ...]]:
    """The kernel's outputs block by block, in this process; the results written into ``results``."""
    bank = laid.plan.bank
    for block in cut:
        yield run_block(bank, block_arguments(laid, block, reserves), threads, results, block.start)


def collect(
    laid: Laid,
    cut: list[slice],
    outputs: Iterator[tuple[Any, ...]],
    reserves_by_year: bool,
    totals: Totals,
    bar: Any,
    results: np.ndarray | None = None,
) -> dict[str, np.ndarray]:
    """The kernel's outputs of every block, taken in block order, as per-policy arrays (in
    ``results`` when given; blocks whose kernel wrote there already are not copied)."""
    n, s = len(laid), laid.scenarios
    results = np.empty((4, s, n)) if results is None else results
    reserves = np.zeros((s, n, laid.years)) if reserves_by_year else None
    for block, (res, rsv, flows) in zip(cut, outputs, strict=True):
        if res is not results:
            results[:, :, block] = res
        if reserves is not None:
            reserves[:, block, :] = rsv
        totals.add(flows)
        bar.update(block.stop - block.start)
    arrays = {name: results[r] for r, name in enumerate(RESULTS)}
    if reserves is not None:
        arrays["reserves"] = reserves
    return arrays


def finish(
    arrays: dict[str, np.ndarray], totals: Totals, curve: YieldCurve | None, scenario_set: bool
) -> Valuation:
    """The Valuation of per-policy arrays (scenario axis first) and per-year sums."""

    def pick(a: np.ndarray) -> np.ndarray:
        return a if scenario_set else a[0]

    sums: dict[str, Any] = {name: pick(arrays[name].sum(axis=-1)) for name in RESULTS}
    return Valuation(
        pv_benefits=pick(arrays["pv_benefits"]),
        pv_premiums=pick(arrays["pv_premiums"]),
        net_premium=pick(arrays["net_premium"]),
        reserve=pick(arrays["reserve"]),
        cash_flows=totals.frame(curve, scenario_set),
        reserves=pick(arrays["reserves"]) if "reserves" in arrays else None,
        scenario_set=scenario_set,
        totals={"policies": int(arrays["reserve"].shape[-1])}
        | {k: float(v) if np.ndim(v) == 0 else v for k, v in sums.items()},
    )


class _NoBar:
    def update(self, n: int) -> None:
        pass

    def __enter__(self) -> _NoBar:
        return self

    def __exit__(self, *exc: object) -> None:
        pass


def progress_bar(enabled: bool, total: int) -> Any:
    """A tqdm bar over ``total`` policies, or a stand-in that shows nothing."""
    if not enabled:
        return _NoBar()
    try:
        from tqdm.auto import tqdm  # type: ignore[import-untyped]
    except ImportError as exc:
        raise ValueError("value: progress=True needs tqdm (pip install 'veltrane[progress]')") from exc
    return tqdm(total=total, desc="valuing", unit="policy", unit_scale=True)
