"""The bundled catalogue of published tables: generated from the raw files, true to the publishers."""

from __future__ import annotations

import csv
import importlib.util
import math
import sys
import xml.etree.ElementTree as ET
from decimal import ROUND_HALF_UP, Decimal
from pathlib import Path

import numpy as np
import pytest

from conftest import RAW, improved
from veltrane import DisabilityTable, ExitTable, LifeTable
from veltrane.contingencies import annuity
from veltrane.tables.source import TableSource

TOOLS = Path(__file__).resolve().parents[1] / "tools"
needs_raw = pytest.mark.skipif(not RAW.is_dir(), reason="the raw published tables are not at hand")


def generator():
    spec = importlib.util.spec_from_file_location("make_catalogue", TOOLS / "make_catalogue.py")
    module = importlib.util.module_from_spec(spec)
    saved = list(sys.path)  # the script puts the checkout's sources first; worker processes must not see them
    sys.modules["make_catalogue"] = module  # dataclasses look their module up
    try:
        spec.loader.exec_module(module)
    finally:
        sys.path[:] = saved
    return module


def xtbml_cells(name: str, block: int = 0, folder: str = "soa-xtbml") -> dict[tuple[int, ...], float]:
    """The cells of an XTbML table by their labels, outer axis first; read without the project's reader."""
    cells: dict[tuple[int, ...], float] = {}

    def walk(node: ET.Element, key: tuple[int, ...]) -> None:
        for child in node:
            label = (int(child.get("t")),) if child.get("t") else ()
            if child.tag == "Y":
                cells[key + label] = float(child.text)
            else:
                walk(child, key + label)

    walk(ET.parse(RAW / folder / name).getroot().findall("Table")[block].find("Values"), ())
    return cells


def xtbml_values(name: str, block: int = 0) -> np.ndarray:
    return np.array(list(xtbml_cells(name, block).values()))


@needs_raw
def test_bundled_files_are_what_the_raw_files_give():
    assert generator().main(["--check", str(RAW)]) == 0


@needs_raw
@pytest.mark.parametrize(
    ("sex", "base_file", "trend_file"), [("m", "t2959.xml", "t2963.xml"), ("f", "t2960.xml", "t2964.xml")]
)
def test_avoe_columns_are_the_published_ones(sex, base_file, trend_file):
    # The table service rounds what the association publishes at full precision.
    data = TableSource("AVOE2005R").data
    base, trend = xtbml_values(base_file), xtbml_values(trend_file)
    np.testing.assert_allclose(data[f"qx_{sex}"].to_numpy()[: base.size], base, rtol=0, atol=5e-7)
    np.testing.assert_allclose(data[f"mi_{sex}"].to_numpy()[: trend.size], trend, rtol=0, atol=5e-9)


@pytest.mark.parametrize(
    ("name", "sex", "base_year", "formula"),
    [("AVOE2005R", sex, 2001, "exponential_damped") for sex in "mfu"]
    + [("DAV2004R", sex, 1999, "exponential") for sex in "mf"]
    + [("GAR94", sex, 1994, "compound") for sex in "mf"],
)
def test_generational_cohorts_follow_the_publisher_formula(name, sex, base_year, formula):
    data = TableSource(name).data
    q, lam, ages = data[f"qx_{sex}"].to_numpy(), data[f"mi_{sex}"].to_numpy(), [0, 40, 65, 90, 110]
    for cohort in (1930, 1965, 2001):
        table = LifeTable(name, sex, cohort=cohort)
        expected = improved(formula, q, lam, cohort, base_year)[ages]
        assert table.qx(np.array(ages, dtype=float)) == pytest.approx(expected, rel=1e-11, abs=1e-12)
        # The calendar year of the base: the published base rate itself.
        assert LifeTable(name, sex, cohort=base_year - 65).qx(65) == round(q[65], 12)
    assert table.qx(table.w) == 1.0


