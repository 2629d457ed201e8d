"""``veltrane export``: a table written as an XTbML file (and its scale, for a generational table)."""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import Any

from veltrane.cli.common import RefusedError, cli_message, open_source, tables_path_argument

__all__ = ["add_commands", "export_table"]


def add_commands(commands: Any) -> None:
    export = commands.add_parser(
        "export",
        help="write a table as an XTbML file",
        description="Write a table as an XTbML file that imports back to the same rates: a period table "
        "by age, a select table as its select block by issue age and duration plus its ultimate table, "
        "a generational table as its base table and its scale (two files), or the rates of one cohort.",
    )
    export.add_argument("name", metavar="NAME", help="table name (SOA3299 for a table of the SOA service)")
    tables_path_argument(export, "tables_path")
    export.add_argument("--sex", help="the sex written (m, f, u); needed when the table has several")
    export.add_argument(
        "--cohort", type=int, metavar="YEAR", help="a generational table's rates for this year of birth"
    )
    export.add_argument("--xtbml", type=Path, required=True, metavar="FILE", help="the file to write")
    export.add_argument(
        "--scale-file",
        type=Path,
        metavar="FILE",
        help="where a generational table's scale goes (default: FILE with -scale before its suffix)",
    )
    export.set_defaults(run=export_table)


def export_table(args: argparse.Namespace) -> int:
    from veltrane.tables.xtbml import write_xtbml

    source = open_source(args.name)
    sex = None if args.sex is None else args.sex.lower()
    try:
        written = write_xtbml(source, args.xtbml, sex=sex, cohort=args.cohort, scale_path=args.scale_file)
    except (OSError, ValueError) as exc:
        raise RefusedError(cli_message(str(exc))) from exc
    for path in written:
        print(f"wrote {path}")
    return 0
