"""The portfolio batch on a Dask cluster, partitioned by blocks of policies.

The client reads and checks the policies and builds each distinct table once; the plan is
pickled there (a table that cannot travel is refused before anything is sent), with the data of
tables registered in memory, and sent to every worker once with
``Client.scatter(..., broadcast=True)``. Each task projects one block of policies on it, the
plan being rebuilt by the first task of each worker process. Needs ``dask[distributed]`` (the
``dask`` extra of this package).
"""

from __future__ import annotations

from collections.abc import Iterable
from typing import Any

import numpy as np

from veltrane.portfolio.block import project_block
from veltrane.portfolio.project import DEFAULT_BLOCK_SIZE, Projection, _block_inputs, _blocks, prepare
from veltrane.portfolio.workers import ShippedPlan, ship, unpack
from veltrane.tables.decrement import TableRegistry

__all__ = ["project_dask"]


def _project_on_worker(
    shipped: ShippedPlan,
    group: np.ndarray,
    age: np.ndarray,
    offset: np.ndarray,
    blend: np.ndarray | None,
    years: int,
    what: tuple[str, ...],
) -> dict[str, np.ndarray]:
    # A failure to rebuild the plan raises here, in the task, and reaches the client as itself.
    return project_block(unpack(shipped), group, age, offset, blend, years, what)


def project_dask(
    policies: Any,
    years: int,
    *,
    client: Any,
    what: Iterable[str] = ("qx", "tpx"),
    block_size: int = DEFAULT_BLOCK_SIZE,
    registry: TableRegistry | None = None,
) -> Projection:
    """:func:`~veltrane.portfolio.project` on the workers of a ``dask.distributed.Client``.

    The arguments and the result are those of ``project``; ``client`` is the connected client
    (a ``LocalCluster`` or a real cluster's scheduler). Workers must find the same table files
    under the same names as the client: the bundled tables always, others through
    ``VELTRANE_TABLES_PATH`` in the workers' environment. Tables registered in memory travel
    with their data and are registered in the workers (where they stay registered).
    """
    batch, plan, years, chosen, block_size = prepare(policies, years, what, block_size, registry)
    n = len(batch)
    [shared] = client.scatter([ship(plan)], broadcast=True, hash=False)
    blocks = list(_blocks(n, block_size))
    futures = [
        client.submit(_project_on_worker, shared, *_block_inputs(batch, block), years, chosen, pure=False)
        for block in blocks
    ]
    values = {name: np.empty((n, years), dtype=np.float64) for name in chosen}
    for block, future in zip(blocks, futures, strict=True):
        result = future.result()
        for name in chosen:
            values[name][block] = result[name]
        future.release()
    return Projection(years, values)