@needs_raw
def test_iam_cohort_2025_is_the_published_illustration():
    # The publisher's illustration: the rates of the cohort born in 2025, at every age.
    path = RAW / "r-mortality-tables" / "USA_Annuities_2012IAM.csv"
    printed = np.genfromtxt(path, delimiter=",", skip_header=4, usecols=(8, 9))
    for sex, values in zip("mf", printed.T, strict=True):
        ours = LifeTable("IAM2012", sex, cohort=2025).qx(np.arange(values.size, dtype=float))
        np.testing.assert_allclose(ours, values, rtol=0, atol=5e-13)


@needs_raw
@pytest.mark.parametrize(("sex", "file"), [("m", "t3123.xml"), ("f", "t3124.xml")])
@pytest.mark.parametrize(("name", "block", "first"), [("RP2014HA", 1, 50), ("RP2014DR", 2, 18)])
def test_rp2014_tables_start_at_their_first_published_age(sex, file, name, block, first):
    published = xtbml_values(file, block=block)  # employee, healthy annuitant, disabled retiree
    table = LifeTable(name, sex)
    assert table.start_age == first and table.w == 120
    np.testing.assert_array_equal(table.qx(np.arange(float(first), 121.0)), published)
    assert np.all(table.qx(np.arange(0.0, first)) == 0.0)


def test_docs_page_lists_every_bundled_table():
    page = (Path(__file__).resolve().parents[1] / "docs" / "catalogue.md").read_text(encoding="utf-8")
    assert page == generator().render_docs()


@needs_raw
def test_dav1994r_cohort_1935_rates_and_annuities_are_the_published_ones():
    # The association's illustration: rates of the 1935 cohort and whole-life annuities-due at 4 %.
    path = RAW / "r-mortality-tables" / "Germany_Annuities_DAV1994R.csv"
    printed = np.genfromtxt(path, delimiter=",", skip_header=3, usecols=(8, 9, 11, 12))
    ages = np.arange(printed.shape[0], dtype=float)
    for column, sex in enumerate("mf"):
        table = LifeTable("DAV1994R", sex, cohort=1935)
        np.testing.assert_allclose(table.qx(ages), printed[:, column], rtol=0, atol=5e-13)
        np.testing.assert_allclose(annuity(table, ages, i=0.04), printed[:, 2 + column], rtol=1e-13, atol=0)


@needs_raw
def test_am92_columns_are_the_published_cells():
    data = TableSource("AM92").data
    select, ultimate = xtbml_cells("t2360.xml"), xtbml_cells("t2360.xml", block=1)
    # Select columns by attained age: issue age x in policy year d is row x + d - 1.
    assert {(x, d): data[f"qx_m_s{d}"][x + d - 1] for x, d in select} == select
    assert {(x,): data["qx_m_ult"][x] for (x,) in ultimate} == ultimate
    # The other printing of AM92, ages 17-90: its column is q_[x], the first policy year's rate
    # (0.001971 at 50), not the ultimate q_x (0.002508).
    printed = np.genfromtxt(RAW / "lifecontingencies" / "demoUk.csv", delimiter=",", skip_header=1)
    assert printed[0, 0] == 17 and printed[-1, 0] == 90
    np.testing.assert_array_equal(LifeTable("AM92", "m", duration=1).qx(printed[:, 0]), printed[:, 1])


@needs_raw
@pytest.mark.parametrize(("sex", "second", "first"), [("m", 4, 7), ("f", 14, 17)])
def test_dav2008t_is_the_second_order_aggregate_table_loaded_by_34_percent(sex, second, first):
    path = RAW / "r-mortality-tables" / "Germany_Endowments_DAV2008T.csv"
    with path.open(encoding="utf-8", newline="") as handle:
        rows = list(csv.reader(handle))[5:]
    ours = LifeTable("DAV2008T", sex).qx(np.arange(len(rows), dtype=float))
    np.testing.assert_array_equal(ours, [float(row[first]) for row in rows])
    # Exact decimal arithmetic: 1.34 q ends in a 5 at some ages, and the printed rates round it up.
    loaded = [
        (Decimal(row[second]) * Decimal("1.34")).quantize(Decimal("1e-6"), ROUND_HALF_UP) for row in rows
    ]
    np.testing.assert_array_equal(ours, [float(min(q, Decimal(1))) for q in loaded])


