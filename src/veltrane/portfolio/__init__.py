"""Portfolio batches: many policies projected year by year on their decrement tables.

``project(policies, years)`` reads a frame of policies, builds each distinct table once, and
returns (policies x years) arrays of rates, survival and decrements; ``project_dask`` runs the
same batch on a Dask cluster. See ``docs/portfolio.md``.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

from veltrane.portfolio.project import DEFAULT_BLOCK_SIZE, QUANTITIES, Projection, project

if TYPE_CHECKING:
    from veltrane.portfolio.distributed import project_dask

__all__ = ["DEFAULT_BLOCK_SIZE", "QUANTITIES", "Projection", "project", "project_dask"]


def __getattr__(name: str) -> Any:
    if name == "project_dask":  # Dask is optional: imported on first use
        from veltrane.portfolio.distributed import project_dask

        return project_dask
    raise AttributeError(f"module 'veltrane.portfolio' has no attribute {name!r}")


def __dir__() -> list[str]:
    # The lazily loaded names too, so that dir(), help() and tab completion show them.
    return sorted({*globals(), *__all__})
