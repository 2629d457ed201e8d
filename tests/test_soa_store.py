"""The SOA table service by number: the bundled store holds what the published files give, and every
table loaded by number gives its file's rates back."""

from __future__ import annotations

import random

import numpy as np
import pytest

from conftest import RAW
from test_cli import run
from veltrane.config import Config
from veltrane.tables import soa
from veltrane.tables.disability import DisabilityTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource, write_table
from veltrane.tables.xtbml import XTbMLError, XTbMLUnsupportedError, read_xtbml, write_xtbml
from veltrane.tables.xtbml.reader import read_document

SERVICE = RAW / "soa-xtbml-all"
needs_raw = pytest.mark.skipif(not SERVICE.is_dir(), reason="published tables not available")
CLASSES = {"life": LifeTable, "exit": ExitTable, "disability": DisabilityTable}
SAMPLE = 25


def rows(kind: str) -> list[dict]:
    found = []
    for row in soa.store().catalogue()["tables"]:
        if "generational" in row["structure"] or "record" in row:
            continue
        if row["structure"].startswith("select") == (kind == "select"):
            found.append(row)
    return found


@pytest.fixture(scope="module")
def sample_seed() -> int:
    seed = random.randrange(2**32)
    print(f"SOA sample seed {seed}")  # shown with a failure: the sample can be drawn again
    return seed


def table_of(name: str, **keys):
    source = TableSource(name)
    return CLASSES[source.table_type](name, source.valid_sexes[0], **keys)


def rates(name: str, duration: int | str | None = None) -> dict[int, tuple[float, float]]:
    """By age: the stored rate of the column ``duration`` chooses, and the rate ``view_data`` shows."""
    source = TableSource(name)
    prefix = {"life": "qx", "disability": "ix", "exit": "ox"}[source.table_type]
    suffix = "" if duration is None else f"_s{duration}" if duration != "ult" else "_ult"
    column = source.data[f"{prefix}_{source.valid_sexes[0]}{suffix}"].to_list()
    frame = table_of(name, **({} if duration is None else {"duration": duration})).view_data()
    read = dict(zip(frame["age"].to_list(), frame[frame.columns[1]].to_list(), strict=True))
    return {age: (column[age], value) for age, value in read.items()}


def check(read: dict[int, tuple[float, float]], age: int, published: float, where: object) -> None:
    stored, rounded = read[age]
    assert stored == published, where
    assert abs(rounded - published) <= 5.0001e-13, where  # half a unit of the 12th decimal


@needs_raw
def test_the_bundled_store_holds_what_the_published_files_give():
    built_index, built_chunks = soa.build_store(SERVICE)
    index, chunks = soa.unpack(soa.STORE_PATH.read_bytes())
    assert built_index == index
    assert built_chunks == chunks  # the text of every value, so every double bit for bit


@needs_raw
def test_one_dimensional_tables_by_number_equal_their_files_at_every_cell(sample_seed):
    for row in random.Random(sample_seed).sample(rows("period"), SAMPLE):
        blocks = read_document(SERVICE / f"t{row['number']}.xml").blocks
        if (row["part"] or 0) > len(blocks):  # a calendar year of a table by age and year
            cells = {(age,): q for (age, year), q in blocks[0].cells.items() if year == row["part"]}
        else:
            cells = blocks[(row["part"] or 1) - 1].cells
        read = rates(row["name"])
        for (age,), published in cells.items():
            check(read, age, published, (row["name"], age))


@needs_raw
def test_select_tables_by_number_equal_their_files_at_every_issue_age_and_duration(sample_seed):
    for row in random.Random(sample_seed + 1).sample(rows("select"), SAMPLE):
        blocks = read_document(SERVICE / f"t{row['number']}.xml").blocks
        first = blocks[0].axes[1].values[0]  # the first select duration of the file
        for block in blocks[:-1]:
            for (issue, d), published in block.cells.items():
                column = d - first + 1
                read = rates(row["name"], column)
                check(read, issue + column - 1, published, (row["name"], issue, d))
        ultimate = rates(row["name"], "ult")
        for key, published in blocks[-1].cells.items():
            check(ultimate, key[0], published, (row["name"], key))


