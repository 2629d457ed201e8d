"""The valuation kernel in worker processes and on Dask workers.

The tables travel once per process as a pickled plan (``veltrane.portfolio.workers``); each
task sends one block's arrays and gets the kernel's outputs back. The blocks are cut on chunk
borders and their outputs taken in block order, so the results are the bits of a run in one
process.
"""

from __future__ import annotations

from collections.abc import Iterator
from typing import Any

from veltrane.portfolio.workers import ShippedPlan, pool_plan, ship, start_pool, unpack
from veltrane.tables.decrement import TableRegistry
from veltrane.valuation.curve import YieldCurve
from veltrane.valuation.frame import Laid, check_basis, lay_out
from veltrane.valuation.product import Product
from veltrane.valuation.value import (
    Totals,
    Valuation,
    basis_curve,
    block_arguments,
    blocks,
    check_run,
    collect,
    finish,
    progress_bar,
    run_block,
)

__all__ = ["in_workers", "value_dask"]


def _in_pool(job: tuple[tuple[Any, ...], int]) -> tuple[Any, ...]:
    args, threads = job
    return run_block(pool_plan().bank, args, threads)


def in_workers(
    laid: Laid, cut: list[slice], threads: int, workers: int, reserves: bool
) -> Iterator[tuple[Any, ...]]:
    """The kernel's outputs block by block, from a pool of ``workers`` spawned processes."""
    shipped = ship(laid.plan)  # before any process starts: a table that cannot travel is refused here
    with start_pool(workers, shipped) as pool:
        jobs = ((block_arguments(laid, block, reserves), threads) for block in cut)
        yield from pool.map(_in_pool, jobs)


def _on_worker(shipped: ShippedPlan, args: tuple[Any, ...], threads: int) -> tuple[Any, ...]:
    return run_block(unpack(shipped).bank, args, threads)


def value_dask(
    client: Any,
    policies: Any,
    product: Product,
    *,
    interest: float | str | None = None,
    curve: YieldCurve | None = None,
    registry: TableRegistry | None = None,
    threads: int = 1,
    block_size: int | None = None,
    progress: bool = False,
    reserves_by_year: bool = False,
) -> Valuation:
    """:func:`~veltrane.valuation.value` on the workers of a ``dask.distributed.Client``.

    Arguments and result are those of ``value``; the tables are sent to every worker once (see
    :func:`veltrane.portfolio.project_dask` for what workers must find).
    """
    if not isinstance(product, Product):
        raise ValueError(f"value: product must be a Product, got {type(product).__name__}")
    check_basis(interest, curve)
    size = check_run(threads, block_size, None)
    laid = lay_out(policies, product, interest, curve, registry)
    cut = list(blocks(len(laid), size))
    [shared] = client.scatter([ship(laid.plan)], broadcast=True, hash=False)
    futures = [
        client.submit(_on_worker, shared, block_arguments(laid, block, reserves_by_year), threads, pure=False)
        for block in cut
    ]

    def results() -> Iterator[tuple[Any, ...]]:
        for future in futures:
            yield future.result()
            future.release()

    totals = Totals(laid.scenarios)
    with progress_bar(progress, len(laid)) as bar:
        arrays = collect(laid, cut, results(), reserves_by_year, totals, bar)
    return finish(arrays, totals, basis_curve(interest, curve), laid.scenario_set)
