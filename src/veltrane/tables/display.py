"""How a table shows itself in a notebook: an HTML card with its identity, a few rates and a sparkline."""

from __future__ import annotations

import html
import math
from typing import Any

import numpy as np

__all__ = ["table_html"]

_SYMBOLS = {"life": "q", "disability": "i", "exit": "o"}
_SPARK_WIDTH, _SPARK_HEIGHT = 240, 48


def _sample_ages(first: int, last: int) -> list[int]:
    """Up to nine ages across the table: its ends and round ages between."""
    if last - first <= 8:
        return list(range(first, last + 1))
    step = max(10, math.ceil((last - first) / 80) * 10)
    inner = range((first // step + 1) * step, last, step)
    return sorted({first, *list(inner)[:7], last})


def _sparkline(ages: np.ndarray, values: np.ndarray) -> str:
    """An inline SVG polyline of log10 of the positive rates, or "" when there are too few."""
    keep = values > 0
    if keep.sum() < 2:
        return ""
    x, y = ages[keep], np.log10(values[keep])
    span_x = float(x[-1] - x[0]) or 1.0
    span_y = float(y.max() - y.min()) or 1.0
    px = (x - x[0]) / span_x * (_SPARK_WIDTH - 4) + 2
    py = _SPARK_HEIGHT - 2 - (y - y.min()) / span_y * (_SPARK_HEIGHT - 4)
    points = " ".join(f"{a:.1f},{b:.1f}" for a, b in zip(px, py, strict=True))
    return (
        f'<svg width="{_SPARK_WIDTH}" height="{_SPARK_HEIGHT}" role="img" '
        f'aria-label="rates by age, log scale"><polyline points="{points}" fill="none" '
        f'stroke="currentColor" stroke-width="1.2"/></svg>'
    )


def _keys(table: Any) -> list[tuple[str, str]]:
    keys = [("sex", str(table.sex))]
    if table.cohort is not None:
        keys.append(("cohort", str(table.cohort)))
    if table.duration is not None:
        keys.append(("duration", str(table.duration)))
    if table.unisex_blend is not None:
        keys.append(("male weight", repr(table.unisex_blend)))
    origin = getattr(table.table, "_path_origin", None)
    if origin is not None:  # a select path: the life selected at one age
        keys.append(("ages", f"{table.start_age}-{table.w}"))
    interest = getattr(table, "interest_rate", None)
    if interest is not None:
        keys.append(("interest", repr(interest)))
    if table.modified:
        keys.append(("modified", ", ".join(table.modifications_applied)))
    return keys


def table_html(table: Any) -> str:
    """The HTML card of a table: what identifies it, its structure, sample rates and their shape."""
    name = html.escape(f"{type(table).__name__} {table.table_name}")
    taxonomy = [html.escape(line) for line in table.table._taxonomy_lines()]
    keys = "".join(
        f"<tr><th style='text-align:left'>{html.escape(k)}</th><td>{html.escape(v)}</td></tr>"
        for k, v in _keys(table)
    )
    if table.metadata_pending:
        body = "<p><em>pending: set the missing keys with configure()</em></p>"
    else:
        symbol = _SYMBOLS.get(table.table_type, "q")
        ages = np.arange(table.start_age, table.w + 1, dtype=np.float64)
        rates = np.asarray(table.qx(ages), dtype=np.float64)
        sample = _sample_ages(table.start_age, table.w)
        cells = "".join(
            f"<tr><td>{age}</td><td>{float(rates[age - table.start_age])!r}</td></tr>" for age in sample
        )
        body = (
            f"<table><thead><tr><th>age</th><th>{symbol}x</th></tr></thead><tbody>{cells}</tbody></table>"
            + _sparkline(ages, rates)
        )
    return (
        "<div class='veltrane-table'>"
        f"<strong>{name}</strong><br><small>{'<br>'.join(taxonomy)}</small>"
        f"<table>{keys}</table>{body}</div>"
    )
