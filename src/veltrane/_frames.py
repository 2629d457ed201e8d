"""pandas frames read as Polars frames, column by column through NumPy (no pyarrow needed)."""

from __future__ import annotations

from typing import Any

import polars as pl

__all__ = ["from_pandas", "is_pandas_frame"]


def is_pandas_frame(obj: object) -> bool:
    """Whether ``obj`` is a pandas DataFrame (pandas itself is not imported)."""
    return type(obj).__module__.startswith("pandas") and hasattr(obj, "columns") and hasattr(obj, "dtypes")


def from_pandas(frame: Any, label: str) -> pl.DataFrame:
    """The pandas frame as a Polars frame; ``label`` starts every message.

    Text columns (object, string or categorical) keep their values with every missing entry
    (None, NaN or NA) as null; other columns go through NumPy as they are. The index is ignored.

    Raises
    ------
    ValueError
        Column names repeat, or a column mixes kinds of values.
    """
    if not frame.columns.is_unique:
        raise ValueError(f"{label}: column names repeat: {list(frame.columns)}")
    return pl.DataFrame([_column(frame, c, label) for c in frame.columns])


def _column(frame: Any, column: Any, label: str) -> pl.Series:
    values = frame[column]
    try:
        if values.dtype.kind == "O":
            # pandas marks a missing entry with None, NaN or NA; Polars reads only None as null.
            return pl.Series(str(column), values.astype(object).where(values.notna(), None).tolist())
        return pl.Series(str(column), values.to_numpy())
    except (TypeError, pl.exceptions.PolarsError) as exc:
        raise ValueError(f"{label}: column {column!r} mixes kinds of values: {exc}") from exc
