"""The ``veltrane`` command: listing, showing and evaluating tables; one-line errors with status 2."""

from __future__ import annotations

import os
import re
import subprocess
import sys

import pytest

import veltrane
from veltrane.cli import main
from veltrane.tables.life import LifeTable
from veltrane.tables.source import write_table

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
    for name in ("BAD", "ODD"):
        (tables.directory / f"{name}.toml").write_text('table_type = "life"\n')
    (tables.directory / "BAD.csv").write_text("age,qx_m\n0,2.5\n")  # a rate above 1
    (tables.directory / "ODD.csv").mkdir()
    code, out, _ = run(capsys, "tables", "--wide")
    rows = {line.split()[0]: line for line in out.splitlines()[1:]}
    assert code == 0 and out.splitlines()[0].split() == ["NAME", "TYPE", "SEXES", "STRUCTURE", "WHERE"]
    assert rows["SSSM"].split()[1:3] == ["life", "u"] and "select-and-ultimate" in rows["SSSM"]
    assert rows["SSSM"].endswith("bundled")
    assert rows["MINE"].split()[1:4] == ["life", "m,f", "period"] and str(tables.directory) in rows["MINE"]
    assert rows["SULT"].split()[2] == "f"
    assert "unreadable:" in rows["BAD"] and "BAD.csv" in rows["BAD"]
    assert "unreadable:" in rows["ODD"] and "ODD.csv is a directory" in rows["ODD"]
    # Without --wide every line fits 100 columns: the structure is cut, a long directory's end kept.
    narrow = run(capsys, "tables")[1].splitlines()
    assert max(map(len, narrow)) <= 100
    assert [line.split()[0] for line in narrow] == [line.split()[0] for line in out.splitlines()]
    assert any(line.startswith("MINE") and line.endswith(tables.directory.name[-20:]) for line in narrow)


def test_show_and_the_only_sex_by_default(capsys, tables):
    code, out, _ = run(capsys, "show", "SSSM", "--sex", "U", "--duration", "1", "--rows", "3")
    lines = out.splitlines()
    assert code == 0
    assert lines[:2] == ["LifeTable: SSSM", "Sex: u"]
    assert "Duration: 1" in lines and "w (current): 120" in lines
    assert "  Structure: select-and-ultimate, select period 2 (durations 1-2)" in lines
    assert "Sample qx values (first 5):" in lines
    assert "qx_u_s1" in out and "│ 22  ┆" in out and "│ 23  ┆" not in out
    # The summary samples the first ages of the vector; the rates below start at the table's first age.
    assert "SSSM: rates from age 20" in lines and "│ 19  ┆" not in out
    # Without --sex, the table's only sex.
    tables.period(name="MALE", sexes=("m",))
    assert run(capsys, "eval", "MALE", "qx", "3")[:2] == (0, f"{LifeTable('MALE', 'm').qx(3)!r}\n")
    assert run(capsys, "show", "SULT", "--rows", "1")[1].splitlines()[:2] == ["LifeTable: SULT", "Sex: u"]


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


SULT_U = ["SULT", "--sex", "u"]
ERRORS = [  # the command line, what its one-line message says
    (["eval", "NOPE", "--sex", "u", "lx", "5"], "table 'NOPE' not found"),
    (["show", "SULT", "--sex", "m"], "Invalid sex 'm' for table 'SULT'"),
    (["eval", *SULT_U, "lx", "-5"], "[lx] All ages x must be >= 0 for table 'SULT'."),
    (["eval", *SULT_U, "px", "50", "--m", "5"], "argument --m: invalid choice: "),  # 3.14 quotes the value
    (["eval", *SULT_U, "px", "fifty"], "argument X: not a number: 'fifty'"),
    (["eval", *SULT_U, "qx", ","], "argument X: no number in ','"),
    (["eval", *SULT_U, "lx", "50", "10"], "lx takes no duration T"),
    (["eval", *SULT_U, "tpx", "50", "--m", "12"], "--m applies to px and qx only"),
    (["eval", *SULT_U, "ax", "50"], "argument FUNCTION: invalid choice: 'ax'"),
    (["show", *SULT_U, "--rows", "-1"], "--rows must be >= 0"),
    (["--tables-path", "/no/dir", "tables"], "argument --tables-path: no such directory: '/no/dir'"),
    (["show", "SULT", "--tables-path", __file__], "argument --tables-path: not a directory"),
    (["show", "sult", "--sex", "u"], "(did you mean 'SULT'?)"),
    # The tables' own messages suggest Python calls; the command line shows its options instead.
    (["show", "SSSM"], "--duration is required. Pass --duration N with N >= 1, or --duration ult"),
    (["show", "SSSM", "--duration", "0"], "--duration must be an integer >= 1 or 'ult'"),
    (["show", "SULT", "--duration", "1"], "--duration is only valid for select tables"),
    (["show", "PER", "--sex", "u"], "--blend is required with --sex u because table 'PER' lacks"),
    (["show", "PER", "--sex", "u"], "Example: --sex u --blend 0.5"),
    (["show", "PER", "--sex", "m", "--blend", "0.5"], "Cannot use --blend 0.5 with --sex m. Use --sex u"),
    (["show", "PER", "--sex", "u", "--blend", "2"], "--blend must be in [0.0, 1.0], got 2.0"),
    (["show", "GEN", "--sex", "m"], "--cohort (year of birth) is required"),
    (["show", "GEN", "--sex", "m", "--cohort", "1800"], "--cohort must be a year between 1900 and"),
    (["show", "PER", "--sex", "m", "--cohort", "1950"], "--cohort should not be given for period tables"),
    (["show", "PER"], "table 'PER' has sexes m, f: choose one with --sex"),
    (
        ["eval", "CSO2017", "--sex", "m", "--duration", "3", "--selected-at", "45", "qx", "45"],
        "--duration cannot be given with --selected-at",
    ),
]


