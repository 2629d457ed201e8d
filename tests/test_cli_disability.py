"""``veltrane disability``: the model's values as the library gives them; one-line refusals, status 2."""

from __future__ import annotations

import pytest

from veltrane import DisabilityTable, ExitTable, LifeTable
from veltrane.cli import main
from veltrane.multistate import DisabilityModel

MODEL = DisabilityModel(
    LifeTable("SULT", "u"), DisabilityTable("CIDA1985_90", "m"), LifeTable("PBGC_DISABLED", "m")
)
TABLES = (MODEL.active_mortality, MODEL.incidence, MODEL.disabled_mortality)
RECOVERING = DisabilityModel(*TABLES, recovery=ExitTable("KRIEGER_RECOVERY", "u"))
MID_YEAR = DisabilityModel(*TABLES, convention="mid_year")
COMMAND = "disability SULT CIDA1985_90 PBGC_DISABLED --sex m "


def run(capsys, command: str) -> tuple[int, str, str]:
    try:
        code = main(command.split())
    except SystemExit as exc:  # argparse refusals
        code = exc.code
    out, err = capsys.readouterr()
    return code, out, err


R = " --recovery KRIEGER_RECOVERY"
# fmt: off
VALUES = [
    (COMMAND + "--age 40 --rate 0.04 --term 25", f"{MODEL.annuity(40, 25, i=0.04)!r}\n"),
    (COMMAND + "--age 30,50 --rate 0.03 --payable alive --m 12 --immediate" + R, "age\tvalue\n" + "".join(
        f"{x}\t{RECOVERING.annuity(x, i=0.03, payable='alive', m=12, due=False)!r}\n" for x in (30, 50))),
    (COMMAND + "--age 50 --rate 0.04 --term 5,10 --start disabled --payable active" + R, "age\tterm\tvalue\n"
     + "".join(f"50\t{n}\t{RECOVERING.annuity(50, n, i=0.04, start='disabled', payable='active')!r}\n"
               for n in (5, 10))),
    (COMMAND + "--age 40 --rate 0.04 --insurance", f"{MODEL.insurance(40, i=0.04)!r}\n"),
    (COMMAND + "--age 40 --rate 0.04 --term 25 --mid-year", f"{MID_YEAR.annuity(40, 25, i=0.04)!r}\n"),
]
# fmt: on


@pytest.mark.parametrize(("command", "expected"), VALUES)
def test_values_are_the_models(capsys, command, expected):
    code, out, err = run(capsys, command)
    assert (code, out, err) == (0, expected, "")


def test_states_are_printed_and_drawn(capsys, tmp_path):
    code, out, _ = run(capsys, COMMAND + "--age 60 --states 2")
    p = MODEL.state_probabilities(60, 2)
    assert code == 0
    assert out.splitlines() == [
        "year\tage\tactive\tdisabled\tdead",
        *(f"{k}\t{60 + k}\t" + "\t".join(repr(float(v)) for v in p[k]) for k in range(3)),
    ]
    pytest.importorskip("matplotlib")
    chart = tmp_path / "states.svg"
    code, out, _ = run(capsys, COMMAND + f"--age 60 --states 30 -o {chart}")
    assert (code, out) == (0, f"{chart}\n") and chart.read_text().startswith("<?xml")


@pytest.mark.parametrize(
    ("command", "message"),
    [
        ("disability SULT SULT PBGC_DISABLED --sex m --age 60 --rate 0.04", "must be a DisabilityTable"),
        (COMMAND + "--age 60", "--rate is required"),
        (COMMAND + "--age 60,61 --states 3", "--states follows one age"),
        (COMMAND + "--age 60 --rate 0.04 -o chart.png", "give --states YEARS with it"),
        (COMMAND + "--age 60 --states 3 -o chart.txt", "must name a .png, .pdf or .svg file"),
        ("disability SULT CIDA1985_90 PBGC_DISABLED --age 60 --rate 0.04", "choose one with --sex"),
        (COMMAND + "--age 60 --rate 0.04 --recovery NOSUCH", "table 'NOSUCH' not found"),
        (COMMAND + "--age 60 --rate 0.04 --insurance --states 3", "not allowed with argument"),
    ],
)
def test_refusals_are_one_line_with_status_2(capsys, command, message):
    code, out, err = run(capsys, command)
    assert code == 2 and out == "" and message in err and err.count("\n") == 1
