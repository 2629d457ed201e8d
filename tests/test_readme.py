"""The README's tour runs as written: every Python line and every ``veltrane`` command."""

from __future__ import annotations

import re
import shlex
from pathlib import Path

import pytest

from veltrane import cli
from veltrane.config import Config
from veltrane.tables.source import TableSource

README = Path(__file__).resolve().parents[1] / "README.md"
BLOCK = re.compile(r"^```(\w+)\n(.*?)^```", re.S | re.M)


def blocks(language: str) -> list[str]:
    return [body for lang, body in BLOCK.findall(README.read_text(encoding="utf-8")) if lang == language]


def test_python_tour_runs():
    (tour,) = blocks("python")
    before = set(TableSource.registered())
    try:
        with Config():
            exec(compile(tour, str(README), "exec"), {"__name__": "__readme__"})
    finally:
        for name in set(TableSource.registered()) - before:  # the tour registers a table in memory
            TableSource.unregister(name)


def commands() -> list[list[str]]:
    """The veltrane command lines of the sh blocks, continuation lines joined; ``import`` is left
    out, as it needs the reader's own downloaded files."""
    lines = [
        line.split("#", 1)[0] for body in blocks("sh") for line in body.replace("\\\n", " ").splitlines()
    ]
    return [
        shlex.split(line)[1:] for line in lines if line.startswith("veltrane ") and " import " not in line
    ]


COMMANDS = commands()


@pytest.mark.parametrize("argv", COMMANDS, ids=[" ".join(argv) for argv in COMMANDS])
def test_commands_run(argv, capsys):
    assert cli.main(argv) == 0
    assert capsys.readouterr().out