def test_a_table_by_number_is_read_with_its_class_sex_and_source(tmp_path):
    assert LifeTable("SOA3299", "m", duration=1).start_age == 18
    source = TableSource("SOA3299")
    assert source is TableSource("SOA3299")  # the source cache serves later loads
    assert (source.select_period, source.metadata["source"]["table_identity"]) == (25, "3299")
    # lapse by policy year, claim incidence, mortality of disabled lives, the second of three tables in a file
    kinds = {"SOA751": "exit u", "SOA1246": "disability m", "SOA1154": "life m", "SOA3123_2": "life m"}
    for name, kind in kinds.items():
        assert f"{TableSource(name).table_type} {' '.join(TableSource(name).valid_sexes)}" == kind
    whole, first = TableSource("SOA3123"), TableSource("SOA3123_1")
    assert whole.table_name == "SOA3123"
    assert whole.data.equals(first.data) and not whole.data.equals(TableSource("SOA3123_2").data)
    # A table file of that name comes before the store.
    write_table(tmp_path, "SOA3299", {"table_type": "life"}, {"age": [0, 1], "qx_u": [0.5, 1.0]})
    with Config().override(tables_path=[tmp_path]):
        assert TableSource("SOA3299").valid_sexes == ["u"]
    assert TableSource("SOA3299").valid_sexes == ["m"]
    # SSA period rates 1900-2007 (t1501): the year is the calendar year, not the year of birth.
    assert TableSource("SOA1501_2007").data["qx_m"][90] == 0.174013
    assert TableSource("SOA1501_1900").data["qx_m"][90] == 0.269703
    with pytest.raises(XTbMLUnsupportedError, match="its tables are SOA1501_1900 to SOA1501_2007"):
        TableSource("SOA1501")


@pytest.mark.parametrize(
    ("name", "error", "words"),
    [
        ("SOA99999", FileNotFoundError, "no table 99999 in the SOA table service bundled here"),
        ("SOA3300000", FileNotFoundError, "not found"),  # too long for a number: an ordinary name
        ("SOA3123_7", FileNotFoundError, "has the parts SOA3123_1, SOA3123_2, SOA3123_3"),
        ("SOA3299_1", FileNotFoundError, "is one table; its name is SOA3299"),
        ("SOA1478", XTbMLUnsupportedError, "t1478.xml: cannot map Month[4-24]"),
    ],
)
def test_a_number_that_is_not_a_table_is_one_clear_line(name, error, words):
    with pytest.raises(error) as info:
        TableSource(name)
    assert words in str(info.value) and "\n" not in str(info.value)


def test_show_by_number_and_a_wrong_number_is_answered_with_close_names(capsys):
    code, out, _ = run(capsys, "show", "SOA3299", "--duration", "1", "--rows", "2")
    assert code == 0 and "2017 Loaded CSO Preferred Structure Nonsmoker Super Preferred Male ANB" in out
    for wrong, close in (("SOA32999", "close numbers: SOA3299"), ("soa3299", "SOA3299")):
        code, out, err = run(capsys, "show", wrong)
        assert (code, out) == (2, "") and close in err and len(err.strip().splitlines()) == 1


@pytest.mark.parametrize("data", [b"", b"not a store", soa.STORE_PATH.read_bytes()[:60]])
def test_a_damaged_store_is_refused_with_a_message(data):
    with pytest.raises(ValueError, match="store"):
        soa.Store.parse(data, "damaged")


@pytest.mark.parametrize(
    "search",
    [
        "2017 Loaded CSO Preferred Structure Nonsmoker Super Preferred Male",
        "male preferred super NONSMOKER 2017 loaded cso structure preferred",  # any order, any case
        ["2017 Loaded", "super preferred 3299"],
    ],
)
def test_the_catalogue_searches_the_service_after_the_curated_tables(search):
    import veltrane

    found = veltrane.catalogue(search=search)
    assert "SOA3299" in found["name"].to_list()
    row = found.filter(found["name"] == "SOA3299").row(0, named=True)
    keys = ("number", "content_type", "nation", "table_class", "sexes", "ages", "location")
    want = [3299, "CSO / CET", "United States of America", "LifeTable", ["m"], "18-120", "SOA table service"]
    assert [row[k] for k in keys] == want
    title = "2017 Loaded CSO Preferred Structure Nonsmoker Super Preferred Male ANB"
    assert row["table_name"] == row["source"] == title
    assert veltrane.catalogue(search=search, soa=False).height == 0


