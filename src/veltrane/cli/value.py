"""``veltrane value``: present values, premiums and reserves of a file of policies."""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import Any

from veltrane.base import PAYMENT_FREQUENCIES
from veltrane.cli.common import RefusedError, format_number, tables_path_argument


def _amount(text: str) -> float | str:
    """A number, or the name of a column holding one per policy."""
    try:
        return float(text)
    except ValueError:
        return text


def _years(text: str) -> int | str:
    try:
        return int(text)
    except ValueError:
        return text


def add_commands(commands: Any) -> None:
    value = commands.add_parser(
        "value",
        help="value a file of policies",
        description="Value every policy of a Parquet or CSV file (columns as for veltrane.portfolio): "
        "print the totals and, with -o, write one row per policy to a Parquet file. Amount and term "
        "options take a number or the name of a column.",
    )
    tables_path_argument(value, "tables_path")
    value.add_argument("policies", type=Path, help="a .parquet or .csv file of policies")
    value.add_argument(
        "--death-benefit", type=_amount, default=0.0, help="paid at the end of the year of death"
    )
    value.add_argument("--survival-benefit", type=_amount, default=0.0, help="a year, while alive")
    value.add_argument("--endowment", type=_amount, default=0.0, help="paid at the end of the term if alive")
    value.add_argument("--term", type=_years, help="years of cover (default: to the table's last age)")
    value.add_argument("--deferral", type=_years, default=0, help="years before survival benefits start")
    value.add_argument("--premium", default="0", help="level annual premium, or 'net' (default 0)")
    value.add_argument("--premium-term", type=_years, help="years of premiums (default: the term)")
    value.add_argument("--escalation", type=_amount, default=0.0, help="yearly growth of the benefits")
    value.add_argument("--m", type=int, choices=PAYMENT_FREQUENCIES, default=1, help="survival instalments")
    value.add_argument("--immediate", action="store_true", help="survival benefits in arrears")
    basis = value.add_mutually_exclusive_group(required=True)
    basis.add_argument("--rate", type=_amount, help="annual effective interest rate, or a column of rates")
    basis.add_argument(
        "--curve", type=Path, help="CSV file with columns term and spot_rate (or discount_factor)"
    )
    value.add_argument("--threads", type=int, default=1, help="threads (default 1)")
    value.add_argument("--workers", type=int, help="worker processes")
    value.add_argument("--progress", action="store_true", help="show a progress bar")
    value.add_argument("-o", "--output", type=Path, help="write the per-policy results to this Parquet file")
    value.set_defaults(run=run_value)


def _curve(path: Path) -> Any:
    import polars as pl

    from veltrane.valuation import YieldCurve

    try:
        frame = pl.read_csv(path)
    except (OSError, pl.exceptions.PolarsError) as exc:
        raise RefusedError(f"--curve: {path} cannot be read: {exc}") from exc
    if "term" not in frame.columns or not ({"spot_rate", "discount_factor"} & set(frame.columns)):
        raise RefusedError(f"--curve: {path} needs the columns term and spot_rate (or discount_factor)")
    if "spot_rate" in frame.columns:
        return YieldCurve(frame["term"].to_numpy(), frame["spot_rate"].to_numpy())
    return YieldCurve.from_discount_factors(frame["term"].to_numpy(), frame["discount_factor"].to_numpy())


def run_value(args: argparse.Namespace) -> int:
    from veltrane.valuation import Product, value

    premium: float | str | None = None if args.premium == "net" else _amount(args.premium)
    try:
        product = Product(
            death_benefit=args.death_benefit,
            survival_benefit=args.survival_benefit,
            endowment=args.endowment,
            term=args.term,
            deferral=args.deferral,
            premium=premium,
            premium_term=args.premium_term,
            escalation=args.escalation,
            m=args.m,
            due=not args.immediate,
        )
        curve = _curve(args.curve) if args.curve is not None else None
        result = value(
            args.policies,
            product,
            interest=args.rate,
            curve=curve,
            threads=args.threads,
            workers=args.workers,
            progress=args.progress,
            out=args.output,
        )
    except ValueError as exc:
        raise RefusedError(str(exc)) from exc
    totals = result.totals or {}
    print(f"policies\t{totals['policies']}")
    for name in ("pv_benefits", "pv_premiums", "reserve"):
        total = totals[name]
        text = (
            format_number(total) if isinstance(total, float) else ", ".join(format_number(t) for t in total)
        )
        print(f"{name}\t{text}")
    if args.output is not None:
        print(f"written\t{args.output}")
    return 0
