"""The contingency commands of ``veltrane``: ex in eval, annuity, commutation; one-line errors, status 2."""

from __future__ import annotations

import io

import polars as pl
import pytest

from veltrane.cli import main
from veltrane.contingencies import annuity, commutation
from veltrane.tables.life import LifeTable

SULT = LifeTable("SULT", "u")
EX, ANNUITY = "eval SULT --sex u ex ", "annuity SULT --sex u --age "


def run(capsys, command: str) -> tuple[int, str, str]:
    try:
        code = main(command.split())
    except SystemExit as exc:  # argparse refusals
        code = exc.code
    out, err = capsys.readouterr()
    return code, out, err


@pytest.mark.parametrize(
    ("command", "expected"),
    [
        (EX + "65", f"{SULT.ex(65)!r}\n"),
        (EX + "60,120 --complete", f"60\t{SULT.ex(60, complete=True)!r}\n120\t0.5\n"),
        (ANNUITY + "65 --rate 0.05 --term 10 --m 12", f"{annuity(SULT, 65, 10, i=0.05, m=12)!r}\n"),
        (
            ANNUITY + "60,65 --rate 0.04 --immediate --method udd",
            "age\tvalue\n"
            + "".join(f"{x}\t{annuity(SULT, x, i=0.04, due=False, method='udd')!r}\n" for x in (60, 65)),
        ),
        (
            ANNUITY + "65 --rate 0.05 --term 5,10 --defer 2",
            "age\tterm\tvalue\n"
            + "".join(f"65\t{n}\t{annuity(SULT, 65, n, i=0.05, defer=2)!r}\n" for n in (5, 10)),
        ),
    ],
)
def test_values(capsys, command, expected):
    assert run(capsys, command) == (0, expected, "")


def test_commutation_printed_and_written(capsys, tmp_path):
    code, out, _ = run(capsys, COMMUTATION + "0.03")
    lines = out.splitlines()
    frame = commutation(SULT, i=0.03)
    # An aligned table with two decimals: every line as wide as the header, the columns right-aligned.
    assert code == 0 and lines[0].split() == frame.columns and len(lines) == 122
    assert {len(line) for line in lines} == {len(lines[0])} and len(lines[0]) <= 120
    assert lines[66].split() == ["65", *(f"{v:.2f}" for v in frame.row(65)[1:])]
    # --csv prints every digit, as -o writes it.
    code, out, _ = run(capsys, COMMUTATION + "0.03 --csv")
    assert code == 0 and pl.read_csv(io.StringIO(out)).equals(frame)
    target = tmp_path / "sult.csv"
    assert run(capsys, f"{COMMUTATION}0.03 -o {target}")[:2] == (0, "")
    written = pl.read_csv(target)
    assert written.columns == frame.columns and written["Nx"].to_list() == frame["Nx"].to_list()


OVER_W = "All ages x must be <= w (120) for table 'SULT', got"
COMMUTATION = "commutation SULT --sex u --rate "
TWO = "annuity SULT --sex u --age 65 --rate 0.05 --second CSO1980 --second-sex f --second-age "
NEEDS = "need --second NAME2"


@pytest.mark.parametrize(
    ("command", "message"),  # the message after "veltrane COMMAND: error: "
    [
        (ANNUITY + "130 --rate 0.05", f"[annuity] {OVER_W} 130.\n"),
        (ANNUITY + "65 --rate 0.05 --m 5", "argument --m: invalid choice: "),  # 3.14 quotes the value
        (ANNUITY + "65", "the following arguments are required: --rate"),
        (COMMUTATION + "0.03 -o /nonexistent/dir/c.csv", "cannot write /nonexistent/dir/c.csv"),
        ("eval SULT --sex u qx 65 --complete", "--complete applies to ex only, not qx\n"),
        (ANNUITY + "65 --rate 0.05 --second-age 60", f"--second-sex, --second-age and --status {NEEDS}"),
        (ANNUITY + "65 --rate 0.05 --second SULT", "--second needs --second-age"),
        (TWO + "60 --method udd", "[annuity] two lives are valued with method='exact'"),
        (TWO + "60,61,62 --age 1,2", "[annuity] the ages x and y of the pair must have the same length"),
    ],
)
def test_refusals(capsys, command, message):
    code, out, err = run(capsys, command)
    assert (code, out) == (2, "") and err.startswith(f"veltrane {command.split()[0]}: error: {message}")
    assert err.count("\n") == 1


@pytest.mark.parametrize("status", ["joint", "last"])
def test_annuity_on_two_lives(capsys, status):
    from veltrane.contingencies import JointLife

    couple = JointLife(SULT, LifeTable("CSO1980", "f"), status=status)
    code, out, err = run(capsys, TWO + f"60 --status {status} --m 12")
    assert (code, err) == (0, "") and out == f"{annuity(couple, (65, 60), i=0.05, m=12)!r}\n"
    code, out, _ = run(capsys, TWO + f"60,62 --status {status} --term 10")
    rows = [f"65\t{y}\t10\t{annuity(couple, (65, y), 10, i=0.05)!r}" for y in (60, 62)]
    assert (code, out) == (0, "age\tsecond_age\tterm\tvalue\n" + "\n".join(rows) + "\n")
