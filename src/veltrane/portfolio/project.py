"""Projection of a batch of policies year by year along their select diagonals.

``project`` reads and checks the policies, builds each distinct table once (a ``RatePlan``) and
projects the policies in blocks (``project_block``), in this process or in worker processes.
"""

from __future__ import annotations

import html
from collections.abc import Iterable, Iterator
from dataclasses import dataclass
from typing import Any

import numpy as np
import polars as pl

from veltrane.portfolio.block import QUANTITIES, project_block
from veltrane.portfolio.plan import RatePlan
from veltrane.portfolio.policies import PolicyBatch, read_policies
from veltrane.portfolio.workers import project_shipped, ship, start_pool
from veltrane.tables.decrement import TableRegistry

__all__ = ["DEFAULT_BLOCK_SIZE", "QUANTITIES", "Projection", "project", "project_block"]

#: Policies per block. Working memory beyond the results is about 16 bytes per policy-year of a
#: block (an int64 index and a float64 temporary), so 50,000 policies x 30 years take ~24 MB.
DEFAULT_BLOCK_SIZE = 50_000


@dataclass(frozen=True)
class Projection:
    """The result of :func:`project`: one (policies x years) float64 array per quantity."""

    years: int
    values: dict[str, np.ndarray]

    def __getitem__(self, name: str) -> np.ndarray:
        return self.values[name]

    def __len__(self) -> int:
        return int(next(iter(self.values.values())).shape[0])

    def __repr__(self) -> str:
        return f"<Projection of {len(self):,} policies over {self.years} years: {', '.join(self.values)}>"

    def by_year(self) -> pl.DataFrame:
        """The mean of every quantity over the policies, one row per projection year."""
        means = {
            name: array.mean(axis=0) if len(self) else np.full(self.years, np.nan)
            for name, array in self.values.items()
        }
        return pl.DataFrame({"year": np.arange(self.years, dtype=np.int32), **means})

    def _repr_html_(self) -> str:
        """What a notebook shows: the size of the projection and the first years' means."""
        head = html.escape(f"Projection: {len(self):,} policies × {self.years} years")
        table = self.by_year().head(10)._repr_html_()
        return f"<div><strong>{head}</strong><br><small>mean over the policies, by year</small>{table}</div>"

    def to_frame(self) -> pl.DataFrame:
        """A long frame: one row per policy and year (``policy``, ``year``), one column per quantity."""
        n = len(self)
        frame = {
            "policy": np.repeat(np.arange(n, dtype=np.int64), self.years),
            "year": np.tile(np.arange(self.years, dtype=np.int32), n),
        }
        frame.update({name: array.reshape(-1) for name, array in self.values.items()})
        return pl.DataFrame(frame)


def _check_what(what: Iterable[str]) -> tuple[str, ...]:
    chosen = (what,) if isinstance(what, str) else tuple(what)
    unknown = [w for w in chosen if w not in QUANTITIES]
    if unknown or not chosen:
        raise ValueError(f"what must name one or more of {list(QUANTITIES)}, got {list(chosen)}")
    return chosen


def _check_years(years: object) -> int:
    if isinstance(years, bool) or not isinstance(years, int | np.integer) or not 1 <= int(years) <= 1000:
        raise ValueError(f"years must be a whole number in [1, 1000], got {years!r}")
    return int(years)


def _blocks(n: int, block_size: int) -> Iterator[slice]:
    for start in range(0, n, block_size):
        yield slice(start, min(n, start + block_size))


def _block_inputs(
    batch: PolicyBatch, block: slice
) -> tuple[np.ndarray, np.ndarray, np.ndarray, np.ndarray | None]:
    blend = None if batch.blend is None else batch.blend[block]
    return batch.group[block], batch.age[block], batch.duration_offset[block], blend


def prepare(
    policies: Any,
    years: int,
    what: Iterable[str],
    block_size: int,
    registry: TableRegistry | None,
    workers: int | None = None,
) -> tuple[PolicyBatch, RatePlan, int, tuple[str, ...], int]:
    """Checks the arguments and reads the policies; builds the plan (each distinct table once)."""
    years = _check_years(years)
    chosen = _check_what(what)
    if isinstance(block_size, bool) or not isinstance(block_size, int) or block_size < 1:
        raise ValueError(f"block_size must be a positive whole number, got {block_size!r}")
    if workers is not None and (isinstance(workers, bool) or not isinstance(workers, int) or workers < 1):
        raise ValueError(f"workers must be a positive whole number or None, got {workers!r}")
    batch = read_policies(policies)
    return batch, RatePlan.for_batch(batch, years, registry), years, chosen, block_size


def project(
    policies: Any,
    years: int,
    *,
    what: Iterable[str] = ("qx", "tpx"),
    block_size: int = DEFAULT_BLOCK_SIZE,
    registry: TableRegistry | None = None,
    workers: int | None = None,
) -> Projection:
    """Project every policy of a frame over ``years`` years.

    Parameters
    ----------
    policies : polars.DataFrame, pandas.DataFrame or mapping of columns
        One row per policy: ``table_name``, ``sex``, ``age`` (attained age at the start) or
        ``issue_age`` (age at issue, the years since issue then added), and as the policy's
        table needs them ``cohort`` or ``issue_year``, ``duration`` (select duration at the
        start) and ``unisex_blend``. See ``docs/portfolio.md``.
    years : int
        Number of projection years (columns of the results).
    what : iterable of str
        Quantities to return, from :data:`QUANTITIES`.
    block_size : int
        Policies computed at a time; bounds the working memory (:data:`DEFAULT_BLOCK_SIZE`).
    registry : TableRegistry, optional
        Where the tables are looked up and kept; pass one to reuse tables across calls.
    workers : int, optional
        Number of worker processes, at least 1; None or 1 computes in this process. The workers
        are spawned, receive the tables once (with the data of tables registered in memory),
        take this process's ``Config()`` and end when this process ends.

    Returns
    -------
    Projection
        ``result["qx"]`` etc.: float64 arrays of shape (policies, years), rows in frame order,
        each rounded to its ``Config().decimals`` as the tables round theirs.

    Raises
    ------
    ValueError
        A missing or unknown column, an unknown table or a bad value (the message names column
        and row); with workers, a table that cannot be sent to them (the message names it).
    """
    batch, plan, years, chosen, block_size = prepare(policies, years, what, block_size, registry, workers)
    n = len(batch)
    values = {name: np.empty((n, years), dtype=np.float64) for name in chosen}
    blocks = list(_blocks(n, block_size))
    if workers is None or workers == 1 or len(blocks) == 1:
        for block in blocks:
            project_block(
                plan, *_block_inputs(batch, block), years, chosen, {k: v[block] for k, v in values.items()}
            )
        return Projection(years, values)
    shipped = ship(plan)  # before any process starts: a table that cannot travel is refused here
    with start_pool(workers, shipped) as pool:
        jobs = ((*_block_inputs(batch, block), years, chosen) for block in blocks)
        for block, result in zip(blocks, pool.map(project_shipped, jobs), strict=True):
            for name in chosen:
                values[name][block] = result[name]
    return Projection(years, values)