@pytest.mark.parametrize(("argv", "message"), ERRORS)
def test_errors_are_one_line_in_command_line_syntax_with_status_2(capsys, tables, argv, message):
    tables.period()
    tables.flat(sexes=("m",))
    code, out, err = run(capsys, *argv)
    assert (code, out) == (2, "") and len(err.splitlines()) == 1
    assert err.startswith("veltrane") and message in err
    assert not re.search(r"(?<![-\w])(sex|duration|cohort|unisex_blend)=|unisex_blend|\w+Table\(", err), err


def test_bare_command_version_and_far_off_names(capsys):
    code, out, err = run(capsys)
    assert (code, err) == (0, "") and out.startswith("usage: veltrane") and "COMMAND" in out
    assert run(capsys, "--version") == (0, f"veltrane {veltrane.__version__}\n", "")
    assert "did you mean" not in run(capsys, "show", "QQQQQQ")[2]


@pytest.mark.parametrize(
    ("argv", "message"),
    [  # an unknown option before the positionals used to be reported as a bad FUNCTION
        (["eval", "DAV2004R", "--sex", "m", "--cohrt", "1960", "qx", "65"], "unrecognized option '--cohrt'"),
        (["eval", "SULT", "qx", "65", "--cohrt=1960"], "unrecognized option '--cohrt'"),
        (["eval", "SULT", "qx", "65", "1", "2"], "unrecognized arguments: 2"),
    ],
)
def test_unknown_options_name_the_commands_own_help(capsys, argv, message):
    code, out, err = run(capsys, *argv)
    assert (code, out) == (2, "") and err == f"veltrane eval: error: {message} (see 'veltrane eval --help')\n"


def test_tables_path_before_and_after_the_command(capsys, tmp_path):
    first, second = tmp_path / "a", tmp_path / "b"
    for directory, rate in ((first, 0.25), (second, 0.5)):
        write_table(directory, "MINE", {"table_type": "life"}, {"age": [0, 1], "qx_u": [rate, 1.0]})
    for argv, rate in (
        (["--tables-path", str(first), "eval", "MINE", "qx", "0"], 0.25),
        (["eval", "MINE", "qx", "0", "--tables-path", str(second)], 0.5),
        (["--tables-path", str(second), "eval", "MINE", "qx", "0", "--tables-path", str(first)], 0.5),
    ):
        assert run(capsys, *argv)[:2] == (0, f"{rate!r}\n")
    assert str(first) in run(capsys, "--tables-path", str(first), "tables", "--wide")[1]
    assert run(capsys, "eval", "MINE", "qx", "0")[0] == 2  # searched for that call only


def _command(*argv: str, **kwargs) -> subprocess.CompletedProcess[str]:
    """The installed command's entry: main() reading sys.argv in a process of its own."""
    script = "import sys; from veltrane.cli import main; sys.exit(main())"
    return subprocess.run([sys.executable, "-c", script, *argv], text=True, check=False, **kwargs)


def test_process_errors_and_warnings_are_single_lines_and_a_closed_pipe_ends_quietly(tmp_path):
    read_end, write_end = os.pipe()
    os.close(read_end)  # the reader is gone before the first byte, as after `| head -1`
    try:
        result = _command("show", "SULT", "--rows", "100", stdout=write_end, stderr=subprocess.PIPE)
    finally:
        os.close(write_end)
    assert (result.returncode, result.stderr) == (0, "")
    result = _command("eval", "NOPE", "--sex", "u", "lx", "1", capture_output=True, cwd=tmp_path)
    assert (result.returncode, len(result.stderr.splitlines())) == (2, 1) and "Traceback" not in result.stderr
    missing = tmp_path / "missing"
    env = {**os.environ, "VELTRANE_TABLES_PATH": os.pathsep.join([str(tmp_path), str(missing)])}
    result = _command("eval", "SULT", "qx", "50", capture_output=True, env=env)
    assert (result.returncode, result.stdout) == (0, f"{SULT.qx(50)!r}\n")
    warning = f"VELTRANE_TABLES_PATH: {missing} does not exist; no tables are read from it\n"
    assert result.stderr == "veltrane: warning: " + warning


def test_tables_search_ignores_case_and_needs_every_word(capsys, tables):
    # Bundled tables hold "select" too, none "wombat": every word must match.
    tables.write("ALPHA", {"table_type": "life", "description": "Select Wombat Lives"}, {"qx_u": [0.1, 1.0]})
    tables.write("BETA", {"table_type": "life", "description": "Quokka colony"}, {"qx_u": [0.1, 1.0]})
    for words, names in [(["wombat", "SELECT"], ["ALPHA"]), (["QUOKKA"], ["BETA"])]:
        code, out, _ = run(capsys, "tables", "--search", *words)
        assert code == 0 and [line.split()[0] for line in out.splitlines()[1:]] == names
    assert run(capsys, "tables", "--search", "nothing-like-it")[1] == "No tables match.\n"
