"""The ``veltrane`` command: list the available tables, show one, evaluate an actuarial function.

Examples
--------
.. code-block:: sh

    veltrane tables                             # tables found, with type and structure
    veltrane show SULT --sex u                  # summary lines and the first rates
    veltrane eval SULT --sex u tpx 65 10        # 10p65
    veltrane eval SULT --sex u qx 50.5 --m 12   # monthly decrement probability at 50.5
    veltrane eval SULT --sex u lx 50,60,70      # several ages, comma-separated
    veltrane --tables-path ./tables show MINE   # a tables directory searched first
    veltrane eval SULT --sex u ex 65            # curtate expectation of life (--complete: complete)
    veltrane eval CSO2017 --sex m --selected-at 45 tpx 45 20  # along the select diagonal
    veltrane annuity SULT --sex u --age 65 --rate 0.05 --m 12
    veltrane commutation SULT --sex u --rate 0.03 -o sult.csv
    veltrane tables --search select            # tables whose name or description has the words
    veltrane import t3287.xml t3288.xml --name CSO2017 --out ./tables   # published XTbML tables

``--sex`` may be left out for a table with a single sex. Bad arguments, unknown tables and
values a table refuses end with a one-line message on standard error and exit status 2;
warnings are printed there as one line each. Output cut short by a closed pipe
(``veltrane show ... | head``) ends quietly with status 1.
"""

from __future__ import annotations

import argparse
import difflib
import os
import re
import sys
import warnings
from collections.abc import Sequence
from pathlib import Path
from typing import TYPE_CHECKING, Any, NoReturn, TextIO

import polars as pl

from veltrane import __version__
from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.cli_import import add_import_command, run_import
from veltrane.config import Config

if TYPE_CHECKING:
    from veltrane.tables.decrement import DecrementTable

__all__ = ["main"]

_FUNCTIONS = ("lx", "px", "qx", "tpx", "tqx", "dx", "ex")
_USAGE_ERROR = 2


class _Parser(argparse.ArgumentParser):
    """An argument parser whose errors are one line (with a pointer to ``--help``)."""

    def error(self, message: str) -> NoReturn:
        self.exit(_USAGE_ERROR, f"{self.prog}: error: {message} (see '{self.prog} --help')\n")


class _RefusedError(Exception):
    """A table or a value was refused; the message is shown as is."""


def _number(text: str) -> int | float:
    try:
        return int(text)
    except ValueError:
        pass
    try:
        return float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}") from None


def _numbers(text: str) -> int | float | list[int | float]:
    """One number, or a comma-separated list of them (a list even when it holds one)."""
    if "," not in text:
        return _number(text)
    return [_number(part) for part in text.split(",") if part.strip()]


def _duration(text: str) -> int | str:
    if text == "ult":
        return text
    try:
        return int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"duration must be an integer or 'ult', got {text!r}") from None


def _directory(text: str) -> Path:
    path = Path(text)
    if not path.is_dir():
        problem = "not a directory" if path.exists() else "no such directory"
        raise argparse.ArgumentTypeError(f"{problem}: {text!r}")
    return path


def _tables_path_argument(parser: argparse.ArgumentParser, dest: str) -> None:
    parser.add_argument(
        "--tables-path",
        dest=dest,
        metavar="DIR",
        type=_directory,
        action="append",
        default=[],
        help="directory searched for tables before VELTRANE_TABLES_PATH (may be repeated)",
    )