def test_the_catalogue_lists_every_table_once_after_the_curated_ones_and_every_file_is_accounted_for():
    import veltrane

    everything = veltrane.catalogue()
    names = everything["name"].to_list()
    assert len(names) == len(set(names))
    service = everything.filter(everything["location"] == "SOA table service")
    assert service.height == len(soa.store().tables)
    assert names[-service.height :] == service["name"].to_list()  # the service comes last
    # Every file of the service maps or is refused with its reason.
    found = soa.store()
    mapped = {r["number"] for r in found.catalogue()["tables"]}
    refused = {r["number"] for r in found.catalogue()["refused"]}
    assert found.files == 3012 and set(found.numbers) == mapped | refused
    assert len(mapped) >= 2700  # files of which at least one table is available


def test_tables_search_and_the_refused_files_on_the_command_line(capsys):
    code, out, _ = run(capsys, "tables", "--search", "2017", "CSO", "select")
    assert code == 0
    curated, service = out.split("SOA table service")
    assert "CSO2017" in curated and "SOA3299" in service and "CSO2017" not in service
    code, out, _ = run(capsys, "tables", "--soa", "--refused", "--wide")
    lines = out.splitlines()
    assert code == 0 and len(lines) == len(soa.store().refused)
    assert any(line.startswith("SOA1478 ") and "t1478.xml: cannot map Month[4-24]" in line for line in lines)
    code, _, err = run(capsys, "tables", "--refused")
    assert code == 2 and "--soa" in err


def test_a_projection_scale_is_the_scale_of_a_base_table_by_number(tmp_path):
    (base,) = write_xtbml("SOA2585", tmp_path / "iam-m.xml")  # 2012 IAM Period Table, male
    table = read_xtbml(base, "IAM_M", scale="SOA2583", formula="compound", base_year=2012)
    bundled = TableSource("IAM2012").data  # the same two files, with the scale of each sex
    for column in ("qx_m", "mi_m"):
        assert np.array_equal(table.columns[column], bundled[column].to_numpy()), column
    assert table.metadata["source"]["table_identity"] == "2585; 2583"
    with pytest.raises(XTbMLUnsupportedError, match='by number: scale="SOA2583"'):
        TableSource("SOA2583")
    for scale in ("SOA3299", "SOA99999"):  # a table, not a scale; no such number
        with pytest.raises(XTbMLError, match=f"{scale}: no file of that name, and no projection scale"):
            read_xtbml(base, "A", scale=scale, formula="compound", base_year=2012)


@needs_raw
def test_a_scale_by_number_is_the_scale_file():
    for scale, base in (("3610", "3534"), ("2583", "2585")):
        options = {"base_year": 2012} | ({"formula": "compound"} if scale == "2583" else {})
        by_file = read_xtbml(SERVICE / f"t{base}.xml", "A", scale=SERVICE / f"t{scale}.xml", **options)
        by_number = read_xtbml(SERVICE / f"t{base}.xml", "A", scale=f"SOA{scale}", **options)
        assert by_file.metadata == by_number.metadata
        assert by_file.columns.keys() == by_number.columns.keys()
        for column, values in by_file.columns.items():
            assert np.array_equal(values, by_number.columns[column]), column


def _qx_in_a_fresh_process(table: LifeTable) -> float:
    return table.qx(40)


def test_a_table_by_number_reaches_a_fresh_process_by_name():
    import multiprocessing
    import pickle

    table = LifeTable("SOA3299", "m", duration=3)
    assert pickle.loads(pickle.dumps(table)).qx(40) == table.qx(40)
    with multiprocessing.get_context("spawn").Pool(1) as pool:  # no state shared: the store is found again
        assert pool.apply(_qx_in_a_fresh_process, (table,)) == table.qx(40)
