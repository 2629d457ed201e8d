"""The ``veltrane`` command line in one place: the top-level options and every command's parser."""

from __future__ import annotations

import argparse
import re
from collections.abc import Sequence

from veltrane import __version__
from veltrane.cli import contingencies, disability, export, plot, tables, value
from veltrane.cli.common import Parser, RefusedError, tables_path_argument
from veltrane.cli_import import add_import_command, run_import

_NUMBER = re.compile(r"^-\d+(\.\d*)?([eE][-+]?\d+)?$|^-\.\d+")


def build_parser() -> Parser:
    parser = Parser(prog="veltrane", description="Actuarial decrement tables (life, disability, exit).")
    parser.add_argument("--version", action="version", version=f"%(prog)s {__version__}")
    # Accepted before and after the command; the directories before it come first.
    tables_path_argument(parser, "tables_path_first")
    commands = parser.add_subparsers(dest="command", metavar="COMMAND", parser_class=Parser)
    tables.add_commands(commands)
    add_import_command(commands)
    commands.choices["import"].set_defaults(run=lambda args: run_import(args, RefusedError))
    contingencies.add_commands(commands)
    disability.add_commands(commands)
    export.add_commands(commands)
    plot.add_commands(commands)
    value.add_commands(commands)
    return parser


def _commands(parser: Parser) -> dict[str, argparse.ArgumentParser]:
    action = next(a for a in parser._actions if isinstance(a, argparse._SubParsersAction))
    choices: dict[str, argparse.ArgumentParser] = action.choices
    return choices


def subcommand_parser(parser: Parser, command: str) -> argparse.ArgumentParser:
    """The parser of one command."""
    return _commands(parser)[command]


def _subcommand(parser: Parser, argv: Sequence[str]) -> tuple[argparse.ArgumentParser | None, int]:
    """The parser of the command named in argv and the position after its name."""
    commands = _commands(parser)
    position = 0
    while position < len(argv):
        token = argv[position]
        if token == "--tables-path":
            position += 2
        elif token.startswith("-"):
            position += 1
        else:
            return commands.get(token), position + 1
    return None, position


def check_options(parser: Parser, argv: Sequence[str]) -> None:
    """Refuse an option the command does not have, naming the command's own help.

    Left to argparse, an unknown option before a positional argument shifts the positionals, and
    the error names the positional instead ("invalid choice: '1960'" for ``--cohrt 1960``).
    """
    sub, position = _subcommand(parser, argv)
    if sub is None:
        return
    known = list(sub._option_string_actions)
    for token in argv[position:]:
        if token == "--":
            return
        if not token.startswith("-") or token == "-" or _NUMBER.match(token):
            continue
        option = token.split("=", 1)[0]
        if option in known or (option.startswith("--") and any(k.startswith(option) for k in known)):
            continue
        sub.error(f"unrecognized option {option!r}")