def _build_parser() -> _Parser:
    parser = _Parser(prog="veltrane", description="Actuarial decrement tables (life, disability, exit).")
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    # Accepted before and after the command; the directories before it come first.
    _tables_path_argument(parser, "tables_path_first")
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", parser_class=_Parser)
    commands.required = True

    listing = commands.add_parser("tables", help="list the available tables with their type and structure")
    _tables_path_argument(listing, "tables_path")
    listing.add_argument(
        "--search", metavar="WORD", nargs="+", help="only tables whose name or description has every word"
    )
    add_import_command(commands)

    def table_arguments(sub: argparse.ArgumentParser) -> None:
        _tables_path_argument(sub, "tables_path")
        sub.add_argument("name", metavar="NAME", help="table name (file stem, without extension)")
        sub.add_argument("--sex", help="'m', 'f' or 'u' (default: the table's sex, if it has only one)")
        sub.add_argument("--cohort", type=int, help="year of birth (generational tables)")
        sub.add_argument("--duration", type=_duration, help="policy duration or 'ult' (select tables)")
        sub.add_argument("--blend", type=float, help="male weight of a blended unisex table")
        sub.add_argument(
            "--selected-at",
            type=int,
            metavar="AGE",
            help="select tables: the rates of a life selected at AGE (the select diagonal, then ultimate)",
        )

    show = commands.add_parser("show", help="print a table's summary and its first rates")
    table_arguments(show)
    show.add_argument("--rows", type=int, default=10, help="number of rates shown (default 10)")

    evaluate = commands.add_parser(
        "eval",
        help="evaluate lx, px, qx, tpx, tqx, dx or ex",
        description="Evaluate an actuarial function. X and T take one number or a comma-separated list.",
    )
    table_arguments(evaluate)
    evaluate.add_argument("function", metavar="FUNCTION", choices=_FUNCTIONS, help=", ".join(_FUNCTIONS))
    evaluate.add_argument("x", metavar="X", type=_numbers, help="age(s)")
    evaluate.add_argument("t", metavar="T", type=_numbers, nargs="?", help="duration(s) in years (tpx, tqx)")
    evaluate.add_argument(
        "--m", type=int, choices=PAYMENT_FREQUENCIES, help="payments per year (px, qx; default 1)"
    )
    evaluate.add_argument("--complete", action="store_true", help="ex: the complete expectation of life")
    _add_contingency_commands(commands, table_arguments)

    chart = commands.add_parser(
        "plot",
        help="draw one or more tables' rates, survivors or expectation of life to a PNG file",
        description="Draw tables on one chart for comparison; every table takes the same keys.",
    )
    table_arguments(chart)
    chart.add_argument("more", metavar="NAME2", nargs="*", help="further tables on the same chart")
    chart.add_argument("--what", choices=("qx", "lx", "ex"), default="qx", help="what to draw (default qx)")
    chart.add_argument("--linear", action="store_true", help="a linear value axis (default: logarithmic)")
    chart.add_argument("-o", "--output", required=True, type=Path, help="the PNG file to write")
    return parser


# -- tables ---------------------------------------------------------------------------------------
def _table_files() -> list[tuple[str, Path]]:
    """(name, directory) of every table pair, in search order; a shadowed name is listed once."""
    from veltrane.tables.source import BUNDLED_TABLES_DIR

    found: dict[str, Path] = {}
    for directory in (*Config().tables_path, BUNDLED_TABLES_DIR):
        if not directory.is_dir():
            continue
        for toml in sorted(directory.glob("*.toml")):
            # Whatever has the name is listed; loading it says what is wrong with it.
            if os.path.lexists(toml.with_suffix(".csv")):
                found.setdefault(toml.stem, directory)
    return list(found.items())


def _matches(words: list[str] | None, *texts: str) -> bool:
    """Whether every word occurs in the texts, ignoring case."""
    haystack = " ".join(texts).casefold()
    return all(word.casefold() in haystack for word in words or ())


def _list_tables(search: list[str] | None = None) -> int:
    from veltrane.tables.source import BUNDLED_TABLES_DIR, TableSource

    rows = []
    listed = [(name, "registered") for name in TableSource.registered()]
    listed += [(n, "bundled" if d == BUNDLED_TABLES_DIR else str(d)) for n, d in _table_files()]
    for name, where in _first_wins(listed):
        try:
            source = TableSource(name)
        except (OSError, ValueError) as exc:
            if _matches(search, name):
                rows.append((name, "?", "?", f"unreadable: {exc}", where))
            continue
        if not _matches(
            search, name, source.description, str(source.metadata.get("source", {}).get("name", ""))
        ):
            continue
        structure = next((ln for ln in source._taxonomy_lines() if ln.startswith("Structure: ")), "")
        sexes = ",".join(source.valid_sexes)
        rows.append((name, source.table_type, sexes, structure.removeprefix("Structure: "), where))
    if not rows:
        print("No tables match." if search else "No tables found.")
        return 0
    header = ("NAME", "TYPE", "SEXES", "STRUCTURE", "WHERE")
    widths = [max(len(str(row[i])) for row in (header, *rows)) for i in range(len(header) - 1)]
    for row in (header, *rows):
        cells = [str(cell).ljust(width) for cell, width in zip(row, widths, strict=False)]
        print("  ".join([*cells, str(row[-1])]).rstrip())
    return 0


