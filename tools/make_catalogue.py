"""Generate the catalogue of published tables bundled in ``src/veltrane/tables/data/``.

Run ``python tools/make_catalogue.py [RAW_DIR]``, where RAW_DIR holds the raw published files
(by default ``../shared/tables/raw`` beside the checkout). It rewrites the catalogue's tables;
the output depends only on this script and the raw files, so anyone can regenerate and compare.
``python tools/make_catalogue.py --check [RAW_DIR]`` writes nothing and exits 1 when a bundled
file differs from what the raw files give.

Each entry below names the raw files it reads and the publisher's formula it encodes; the
documentation table in ``docs/catalogue.md`` lists the same entries for users.
"""

from __future__ import annotations

import argparse
import csv
import filecmp
import importlib.util
import sys
import tempfile
import tomllib
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "src"))

import polars as pl  # noqa: E402

from veltrane.tables.source import TableSource, write_table  # noqa: E402

# The checkout's own data folder, whichever installed copy of the package the import found.
BUNDLED_TABLES_DIR = ROOT / "src" / "veltrane" / "tables" / "data"

DEFAULT_RAW = ROOT.parent / "shared" / "tables" / "raw"
Columns = dict[str, list[Any]]
Built = tuple[dict[str, Any], Columns]


@dataclass(frozen=True)
class Entry:
    """One bundled table: its name and how to build it from the raw folder."""

    name: str
    build: Callable[[Path], Built]


# -- reading the R-package CSV exports --------------------------------------------------------
def csv_rows(path: Path, header_rows: int) -> list[list[str]]:
    """The numeric rows of a CSV export, after its label rows."""
    with path.open(encoding="utf-8-sig", newline="") as handle:
        rows = list(csv.reader(handle))
    return [row for row in rows[header_rows:] if row and row[0].strip()]


def column(rows: list[list[str]], index: int) -> list[float]:
    return [float(row[index]) for row in rows]


def ages_of(rows: list[list[str]]) -> list[int]:
    """The rows' ages: whole numbers from the first published age, without gaps."""
    ages = [int(row[0]) for row in rows]
    if not ages or ages != list(range(ages[0], ages[0] + len(ages))):
        raise ValueError(f"ages must run on by one without gaps, got {ages[:5]}...")
    return ages


def from_age_0(values: list[float], first: int) -> list[float]:
    """A column published from age ``first``, with 0 below it, where the table says nothing."""
    return [0.0] * first + values


# -- the entries -------------------------------------------------------------------------------
def generational(
    rates: list[list[str]],
    trends: list[list[str]],
    columns_by_sex: dict[str, tuple[int, int]],
    generation: dict[str, Any],
    description: str,
    source: dict[str, Any],
) -> Built:
    """A generational life table whose base rates and trends are columns of the rows given.

    ``columns_by_sex`` maps each sex to (rate column, trend column). Rows that start above age 0
    make a table from age 0 with ``start_age`` at the first published age.
    """
    published = ages_of(rates)
    if ages_of(trends) != published:
        raise ValueError(f"{source['name']}: the rate and trend rows cover different ages")
    first, omega = published[0], published[-1]
    columns: Columns = {"age": list(range(omega + 1))}
    for kind, rows, index in (("qx", rates, 0), ("mi", trends, 1)):
        columns |= {
            f"{kind}_{sex}": from_age_0(column(rows, pair[index]), first)
            for sex, pair in columns_by_sex.items()
        }
    metadata = {
        "table_type": "life",
        "description": description,
        "sexes": list(columns_by_sex),
        "sex_independent": False,
        "omega": omega,
        **({"start_age": first} if first else {}),
        "generational": generation,
        "source": source,
    }
    return metadata, columns


