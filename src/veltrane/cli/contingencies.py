"""``veltrane annuity`` and ``commutation``: annuity values and commutation columns of a table."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path
from typing import Any

from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.cli.common import RefusedError, numbers, open_table, print_values, table_arguments

#: Decimals of the printed commutation columns: they count lives out of a radix of 1,000,000.
COLUMN_DECIMALS = 2


def add_commands(commands: Any) -> None:
    value = commands.add_parser(
        "annuity",
        help="value a life annuity",
        description="Value a life annuity of 1 a year. --age and --term take one number or a "
        "comma-separated list.",
    )
    table_arguments(value)
    value.add_argument("--age", type=numbers, required=True, help="age(s)")
    value.add_argument("--rate", type=float, required=True, help="annual effective interest rate (> -1)")
    value.add_argument("--term", type=numbers, help="term in years (default: whole life)")
    value.add_argument("--m", type=int, choices=PAYMENT_FREQUENCIES, default=1, help="payments per year")
    value.add_argument("--defer", type=float, default=0.0, help="years before the first period (default 0)")
    value.add_argument("--immediate", action="store_true", help="payments in arrears (default: in advance)")
    value.add_argument(
        "--method", choices=("exact", "udd", "woolhouse", "woolhouse2"), default="exact", help="default exact"
    )
    value.set_defaults(run=annuity_values)

    columns = commands.add_parser(
        "commutation",
        help="print or write the commutation columns",
        description=f"Print the commutation columns as an aligned table ({COLUMN_DECIMALS} decimals), "
        "or in full precision as CSV (--csv, or -o FILE).",
    )
    table_arguments(columns)
    columns.add_argument("--rate", type=float, required=True, help="annual effective interest rate (> -1)")
    columns.add_argument("--csv", action="store_true", help="print CSV with every digit")
    columns.add_argument("-o", "--output", type=Path, help="write a CSV file instead of printing the columns")
    columns.set_defaults(run=commutation_columns)


def annuity_values(args: argparse.Namespace) -> int:
    from veltrane.contingencies import annuity

    table = open_table(args)
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
        raise RefusedError(str(exc)) from exc
    return print_values(args.age, args.term, result)


def commutation_columns(args: argparse.Namespace) -> int:
    from veltrane.contingencies import commutation

    table = open_table(args)
    try:
        frame = commutation(table, i=args.rate)
    except (ValueError, TypeError) as exc:
        raise RefusedError(str(exc)) from exc
    if args.output is not None:
        try:
            frame.write_csv(args.output)
        except OSError as exc:
            raise RefusedError(f"cannot write {args.output}: {exc}") from exc
        return 0
    if args.csv:
        sys.stdout.write(frame.write_csv())
        return 0
    cells = [[str(row[0]), *(f"{v:.{COLUMN_DECIMALS}f}" for v in row[1:])] for row in frame.iter_rows()]
    widths = [max(len(column), *(len(row[i]) for row in cells)) for i, column in enumerate(frame.columns)]
    print("  ".join(column.rjust(width) for column, width in zip(frame.columns, widths, strict=True)))
    for row in cells:
        print("  ".join(cell.rjust(width) for cell, width in zip(row, widths, strict=True)))
    return 0