# -- show and eval --------------------------------------------------------------------------------
# The tables' messages suggest Python calls; on the command line the same hints read as options.
# Applied in order, so the specific forms go before the general ones.
_CLI_HINTS: tuple[tuple[re.Pattern[str], str], ...] = tuple(
    (re.compile(pattern), replacement)
    for pattern, replacement in (
        (r"Example: \w+\('[^']*', sex='u', unisex_blend=([^)]*)\)", r"Example: --sex u --blend \1"),
        (r"unisex_blend parameter is required when sex='u'", "--blend is required with --sex u"),
        (
            r"Cannot specify unisex_blend=(\S+) when sex='(\w+)' is explicitly set",
            r"Cannot use --blend \1 with --sex \2",
        ),
        (
            r"Pass an integer >= (-?\d+) or duration='ult'",
            r"Pass --duration N with N >= \1, or --duration ult",
        ),
        (r"duration='ult'", "--duration ult"),
        (r"\bsex='(\w+)'", r"--sex \1"),
        (r"'duration' is required", "--duration is required"),
        (r"'cohort' \(year of birth\) is required", "--cohort (year of birth) is required"),
        (r"^Cohort should not be specified", "--cohort should not be given"),
        (r"^Cohort year must be", "--cohort must be a year"),
        (r"^duration (must|is only)", r"--duration \1"),
        (r"^unisex_blend (must|can only)", r"--blend \1"),
    )
)


def _cli_message(message: str) -> str:
    for pattern, replacement in _CLI_HINTS:
        message = pattern.sub(replacement, message)
    return message


def _default_sex(name: str, sexes: list[str]) -> str:
    if len(sexes) == 1:
        return sexes[0]
    listed = ", ".join(sexes) or "none"
    raise _RefusedError(f"table {name!r} has sexes {listed}: choose one with --sex")


def _first_wins(listed: list[tuple[str, str]]) -> list[tuple[str, str]]:
    """(name, where) in order, each name once: the first place holding it is the one used."""
    found: dict[str, str] = {}
    for name, where in listed:
        found.setdefault(name, where)
    return list(found.items())


def _did_you_mean(name: str) -> str:
    """A hint naming the tables whose names are close to ``name`` (case ignored), or ""."""
    from veltrane.tables.source import TableSource

    names = list(dict.fromkeys([*TableSource.registered(), *(n for n, _ in _table_files())]))
    same = [n for n in names if n.casefold() == name.casefold()]
    folded = {n.casefold(): n for n in names}
    close = [folded[n] for n in difflib.get_close_matches(name.casefold(), list(folded), n=3, cutoff=0.6)]
    found = list(dict.fromkeys([*same, *close]))
    return f" (did you mean {' or '.join(repr(n) for n in found)}?)" if found else ""


def _open_table(args: argparse.Namespace) -> DecrementTable:
    from veltrane.tables.disability import DisabilityTable
    from veltrane.tables.exit import ExitTable
    from veltrane.tables.life import LifeTable
    from veltrane.tables.source import TableSource

    classes: dict[str, Any] = {"life": LifeTable, "disability": DisabilityTable, "exit": ExitTable}
    try:
        source = TableSource(args.name)
        cls = classes.get(source.table_type)
        if cls is None:
            raise _RefusedError(f"table {args.name!r} has an unknown type {source.table_type!r}")
        sex = args.sex if args.sex is not None else _default_sex(args.name, source.valid_sexes)
        selected_at = getattr(args, "selected_at", None)
        # A select path reads every duration in turn, so any column will do to start from.
        duration = args.duration
        if selected_at is not None and duration is None and source.select:
            duration = "ult"
        table = cls(args.name, sex, cohort=args.cohort, unisex_blend=args.blend, duration=duration)
        return table if selected_at is None else table.select_path(selected_at)
    except FileNotFoundError as exc:
        raise _RefusedError(str(exc) + _did_you_mean(args.name)) from exc
    except (OSError, ValueError, TypeError) as exc:
        raise _RefusedError(_cli_message(str(exc))) from exc


