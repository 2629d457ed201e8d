"""The ``veltrane`` command: listing, showing and evaluating tables; one-line errors with status 2."""

from __future__ import annotations

import subprocess
import sys

import pytest

from veltrane.cli import main
from veltrane.tables.life import LifeTable

SULT = LifeTable("SULT", "u")
GRID = [
    f"{x}\t{a!r}\t{b!r}" for x, (a, b) in zip((50, 60), SULT.tpx([50, 60], [1, 10]).tolist(), strict=True)
]


def run(capsys, *argv: str) -> tuple[int, str, str]:
    try:
        code = main(list(argv))
    except SystemExit as exc:  # argparse refusals
        code = exc.code
    out, err = capsys.readouterr()
    return code, out, err


def test_tables_lists_bundled_and_user_tables(capsys, tables):
    tables.period(name="MINE")
    tables.period(name="SULT", sexes=("f",))  # shadows the bundled table of that name
    (tables.directory / "BAD.toml").write_text('table_type = "life"\n', encoding="utf-8")
    (tables.directory / "BAD.csv").write_text("age,qx_m\n0,2.5\n", encoding="utf-8")
    code, out, _ = run(capsys, "tables")
    rows = {line.split()[0]: line for line in out.splitlines()[1:]}
    assert code == 0 and out.splitlines()[0].split() == ["NAME", "TYPE", "SEXES", "STRUCTURE", "WHERE"]
    assert rows["SSSM"].split()[1:3] == ["life", "u"] and "select-and-ultimate" in rows["SSSM"]
    assert rows["SSSM"].endswith("bundled")
    assert rows["MINE"].split()[1:4] == ["life", "m,f", "period"] and str(tables.directory) in rows["MINE"]
    assert rows["SULT"].split()[2] == "f"
    assert "unreadable:" in rows["BAD"] and "BAD.csv" in rows["BAD"]


def test_show(capsys):
    code, out, _ = run(capsys, "show", "SSSM", "--sex", "U", "--duration", "1", "--rows", "3")
    lines = out.splitlines()
    assert code == 0
    assert lines[:2] == ["LifeTable: SSSM", "Sex: u"]
    assert "Duration: 1" in lines and "w (current): 120" in lines
    assert "  Structure: select-and-ultimate, select period 2 (durations 1-2)" in lines
    assert "Sample qx values (first 5):" in lines
    assert "qx_u_s1" in out and "│ 22  ┆" in out and "│ 23  ┆" not in out


EVALS = [  # the function's arguments, the lines printed
    (["tpx", "65", "10"], [repr(SULT.tpx(65, 10))]),
    (["qx", "50.5", "--m", "12"], [repr(SULT.qx(50.5, m=12))]),
    (["lx", "50,60"], [f"50\t{SULT.lx(50)!r}", f"60\t{SULT.lx(60)!r}"]),
    (["tqx", "50", "1,5"], [f"1\t{SULT.tqx(50, 1)!r}", f"5\t{SULT.tqx(50, 5)!r}"]),
    (["dx", "120"], [repr(SULT.lx(120))]),
    (["tpx", "50,60", "1,10"], ["x \\ t\t1\t10", *GRID]),  # ages by durations, under a header
]


@pytest.mark.parametrize(("argv", "expected"), EVALS)
def test_eval(capsys, argv, expected):
    code, out, err = run(capsys, "eval", "SULT", "--sex", "u", *argv)
    assert (code, err) == (0, "") and out.splitlines() == expected


ERRORS = [
    (["eval", "NOPE", "--sex", "u", "lx", "5"], "table 'NOPE' not found"),
    (["show", "SULT", "--sex", "m"], "Invalid sex 'm' for table 'SULT'"),
    (["show", "SSSM", "--sex", "u"], "'duration' is required"),
    (["eval", "SULT", "--sex", "u", "lx", "-5"], "[lx] All ages x must be >= 0 for table 'SULT'."),
    (["eval", "SULT", "--sex", "u", "tqx", "50", "-1"], "[tqx]: t must be >= 0"),
    (["eval", "SULT", "--sex", "u", "px", "50", "--m", "5"], "argument --m: invalid choice: 5"),
    (["eval", "SULT", "--sex", "u", "px", "fifty"], "argument X: not a number: 'fifty'"),
    (["eval", "SULT", "--sex", "u", "lx", "50", "10"], "lx takes no duration T"),
    (["eval", "SULT", "--sex", "u", "tpx", "50", "--m", "12"], "--m applies to px and qx only"),
    (["eval", "SULT", "--sex", "u", "ex", "50"], "argument FUNCTION: invalid choice: 'ex'"),
    (["show", "SULT"], "the following arguments are required: --sex"),
    (["show", "SULT", "--sex", "u", "--rows", "-1"], "--rows must be >= 0"),
    ([], "the following arguments are required: COMMAND"),
]


@pytest.mark.parametrize(("argv", "message"), ERRORS)
def test_errors_are_one_line_with_status_2(capsys, argv, message):
    code, out, err = run(capsys, *argv)
    assert code == 2 and out == ""
    assert len(err.splitlines()) == 1 and message in err and err.startswith("veltrane")


def test_console_script_entry(tmp_path):
    script = "import sys; from veltrane.cli import main; sys.exit(main())"
    argv = [sys.executable, "-c", script, "eval", "NOPE", "--sex", "u", "lx", "1"]
    result = subprocess.run(argv, capture_output=True, text=True, check=False, cwd=tmp_path)
    assert result.returncode == 2 and "Traceback" not in result.stderr
    assert len(result.stderr.splitlines()) == 1
