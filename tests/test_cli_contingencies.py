"""The contingency commands of ``veltrane``: ex in eval, annuity, commutation; one-line errors, status 2."""

from __future__ import annotations

import polars as pl
import pytest

from veltrane.cli import main
from veltrane.contingencies import annuity, commutation
from veltrane.tables.life import LifeTable

SULT = LifeTable("SULT", "u")


def run(capsys, *argv: str) -> tuple[int, str, str]:
    try:
        code = main(list(argv))
    except SystemExit as exc:  # argparse refusals
        code = exc.code
    out, err = capsys.readouterr()
    return code, out, err


@pytest.mark.parametrize(
    ("argv", "expected"),
    [
        (("eval", "SULT", "--sex", "u", "ex", "65"), f"{SULT.ex(65)!r}\n"),
        (("eval", "SULT", "--sex", "u", "ex", "65", "--complete"), f"{SULT.ex(65, complete=True)!r}\n"),
        (
            ("eval", "SULT", "--sex", "u", "ex", "60,120", "--complete"),
            f"60\t{SULT.ex(60, complete=True)!r}\n120\t0.5\n",
        ),
        (
            ("annuity", "SULT", "--sex", "u", "--age", "65", "--rate", "0.05"),
            f"{annuity(SULT, 65, i=0.05)!r}\n",
        ),
        (
            ("annuity", "SULT", "--sex", "u", "--age", "65", "--rate", "0.05", "--term", "10", "--m", "12"),
            f"{annuity(SULT, 65, 10, i=0.05, m=12)!r}\n",
        ),
        (
            (
                "annuity",
                "SULT",
                "--sex",
                "u",
                "--age",
                "60,65",
                "--rate",
                "0.04",
                "--immediate",
                "--method",
                "udd",
            ),
            "age\tvalue\n"
            + "".join(f"{x}\t{annuity(SULT, x, i=0.04, due=False, method='udd')!r}\n" for x in (60, 65)),
        ),
        (
            (
                "annuity",
                "SULT",
                "--sex",
                "u",
                "--age",
                "65",
                "--rate",
                "0.05",
                "--term",
                "5,10",
                "--defer",
                "2",
            ),
            "age\tterm\tvalue\n"
            + "".join(f"65\t{n}\t{annuity(SULT, 65, n, i=0.05, defer=2)!r}\n" for n in (5, 10)),
        ),
    ],
)
def test_values(capsys, argv, expected):
    code, out, err = run(capsys, *argv)
    assert (code, out, err) == (0, expected, "")


def test_commutation_printed_and_written(capsys, tmp_path):
    code, out, _ = run(capsys, "commutation", "SULT", "--sex", "u", "--rate", "0.03")
    lines = out.splitlines()
    frame = commutation(SULT, i=0.03)
    assert code == 0 and lines[0].split("\t") == frame.columns and len(lines) == 122
    assert lines[66].split("\t") == ["65", *(repr(v) for v in frame.row(65)[1:])]
    target = tmp_path / "sult.csv"
    code, out, _ = run(capsys, "commutation", "SULT", "--sex", "u", "--rate", "0.03", "-o", str(target))
    assert code == 0 and out == ""
    written = pl.read_csv(target)
    assert written.columns == frame.columns and written["Nx"].to_list() == frame["Nx"].to_list()


@pytest.mark.parametrize(
    ("argv", "message"),
    [
        (
            ("annuity", "SULT", "--sex", "u", "--age", "130", "--rate", "0.05"),
            "veltrane annuity: error: [annuity] All ages x must be <= w (120) for table 'SULT', got 130.\n",
        ),
        (
            ("annuity", "SULT", "--sex", "u", "--age", "65", "--rate", "-0.01"),
            "veltrane annuity: error: [annuity] i must be >= 0, got -0.01\n",
        ),
        (
            ("commutation", "SULT", "--sex", "u", "--rate", "-0.5"),
            "veltrane commutation: error: [commutation] i must be >= 0, got -0.5\n",
        ),
        (
            ("commutation", "NOPE", "--sex", "u", "--rate", "0.03"),
            None,
        ),
        (
            ("eval", "SULT", "--sex", "u", "qx", "65", "--complete"),
            "veltrane eval: error: --complete applies to ex only, not qx\n",
        ),
        (
            ("eval", "SULT", "--sex", "u", "ex", "121"),
            "veltrane eval: error: [ex] All ages x must be <= w (120) for table 'SULT', got 121.\n",
        ),
    ],
)
def test_refusals(capsys, argv, message):
    code, out, err = run(capsys, *argv)
    assert code == 2 and out == ""
    if message is None:
        assert err.startswith("veltrane commutation: error: ") and "NOPE" in err and err.count("\n") == 1
    else:
        assert err == message


def test_unwritable_output(capsys, tmp_path):
    target = tmp_path / "missing" / "c.csv"
    code, _, err = run(capsys, "commutation", "SULT", "--sex", "u", "--rate", "0.03", "-o", str(target))
    assert code == 2 and err.startswith(f"veltrane commutation: error: cannot write {target}")


def test_argument_refusals(capsys):
    code, _, err = run(capsys, "annuity", "SULT", "--sex", "u", "--age", "65", "--rate", "0.05", "--m", "5")
    assert code == 2 and "invalid choice" in err and err.count("\n") == 1
    code, _, err = run(capsys, "annuity", "SULT", "--sex", "u", "--age", "65")
    assert code == 2 and "--rate" in err