def avoe_2005r(raw: Path) -> Built:
    """AVÖ 2005-R, individual annuitants, first order: base year 2001 with the damped trend."""
    rows = csv_rows(raw / "r-mortality-tables" / "Austria_Annuities_AVOe2005R.csv", 3)
    # Columns: age, qx2001, qx2001G, trendM, qy2001, qy2001G, trendF (first order, individual = no
    # "G"), then the second order (7-13), then the unisex table: 15 qu2001, 16 qu2001G, 17 trendU.
    return generational(
        rows,
        rows,
        {"m": (1, 3), "f": (4, 6), "u": (15, 17)},
        {"formula_type": "exponential_damped", "base_year": 2001},
        "AVÖ 2005-R annuitant mortality, individual contracts, first order (valuation basis), male, "
        "female and the association's own unisex table with its own trend: "
        "base year 2001 rates with the age-dependent trend lambda(x), damped by an arctangent, "
        "q(x, Y) = q(x, 2001) exp(-lambda(x) 100 atan((Y - 2001) / 100)) for Y = cohort + x. "
        "Ages 0-121, closed by q(121) = 1.",
        {
            "name": "AVÖ 2005-R Rententafel (Einzelrenten, 1. Ordnung)",
            "authority": "Aktuarvereinigung Österreichs (AVÖ)",
            "reference": "AVÖ 2005-R annuity valuation table, base year 2001 with trend lambda(x)",
            "year": 2005,
            "notes": "Full-precision columns of the published table; equal after rounding to the "
            "SOA table service's tables 2959, 2960 (base) and 2963, 2964 (trend).",
        },
    )


def dav_2004r(raw: Path) -> Built:
    """DAV 2004 R aggregate table, first order, with its single first-order trend."""
    folder = raw / "r-mortality-tables"
    # Rates: columns 11, 12 = aggregate table, first order, men, women. Trends: 9, 10 = first order F(x).
    return generational(
        csv_rows(folder / "Germany_Annuities_DAV2004R.csv", 4),
        csv_rows(folder / "Germany_Annuities_DAV2004R_Trends.csv", 4),
        {"m": (11, 9), "f": (12, 10)},
        {"formula_type": "exponential", "base_year": 1999},
        "DAV 2004 R annuitant mortality, aggregate table, first order (valuation basis): base "
        "year 1999 rates with the first-order trend F(x), q(x, Y) = q(x, 1999) exp(-F(x) (Y - 1999)) "
        "for Y = cohort + x. Ages 0-121, closed by q(121) = 1.",
        {
            "name": "DAV-Sterbetafel 2004 R (Aggregattafel, 1. Ordnung)",
            "authority": "Deutsche Aktuarvereinigung (DAV)",
            "reference": "DAV 2004 R: base table 1999 and trend function F(x), first order",
            "year": 2004,
        },
    )


def dav_1994r(raw: Path) -> Built:
    """DAV 1994 R: base year 2000 rates with the trend Fbar(x), log-linear."""
    rows = csv_rows(raw / "r-mortality-tables" / "Germany_Annuities_DAV1994R.csv", 3)
    # Columns: x, base (2000) m, f, trend m, f, then the age-shift base table and a YOB 1935 illustration.
    return generational(
        rows,
        rows,
        {"m": (1, 3), "f": (2, 4)},
        {"formula_type": "exponential", "base_year": 2000},
        "DAV 1994 R annuitant mortality: base year 2000 rates with the trend Fbar(x), "
        "q(x, Y) = q(x, 2000) exp(-Fbar(x) (Y - 2000)) for Y = cohort + x. Ages 0-111, closed by "
        "q(111) = 1.",
        {
            "name": "DAV-Sterbetafel 1994 R",
            "authority": "Deutsche Aktuarvereinigung (DAV)",
            "reference": "DAV 1994 R: base table 2000 and trend Fbar(x)",
            "year": 1994,
        },
    )


def iam_2012_g2(raw: Path) -> Built:
    """2012 IAM Period table (loaded) with Projection Scale G2: the generational 2012 IAM."""
    rows = csv_rows(raw / "r-mortality-tables" / "USA_Annuities_2012IAM.csv", 4)
    # Columns: age, basic q (m, f), period q (m, f), G2 (m, f), then a YOB 2025 illustration.
    return generational(
        rows,
        rows,
        {"m": (3, 5), "f": (4, 6)},
        {"formula_type": "compound", "base_year": 2012},
        "2012 Individual Annuity Mortality: the 2012 IAM Period table (loaded basic table) projected "
        "generationally with Projection Scale G2, q(x, Y) = q(x, 2012) (1 - G2(x))^(Y - 2012) for "
        "Y = cohort + x; age nearest birthday, ages 0-120, closed by q(120) = 1.",
        {
            "name": "2012 IAM Period Table with Projection Scale G2, ANB",
            "authority": "Society of Actuaries / American Academy of Actuaries; adopted by the NAIC",
            "reference": "2012 Individual Annuity Reserving Table report (SOA table service tables 2585, "
            "2586 for the period rates and 2583, 2584 for Scale G2)",
            "year": 2012,
        },
    )


