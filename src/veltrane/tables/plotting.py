"""Charts of a table's rates, survivors or expectation of life (matplotlib, optional)."""

from __future__ import annotations

from typing import TYPE_CHECKING, Any, Literal

import numpy as np

if TYPE_CHECKING:
    from matplotlib.axes import Axes

__all__ = ["literal_text", "plot", "table_label"]

PlotWhat = Literal["qx", "lx", "ex"]
_SYMBOLS = {"life": "q", "disability": "i", "exit": "o"}


def _axes(ax: Axes | None) -> Axes:
    try:
        import matplotlib.pyplot as plt
    except ImportError as exc:  # pragma: no cover - depends on the environment
        raise ImportError("plot() needs matplotlib: pip install matplotlib (or veltrane[plot])") from exc
    if ax is not None:
        return ax
    _, new = plt.subplots()
    return new


def literal_text(text: str) -> str:
    """``text`` as matplotlib shows it literally in a title or a legend.

    Dollar signs would start mathematical text (and fail on names such as ``A$x^$B``), and a
    legend leaves out a label that starts with an underscore: a zero-width space keeps it.
    """
    text = text.replace("$", r"\$")
    return "\u200b" + text if text.startswith("_") else text


def table_label(table: Any) -> str:
    """The legend entry of a table: its name and the keys that tell it apart."""
    parts = [f"{table.table_name} {table.sex}"]
    if table.cohort is not None:
        parts.append(f"born {table.cohort}")
    if table.duration is not None:
        parts.append(f"duration {table.duration}")
    if table.unisex_blend is not None:
        parts.append(f"blend {table.unisex_blend:g}")
    if table.modified:
        parts.append("modified")
    return ", ".join(parts)


def plot(self: Any, ax: Axes | None = None, log: bool = True, what: PlotWhat = "qx") -> Axes:
    """Draw the table's rates, survivors or expectation of life by age on a matplotlib axes.

    Parameters
    ----------
    ax : matplotlib.axes.Axes, optional
        Where to draw; a new figure's axes by default. Draw several tables on one axes to
        compare them.
    log : bool, default True
        A logarithmic value axis (ages with a value of 0 are left out there).
    what : {"qx", "lx", "ex"}
        The one-year rates of the table's decrement, the survivors out of the radix, or the
        complete expectation of life.

    Returns
    -------
    matplotlib.axes.Axes
        The axes drawn on, with a labelled line for this table, titled after the first table
        drawn on it unless it had a title already.
    """
    if what not in ("qx", "lx", "ex"):
        raise ValueError(f"what must be 'qx', 'lx' or 'ex', got {what!r}")
    if not isinstance(log, bool):
        raise TypeError(f"log must be bool, got {type(log).__name__}")
    self._ensure_ready("plot")
    ages = np.arange(self.start_age, self.w + 1, dtype=np.float64)
    if what == "qx":
        values = self.qx(ages)
        ylabel = f"{_SYMBOLS.get(self.table_type, 'q')}x (one-year rate)"
    elif what == "lx":
        values = self.lx(ages)
        ylabel = "lx (survivors of 1,000,000)"
    else:
        if not hasattr(self, "ex"):
            raise ValueError("what='ex' needs the expectation of life, which this table does not offer")
        values = self.ex(ages, complete=True)
        ylabel = "complete expectation of life (years)"
    axes = _axes(ax)
    if log:
        keep = values > 0
        ages, values = ages[keep], values[keep]
        axes.set_yscale("log")
    axes.plot(ages, values, label=literal_text(table_label(self)))
    if not axes.get_title():  # the first table drawn names the chart; later ones join the legend
        axes.set_title(literal_text(table_label(self)))
    axes.set_xlabel("age")
    axes.set_ylabel(ylabel)
    axes.legend()
    return axes
