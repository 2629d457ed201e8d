"""Disability tables: one-year incidence rates i by age."""

from __future__ import annotations

from typing import ClassVar

from veltrane.tables.typed import TypedTable

__all__ = ["DisabilityTable"]


class DisabilityTable(TypedTable):
    """A disability table: incidence rates ``ix`` from a table file of type "disability"."""

    __slots__ = ()
    _TABLE_TYPE: ClassVar[str] = "disability"

    @property
    def table_type(self) -> str:
        """Always "disability"."""
        return "disability"
