"""``veltrane import``: published XTbML tables written as table files.

.. code-block:: sh

    veltrane import t3287.xml t3288.xml --name CSO2017 --out ./tables
    veltrane import t2585.xml t2586.xml --scale t2583.xml t2584.xml --formula compound \\
        --name IAM2012 --out ./tables
"""

from __future__ import annotations

import argparse
from pathlib import Path
from typing import Any

__all__ = ["add_import_command", "run_import"]


def add_import_command(commands: Any) -> None:
    """Add the ``import`` subcommand to the command's subparsers."""
    from veltrane.tables.xtbml import FORMULAS

    sub = commands.add_parser(
        "import",
        help="import published XTbML tables as a table file pair",
        description="Read XTbML files (one per sex) into NAME.toml + NAME.csv in DIR. A projection "
        "scale (--scale, one per sex) makes the table generational.",
    )
    sub.set_defaults(tables_path=[])
    sub.add_argument("files", metavar="FILE.xml", nargs="+", type=Path, help="XTbML rate tables")
    sub.add_argument("--name", required=True, help="name of the table written")
    sub.add_argument("--out", required=True, type=Path, metavar="DIR", help="tables directory written into")
    sub.add_argument(
        "--scale",
        metavar="SCALE.xml",
        type=Path,
        nargs="+",
        action="extend",
        default=[],
        help="improvement scales",
    )
    sub.add_argument(
        "--formula",
        choices=(*FORMULAS, "projected_improvement"),
        help="how a scale by age applies (a scale by age and year is applied year by year)",
    )
    sub.add_argument("--base-year", type=int, help="calendar year of the base rates (default: from the name)")
    sub.add_argument(
        "--sex", choices=("m", "f", "u"), help="sex of a single file whose name does not state it"
    )
    sub.add_argument("--type", dest="table_type", choices=("life", "exit", "disability"), help="table type")
    sub.add_argument("--part", type=int, help="which <Table> of a file holding several unrelated tables")
    sub.add_argument(
        "--year", type=int, help="which calendar year of a table of rates by age and calendar year"
    )


def run_import(args: argparse.Namespace, refused: type[Exception]) -> int:
    """Import and print the path written; a refusal raises ``refused`` with a one-line message."""
    from veltrane.tables.source import TableSource
    from veltrane.tables.xtbml import import_xtbml

    try:
        toml = import_xtbml(
            args.files,
            args.name,
            args.out,
            scale=args.scale,
            formula=args.formula,
            base_year=args.base_year,
            sex=args.sex,
            table_type=args.table_type,
            part=args.part,
            year=args.year,
        )
    except (OSError, ValueError, TypeError) as exc:
        raise refused(str(exc).replace("\n", " ")) from exc
    source = next(iter(_read_back(TableSource, toml)), None)
    print(toml)
    if source is not None:
        print(
            f"{args.name}: {source._taxonomy_lines()[1].removeprefix('Structure: ')}, sexes "
            f"{','.join(source.valid_sexes)}, ages {source.start_age}-{source.w}"
        )
    return 0


def _read_back(source_class: Any, toml: Path) -> list[Any]:
    from veltrane.config import Config

    with Config().override(tables_path=[toml.parent, *Config().tables_path]):
        return [source_class(toml.stem)]
