"""A plan in other processes: shipped once, rebuilt there once, and pools that end with their parent.

A plan is pickled where it is made, so a table that cannot travel is refused there, before any
process starts. Tables read from sources registered in memory (``TableSource.register``) travel
with those sources' data: the receiving process registers them before it rebuilds the tables,
since it has no file to rebuild them from. The receiving process keeps the rebuilt plan (and its
bank) for the tasks that follow, and an error in rebuilding it comes back as the task's own
exception rather than as a broken pool.
"""

from __future__ import annotations

import contextlib
import ctypes
import multiprocessing
import os
import pickle
import signal
import sys
import threading
import time
import uuid
from collections import OrderedDict
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from typing import Any

import numpy as np

from veltrane.config import Config
from veltrane.portfolio.block import project_block
from veltrane.portfolio.plan import RatePlan
from veltrane.tables._pickling import fingerprint
from veltrane.tables.source import TableSource

__all__ = ["ShippedPlan", "pool_plan", "ship", "start_pool", "unpack"]

# Plans a process keeps rebuilt, most recent last: a long-lived worker (Dask) that serves one
# batch after another holds a few, not all.
_KEPT = 2
_plans: OrderedDict[str, RatePlan] = OrderedDict()
_lock = threading.Lock()
# How often a worker without a parent-death signal looks for its parent, in seconds.
_WATCH_INTERVAL = 0.5


@dataclass(frozen=True)
class ShippedPlan:
    """A pickled plan and the registered sources its tables are read from."""

    token: str
    sources: bytes
    plan: bytes


def ship(plan: RatePlan) -> ShippedPlan:
    """Pickle a plan for other processes; ValueError naming the table when one cannot travel."""
    registered = set(TableSource.registered())
    names = sorted({table._table.file_name for table in plan.tables} & registered)
    sources = tuple(TableSource(name) for name in names)
    try:
        blob = pickle.dumps(plan, protocol=pickle.HIGHEST_PROTOCOL)
    except (ValueError, TypeError) as exc:
        raise ValueError(f"policies: the tables cannot be sent to worker processes: {exc}") from exc
    return ShippedPlan(uuid.uuid4().hex, pickle.dumps(sources, protocol=pickle.HIGHEST_PROTOCOL), blob)


def _register(source: TableSource) -> None:
    name = source.table_name
    if name in TableSource.registered() and fingerprint(TableSource(name)) == fingerprint(source):
        return  # registered already with the same data (the sending process itself, or an earlier batch)
    source.register()


def unpack(shipped: ShippedPlan) -> RatePlan:
    """The plan of ``shipped`` in this process, rebuilt on first use (its bank too) and kept."""
    with _lock:
        plan = _plans.get(shipped.token)
        if plan is None:
            for source in pickle.loads(shipped.sources):
                _register(source)
            plan = pickle.loads(shipped.plan)
            plan.bank  # noqa: B018 - built once here, not by the first block
            _plans[shipped.token] = plan
            while len(_plans) > _KEPT:
                _plans.popitem(last=False)
        return plan


# -- process pools ----------------------------------------------------------------------------------
# The plan of a pool's worker process, set by the pool's initializer.
_shipped: ShippedPlan | None = None


def start_pool(workers: int, shipped: ShippedPlan) -> ProcessPoolExecutor:
    """A pool of ``workers`` spawned processes that project blocks on ``shipped``.

    The workers take this process's settings (``Config()``: decimals, tables path) and end when
    this process ends, however it ends (killed, or by the out-of-memory killer).
    """
    context = multiprocessing.get_context("spawn")
    return ProcessPoolExecutor(
        workers,
        mp_context=context,
        initializer=_start_worker,
        initargs=(os.getpid(), Config()._state(), shipped),
    )


def _start_worker(parent: int, settings: dict[str, Any], shipped: ShippedPlan) -> None:
    global _shipped
    _follow_parent(parent)
    Config()._set_state(settings)
    _shipped = shipped


def _follow_parent(parent: int) -> None:
    """End this process when the process ``parent`` ends."""
    if sys.platform.startswith("linux"):
        with contextlib.suppress(OSError, AttributeError):
            pr_set_pdeathsig = 1
            libc = ctypes.CDLL(None, use_errno=True)
            if libc.prctl(pr_set_pdeathsig, int(signal.SIGKILL), 0, 0, 0) == 0:
                if os.getppid() != parent:  # gone before the request: no signal will come
                    os._exit(1)
                return
    threading.Thread(target=_watch, args=(parent,), name="veltrane-parent-watch", daemon=True).start()


def _watch(parent: int) -> None:
    while os.getppid() == parent:
        time.sleep(_WATCH_INTERVAL)
    os._exit(1)


def pool_plan() -> RatePlan:
    """The plan of this pool worker process (made by :func:`start_pool`)."""
    if _shipped is None:
        raise RuntimeError("pool_plan runs in a pool made by start_pool")
    return unpack(_shipped)


def project_shipped(
    args: tuple[np.ndarray, np.ndarray, np.ndarray, np.ndarray | None, int, tuple[str, ...]],
) -> dict[str, np.ndarray]:
    """A pool task: one block of policies on the pool's plan."""
    if _shipped is None:
        raise RuntimeError("project_shipped runs in a pool made by start_pool")
    return project_block(unpack(_shipped), *args)
