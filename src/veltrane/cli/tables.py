"""``veltrane tables``, ``show`` and ``eval``: what tables there are, one table, one function."""

from __future__ import annotations

import argparse
from typing import Any

import polars as pl

from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.cli.common import (
    RefusedError,
    cli_message,
    format_number,
    numbers,
    open_table,
    table_arguments,
    tables_path_argument,
)
from veltrane.tables.listing import SOA_LOCATION, catalogue, soa_refused

FUNCTIONS = ("lx", "px", "qx", "tpx", "tqx", "dx", "ex")
#: The width the listing fits unless --wide is given.
LISTING_WIDTH = 100


def add_commands(commands: Any) -> None:
    listing = commands.add_parser(
        "tables",
        help="list the available tables with their type and structure",
        description=f"List the tables that can be opened, one a line, in {LISTING_WIDTH} columns "
        "(the structure is shortened to fit unless --wide is given).",
    )
    tables_path_argument(listing, "tables_path")
    listing.add_argument(
        "--search",
        metavar="WORD",
        nargs="+",
        help="only tables whose name, number, table name, content type, nation, provider, type, structure, "
        "description or source has every word (the SOA table service's tables are searched too, "
        "and listed after the others)",
    )
    listing.add_argument(
        "--soa", action="store_true", help="list the tables of the SOA table service by number as well"
    )
    listing.add_argument(
        "--refused",
        action="store_true",
        help="with --soa: list the service's files and parts that have no table form, with the reason",
    )
    listing.add_argument("--wide", action="store_true", help="do not shorten lines to fit")
    listing.set_defaults(run=list_tables)

    show = commands.add_parser("show", help="print a table's summary and its rates from its first age")
    table_arguments(show)
    show.add_argument("--rows", type=int, default=10, help="number of rates shown (default 10)")
    show.set_defaults(run=show_table)

    evaluate = commands.add_parser(
        "eval",
        help="evaluate lx, px, qx, tpx, tqx, dx or ex",
        description="Evaluate an actuarial function. X and T take one number or a comma-separated list.",
    )
    table_arguments(evaluate)
    evaluate.add_argument("function", metavar="FUNCTION", choices=FUNCTIONS, help=", ".join(FUNCTIONS))
    evaluate.add_argument("x", metavar="X", type=numbers, help="age(s)")
    evaluate.add_argument("t", metavar="T", type=numbers, nargs="?", help="duration(s) in years (tpx, tqx)")
    evaluate.add_argument(
        "--m", type=int, choices=PAYMENT_FREQUENCIES, help="payments per year (px, qx; default 1)"
    )
    evaluate.add_argument("--complete", action="store_true", help="ex: the complete expectation of life")
    evaluate.set_defaults(run=evaluate_function)


def _shorten(text: str, width: int, *, keep_end: bool = False) -> str:
    if len(text) <= width:
        return text
    return "…" + text[-(width - 1) :] if keep_end else text[: width - 1] + "…"


def list_tables(args: argparse.Namespace) -> int:
    if args.refused:
        if not args.soa:
            raise RefusedError("--refused lists the SOA table service's refused files; give it with --soa")
        return _list_refused(args)
    found = catalogue(args.search, soa=bool(args.search) or args.soa)
    rows = [
        [r["name"], r["type"], ",".join(r["sexes"] or ()), r["structure"], r["location"]]
        for r in found.filter(pl.col("location") != SOA_LOCATION).iter_rows(named=True)
    ]
    service = [
        [r["name"], r["type"], ",".join(r["sexes"] or ()), r["structure"], r["table_name"]]
        for r in found.filter(pl.col("location") == SOA_LOCATION).iter_rows(named=True)
    ]
    if not rows and not service:
        print("No tables match." if args.search else "No tables found.")
        return 0
    if rows:
        _print_rows(["NAME", "TYPE", "SEXES", "STRUCTURE", "WHERE"], rows, args.wide)
    if service:
        if rows:
            print()
        print(f"SOA table service ({len(service)} tables):")
        _print_rows(["NAME", "TYPE", "SEXES", "STRUCTURE", "TABLE NAME"], service, args.wide, keep_end=False)
    return 0


def _list_refused(args: argparse.Namespace) -> int:
    refused = soa_refused()
    words = [word.casefold() for text in args.search or () for word in text.split()]
    rows = [
        [r["name"], r["reason"]]
        for r in refused.iter_rows(named=True)
        if all(
            w in f"{r['name']} {r['table_name']} {r['content_type']} {r['reason']}".casefold() for w in words
        )
    ]
    if not rows:
        print("No refused files match.")
        return 0
    width = max(len(row[0]) for row in rows)
    for name, reason in rows:
        line = f"{name.ljust(width)}  {reason}"
        print(line if args.wide else _shorten(line, LISTING_WIDTH * 2))
    return 0


def _print_rows(header: list[str], rows: list[list[str]], wide: bool, *, keep_end: bool = True) -> None:
    if not wide:
        # Directories are shortened from the left (their last folders tell them apart), the
        # structure from the right; each keeps a readable minimum.
        fixed = sum(max(len(row[i]) for row in (header, *rows)) + 2 for i in range(3))
        where = min(max(len(row[4]) for row in (header, *rows)), 30 if keep_end else 40)
        structure = max(LISTING_WIDTH - fixed - where - 2, 20)
        for row in rows:
            row[3] = _shorten(row[3], structure)
            row[4] = _shorten(row[4], where, keep_end=keep_end)
    widths = [max(len(row[i]) for row in (header, *rows)) for i in range(len(header) - 1)]
    for row in (header, *rows):
        cells = [cell.ljust(width) for cell, width in zip(row, widths, strict=False)]
        print("  ".join([*cells, row[-1]]).rstrip())


def show_table(args: argparse.Namespace) -> int:
    if args.rows < 0:
        raise RefusedError(f"--rows must be >= 0, got {args.rows}")
    table = open_table(args)
    print(table.summary())
    print()
    # The summary samples the first and last ages of the vector; the rows below start where the
    # table's rates do. Rates are shown in full: the default display rounds them.
    first = table.start_age
    frame = table.view_data().filter(pl.col("age") >= first).head(args.rows)
    print(f"{table.table_name}: rates from age {first}")
    with pl.Config(fmt_float="full", tbl_rows=args.rows):
        print(frame)
    return 0


def evaluate_function(args: argparse.Namespace) -> int:
    function = args.function
    if args.t is not None and function not in ("tpx", "tqx"):
        raise RefusedError(f"{function} takes no duration T (only tpx and tqx do)")
    if args.m is not None and function not in ("px", "qx"):
        raise RefusedError(f"--m applies to px and qx only, not {function}")
    if args.complete and function != "ex":
        raise RefusedError(f"--complete applies to ex only, not {function}")
    table = open_table(args)
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
        raise RefusedError(cli_message(str(exc))) from exc
    if isinstance(result, float):
        print(format_number(result))
        return 0
    ages = args.x if isinstance(args.x, list) else [args.x]
    if result.ndim == 2:
        print("\t".join(["x \\ t", *(str(t) for t in args.t)]))
        for age, row in zip(ages, result, strict=True):
            print("\t".join([str(age), *(format_number(v) for v in row)]))
        return 0
    labels = args.t if isinstance(args.t, list) and not isinstance(args.x, list) else ages
    for label, value in zip(labels, result, strict=True):
        print(f"{label}\t{format_number(value)}")
    return 0


__all__ = ["FUNCTIONS", "add_commands", "evaluate_function", "list_tables", "show_table"]
