"""Charts: the lines carry the table's own values; the command writes a PNG of the set size."""

from __future__ import annotations

import struct

import numpy as np
import pytest

from conftest import exactly
from veltrane.cli import main
from veltrane.tables.life import LifeTable
from veltrane.tables.plotting import table_label

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")
from matplotlib.figure import Figure  # noqa: E402

SULT = LifeTable("SULT", "u")
VALUES = {"qx": SULT.qx, "lx": SULT.lx, "ex": lambda x: SULT.ex(x, complete=True)}


@pytest.mark.parametrize(("what", "log"), [("qx", True), ("qx", False), ("lx", True), ("ex", False)])
def test_lines_hold_the_tables_values(what, log):
    ax = SULT.plot(ax=Figure().add_subplot(), log=log, what=what)
    (line,) = ax.get_lines()
    ages = np.arange(20, 121, dtype=float)
    values = VALUES[what](ages)
    if log:  # zeros have no place on a log scale
        ages, values = ages[values > 0], values[values > 0]
    np.testing.assert_array_equal(line.get_xdata(), ages)
    np.testing.assert_array_equal(line.get_ydata(), values)
    assert ax.get_yscale() == ("log" if log else "linear") and line.get_label() == "SULT u"


def test_several_tables_share_one_chart(standard):
    ax = Figure().add_subplot()
    LifeTable("GEN", "m", cohort=1960).plot(ax=ax)
    LifeTable("SEL", "f", duration=1).plot(ax=ax, log=False)
    assert [line.get_label() for line in ax.get_lines()] == ["GEN m, born 1960", "SEL f, duration 1"]
    assert ax.get_title() == "GEN m, born 1960"


@pytest.mark.parametrize(
    ("kwargs", "exc", "message"),
    [
        ({"what": "dx"}, ValueError, "what must be 'qx', 'lx' or 'ex', got 'dx'"),
        ({"log": "yes"}, TypeError, "log must be bool, got str"),
    ],
)
def test_refusals(kwargs, exc, message):
    with exactly(exc, message):
        SULT.plot(ax=Figure().add_subplot(), **kwargs)


def test_the_command_writes_a_png(standard, tmp_path, capsys):
    out = tmp_path / "chart.png"
    assert main(["plot", "GEN", "YRS", "--sex", "m", "--cohort", "1960", "-o", str(out)]) == 0
    data = out.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", data[16:24]) == (800, 500)
    assert capsys.readouterr().out.strip() == str(out)
    # Tables of different structures on one chart: each takes the keys it has a use for.
    assert main(f"plot SULT SSSM --sex u --duration 1 --what lx -o {out}".split()) == 0


@pytest.mark.parametrize(("suffix", "magic"), [(".svg", b"<?xml"), (".pdf", b"%PDF")])
def test_each_table_takes_its_own_keys(standard, tmp_path, capsys, suffix, magic, monkeypatch):
    drawn = []
    monkeypatch.setattr(LifeTable, "plot", lambda self, **kw: drawn.append(table_label(self)))
    out = tmp_path / f"chart{suffix}"
    # The shared --sex m goes to the tables that have it; SULT keeps its single sex.
    assert main(["plot", "SULT", "GEN:f:1970", "GEN", "--sex", "m", "--cohort", "1960", "-o", str(out)]) == 0
    assert drawn == ["SULT u", "GEN f, born 1970", "GEN m, born 1960"]
    assert out.read_bytes().startswith(magic)


@pytest.mark.parametrize(
    ("command", "message"),
    [
        (
            "plot SULT -o chart.gif",
            "veltrane plot: error: -o must name a .png, .pdf or .svg file, got 'chart.gif'",
        ),
        ("plot SULT:u:1960:x -o c.png", "veltrane plot: error: a table is NAME, NAME:SEX or NAME:SEX:COHORT"),
        ("plot GEN:m:later -o c.png", "veltrane plot: error: the cohort of 'GEN:m:later' must be a year"),
        ("plot SULT -o /nonexistent/dir/c.png", "veltrane plot: error: cannot write"),
    ],
)
def test_the_command_refuses(standard, command, message, capsys):
    assert main(command.split()) == 2
    assert capsys.readouterr().err.startswith(message)


def test_names_are_drawn_literally(tables, tmp_path, capsys):
    """Dollar signs are not mathematical text, and a leading underscore stays in the legend."""
    for name in ("A$x^$B", "_LOW"):
        tables.period(name=name, sexes=("u",))
    out = tmp_path / "chart.png"
    assert main(["plot", "A$x^$B", "_LOW", "-o", str(out)]) == 0
    assert out.read_bytes()[:4] == b"\x89PNG" and capsys.readouterr().err == ""
    ax = Figure().add_subplot()
    LifeTable("A$x^$B", "u").plot(ax=ax)
    LifeTable("_LOW", "u").plot(ax=ax)
    legend = [text.get_text() for text in ax.get_legend().get_texts()]
    assert legend == [r"A\$x^\$B u", "\u200b_LOW u"]


def test_a_failure_of_the_plotting_library_is_one_line(standard, tmp_path, capsys, monkeypatch):
    def broken(*args, **kwargs):
        raise RuntimeError("renderer\nlost")

    monkeypatch.setattr(Figure, "savefig", broken)
    assert main(["plot", "SULT", "-o", str(tmp_path / "c.png")]) == 2
    err = capsys.readouterr().err
    assert err == "veltrane plot: error: cannot draw the chart: RuntimeError: renderer lost\n"
