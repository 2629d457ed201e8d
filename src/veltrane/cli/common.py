"""What every command shares: one-line errors, number arguments, the table arguments and opening a table."""

from __future__ import annotations

import argparse
import re
from pathlib import Path
from typing import TYPE_CHECKING, Any, NoReturn

if TYPE_CHECKING:
    from veltrane.tables.decrement import DecrementTable

USAGE_ERROR = 2


class Parser(argparse.ArgumentParser):
    """An argument parser whose errors are one line, with a pointer to the command's own help."""

    def error(self, message: str) -> NoReturn:
        self.exit(USAGE_ERROR, f"{self.prog}: error: {message} (see '{self.prog} --help')\n")


class RefusedError(Exception):
    """A table or a value was refused; the message is shown as is."""


def number(text: str) -> int | float:
    try:
        return int(text)
    except ValueError:
        pass
    try:
        return float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"not a number: {text!r}") from None


def numbers(text: str) -> int | float | list[int | float]:
    """One number, or a comma-separated list of them (a list even when it holds one)."""
    if "," not in text:
        return number(text)
    found = [number(part) for part in text.split(",") if part.strip()]
    if not found:
        raise argparse.ArgumentTypeError(f"no number in {text!r}")
    return found


def one_line(exc: BaseException) -> str:
    text = " ".join(str(exc).split())
    return f"{type(exc).__name__}: {text}" if text else type(exc).__name__


def duration(text: str) -> int | str:
    if text == "ult":
        return text
    try:
        return int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"duration must be an integer or 'ult', got {text!r}") from None


def directory(text: str) -> Path:
    path = Path(text)
    if not path.is_dir():
        problem = "not a directory" if path.exists() else "no such directory"
        raise argparse.ArgumentTypeError(f"{problem}: {text!r}")
    return path


def tables_path_argument(parser: argparse.ArgumentParser, dest: str) -> None:
    parser.add_argument(
        "--tables-path",
        dest=dest,
        metavar="DIR",
        type=directory,
        action="append",
        default=[],
        help="directory searched for tables before VELTRANE_TABLES_PATH (may be repeated)",
    )


def key_arguments(sub: argparse.ArgumentParser) -> None:
    """The keys that choose a table's rates: sex, cohort, duration, blend, selection age."""
    sub.add_argument("--sex", help="'m', 'f' or 'u' (default: the table's sex, if it has only one)")
    sub.add_argument("--cohort", type=int, help="year of birth (generational tables)")
    sub.add_argument("--duration", type=duration, help="policy duration or 'ult' (select tables)")
    sub.add_argument("--blend", type=float, help="male weight of a blended unisex table")
    sub.add_argument(
        "--selected-at",
        type=int,
        metavar="AGE",
        help="select tables: the rates of a life selected at AGE (the select diagonal, then ultimate)",
    )


def table_arguments(sub: argparse.ArgumentParser) -> None:
    """A table by name and its keys."""
    tables_path_argument(sub, "tables_path")
    sub.add_argument("name", metavar="NAME", help="table name (file stem, without extension)")
    key_arguments(sub)


def format_number(value: float) -> str:
    return repr(float(value))


def print_values(age: Any, term: Any, result: Any, second_age: Any = None) -> int:
    """One value as a number; values for several ages or terms as a table of age[, second_age]
    [, term], value (the second age of two lives, when given)."""
    if isinstance(result, float):
        print(format_number(result))
        return 0

    def column(values: Any) -> list[Any]:
        listed = values if isinstance(values, list) else [values]
        return listed * len(result) if len(listed) == 1 else listed

    header = [
        "age",
        *(["second_age"] if second_age is not None else []),
        *(["term"] if term is not None else []),
    ]
    print("\t".join([*header, "value"]))
    for a, second, t, value in zip(column(age), column(second_age), column(term), result, strict=True):
        cells = [
            str(a),
            *([str(second)] if second_age is not None else []),
            *([str(t)] if term is not None else []),
        ]
        print("\t".join([*cells, format_number(value)]))
    return 0


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
        # The command line says "period table" throughout, where the library's message says static.
        (
            r"^Cohort should not be specified for static tables",
            "--cohort should not be given for period tables",
        ),
        (r"^Cohort should not be specified", "--cohort should not be given"),
        (r"^Cohort year must be", "--cohort must be a year"),
        (r"^duration (must|is only)", r"--duration \1"),
        (r"^unisex_blend (must|can only)", r"--blend \1"),
    )
)


def cli_message(message: str) -> str:
    for pattern, replacement in _CLI_HINTS:
        message = pattern.sub(replacement, message)
    return message


def default_sex(name: str, sexes: list[str]) -> str:
    if len(sexes) == 1:
        return sexes[0]
    listed = ", ".join(sexes) or "none"
    raise RefusedError(f"table {name!r} has sexes {listed}: choose one with --sex")


def open_source(name: str) -> Any:
    """The table source of ``name``, or a one-line refusal that suggests close names."""
    from veltrane.tables.source import TableSource

    try:
        return TableSource(name)
    except FileNotFoundError as exc:  # the message names close tables already
        raise RefusedError(str(exc)) from exc
    except (OSError, ValueError) as exc:
        raise RefusedError(cli_message(str(exc))) from exc


def open_table(args: argparse.Namespace) -> DecrementTable:
    """The table that the arguments name: its class by the file's type, then its keys."""
    from veltrane.tables.disability import DisabilityTable
    from veltrane.tables.exit import ExitTable
    from veltrane.tables.life import LifeTable

    classes: dict[str, Any] = {"life": LifeTable, "disability": DisabilityTable, "exit": ExitTable}
    source = open_source(args.name)
    cls = classes.get(source.table_type)
    if cls is None:
        raise RefusedError(f"table {args.name!r} has an unknown type {source.table_type!r}")
    selected_at = getattr(args, "selected_at", None)
    if selected_at is not None and args.duration is not None:
        raise RefusedError(
            "--duration cannot be given with --selected-at: a life selected at an age walks every "
            "duration from the first"
        )
    try:
        sex = args.sex if args.sex is not None else default_sex(args.name, source.valid_sexes)
        # A select path reads every duration in turn, so any column will do to start from.
        chosen = "ult" if selected_at is not None and source.select else args.duration
        table: DecrementTable = cls(
            args.name, sex, cohort=args.cohort, unisex_blend=args.blend, duration=chosen
        )
        return table if selected_at is None else table.select_path(selected_at)
    except (OSError, ValueError, TypeError) as exc:
        raise RefusedError(cli_message(str(exc))) from exc
