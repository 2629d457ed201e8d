"""``veltrane annuity`` and ``commutation``: annuity values and commutation columns of a table."""

from __future__ import annotations

import argparse
import sys
from pathlib import Path
from typing import TYPE_CHECKING, Any

from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.cli.common import RefusedError, numbers, open_table, print_values, table_arguments

if TYPE_CHECKING:
    from veltrane.contingencies import JointLife

#: Decimals of the printed commutation columns: they count lives out of a radix of 1,000,000.
COLUMN_DECIMALS = 2


def add_commands(commands: Any) -> None:
    value = commands.add_parser(
        "annuity",
        help="value a life annuity",
        description="Value a life annuity of 1 a year. --age and --term take one number or a "
        "comma-separated list. With --second, an annuity on two lives: joint (while both live) or "
        "last (while either lives), each on its own table.",
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
    value.add_argument("--second", metavar="NAME2", help="table of a second life (two lives)")
    value.add_argument("--second-sex", help="sex of the second life")
    value.add_argument("--second-age", type=numbers, help="age(s) of the second life")
    value.add_argument(
        "--status",
        choices=("joint", "last"),
        help="with --second: joint or last survivor (default joint)",
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

    lives = two_lives(args)
    table = open_table(args) if lives is None else lives
    age = args.age if lives is None else (args.age, args.second_age)
    try:
        result = annuity(
            table,
            age,
            args.term,
            i=args.rate,
            due=not args.immediate,
            m=args.m,
            defer=args.defer,
            method=args.method,
        )
    except (ValueError, TypeError) as exc:
        raise RefusedError(str(exc)) from exc
    return print_values(args.age, args.term, result, None if lives is None else args.second_age)


def two_lives(args: argparse.Namespace) -> JointLife | None:
    """The two lives of --second, --second-sex, --second-age and --status, or None for one life."""
    from veltrane.contingencies import JointLife

    if args.second is None:
        if args.second_sex is not None or args.second_age is not None or args.status is not None:
            raise RefusedError("--second-sex, --second-age and --status need --second NAME2")
        return None
    if args.second_age is None:
        raise RefusedError("--second needs --second-age")
    first = open_table(args)
    # The second life's table by its own name and sex; the other keys stay the first's alone.
    options = {**vars(args), "name": args.second, "sex": args.second_sex, "cohort": None, "blend": None}
    second = open_table(argparse.Namespace(**{**options, "duration": None, "selected_at": None}))
    return JointLife(first, second, status=args.status or "joint")


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
