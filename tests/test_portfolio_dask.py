"""The portfolio batch on a local Dask cluster of two processes: the single-process result, tables
registered in memory, and a table the workers cannot find."""

from __future__ import annotations

from collections.abc import Iterator
from pathlib import Path

import numpy as np
import polars as pl
import pytest

from conftest import TableWriter
from veltrane import Config
from veltrane.portfolio import QUANTITIES, project
from veltrane.tables.source import TableSource

distributed = pytest.importorskip("dask.distributed")


@pytest.fixture(scope="module")
def worker_files(tmp_path_factory: pytest.TempPathFactory) -> Path:
    """The directory the cluster's workers search for table files (VELTRANE_TABLES_PATH)."""
    return tmp_path_factory.mktemp("worker_tables")


@pytest.fixture(scope="module")
def client(worker_files: Path) -> Iterator[object]:
    with pytest.MonkeyPatch.context() as patch:  # the workers' environment, from their start
        patch.setenv("VELTRANE_TABLES_PATH", str(worker_files))
        cluster = distributed.LocalCluster(n_workers=2, threads_per_worker=1, dashboard_address=":0")
    with cluster, distributed.Client(cluster) as connected:
        yield connected


def test_local_cluster_gives_the_single_process_result(client, worker_files):
    TableWriter(worker_files).select("SEL", generational="exponential")
    from veltrane.portfolio import project_dask

    rng, n = np.random.default_rng(3), 500
    names = rng.choice(["SSSM", "SULT", "SEL"], n)
    age, duration, cohort = rng.integers(0, 110, n), rng.integers(1, 4, n), rng.integers(1950, 1970, n)
    sel = pl.col("table_name") == "SEL"
    frame = pl.DataFrame({"table_name": names, "sex": ["u"] * n, "age": age}).with_columns(
        age=pl.when(sel).then(pl.col("age") % 8).otherwise("age"),
        unisex_blend=pl.when(sel).then(pl.Series(rng.uniform(0.0, 1.0, n))),
        duration=pl.Series(duration),
        cohort=pl.Series(cohort),
    )
    with Config().override(tables_path=[worker_files]):
        alone = project(frame, 7, what=QUANTITIES)
        spread = project_dask(frame, 7, client=client, what=QUANTITIES, block_size=64)
    for name in QUANTITIES:
        assert spread[name].tobytes() == alone[name].tobytes(), name


@pytest.fixture
def in_memory() -> Iterator[pl.DataFrame]:
    rng = np.random.default_rng(9)
    TableSource.from_rates("MEMD", {s: np.append(rng.uniform(0.0, 0.2, 20), 1.0) for s in "mf"}).register()
    yield pl.DataFrame({"table_name": ["MEMD"] * 3, "sex": ["m", "u", "f"], "age": [3, 7, 18]}).with_columns(
        unisex_blend=pl.Series([None, 0.25, None])
    )
    TableSource.unregister("MEMD")


def test_tables_registered_in_memory_reach_the_workers(client, in_memory):
    from veltrane.portfolio import project_dask

    spread = project_dask(in_memory, 4, client=client, what=QUANTITIES, block_size=1)
    alone = project(in_memory, 4, what=QUANTITIES)
    assert all(spread[k].tobytes() == alone[k].tobytes() for k in QUANTITIES)


def test_a_table_the_workers_cannot_find_is_named_in_the_error(client, tables):
    # In this process's tables path only: the workers' failure comes back as itself, not as a
    # lost connection.
    tables.period("ONLYHERE")
    from veltrane.portfolio import project_dask

    frame = pl.DataFrame({"table_name": ["ONLYHERE"], "sex": ["m"], "age": [2]})
    with pytest.raises(FileNotFoundError, match="cannot unpickle LifeTable 'ONLYHERE': no table file"):
        project_dask(frame, 3, client=client)


def test_valuation_on_the_cluster_gives_the_single_process_bits(client):
    from veltrane.valuation import Product, value, value_dask

    rng, n = np.random.default_rng(5), 3000
    frame = pl.DataFrame({"table_name": rng.choice(["SSSM", "SULT"], n), "age": rng.integers(20, 80, n)})
    frame = frame.with_columns(sex=pl.lit("u"), duration=rng.integers(1, 4, n), sum=rng.uniform(1, 100, n))
    product = Product(death_benefit="sum", survival_benefit=1.0, term=20, premium=None)
    alone = value(frame, product, interest=0.02, reserves_by_year=True)
    spread = value_dask(client, frame, product, interest=0.02, block_size=1024, reserves_by_year=True)
    for name in ("pv_benefits", "net_premium", "reserve", "reserves"):
        assert getattr(spread, name).tobytes() == getattr(alone, name).tobytes(), name
    assert spread.cash_flows.equals(alone.cash_flows)