def gar_1994_aa(raw: Path) -> Built:
    """1994 GAR with Projection Scale AA, generational from 1994; published from age 1."""
    rows = csv_rows(raw / "r-mortality-tables" / "USA_Annuities_1994GAR.csv", 4)
    # Columns: age, q (m), AA (m), q (f), AA (f), then the unloaded 1994 GAM Basic (m, f), not used.
    return generational(
        rows,
        rows,
        {"m": (1, 2), "f": (3, 4)},
        {"formula_type": "compound", "base_year": 1994},
        "1994 Group Annuity Reserving Table with Projection Scale AA, generational: the 1994 GAR "
        "rates (the loaded valuation table; the file's unloaded 1994 GAM Basic is not bundled) "
        "projected with Scale AA, q(x, Y) = q(x, 1994) (1 - AA(x))^(Y - 1994) for Y = cohort + x. "
        "Published from age 1 to 120, closed by q(120) = 1; rates are 0 at age 0 (start_age), "
        "where the table says nothing.",
        {
            "name": "1994 Group Annuity Reserving Table (1994 GAR) with Projection Scale AA",
            "authority": "Society of Actuaries, Group Annuity Valuation Table Task Force; "
            "adopted by the NAIC",
            "reference": "1994 Group Annuity Mortality Table and 1994 Group Annuity Reserving Table "
            "(Transactions of the Society of Actuaries, 1995), with Projection Scale AA",
            "year": 1994,
        },
    )


def dav_2008t(raw: Path) -> Built:
    """DAV 2008 T aggregate table, first order: a period table for death benefits."""
    rows = csv_rows(raw / "r-mortality-tables" / "Germany_Endowments_DAV2008T.csv", 5)
    # Men in columns 0-9, women in 10-19, each: age, smoker share, smoker excess mortality,
    # non-smoker factor, second order (aggregate, non-smoker, smoker), first order (the same three).
    ages = ages_of(rows)
    if ages[0] != 0 or [int(row[10]) for row in rows] != ages:
        raise ValueError("DAV 2008 T: the men's and women's blocks must both run from age 0")
    q = {"m": column(rows, 7), "f": column(rows, 17)}
    certain = {
        sex: next(x for x, rate in zip(ages, rates, strict=True) if rate >= 1) for sex, rates in q.items()
    }
    metadata = {
        "table_type": "life",
        "description": (
            "DAV 2008 T mortality for death benefits, aggregate table (smokers and non-smokers "
            "together), first order (valuation basis): the second-order aggregate rates with the "
            "34 % safety loading, q = min(1, 1.34 q2(x)) rounded to 6 decimals. A period table, "
            f"ages 0-{ages[-1]}; the loading makes the rates 1 from age {certain['m']} (men) and "
            f"{certain['f']} (women)."
        ),
        "sexes": ["m", "f"],
        "sex_independent": False,
        "omega": ages[-1],
        "source": {
            "name": "DAV-Sterbetafel 2008 T (Aggregattafel, 1. Ordnung)",
            "authority": "Deutsche Aktuarvereinigung (DAV)",
            "reference": "DAV 2008 T: aggregate, non-smoker and smoker tables, second order and first "
            "order (aggregate: 34 % loading)",
            "year": 2008,
        },
    }
    return metadata, {"age": ages} | {f"qx_{sex}": rates for sex, rates in q.items()}


def rp_2014_healthy_annuitant(raw: Path) -> Built:
    """RP-2014 healthy annuitant rates (total dataset), ages 50-120."""
    rows = csv_rows(raw / "r-mortality-tables" / "USA_PensionPlans_RP2014.csv", 4)
    # Columns: age, then males employee, healthy annuitant, disabled retiree, then the same for
    # females; the healthy annuitant rates are published from age 50.
    by_age = {int(row[0]): (row[2], row[5]) for row in rows}
    first = min(age for age, (male, _) in by_age.items() if male.strip())
    omega = max(by_age)
    ages = list(range(omega + 1))
    columns: Columns = {"age": ages}
    for sex, index in (("m", 0), ("f", 1)):
        columns[f"qx_{sex}"] = [float(by_age[x][index]) if x >= first else 0.0 for x in ages]
    metadata = {
        "table_type": "life",
        "description": (
            f"RP-2014 healthy annuitant mortality (total dataset): a period table published from age "
            f"{first} to {omega}; rates are 0 below age {first} (start_age), where the table says nothing."
        ),
        "sexes": ["m", "f"],
        "sex_independent": False,
        "omega": omega,
        "start_age": first,
        "source": {
            "name": "RP-2014 Healthy Annuitant, Total Dataset",
            "authority": "Society of Actuaries, Retirement Plans Experience Committee",
            "reference": "RP-2014 Mortality Tables report (SOA table service tables 3123 and 3124)",
            "year": 2014,
        },
    }
    return metadata, columns


