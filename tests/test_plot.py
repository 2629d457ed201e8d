"""Charts: the lines carry the table's own values; the command writes a PNG of the set size."""

from __future__ import annotations

import struct

import numpy as np
import pytest

from conftest import exactly
from veltrane.cli import main
from veltrane.tables.life import LifeTable

matplotlib = pytest.importorskip("matplotlib")
matplotlib.use("Agg")
from matplotlib.figure import Figure  # noqa: E402


def axes():
    return Figure().add_subplot()


@pytest.mark.parametrize(("what", "log"), [("qx", True), ("qx", False), ("lx", False), ("lx", True)])
def test_lines_hold_the_tables_values(what, log):
    t = LifeTable("SULT", "u")
    ax = t.plot(ax=axes(), log=log, what=what)
    (line,) = ax.get_lines()
    ages = np.arange(20, 121, dtype=float)
    values = getattr(t, what)(ages)
    if log:
        ages, values = ages[values > 0], values[values > 0]
    np.testing.assert_array_equal(line.get_xdata(), ages)
    np.testing.assert_array_equal(line.get_ydata(), values)
    assert ax.get_yscale() == ("log" if log else "linear") and line.get_label() == "SULT u"


def test_several_tables_share_one_chart(standard):
    ax = axes()
    LifeTable("GEN", "m", cohort=1960).plot(ax=ax)
    LifeTable("SEL", "f", duration=1).plot(ax=ax, log=False)
    assert [line.get_label() for line in ax.get_lines()] == ["GEN m, born 1960", "SEL f, duration 1"]


def test_expectation_of_life():
    t = LifeTable("SULT", "u")
    (line,) = t.plot(ax=axes(), what="ex", log=False).get_lines()
    np.testing.assert_array_equal(line.get_ydata(), t.ex(np.arange(20.0, 121.0), complete=True))


@pytest.mark.parametrize(
    ("kwargs", "exc", "message"),
    [
        ({"what": "dx"}, ValueError, "what must be 'qx', 'lx' or 'ex', got 'dx'"),
        ({"log": "yes"}, TypeError, "log must be bool, got str"),
    ],
)
def test_refusals(kwargs, exc, message):
    with exactly(exc, message):
        LifeTable("SULT", "u").plot(ax=axes(), **kwargs)


def png_size(path):
    data = path.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n"
    return struct.unpack(">II", data[16:24])


def test_the_command_writes_a_png(standard, tmp_path, capsys):
    out = tmp_path / "chart.png"
    assert main(["plot", "GEN", "YRS", "--sex", "m", "--cohort", "1960", "-o", str(out)]) == 0
    assert png_size(out) == (800, 500) and capsys.readouterr().out.strip() == str(out)
    # Tables of different structures on one chart: each takes the keys it has a use for.
    assert (
        main(["plot", "SULT", "SSSM", "--sex", "u", "--duration", "1", "--what", "lx", "-o", str(out)]) == 0
    )


@pytest.mark.parametrize(
    ("argv", "message"),
    [
        (
            ["plot", "SULT", "-o", "chart.svg"],
            "veltrane plot: error: -o must name a .png file, got 'chart.svg'",
        ),
        (["plot", "SULT", "NOPE", "-o", "c.png"], "veltrane plot: error: "),
        (["plot", "SULT", "-o", "/nonexistent/dir/c.png"], "veltrane plot: error: cannot write"),
    ],
)
def test_the_command_refuses(standard, argv, message, capsys):
    assert main(argv) == 2
    assert capsys.readouterr().err.startswith(message)
