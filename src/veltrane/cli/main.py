"""Running the ``veltrane`` command: parse, open the configured search path, run, report in one line."""

from __future__ import annotations

import os
import sys
import warnings
from collections.abc import Sequence
from typing import TextIO

from veltrane.cli.common import USAGE_ERROR, RefusedError
from veltrane.cli.parser import build_parser, check_options, subcommand_parser
from veltrane.config import Config


def main(argv: Sequence[str] | None = None) -> int:
    """Run the ``veltrane`` command.

    Parameters
    ----------
    argv : sequence of str, optional
        The arguments after the program name; defaults to ``sys.argv[1:]``.

    Returns
    -------
    int
        The exit status: 0 on success (and when standard output was closed early, as by a pipe
        into ``head``), 2 for bad arguments, unknown tables or refused values.
    """
    argv = list(sys.argv[1:] if argv is None else argv)
    parser = build_parser()
    if not argv:
        parser.print_help()
        return 0
    check_options(parser, argv)
    args, extra = parser.parse_known_args(argv)
    if args.command is None:
        parser.error("a COMMAND is required")
    if extra:
        sub = subcommand_parser(parser, args.command)
        sub.error(f"unrecognized arguments: {' '.join(extra)}")
    directories = [*args.tables_path_first, *args.tables_path]
    try:
        with warnings.catch_warnings():
            warnings.showwarning = _show_warning
            with Config().override(tables_path=[*directories, *Config().tables_path]):
                status: int = args.run(args)
            sys.stdout.flush()  # a closed pipe shows here, not in the interpreter's last flush
        return status
    except RefusedError as exc:
        print(f"veltrane {args.command}: error: {exc}", file=sys.stderr)
        return USAGE_ERROR
    except BrokenPipeError:
        # The reader has what it wanted (``| head``): point stdout at /dev/null so that the
        # interpreter's final flush stays quiet, and end as a success.
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        os.close(devnull)
        return 0


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