def from_xtbml(
    files: tuple[str, ...],
    description: str,
    source: dict[str, Any] | None = None,
    *,
    scales: tuple[str, ...] = (),
    folder: str = "soa-xtbml",
    **options: Any,
) -> Callable[[Path], Built]:
    """An entry read by the XTbML importer from the SOA table service files, one per sex.

    ``source`` adds to (or replaces keys of) the ``[source]`` the importer reads from the files;
    ``scales`` are projection-scale files of the same folder, one per sex; ``folder`` is the
    raw folder that holds them (``soa-xtbml-all`` for the whole table service).
    """

    def build(raw: Path) -> Built:
        from veltrane.tables.xtbml import read_xtbml

        folder_path = raw / folder
        scale = {"scale": [folder_path / f for f in scales]} if scales else {}
        table = read_xtbml([folder_path / f for f in files], "CATALOGUE", **scale, **options)
        metadata = {**table.metadata, "description": description}
        metadata["sex_independent"] = False
        if source:
            metadata["source"] = {**metadata["source"], **source}
        return metadata, {k: v.tolist() for k, v in table.columns.items()}

    return build


def pbgc_disabled(raw: Path) -> Built:
    """PBGC Tables Va and VIa, men published to age 107 and women to 110, as one life table.

    The importer needs one age range per table; the men's rate at 107 is already certain death,
    so their column carries that certainty on to the women's last age, where no man is left.
    """
    from veltrane.tables.xtbml import read_xtbml

    folder = raw / "soa-xtbml-all"
    # The files' content type, "Disabled Lives Mortality", is mortality all the same.
    men, women = (
        read_xtbml([folder / name], "CATALOGUE", table_type="life") for name in ("t1154.xml", "t1155.xml")
    )
    male, female = men.columns["qx_m"].tolist(), women.columns["qx_f"].tolist()
    men_w, women_w = men.metadata["omega"], women.metadata["omega"]
    if male[men_w] != 1.0 or men_w > women_w or men.metadata["start_age"] != women.metadata["start_age"]:
        raise ValueError("PBGC Va / VIa: expected the men's table to end in certain death before the women's")
    metadata = {
        "table_type": "life",
        "description": PBGC_DISABLED.format(men=men_w, women=women_w, after=men_w + 1),
        "sexes": ["m", "f"],
        "sex_independent": False,
        "omega": women_w,
        "start_age": women.metadata["start_age"],
        "source": {
            "name": f"{men.metadata['source']['name']}; {women.metadata['source']['name']}",
            "table_identity": "1154; 1155",
            "provider": men.metadata["source"]["provider"],
            "reference": men.metadata["source"]["reference"],
            "content_type": men.metadata["source"]["content_type"],
            "notes": f"men's rates 1 from age {men_w + 1} to {women_w}, beyond their published ages",
        },
    }
    columns: Columns = {
        "age": list(range(women_w + 1)),
        "qx_m": male + [1.0] * (women_w - men_w),
        "qx_f": female,
    }
    return metadata, columns


CSO_2001 = (
    "2001 CSO select and ultimate, composite (smoker and nonsmoker combined): 25-year select period by "
    "issue age 0-99, select columns by attained age, ultimate rates from age 25; age nearest birthday."
)
CSO_2017 = (
    "2017 Loaded CSO select and ultimate, composite: 25-year select period by issue age 0-95, select "
    "columns by attained age; age nearest birthday. The US valuation standard for life insurance."
)
VBT_2015 = (
    "2015 VBT unismoke, male: valuation basic table (unloaded experience), 25-year select period by issue "
    "age 0-95, select columns by attained age; age nearest birthday."
)
MOORHEAD = (
    "1960 Moorhead Lapse Table R: voluntary termination rates by policy year. The rows are policy years "
    "1-30, not ages: read it at the policy year (exit rates from year 1), and note that the last row, "
    "like the last age of any table, is certain exit."
)
RP_2014_DISABLED = (
    "RP-2014 disabled retiree mortality (total dataset): deaths of pensioners retired for disability, "
    "a period table published from age 18 to 120. It is the mortality of the "
    "disabled state, read as a life table; it is not a table of disability incidence."
)

