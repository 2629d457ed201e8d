"""XTbML import of the published SOA files: every file imports or is refused with its structure named,
and the imported tables give the published rates back."""

from __future__ import annotations

import math

import numpy as np
import pytest

from conftest import RAW
from veltrane.config import Config
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource
from veltrane.tables.xtbml import XTbMLUnsupportedError, import_xtbml, read_xtbml
from veltrane.tables.xtbml.reader import read_document

SOA = RAW / "soa-xtbml"
pytestmark = pytest.mark.skipif(not SOA.is_dir(), reason="published tables not available")

# What cannot be a decrement table, and the words of the reason.
REFUSED = {
    "t754": "ages in steps of 5",  # issue ages banded by five years
    "t1478": "no decrement-table form",  # months since disablement x age
    "t1578": "rate 0 for year of birth",  # extinct cohorts written as rate 0
    **dict.fromkeys(["t3123", "t3124"], "3 age-only tables in one file"),
    **dict.fromkeys(["t2583", "t2584", "t2963", "t2964", "t3135", "t3609", "t3610"], "projection scale"),
}


@pytest.fixture
def out(tmp_path):
    with Config().override(tables_path=[tmp_path]):
        yield tmp_path
    TableSource.clear_cache()


def cells(stem: str, block: int = 0) -> dict:
    return read_document(SOA / f"{stem}.xml").blocks[block].cells


def test_every_file_imports_or_is_refused_with_its_structure(out):
    files = sorted(SOA.glob("*.xml"))
    assert files
    for path in files:
        if path.stem not in REFUSED:
            import_xtbml(path, path.stem, out)
            assert TableSource(path.stem).table_name == path.stem
            continue
        with pytest.raises(XTbMLUnsupportedError) as info:
            import_xtbml(path, path.stem, out)
        message = str(info.value)
        assert "\n" not in message and f"{path}: cannot map " in message and REFUSED[path.stem] in message
        assert not (out / f"{path.stem}.toml").exists()


@pytest.mark.parametrize(("male", "female"), [("t3287", "t3288"), ("t3291", "t3292"), ("t3299", "t3302")])
def test_2017_cso_gives_the_published_rate_at_every_issue_age_and_duration(out, male, female):
    import_xtbml([SOA / f"{male}.xml", SOA / f"{female}.xml"], "CSO", out)
    for sex, stem in (("m", male), ("f", female)):
        select, ultimate = cells(stem), cells(stem, -1)
        for d in range(1, 26):
            issue = np.array([i for i, dd in select if dd == d])
            want = [select[(i, d)] for i in issue]
            np.testing.assert_array_equal(LifeTable("CSO", sex, duration=d).qx(issue + d - 1), want)
        ages = np.array(sorted(a for (a,) in ultimate))
        want = [ultimate[(a,)] for a in ages]
        np.testing.assert_array_equal(LifeTable("CSO", sex, duration=26).qx(ages), want)


def test_2012_iam_with_scale_g2_projects_compound(out):
    files, g2 = [SOA / "t2585.xml", SOA / "t2586.xml"], [SOA / "t2583.xml", SOA / "t2584.xml"]
    import_xtbml(files, "IAM", out, scale=g2, formula="compound")
    base, scale = cells("t2586"), cells("t2584")
    table = LifeTable("IAM", "f", cohort=1950)
    for age in (30, 65, 90, 110):  # the scale's last age (105) carries on
        want = base[(age,)] * (1 - scale[(min(age, 105),)]) ** (1950 + age - 2012)
        assert table.qx(age) == pytest.approx(want, rel=1e-9)


def test_avoe_2005_r_base_and_lambda_project_with_the_damped_trend(out):
    base, trend = [SOA / "t2959.xml", SOA / "t2960.xml"], [SOA / "t2963.xml", SOA / "t2964.xml"]
    import_xtbml(base, "AVOE", out, scale=trend, formula="exponential_damped")
    assert TableSource("AVOE").base_year == 2001  # "2001 Base Year" in the name
    q, lam = cells("t2959"), cells("t2963")
    table = LifeTable("AVOE", "m", cohort=1960)
    for age in (40, 75, 100):
        want = q[(age,)] * math.exp(-lam[(age,)] * 100 * math.atan((1960 + age - 2001) / 100))
        assert table.qx(age) == pytest.approx(want, rel=1e-9)


def test_quirky_files(out):
    # Pri-2012 with MP-2020 (projected as test_catalogue checks): the base year from the file's name.
    pri = read_xtbml(SOA / "t3534.xml", "PRI", scale=SOA / "t3610.xml").metadata
    assert (pri["start_age"], pri["generational"]["base_year"]) == (50, 2012)
    # t1076: ultimate from age 16 while the select block starts at 0.
    imported = read_xtbml(SOA / "t1076.xml", "SP")
    assert imported.metadata["start_age"] == 0
    assert "ultimate rates published from age 16" in imported.metadata["source"]["notes"]
    # RP-2014: one of three tables per file; the file's name states no sex, the part's description does.
    rp = read_xtbml([SOA / "t3124.xml", SOA / "t3123.xml"], "RP", part=3)
    assert (rp.metadata["sexes"], rp.metadata["start_age"]) == (["f", "m"], 18)
    assert rp.metadata["description"].startswith("RP-2014 Rates-Total Dataset-Disabled Retiree-Female; ")
    assert rp.columns["qx_m"][18] == cells("t3123", 2)[(18,)]