@needs_raw
def test_gar94_columns_are_the_published_ones_from_age_1():
    path = RAW / "r-mortality-tables" / "USA_Annuities_1994GAR.csv"
    printed = np.genfromtxt(path, delimiter=",", skip_header=4)
    assert printed[0, 0] == 1
    source = TableSource("GAR94")
    assert (source.start_age, source.w) == (1, 120)
    for sex, (q, aa) in {"m": (1, 2), "f": (3, 4)}.items():
        np.testing.assert_array_equal(source.data[f"qx_{sex}"].to_numpy(), [0.0, *printed[:, q]])
        np.testing.assert_array_equal(source.data[f"mi_{sex}"].to_numpy()[1:], printed[:, aa])


@needs_raw
@pytest.mark.parametrize(
    ("sex", "base_file", "scale_file"), [("m", "t3534.xml", "t3610.xml"), ("f", "t3533.xml", "t3609.xml")]
)
def test_pri2012r_projects_year_by_year_with_mp2020(sex, base_file, scale_file):
    base, mp = xtbml_cells(base_file), xtbml_cells(scale_file)
    last = max(year for _, year in mp)  # the scale: "rates for years after 2036 are equal to [those of] 2036"

    def kept(age: int, years: range) -> float:
        return math.prod(1 - mp[age, min(year, last)] for year in years)

    for cohort in (1925, 1950, 1962, 1990):  # calendar years 1975 to 2109
        table = LifeTable("PRI2012R", sex, cohort=cohort)
        for age in (50, 65, 80, 95, 119):
            year = cohort + age
            if year >= 2012:
                want = base[age,] * kept(age, range(2013, year + 1))
            else:  # back from 2012 through the scale's historical rates
                want = base[age,] / kept(age, range(year + 1, 2013))
            assert table.qx(age) == pytest.approx(want, rel=1e-11, abs=1e-12)
        assert (table.qx(49), table.qx(table.w)) == (0.0, 1.0)


@needs_raw
@pytest.mark.parametrize(
    ("name", "kind", "sex", "file", "first", "last", "w"),
    [
        ("CIDA1985_30", DisabilityTable, "m", "t1240.xml", 20, 65, 65),
        ("CIDA1985_90", DisabilityTable, "f", "t1272.xml", 20, 65, 65),
        ("PBGC_DISABLED", LifeTable, "m", "t1154.xml", 20, 107, 110),
        ("PBGC_DISABLED", LifeTable, "f", "t1155.xml", 20, 110, 110),
        ("KRIEGER_RECOVERY", ExitTable, "u", "t1584.xml", 27, 76, 76),
    ],
)
def test_disability_entries_are_the_published_rates_at_every_published_age(
    name, kind, sex, file, first, last, w
):
    cells = xtbml_cells(file, folder="soa-xtbml-all")
    assert sorted(cells) == [(age,) for age in range(first, last + 1)]
    table = kind(name, sex)
    assert (table.start_age, table.w) == (first, w)
    shown = table.view_data()  # what users see: from the first published age, at the table's decimals
    assert shown["age"].to_list() == list(range(first, w + 1))
    rates = shown[shown.columns[1]].to_numpy()
    published = [cells[(age,)] for age in range(first, last + 1)]
    np.testing.assert_array_equal(rates[: last - first + 1], published)
    # Below the first published age nothing is published: 0, marked by the start age.
    assert np.all(table.view_data(show_normalized=True)[shown.columns[1]].to_numpy()[:first] == 0.0)
    # Only the men's PBGC table ends before w: past its certain death at 107 no man is left.
    assert np.all(rates[last - first + 1 :] == 1.0) and (last == w or cells[(last,)] == 1.0)