def _show(args: argparse.Namespace) -> int:
    if args.rows < 0:
        raise _RefusedError(f"--rows must be >= 0, got {args.rows}")
    table = _open_table(args)
    print(table.summary())
    print()
    # Rates are shown in full: the default display rounds them to six significant digits.
    with pl.Config(fmt_float="full", tbl_rows=args.rows):
        print(table.head(args.rows))
    return 0


def _format(value: float) -> str:
    return repr(float(value))


def _evaluate(args: argparse.Namespace) -> int:
    function = args.function
    if args.t is not None and function not in ("tpx", "tqx"):
        raise _RefusedError(f"{function} takes no duration T (only tpx and tqx do)")
    if args.m is not None and function not in ("px", "qx"):
        raise _RefusedError(f"--m applies to px and qx only, not {function}")
    if args.complete and function != "ex":
        raise _RefusedError(f"--complete applies to ex only, not {function}")
    table = _open_table(args)
    method = getattr(table, function)
    try:
        if function in ("tpx", "tqx"):
            result = method(args.x, 1 if args.t is None else args.t)
        elif function in ("px", "qx"):
            result = method(args.x, 1 if args.m is None else args.m)
        elif function == "ex":
            result = method(args.x, complete=args.complete)
        else:
            result = method(args.x)
    except (ValueError, TypeError) as exc:
        raise _RefusedError(_cli_message(str(exc))) from exc
    if isinstance(result, float):
        print(_format(result))
        return 0
    ages = args.x if isinstance(args.x, list) else [args.x]
    if result.ndim == 2:
        print("\t".join(["x \\ t", *(str(t) for t in args.t)]))
        for age, row in zip(ages, result, strict=True):
            print("\t".join([str(age), *(_format(v) for v in row)]))
        return 0
    labels = args.t if isinstance(args.t, list) and not isinstance(args.x, list) else ages
    for label, value in zip(labels, result, strict=True):
        print(f"{label}\t{_format(value)}")
    return 0


def _keys_for(args: argparse.Namespace, name: str) -> argparse.Namespace:
    """The arguments for one table of a comparison: a key the table has no use for is dropped."""
    from veltrane.tables.source import TableSource

    keys = {**vars(args), "name": name}
    try:
        source = TableSource(name)
    except FileNotFoundError as exc:
        raise _RefusedError(str(exc) + _did_you_mean(name)) from exc
    except (OSError, ValueError) as exc:
        raise _RefusedError(_cli_message(str(exc))) from exc
    if not source.generational:
        keys["cohort"] = None
    if not source.select:
        keys["duration"] = None
    return argparse.Namespace(**keys)


def _plot(args: argparse.Namespace) -> int:
    try:
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure
    except ImportError as exc:
        raise _RefusedError("plot needs matplotlib: pip install matplotlib") from exc
    if args.output.suffix.lower() != ".png":
        raise _RefusedError(f"-o must name a .png file, got {str(args.output)!r}")
    tables = [_open_table(_keys_for(args, name)) for name in [args.name, *args.more]]
    figure = Figure(figsize=(8, 5), dpi=100)
    FigureCanvasAgg(figure)
    axes = figure.add_subplot()
    try:
        for table in tables:
            table.plot(ax=axes, log=not args.linear, what=args.what)
    except (ValueError, TypeError) as exc:
        raise _RefusedError(_cli_message(str(exc))) from exc
    axes.set_title(", ".join(dict.fromkeys([args.name, *args.more])))
    try:
        figure.savefig(args.output, format="png")
    except OSError as exc:
        raise _RefusedError(f"cannot write {str(args.output)!r}: {exc.strerror or exc}") from exc
    print(args.output)
    return 0


# -- annuity and commutation ----------------------------------------------------------------------
def _add_contingency_commands(commands: Any, table_arguments: Any) -> None:
    """The subcommands of veltrane.contingencies: annuity values and commutation columns."""
    value = commands.add_parser(
        "annuity",
        help="value a life annuity",
        description="Value a life annuity of 1 a year. --age and --term take one number or a "
        "comma-separated list.",
    )
    table_arguments(value)
    value.add_argument("--age", type=_numbers, required=True, help="age(s)")
    value.add_argument("--rate", type=float, required=True, help="annual effective interest rate (> -1)")
    value.add_argument("--term", type=_numbers, help="term in years (default: whole life)")
    value.add_argument("--m", type=int, choices=PAYMENT_FREQUENCIES, default=1, help="payments per year")
    value.add_argument("--defer", type=float, default=0.0, help="years before the first period (default 0)")
    value.add_argument("--immediate", action="store_true", help="payments in arrears (default: in advance)")
    value.add_argument(
        "--method", choices=("exact", "udd", "woolhouse", "woolhouse2"), default="exact", help="default exact"
    )

    columns = commands.add_parser("commutation", help="print or write the commutation columns")
    table_arguments(columns)
    columns.add_argument("--rate", type=float, required=True, help="annual effective interest rate (> -1)")
    columns.add_argument("-o", "--output", type=Path, help="write a CSV file instead of printing the columns")


