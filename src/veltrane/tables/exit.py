"""Exit tables: one-year exit (lapse, withdrawal) rates o by age."""

from __future__ import annotations

from typing import ClassVar

from veltrane.tables.typed import TypedTable

__all__ = ["ExitTable"]


class ExitTable(TypedTable):
    """An exit table: exit rates ``ox`` (lapse, withdrawal) from a table file of type "exit"."""

    __slots__ = ()
    _TABLE_TYPE: ClassVar[str] = "exit"

    @property
    def table_type(self) -> str:
        """Always "exit"."""
        return "exit"
