"""``veltrane disability``: annuities, death benefits and state probabilities of the disability model."""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import TYPE_CHECKING, Any

from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.cli.common import (
    RefusedError,
    cli_message,
    format_number,
    key_arguments,
    numbers,
    one_line,
    open_table,
    print_values,
    tables_path_argument,
)
from veltrane.cli.plot import FORMATS, _table_keys

if TYPE_CHECKING:
    from veltrane.multistate import DisabilityModel


def add_commands(commands: Any) -> None:
    model = commands.add_parser(
        "disability",
        help="value a disability pension, an active or disabled life's annuity, or a death benefit",
        description="Value annuities of the active-disabled-dead model (an annual Markov chain; "
        "docs/disability.md). Each table is NAME, NAME:SEX or NAME:SEX:COHORT; --sex, --cohort, "
        "--duration, --blend and --selected-at apply to every table that gives no value of its own "
        "and has a use for them (a table with a single sex keeps it). --age and --term take one "
        "number or a comma-separated list.",
    )
    tables_path_argument(model, "tables_path")
    model.add_argument("active", metavar="ACTIVE", help="mortality of actives (a life table)")
    model.add_argument("incidence", metavar="INCIDENCE", help="disability incidence (a disability table)")
    model.add_argument("disabled", metavar="DISABLED", help="mortality of the disabled (a life table)")
    model.add_argument("--recovery", metavar="TABLE", help="recovery rates (an exit table; default none)")
    model.add_argument(
        "--mid-year",
        action="store_true",
        help="moves between the live states at mid-year, then half a year of the new state's mortality",
    )
    key_arguments(model)
    model.add_argument("--age", type=numbers, required=True, help="age(s) at the start, whole years")
    model.add_argument("--rate", type=float, help="annual effective interest rate (needed for values)")
    model.add_argument("--term", type=numbers, help="term in whole years (default: whole life)")
    model.add_argument("--start", choices=("active", "disabled"), default="active", help="default active")
    model.add_argument(
        "--payable",
        choices=("disabled", "active", "alive"),
        default="disabled",
        help="paid while disabled (default), active or alive",
    )
    model.add_argument("--m", type=int, choices=PAYMENT_FREQUENCIES, default=1, help="payments per year")
    model.add_argument("--immediate", action="store_true", help="payments in arrears (default: in advance)")
    what = model.add_mutually_exclusive_group()
    what.add_argument("--insurance", action="store_true", help="value 1 paid at the end of the year of death")
    what.add_argument(
        "--states", type=int, metavar="YEARS", help="print the state probabilities over YEARS years"
    )
    model.add_argument(
        "-o", "--output", type=Path, help="with --states: draw them to a .png, .pdf or .svg file instead"
    )
    model.set_defaults(run=disability_values)


def open_model(args: argparse.Namespace) -> DisabilityModel:
    from veltrane.multistate import DisabilityModel

    entries = [args.active, args.incidence, args.disabled]
    entries += [args.recovery] if args.recovery is not None else []
    tables = [open_table(_table_keys(args, entry)) for entry in entries]
    try:
        return DisabilityModel(
            *tables[:3],  # type: ignore[arg-type]
            recovery=tables[3] if len(tables) == 4 else None,  # type: ignore[arg-type]
            convention="mid_year" if args.mid_year else "end_of_year",
        )
    except (ValueError, TypeError) as exc:
        raise RefusedError(cli_message(str(exc))) from exc


def disability_values(args: argparse.Namespace) -> int:
    if args.output is not None and args.states is None:
        raise RefusedError("-o draws the state probabilities: give --states YEARS with it")
    model = open_model(args)
    if args.states is not None:
        return states(model, args)
    if args.rate is None:
        raise RefusedError("--rate is required to value an annuity or a death benefit")
    try:
        if args.insurance:
            result = model.insurance(args.age, args.term, i=args.rate, start=args.start)
        else:
            result = model.annuity(
                args.age,
                args.term,
                i=args.rate,
                start=args.start,
                payable=args.payable,
                m=args.m,
                due=not args.immediate,
            )
    except (ValueError, TypeError) as exc:
        raise RefusedError(str(exc)) from exc
    return print_values(args.age, args.term, result)


def states(model: DisabilityModel, args: argparse.Namespace) -> int:
    if isinstance(args.age, list):
        raise RefusedError("--states follows one age: give a single --age")
    try:
        frame = model.state_frame(args.age, args.states, start=args.start)
    except (ValueError, TypeError) as exc:
        raise RefusedError(str(exc)) from exc
    if args.output is None:
        print("\t".join(frame.columns))
        for row in frame.iter_rows():
            print("\t".join([str(row[0]), str(row[1]), *(format_number(v) for v in row[2:])]))
        return 0
    names = [args.active, args.incidence, args.disabled, *([args.recovery] if args.recovery else [])]
    return draw(frame, args.output, f"{', '.join(names)}: from age {args.age}, {args.start}")


def draw(frame: Any, output: Path, title: str) -> int:
    try:
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure
    except ImportError as exc:
        raise RefusedError("-o needs matplotlib: pip install matplotlib") from exc
    kind = FORMATS.get(output.suffix.lower())
    if kind is None:
        raise RefusedError(f"-o must name a .png, .pdf or .svg file, got {str(output)!r}")
    from veltrane.tables.plotting import literal_text

    figure = Figure(figsize=(8, 5), dpi=100)
    FigureCanvasAgg(figure)
    axes = figure.add_subplot()
    ages = frame["age"].to_numpy()
    for state in ("active", "disabled", "dead"):
        axes.plot(ages, frame[state].to_numpy(), label=state)
    axes.set_xlabel("age")
    axes.set_ylabel("probability")
    axes.set_ylim(0.0, 1.0)
    axes.legend()
    axes.set_title(literal_text(title))
    try:
        figure.savefig(output, format=kind)
    except OSError as exc:
        raise RefusedError(f"cannot write {str(output)!r}: {exc.strerror or exc}") from exc
    except Exception as exc:  # the plotting library's own failures: one line, not a traceback
        raise RefusedError(f"cannot draw the chart: {one_line(exc)}") from exc
    print(output)
    return 0
