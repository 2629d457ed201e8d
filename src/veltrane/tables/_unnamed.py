"""Tables on sources that no name finds: built from data in memory, pickled with their data.

A table is built by name (``TableSource(name)``), so a source given directly is staged under a
private name that is registered only while the table is constructed, and the table is then
handed the source itself (its own name, its data). The source remembers its metadata and
frame, and a pickled table carries them (see ``_pickling``): nothing is registered anywhere,
before, during or after, under any name a caller could use.
"""

from __future__ import annotations

import copy
import itertools
from collections.abc import Callable
from typing import TYPE_CHECKING, Any, TypeVar

import polars as pl

from veltrane.tables.source import TableSource

if TYPE_CHECKING:
    from veltrane.tables.decrement import DecrementTable

__all__: list[str] = []

T = TypeVar("T", bound="DecrementTable")

_staging = itertools.count()


def unnamed_source(name: str, metadata: dict[str, Any], frame: pl.DataFrame) -> TableSource:
    """A source built from data that keeps the data, so that its tables pickle with it."""
    source = TableSource.from_frame(name, metadata, frame)
    source._memory_data = (dict(metadata), frame)
    return source


def memory_data(source: object) -> tuple[dict[str, Any], pl.DataFrame] | None:
    """(metadata, frame) of a source built by :func:`unnamed_source`, or None."""
    return getattr(source, "_memory_data", None)


def build(source: TableSource, construct: Callable[[str], T]) -> T:
    """``construct(name)`` on a private name that finds ``source``'s data; the table then holds ``source``."""
    data = memory_data(source)
    if data is None:
        # A source found by name (cached, shared) stays as it is: the table gets a copy that
        # carries the data.
        data = (dict(source.metadata), source.data)
        source = copy.copy(source)
        source._memory_data = data
    private = f"{source.table_name}#unnamed-{next(_staging)}"
    TableSource.from_frame(private, *data).register()
    try:
        table = construct(private)
    finally:
        TableSource.unregister(private)
    table._table = source
    table._table_is_private_copy = True
    return table
