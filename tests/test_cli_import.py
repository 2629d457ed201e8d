"""``veltrane import``: XTbML files to a table pair, with a scale, and one-line refusals."""

from __future__ import annotations

import pytest

from veltrane.cli import main
from veltrane.config import Config
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource
from xtbml_files import select_cells, table_1d, table_2d, xtbml


def run(capsys, *argv):
    try:
        code = main([str(a) for a in argv])
    except SystemExit as exc:
        code = exc.code
    return code, *capsys.readouterr()


@pytest.fixture(autouse=True)
def clean():
    yield
    TableSource.clear_cache()


def test_import_a_select_table_per_sex_and_a_base_with_a_scale(capsys, tmp_path):
    cells = select_cells(range(30, 33), (1, 2))
    ult = table_1d("Age", {x: 0.01 for x in range(31, 36)} | {36: 1.0})
    m = xtbml(tmp_path / "m.xml", table_2d("Age", "Duration", cells), ult, name="S - Male")
    f = xtbml(tmp_path / "f.xml", table_2d("Age", "Duration", cells), ult, name="S - Female")
    code, out, err = run(capsys, "import", m, f, "--name", "SX", "--out", tmp_path / "out")
    assert (code, err) == (0, "")
    assert out.splitlines() == [
        str(tmp_path / "out" / "SX.toml"),
        "SX: select-and-ultimate, select period 2 (durations 1-2), sexes m,f, ages 30-36",
    ]
    base = xtbml(tmp_path / "b.xml", table_1d("Age", {0: 0.1, 1: 1.0}), name="2012 Base - Male")
    scale = xtbml(tmp_path / "s.xml", table_1d("Age", {0: 0.01, 1: 0.0}), content="Projection Scale")
    argv = ["--scale", scale, "--formula", "exponential", "--name", "G", "--out", tmp_path / "out"]
    code, out, _ = run(capsys, "import", base, *argv)
    assert code == 0 and "generational, exponential formula" in out
    with Config().override(tables_path=[tmp_path / "out"]):
        assert LifeTable("SX", "f", duration=2).qx(33) == cells[(32, 2)]
        assert TableSource("G").base_year == 2012


@pytest.mark.parametrize(
    ("extra", "message"),
    [
        (["--formula", "compound"], "apply only with a scale"),
        (["--part", "3"], "part 3 does not exist"),
        ([], "u.xml: encoding 'bogus' of the XML declaration is not supported"),
    ],
)
def test_import_refusals_are_one_line_and_write_nothing(capsys, tmp_path, extra, message):
    path = xtbml(tmp_path / "u.xml", table_1d("Age", {0: 0.1, 1: 1.0}))
    if not extra:
        path.write_bytes(b'<?xml version="1.0" encoding="bogus"?><XTbML/>')
    code, out, err = run(capsys, "import", path, "--name", "U", "--out", tmp_path / "out", *extra)
    assert code == 2 and out == "" and err.count("\n") == 1
    assert err.startswith("veltrane import: error: ") and message in err
    assert not (tmp_path / "out").exists()


def test_existing_pair_is_replaced_whole_and_a_blocked_write_leaves_it(capsys, tmp_path):
    out = tmp_path / "out"
    first = xtbml(tmp_path / "a.xml", table_1d("Age", {0: 0.1, 1: 1.0}))
    second = xtbml(tmp_path / "b.xml", table_1d("Age", {0: 0.3, 1: 1.0}))
    assert run(capsys, "import", first, "--name", "U", "--out", out)[0] == 0
    assert run(capsys, "import", second, "--name", "U", "--out", out)[0] == 0  # replaced
    with Config().override(tables_path=[out]):
        assert LifeTable("U", "m").qx(0) == 0.3
    before = {p.name: p.read_bytes() for p in out.iterdir()}
    (out / "V.csv").mkdir()  # the .csv cannot be written: the .toml must not be either
    for argv in (
        ["--name", "V", "--out", out],
        ["--name", "U", "--out", first],
        ["--name", "U\n", "--out", out],
    ):
        code, stdout, err = run(capsys, "import", first, *argv)
        assert (code, stdout, err.count("\n")) == (2, "", 1), err
    assert {p.name: p.read_bytes() for p in out.iterdir() if p.is_file()} == before
