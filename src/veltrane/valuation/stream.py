"""Valuation of policies read from a file or a LazyFrame a batch at a time, the per-policy
results written to Parquet batch by batch: memory is bounded by the batch, not the file."""

from __future__ import annotations

import contextlib
import os
import shutil
import tempfile
from pathlib import Path
from typing import Any

import numpy as np
import polars as pl

from veltrane.tables.decrement import TableRegistry
from veltrane.valuation.curve import YieldCurve
from veltrane.valuation.frame import lay_out
from veltrane.valuation.product import Product
from veltrane.valuation.value import CHUNK, RESULTS, Run, Totals, Valuation, basis_curve, finish, progress_bar

__all__ = ["BATCH_ROWS", "scan", "value_stream"]

#: Rows read at a time (a multiple of the chunk, so the per-year sums are those of one pass).
BATCH_ROWS = 256 * CHUNK


def scan(policies: Any) -> pl.LazyFrame | None:
    """A LazyFrame over a Parquet or CSV path or a LazyFrame; None for anything else."""
    if isinstance(policies, pl.LazyFrame):
        return policies
    if not isinstance(policies, str | Path):
        return None
    path = Path(policies)
    if not path.is_file():
        raise ValueError(f"policies: no file {str(path)!r}")
    suffix = path.suffix.lower()
    if suffix == ".parquet":
        return pl.scan_parquet(path)
    if suffix == ".csv":
        return pl.scan_csv(path)
    raise ValueError(f"policies: {str(path)!r} is neither a .parquet nor a .csv file")


def _target(out: Any) -> Path:
    if not isinstance(out, str | Path) or Path(out).suffix.lower() != ".parquet":
        raise ValueError(f"value: out must be the path of a .parquet file, got {out!r}")
    target = Path(out)
    if not target.parent.is_dir():
        raise ValueError(f"value: the directory of out {str(target.parent)!r} does not exist")
    return target


def value_stream(
    policies: Any,
    product: Product,
    interest: Any,
    curve: YieldCurve | None,
    registry: TableRegistry | None,
    run: Run,
    progress: bool,
    out: Any,
) -> Valuation:
    """``value`` over a file, a LazyFrame or (with ``out``) a frame in memory."""
    target = None if out is None else _target(out)
    if target is not None and run.reserves:
        raise ValueError("value: reserves_by_year is kept in memory and cannot go with out")
    lazy = scan(policies)
    if lazy is None:
        frame = policies if isinstance(policies, pl.DataFrame) else None
        lazy = (frame if frame is not None else pl.DataFrame(policies)).lazy()
    try:
        total = int(lazy.select(pl.len()).collect().item())
    except pl.exceptions.PolarsError as exc:
        raise ValueError(f"policies: the file cannot be read: {exc}") from exc
    if total == 0:
        raise ValueError("policies: the frame has no rows")
    registry = registry if registry is not None else TableRegistry(maxsize=1024)
    batch_rows = max(BATCH_ROWS, run.block_size)
    parts = Path(tempfile.mkdtemp(prefix=".valuing-", dir=None if target is None else target.parent))
    try:
        totals: Totals | None = None
        sums: dict[str, Any] = {}
        kept: list[dict[str, np.ndarray]] = []
        scenario_set = False
        with progress_bar(progress, total) as bar:
            for number, start in enumerate(range(0, total, batch_rows)):
                try:
                    frame = lazy.slice(start, batch_rows).collect()
                except pl.exceptions.PolarsError as exc:
                    raise ValueError(f"policies: the file cannot be read: {exc}") from exc
                try:
                    laid = lay_out(frame, product, interest, curve, registry)
                except ValueError as exc:
                    # Rows are counted from the start of the file, not of the batch.
                    raise ValueError(f"{exc} (in the batch of rows from {start})") from exc
                totals = totals or Totals(laid.scenarios)
                scenario_set = laid.scenario_set
                arrays = run.arrays(laid, totals, bar)
                for name in RESULTS:
                    sums[name] = sums.get(name, 0.0) + arrays[name].sum(axis=-1)
                if target is None:
                    kept.append(arrays)
                    continue
                part = finish(arrays, Totals(laid.scenarios), None, scenario_set).to_frame()
                part = part.with_columns(pl.col("policy") + start)
                part.write_parquet(parts / f"{number:08d}.parquet")
        assert totals is not None
        if target is None:
            joined = {name: np.concatenate([a[name] for a in kept], axis=-1) for name in kept[0]}
            return finish(joined, totals, basis_curve(interest, curve), scenario_set)
        staged = parts / "all.parquet"
        pl.scan_parquet(sorted(parts.glob("0*.parquet"))).sink_parquet(staged)
        os.replace(staged, target)
        empty = {name: np.empty((totals.sums.shape[0], 0)) for name in RESULTS}
        result = finish(empty, totals, basis_curve(interest, curve), scenario_set)

        def pick(v: Any) -> Any:
            return v if scenario_set else float(v[0])

        return Valuation(
            **{**result.__dict__, "totals": {"policies": total} | {k: pick(v) for k, v in sums.items()}}
        )
    finally:
        with contextlib.suppress(OSError):
            shutil.rmtree(parts)
