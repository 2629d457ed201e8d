"""``veltrane plot``: tables on one chart, each with its own keys, to a PNG, PDF or SVG file."""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import Any

from veltrane.cli.common import (
    RefusedError,
    cli_message,
    key_arguments,
    one_line,
    open_source,
    open_table,
    tables_path_argument,
)
from veltrane.tables.plotting import literal_text

FORMATS = {".png": "png", ".pdf": "pdf", ".svg": "svg"}


def add_commands(commands: Any) -> None:
    chart = commands.add_parser(
        "plot",
        help="draw tables' rates, survivors or expectation of life to a PNG, PDF or SVG file",
        description="Draw tables on one chart for comparison. Each TABLE is NAME, NAME:SEX or "
        "NAME:SEX:COHORT (for example CSO1980:f or DAV2004R:m:1960); --sex, --cohort, --duration, "
        "--blend and --selected-at apply to every table that gives no value of its own and has a "
        "use for them (a table with a single sex keeps it).",
    )
    tables_path_argument(chart, "tables_path")
    chart.add_argument("tables", metavar="TABLE", nargs="+", help="NAME[:SEX[:COHORT]]")
    key_arguments(chart)
    chart.add_argument("--what", choices=("qx", "lx", "ex"), default="qx", help="what to draw (default qx)")
    chart.add_argument("--linear", action="store_true", help="a linear value axis (default: logarithmic)")
    chart.add_argument(
        "-o", "--output", required=True, type=Path, help="the file to write: .png, .pdf or .svg"
    )
    chart.set_defaults(run=plot_tables)


def _table_keys(args: argparse.Namespace, entry: str) -> argparse.Namespace:
    """The keys of one TABLE entry: its own sex and cohort, else the shared ones it can use."""
    name, *own = entry.split(":")
    if not name or len(own) > 2 or any(not part for part in own):
        raise RefusedError(f"a table is NAME, NAME:SEX or NAME:SEX:COHORT, got {entry!r}")
    source = open_source(name)
    keys = {**vars(args), "name": name}
    if own:
        keys["sex"] = own[0]
    elif args.sex is not None and args.sex not in source.valid_sexes and len(source.valid_sexes) == 1:
        keys["sex"] = None  # the table's single sex
    if len(own) == 2:
        try:
            keys["cohort"] = int(own[1])
        except ValueError:
            raise RefusedError(f"the cohort of {entry!r} must be a year, got {own[1]!r}") from None
    elif not source.generational:
        keys["cohort"] = None
    if not source.select:
        keys["duration"] = keys["selected_at"] = None
    return argparse.Namespace(**keys)


def plot_tables(args: argparse.Namespace) -> int:
    try:
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure
    except ImportError as exc:
        raise RefusedError("plot needs matplotlib: pip install matplotlib") from exc
    kind = FORMATS.get(args.output.suffix.lower())
    if kind is None:
        raise RefusedError(f"-o must name a .png, .pdf or .svg file, got {str(args.output)!r}")
    tables = [open_table(_table_keys(args, entry)) for entry in args.tables]
    figure = Figure(figsize=(8, 5), dpi=100)
    FigureCanvasAgg(figure)
    axes = figure.add_subplot()
    try:
        for table in tables:
            table.plot(ax=axes, log=not args.linear, what=args.what)
    except (ValueError, TypeError) as exc:
        raise RefusedError(cli_message(str(exc))) from exc
    axes.set_title(literal_text(", ".join(dict.fromkeys(entry for entry in args.tables))))
    try:
        figure.savefig(args.output, format=kind)
    except OSError as exc:
        raise RefusedError(f"cannot write {str(args.output)!r}: {exc.strerror or exc}") from exc
    except Exception as exc:  # the plotting library's own failures: one line, not a traceback
        raise RefusedError(f"cannot draw the chart: {one_line(exc)}") from exc
    print(args.output)
    return 0