CIDA_1985 = (
    "1985 CIDA (Commissioners Individual Disability Table A) incidence rates, occupation class 1, "
    "accident and sickness, {days}-day elimination period: the yearly probability that an active "
    "life aged x becomes disabled, published from age 20 to 65; rates are 0 below age 20 (start_age), "
    "where the table says nothing."
)
PBGC_DISABLED = (
    "PBGC disabled-life mortality (Tables Va and VIa): deaths of disabled participants receiving "
    "Social Security disability benefits, a period table published from age 20, men to age {men} "
    "and women to {women}; the men's rate is 1 at {men}, and their column holds that 1 from age "
    "{after}, where no man is left. Rates are 0 below age 20 (start_age), where the table says nothing."
)
KRIEGER_RECOVERY = (
    "Krieger table of graduated ultimate disability recovery rates (years 11 and over since "
    "disablement, both sexes): the yearly probability that a disabled life aged x recovers, "
    "published from age 27 to 76 as a unisex exit table; rates are 0 below age 27 (start_age). "
    "The published rate at 76 is 0."
)

AM_92 = (
    "AM92 assured lives mortality, males, from the 1991-94 experience of permanent assurances "
    "(whole life and endowment): 2-year select period by issue age 17-90, select columns by "
    "attained age, ultimate rates from age 19; ages 17-120, closed by q(120) = 1."
)
PRI_2012_RETIREE = (
    "Pri-2012 retiree mortality (amount-weighted, total dataset) with Scale MP-2020, generational: "
    "the 2012 rates projected year by year, q(x, Y) = q(x, 2012) prod_{y=2013..Y} (1 - MP(x, y)) "
    "for Y = cohort + x after 2012 (and divided by prod_{y=Y+1..2012} (1 - MP(x, y)) before it); "
    "the scale's 2036 rates hold for later years, as the scale says. Published from age 50 to 120, "
    "closed by q(120) = 1; rates are 0 below age 50 (start_age), where the table says nothing."
)


CATALOGUE: tuple[Entry, ...] = (
    Entry(
        "CSO1980",
        from_xtbml(
            ("t42.xml", "t36.xml"),
            "1980 CSO: Commissioners Standard Ordinary mortality, ultimate, ages 0-99, age nearest birthday.",
        ),
    ),
    Entry("CSO2001", from_xtbml(("t1136.xml", "t1139.xml"), CSO_2001)),
    Entry("CSO2017", from_xtbml(("t3287.xml", "t3288.xml"), CSO_2017)),
    Entry("VBT2015UM", from_xtbml(("t3273.xml",), VBT_2015)),
    Entry("MOORHEAD_R", from_xtbml(("t751.xml",), MOORHEAD)),
    Entry("AVOE2005R", avoe_2005r),
    Entry("DAV1994R", dav_1994r),
    Entry("DAV2004R", dav_2004r),
    Entry("IAM2012", iam_2012_g2),
    Entry("RP2014HA", rp_2014_healthy_annuitant),
    Entry("RP2014DR", from_xtbml(("t3123.xml", "t3124.xml"), RP_2014_DISABLED, part=3)),
    Entry(
        "AM92",
        from_xtbml(
            ("t2360.xml",),
            AM_92,
            {
                "authority": "Continuous Mortality Investigation (Institute and Faculty of Actuaries)",
                "year": 1999,
            },
            sex="m",  # the file's name, "AM92", states no sex
        ),
    ),
    Entry(
        "CIDA1985_30",
        from_xtbml(("t1240.xml", "t1266.xml"), CIDA_1985.format(days=30), folder="soa-xtbml-all"),
    ),
    Entry(
        "CIDA1985_90",
        from_xtbml(("t1246.xml", "t1272.xml"), CIDA_1985.format(days=91), folder="soa-xtbml-all"),
    ),
    Entry("PBGC_DISABLED", pbgc_disabled),
    Entry(
        "KRIEGER_RECOVERY",
        from_xtbml(("t1584.xml",), KRIEGER_RECOVERY, folder="soa-xtbml-all", sex="u", table_type="exit"),
    ),
    Entry("DAV2008T", dav_2008t),
    Entry("GAR94", gar_1994_aa),
    Entry(
        "PRI2012R",
        from_xtbml(
            ("t3534.xml", "t3533.xml"),
            PRI_2012_RETIREE,
            {"authority": "Society of Actuaries, Retirement Plans Experience Committee", "year": 2020},
            scales=("t3610.xml", "t3609.xml"),
            base_year=2012,
        ),
    ),
)