def _annuity(args: argparse.Namespace) -> int:
    from veltrane.contingencies import annuity

    table = _open_table(args)
    try:
        result = annuity(
            table,
            args.age,
            args.term,
            i=args.rate,
            due=not args.immediate,
            m=args.m,
            defer=args.defer,
            method=args.method,
        )
    except (ValueError, TypeError) as exc:
        raise _RefusedError(str(exc)) from exc
    if isinstance(result, float):
        print(_format(result))
        return 0
    ages = args.age if isinstance(args.age, list) else [args.age]
    terms = args.term if isinstance(args.term, list) else [args.term] * len(result)
    ages = ages * len(result) if len(ages) == 1 else ages
    header = ["age", "term", "value"] if args.term is not None else ["age", "value"]
    print("\t".join(header))
    for age, term, value in zip(ages, terms, result, strict=True):
        cells = [str(age), str(term)] if args.term is not None else [str(age)]
        print("\t".join([*cells, _format(value)]))
    return 0


def _commutation(args: argparse.Namespace) -> int:
    from veltrane.contingencies import commutation

    table = _open_table(args)
    try:
        frame = commutation(table, i=args.rate)
    except (ValueError, TypeError) as exc:
        raise _RefusedError(str(exc)) from exc
    if args.output is not None:
        try:
            frame.write_csv(args.output)
        except OSError as exc:
            raise _RefusedError(f"cannot write {args.output}: {exc}") from exc
        return 0
    print("\t".join(frame.columns))
    for row in frame.iter_rows():
        print("\t".join([str(row[0]), *(_format(v) for v in row[1:])]))
    return 0


_CONTINGENCY_COMMANDS = {"annuity": _annuity, "commutation": _commutation}


def main(argv: Sequence[str] | None = None) -> int:
    """Run the ``veltrane`` command.

    Parameters
    ----------
    argv : sequence of str, optional
        The arguments after the program name; defaults to ``sys.argv[1:]``.

    Returns
    -------
    int
        The exit status: 0 on success, 1 when standard output was closed early (a pipe into
        ``head``), 2 for bad arguments, unknown tables or refused values.
    """
    args = _build_parser().parse_args(argv)
    directories = [*args.tables_path_first, *args.tables_path]
    try:
        with warnings.catch_warnings():
            warnings.showwarning = _show_warning
            with Config().override(tables_path=[*directories, *Config().tables_path]):
                status = _run(args)
            sys.stdout.flush()  # a closed pipe shows here, not in the interpreter's last flush
        return status
    except _RefusedError as exc:
        print(f"veltrane {args.command}: error: {exc}", file=sys.stderr)
        return _USAGE_ERROR
    except BrokenPipeError:
        # The reader is gone: point stdout at /dev/null so that the final flush stays quiet.
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        os.close(devnull)
        return 1


def _run(args: argparse.Namespace) -> int:
    if args.command == "tables":
        return _list_tables(args.search)
    if args.command == "import":
        return run_import(args, _RefusedError)
    if args.command == "show":
        return _show(args)
    if args.command == "plot":
        return _plot(args)
    if args.command in _CONTINGENCY_COMMANDS:
        return _CONTINGENCY_COMMANDS[args.command](args)
    return _evaluate(args)


def _show_warning(
    message: Warning | str,
    category: type[Warning],
    filename: str,
    lineno: int,
    file: TextIO | None = None,
    line: str | None = None,
) -> None:
    # One line, like the errors; the Python source location means nothing to a shell user.
    print(f"veltrane: warning: {message}", file=sys.stderr)


if __name__ == "__main__":
    sys.exit(main())
