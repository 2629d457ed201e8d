"""XTbML export: what ``write_xtbml`` and ``veltrane export`` write imports back to the same rates, bit
for bit, for every bundled table and a sample of the SOA table service."""

from __future__ import annotations

import random

import numpy as np
import pytest

from test_cli import run
from veltrane.tables import soa
from veltrane.tables.life import LifeTable
from veltrane.tables.listing import catalogue
from veltrane.tables.source import TableSource
from veltrane.tables.xtbml import XTbMLError, read_xtbml, write_xtbml
from veltrane.tables.xtbml.reader import read_document

PREFIX = {"life": "qx", "disability": "ix", "exit": "ox"}


def reimport(files, name: str, sex: str):
    gen = TableSource(name).metadata.get("generational")
    options = {}
    if gen is not None and len(files) == 2:
        options = {"scale": files[1], "base_year": gen["base_year"]}
        if gen.get("formula_type") != "projected_improvement":
            options["formula"] = gen["formula_type"]
    back = read_xtbml(files[0], "BACK", **options)
    assert back.metadata["sexes"] == [sex]  # the file states the sex it holds: no sex= to read it
    return back


def assert_same_rates(name: str, sex: str, back) -> None:
    source = TableSource(name)
    assert back.metadata["table_type"] == source.table_type
    wanted = [
        c for c in source.data.columns if c.startswith((f"{PREFIX[source.table_type]}_{sex}", f"mi_{sex}"))
    ]
    assert wanted
    for column in wanted:
        mine = source.data[column].to_numpy()
        assert np.array_equal(back.columns[column], mine), (name, sex, column)  # bit for bit


def pairs(names):
    return [(name, sex) for name in names for sex in TableSource(name).valid_sexes]


@pytest.mark.parametrize(("name", "sex"), pairs(catalogue(soa=False)["name"].to_list()))
def test_every_bundled_table_exports_and_imports_back_to_the_same_rates(tmp_path, name, sex):
    files = write_xtbml(name, tmp_path / f"{name}.xml", sex=sex)
    assert_same_rates(name, sex, reimport(files, name, sex))


def test_a_sample_of_the_service_exports_and_imports_back_to_the_same_rates(tmp_path):
    seed = random.randrange(2**32)
    names = random.Random(seed).sample(sorted(soa.store().tables), 40)
    for name in names:
        sex = TableSource(name).valid_sexes[0]
        files = write_xtbml(name, tmp_path / f"{name}.xml")
        try:
            assert_same_rates(name, sex, reimport(files, name, sex))
        except AssertionError as exc:
            raise AssertionError(f"seed {seed}: {exc}") from None


@pytest.mark.parametrize(
    ("name", "options", "sex"), [("SULT", [], "u"), ("CSO2017", ["--sex", "m"], "m"), ("SOA3299", [], "m")]
)
def test_export_command_writes_a_file_that_imports_back(capsys, tmp_path, name, options, sex):
    target = tmp_path / "out.xml"
    code, out, _ = run(capsys, "export", name, *options, "--xtbml", str(target))
    assert code == 0 and out == f"wrote {target}\n"
    back = reimport([target], name, sex)
    assert_same_rates(name, sex, back)
    identity = TableSource(name).metadata["source"].get("table_identity")
    assert back.metadata["source"].get("table_identity") == identity


def test_a_select_table_is_written_by_issue_age_and_duration(tmp_path):
    write_xtbml("CSO2017", tmp_path / "cso.xml", sex="m")
    select, ultimate = read_document(tmp_path / "cso.xml").blocks
    assert [a.kind for a in select.axes] == ["age", "duration"] and [a.kind for a in ultimate.axes] == ["age"]
    duration3 = LifeTable("CSO2017", "m", duration=3)
    for issue in (0, 40, 90):
        assert select.cells[(issue, 3)] == TableSource("CSO2017").data["qx_m_s3"][issue + 2]
        assert abs(duration3.qx(issue + 2) - select.cells[(issue, 3)]) <= 5.0001e-13


def test_a_generational_table_is_its_base_and_scale_or_one_cohort(tmp_path):
    _, scale = write_xtbml("IAM2012", tmp_path / "iam.xml", sex="f")
    assert scale == tmp_path / "iam-scale.xml"
    assert "Projection Scale" in read_document(scale).content_type
    (cohort,) = write_xtbml("IAM2012", tmp_path / "iam1960.xml", sex="f", cohort=1960)
    back = read_xtbml(cohort, "BACK", sex="f")
    table = LifeTable("IAM2012", "f", cohort=1960)
    ages = np.arange(TableSource("IAM2012").start_age, table.w + 1)
    assert np.array_equal(back.columns["qx_f"][ages], table.qx(ages))


def test_names_and_texts_are_escaped(tmp_path):
    source = {"name": 'Rates <A & B> "quoted"', "provider": "X & Y"}
    (path,) = write_xtbml(TableSource.from_rates("ODD", [0.1, 0.5, 1.0], source=source), tmp_path / "odd.xml")
    doc = read_document(path)
    assert doc.name == 'Rates <A & B> "quoted" - Unisex' and doc.provider == "X & Y"


@pytest.mark.parametrize(
    ("argv", "where", "words"),
    [
        (["SOA99999"], "out.xml", "close numbers: SOA999"),
        (["CSO2017"], "out.xml", "has the sexes m, f; an XTbML file holds one"),
        (["SULT", "--sex", "m"], "out.xml", "has no sex 'm'"),
        (["SULT", "--cohort", "1960"], "out.xml", "is not generational"),
        (["SOA3123_9"], "out.xml", "has the parts SOA3123_1, SOA3123_2, SOA3123_3"),
        (["SULT"], "missing/out.xml", "missing/out.xml"),  # unwritable targets are named
        (["SULT"], ".", ""),
    ],
)
def test_bad_exports_are_one_line_and_write_nothing(capsys, tmp_path, argv, where, words):
    target = tmp_path / where
    code, out, err = run(capsys, "export", *argv, "--xtbml", str(target))
    assert code == 2 and not out and words in err and len(err.strip().splitlines()) == 1
    assert str(target) in err or where == "out.xml"
    assert list(tmp_path.iterdir()) == []


def test_a_failed_write_keeps_the_old_file(tmp_path, monkeypatch):
    target = tmp_path / "out.xml"
    target.write_text("old")
    monkeypatch.setattr("os.replace", lambda *_: (_ for _ in ()).throw(PermissionError(13, "denied")))
    with pytest.raises(PermissionError, match="cannot write"):
        write_xtbml("SULT", target)
    assert target.read_text() == "old" and [p.name for p in tmp_path.iterdir()] == ["out.xml"]


def test_write_xtbml_refuses_what_is_not_a_table():
    with pytest.raises(TypeError, match="table name or a TableSource"):
        write_xtbml(3299, "x.xml")  # type: ignore[arg-type]
    with pytest.raises(XTbMLError, match="cohort must be a year of birth"):
        write_xtbml("IAM2012", "x.xml", sex="m", cohort="1960")  # type: ignore[arg-type]
