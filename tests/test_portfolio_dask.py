"""The portfolio batch on a local Dask cluster of two processes equals the single-process one."""

from __future__ import annotations

import numpy as np
import polars as pl
import pytest

from veltrane.portfolio import QUANTITIES, project

distributed = pytest.importorskip("dask.distributed")


def test_local_cluster_gives_the_single_process_result(tables, monkeypatch):
    tables.select("SEL", generational="exponential")
    monkeypatch.setenv("VELTRANE_TABLES_PATH", str(tables.directory))  # the workers' table files
    from veltrane.portfolio import project_dask

    rng, n = np.random.default_rng(3), 500
    names = rng.choice(["SSSM", "SULT", "SEL"], n)
    age, duration, cohort = rng.integers(0, 110, n), rng.integers(1, 4, n), rng.integers(1950, 1970, n)
    sel = pl.col("table_name") == "SEL"
    frame = pl.DataFrame({"table_name": names, "sex": ["u"] * n, "age": age}).with_columns(
        age=pl.when(sel).then(pl.col("age") % 8).otherwise("age"), unisex_blend=pl.when(sel).then(0.4)
    )
    frame = frame.with_columns(duration=pl.Series(duration), cohort=pl.Series(cohort))
    alone = project(frame, 7, what=QUANTITIES)
    cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=":0")
    with cluster, distributed.Client(cluster) as client:
        spread = project_dask(frame, 7, client=client, what=QUANTITIES, block_size=64)
    for name in QUANTITIES:
        assert spread[name].tobytes() == alone[name].tobytes(), name