DOCS_PAGE = ROOT / "docs" / "catalogue.md"
_DOCS_HEAD = """# The bundled tables

Every table below ships with the package and is found by name, for example
`LifeTable("IAM2012", "f", cohort=1960)`; `veltrane tables` lists them and
`veltrane show NAME` prints one. Except for the two textbook tables built from Makeham's law
(`tools/make_bundled_tables.py`), they are generated from the publishers' files by
`tools/make_catalogue.py`, which names the file and column each rate comes from. The names are
stable: a table is never renamed or changed in place; a corrected edition gets a new name.

`RP2014DR` and `PBGC_DISABLED` are the mortality of lives already disabled, life tables.
`CIDA1985_30` and `CIDA1985_90` are tables of disability incidence (`DisabilityTable`) and
`KRIEGER_RECOVERY` a table of recovery from disability (`ExitTable`); with a mortality table for
actives they make a `veltrane.multistate.DisabilityModel` (`docs/disability.md`), which reads an
incidence or recovery table at its published ages only (nobody becomes disabled with certainty at
the last age of CIDA). Incidence rates of your own become a `DisabilityTable` by name through
`TableSource.from_rates(name, rates, table_type="disability").register()` (`docs/guide.md`,
"Tables from data in memory").

| name | type | sexes | structure | ages | what it is | source |
|---|---|---|---|---|---|---|
"""


def render_docs(directory: Path = BUNDLED_TABLES_DIR) -> str:
    """The catalogue page, one row per bundled table, from the tables' own metadata."""
    rows = []
    for toml in sorted(directory.glob("*.toml")):
        source = TableSource.from_frame(toml.stem, _metadata(toml), pl.read_csv(toml.with_suffix(".csv")))
        lines = dict(line.split(": ", 1) for line in source._taxonomy_lines())
        cited = source.metadata.get("source", {})
        parts = [str(cited[k]) for k in ("authority", "year") if k in cited]
        if "table_identity" in cited:
            parts = [f"SOA table service, table {cited['table_identity']}"]
        origin = ", ".join(parts)
        what = source.description.split(":")[0].split(". ")[0]
        cells = [
            f"`{source.table_name}`",
            source.table_type,
            ", ".join(source.valid_sexes),
            lines["Structure"],
            f"{source.start_age}-{source.w}",
            what,
            origin,
        ]
        rows.append("| " + " | ".join(cell.replace("|", "/") for cell in cells) + " |\n")
    return _DOCS_HEAD + "".join(rows) + _service_section()


def _service_section() -> str:
    """The page's section on the SOA table service, which ``make_soa_store.py`` renders from its store."""
    spec = importlib.util.spec_from_file_location(
        "make_soa_store", Path(__file__).with_name("make_soa_store.py")
    )
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    saved = list(sys.path)  # the script puts the checkout's sources first; worker processes must not see them
    try:
        spec.loader.exec_module(module)
    finally:
        sys.path[:] = saved
    return module.docs_section()


def _metadata(toml: Path) -> dict[str, Any]:
    with toml.open("rb") as handle:
        return tomllib.load(handle)


def write_all(raw: Path, directory: Path) -> list[Path]:
    written = []
    for entry in CATALOGUE:
        metadata, columns = entry.build(raw)
        toml = write_table(directory, entry.name, metadata, columns)
        written += [toml, toml.with_suffix(".csv")]
    return written


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("raw", nargs="?", type=Path, default=DEFAULT_RAW, help="the raw published files")
    parser.add_argument("--check", action="store_true", help="compare with the bundled files; write nothing")
    args = parser.parse_args(argv)
    if not args.raw.is_dir():
        parser.error(f"no raw tables folder at {args.raw}")
    if not args.check:
        for path in write_all(args.raw, BUNDLED_TABLES_DIR):
            print(f"wrote {path}")
        DOCS_PAGE.write_text(render_docs(), encoding="utf-8")
        print(f"wrote {DOCS_PAGE}")
        return 0
    with tempfile.TemporaryDirectory() as scratch:
        stale = [
            path.name
            for path in write_all(args.raw, Path(scratch))
            if not filecmp.cmp(path, BUNDLED_TABLES_DIR / path.name, shallow=False)
        ]
    for name in stale:
        print(f"differs from its raw source: {name}")
    return 1 if stale else 0


if __name__ == "__main__":
    sys.exit(main())
