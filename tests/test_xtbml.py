"""XTbML import on small hand-written files: each structure, each quirk, each refusal, bad input."""

from __future__ import annotations

import os
import re

import numpy as np
import pytest

from veltrane.config import Config
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource
from veltrane.tables.xtbml import XTbMLError, XTbMLUnsupportedError, import_xtbml, read_xtbml, reader
from xtbml_files import axis_def, select_cells, table_1d, table_2d, xtbml, ys

SCALE = "Projection Scale"


@pytest.fixture
def out(tmp_path):
    directory = tmp_path / "out"
    with Config().override(tables_path=[directory]):
        yield directory
    TableSource.clear_cache()


def test_ultimate_table_with_bom_starts_at_its_first_age(tmp_path, out):
    rates = {20: 0.001, 21: 0.002, 22: 0.5, 23: 1.0}
    import_xtbml(xtbml(tmp_path / "u.xml", table_1d("Age", rates), name="Period - Female, ALB"), "ULT", out)
    source = TableSource("ULT")
    assert (source.valid_sexes, source.start_age, source.w) == (["f"], 20, 23)
    m = source.metadata["source"]
    assert (m["name"], m["table_identity"], m["age_basis"]) == ("Period - Female, ALB", "9001", "ALB")
    table = LifeTable("ULT", "f")
    assert [table.qx(a) for a in rates] == list(rates.values())
    assert table.lx(20) == table.lx(0)  # no mortality is made up below the first published age


def test_select_blocks_of_different_age_ranges_reindex_to_attained_age(tmp_path, out):
    first, second = select_cells(range(30, 33), (1, 2)), select_cells(range(33, 35), (1, 2), base=0.002)
    ult = {x: round(0.01 * (x - 30) + 0.001, 6) for x in range(32, 40)} | {40: 1.0}
    blocks = (table_2d("Age", "Duration", first), table_2d("Age", "Duration", second), table_1d("Age", ult))
    import_xtbml(xtbml(tmp_path / "s.xml", *blocks), "SEL", out)
    for (issue, d), q in (first | second).items():
        assert LifeTable("SEL", "m", duration=d).qx(issue + d - 1) == q
    assert TableSource("SEL").start_age == 30  # the select block's first age, below the ultimate's
    ultimate = LifeTable("SEL", "m", duration=3)
    assert [ultimate.qx(x) for x in ult] == list(ult.values())
    assert ultimate.qx(31) == 0.0  # below the first ultimate age: nothing published, nothing made up
    # Attained ages that no published issue age reaches take the ultimate rate.
    assert LifeTable("SEL", "m", duration=1).qx(38) == ult[38]


def test_ultimate_block_with_one_value_duration_axis(tmp_path, out):
    cells = select_cells(range(17, 20), (1, 2))
    ult_axes = axis_def("Age", 19, 22) + axis_def("Duration", 3, 3, step=0)
    ages = ys({19: 0.1, 20: 0.2, 21: 0.3, 22: 1})  # the one-value axis left out of <Values>
    ult = f"<Table><MetaData>{ult_axes}</MetaData><Values><Axis>{ages}</Axis></Values></Table>"
    import_xtbml(xtbml(tmp_path / "am.xml", table_2d("Age", "Duration", cells), ult), "AM", out)
    assert TableSource("AM").select_period == 2
    assert LifeTable("AM", "m", duration="ult").qx(21) == 0.3
    assert LifeTable("AM", "m", duration=2).qx(19) == cells[(18, 2)]


def test_lapse_table_by_duration_is_an_exit_table_indexed_by_policy_year(tmp_path, out):
    table = table_1d("Duration", {1: 0.07, 2: 0.05, 3: 0.035, 4: 0.03})
    path = xtbml(tmp_path / "l.xml", table, name="Lapse Table R", content="Termination Voluntary")
    import_xtbml(path, "LAPSE", out)
    source = TableSource("LAPSE")
    assert (source.table_type, source.valid_sexes, source.start_age) == ("exit", ["u"], 1)
    assert "policy years" in source.metadata["source"]["notes"]
    table = ExitTable("LAPSE", "u")
    assert [table.qx(d) for d in (1, 2, 3)] == [0.07, 0.05, 0.035]  # the last row closes the table


def test_year_axis_tagged_age_is_read_by_its_name_as_year_of_birth(tmp_path, out):
    years = range(1950, 1954)
    cells = {(a, c): round(0.01 * (a + 1) * (1 - 0.01 * (c - 1950)), 12) for a in range(4) for c in years}
    cells |= {(4, c): 1.0 for c in years}
    table = table_2d("Age", "Year", cells, inner_scale="Age")
    import_xtbml(xtbml(tmp_path / "g.xml", table, content="Generational Mortality"), "GEN", out)
    assert TableSource("GEN").generational
    for cohort in [*years, 1960]:  # beyond the published years of birth: the last one's rates
        table = LifeTable("GEN", "m", cohort=cohort)
        want = [cells[(age, min(cohort, 1953))] for age in range(4)]
        assert table.qx(np.arange(4.0)) == pytest.approx(want, rel=1e-9, abs=1e-12)


@pytest.mark.parametrize("formula", ["compound", "exponential", "exponential_damped"])
def test_base_and_scale_by_age_make_a_generational_table(tmp_path, out, formula):
    b = xtbml(
        tmp_path / "b.xml", table_1d("Age", {a: 0.01 * (a + 1) for a in range(5)}), name="2012 Base - Male"
    )
    scale = table_1d("Age", {a: 0.02 for a in range(4)})  # one age short: extended flat
    import_xtbml(b, "PAIR", out, scale=xtbml(tmp_path / "s.xml", scale, content=SCALE), formula=formula)
    source = TableSource("PAIR")
    assert (source.generational_formula_type, source.base_year) == (formula, 2012)
    assert source.data["mi_m"].to_list() == [0.02] * 5
    assert LifeTable("PAIR", "m", cohort=2012).qx(0) == 0.01  # the base year itself


def test_base_and_scale_by_calendar_year_are_projected_year_by_year(tmp_path, out):
    base = {a: 0.01 * (a + 1) for a in range(3)}
    scale = {(a, y): 0.01 * (y - 2019) for a in range(1, 3) for y in (2020, 2021)}
    b = xtbml(tmp_path / "b.xml", table_1d("Age", base), name="Base - Female")
    s = xtbml(tmp_path / "s.xml", table_2d("Age", "Year", scale), name="Scale MP - Female", content=SCALE)
    import_xtbml(b, "MP", out, scale=s, base_year=2019)
    source = TableSource("MP")
    assert (source.generational_formula_type, source.grid_years) == ("projected_improvement", [2020, 2021])
    assert source.data["mi_f_2021"].to_list() == [0.02, 0.02, 0.02]  # age 0 takes the first age's rate
    # Born 2020: age 0 is 2020 (one year at 1%), age 1 is 2021 (1% then 2%).
    assert LifeTable("MP", "f", cohort=2020).qx(1) == pytest.approx(base[1] * 0.99 * 0.98)


def test_one_file_per_sex_makes_one_table_and_a_part_of_a_file_imports_alone(tmp_path, out):
    m = xtbml(tmp_path / "m.xml", table_1d("Age", {0: 0.1, 1: 1.0}), name="T - Male")
    f = xtbml(tmp_path / "f.xml", table_1d("Age", {0: 0.2, 1: 1.0}), name="T - Female", bom=False)
    import_xtbml([m, f], "MF", out)
    assert TableSource("MF").valid_sexes == ["m", "f"]
    assert LifeTable("MF", "f").qx(0) == 0.2
    path = xtbml(tmp_path / "p.xml", table_1d("Age", {0: 0.1}), table_1d("Age", {0: 0.3, 1: 1.0}))
    import_xtbml(path, "P2", out, part=2)
    assert LifeTable("P2", "m").qx(0) == 0.3


def _in_file(table: str) -> str:
    return f"<XTbML><ContentClassification/>{table}</XTbML>"


AXIS_WITHOUT_MAX = (
    "<Table><MetaData><AxisDef id='Age'><AxisName>Age</AxisName><MinScaleValue>0</MinScaleValue>"
    "<Increment>1</Increment></AxisDef></MetaData><Values/></Table>"
)


def _declared(encoding: str, body: str, codec: str | None = None) -> bytes:
    return f'<?xml version="1.0" encoding="{encoding}"?>{body}'.encode(codec or encoding)


DOCTYPE = '<!DOCTYPE XTbML [<!ENTITY a "b">]><XTbML>&a;</XTbML>'
NESTED = "<XTbML>" + "<a>" * reader.MAX_DEPTH + "</a>" * reader.MAX_DEPTH + "</XTbML>"
NOT_ACCEPTED = "<!DOCTYPE>/<!ENTITY> declarations are not accepted"
LONG_TEXT = f"<XTbML><ContentClassification><TableName>{'a ' * reader.MAX_TEXT}</TableName>"
LONG_TAG = f"<XTbML a='{'x' * 2 * reader.MAX_TEXT}'/>"  # checked as the file is fed: past a feed's length

# Limits small files can reach, each refused as the parser reaches it, in any encoding.
# fmt: off
HOSTILE = [
    pytest.param(_declared("utf-8", DOCTYPE), NOT_ACCEPTED, id="doctype"),
    pytest.param(_declared("utf-16", DOCTYPE), NOT_ACCEPTED, id="utf-16 doctype"),  # no bytes "<!DOCTYPE"
    pytest.param(_declared("bogus", "<XTbML/>", "ascii"), "encoding 'bogus' of the XML declaration is not",
                 id="unknown encoding"),
    pytest.param(_declared("utf-7", "<XTbML/>"), "encoding 'utf-7' of the XML declaration is not",
                 id="multi-byte codec"),
    pytest.param(NESTED.encode(), "<a> nested more than 32 deep", id="depth"),
    pytest.param(LONG_TEXT.encode(), "<TableName> holds more than 1000000 characters", id="long text"),
    pytest.param(LONG_TAG.encode(), "a tag or comment of more than 1000000 bytes", id="long tag"),
]
# fmt: on


@pytest.mark.parametrize(
    ("text", "message"),
    [
        ("<XTbML><ContentClassification>", "not well-formed XML"),
        ("<html></html>", "not an XTbML file (root element <html>"),
        ("<XTbML><Table/></XTbML>", "<ContentClassification> missing"),
        ("<XTbML><ContentClassification/></XTbML>", "no <Table> element"),
        (_in_file(AXIS_WITHOUT_MAX), "<Table> 1, <AxisDef id='Age'>: <MaxScaleValue> missing"),
        (_in_file(table_1d("Age", {0: "abc"})), "<Table> 1, <Y t='0'>: value 'abc' is not a number"),
        (_in_file(table_1d("Age", {0: "1.5"})), "<Table> 1, Age 0: rate 1.5 outside [0, 1]"),
        (_in_file(table_1d("Age", {0: 0.1, 1: "", 2: 0.1})), "<Table> 1: no value for Age 1"),
        *[  # the number rules of table files: ASCII decimals, no underscores or other scripts' digits
            (_in_file(table_1d("Age", {0: value})), f"<Y t='0'>: value {value!r} is not a number")
            for value in ("0.00_1", "\u0661", "\uff10.\uff15", "nan")
        ],
        *[
            (_in_file(table_1d("Age", {0: 0.1}).replace('t="0"', f't="{t}"')), f"<Y t> {t!r} is not a whole")
            for t in ("2_0", "\u0662", "+0")
        ],
        (_in_file(table_1d("Age", {0: 0.1}).replace(">0<", ">0_0<", 1)), "<MinScaleValue> '0_0' is not"),
        *HOSTILE,
    ],
)
def test_bad_input_names_file_and_element_in_one_line_and_writes_nothing(tmp_path, out, text, message):
    path = tmp_path / "bad.xml"
    path.write_bytes(text if isinstance(text, bytes) else text.encode())
    with pytest.raises(XTbMLError) as info:
        import_xtbml(path, "BAD", out)
    assert str(info.value).startswith(f"{path}: ") and message in str(info.value)
    assert "\n" not in str(info.value) and len(str(info.value)) < 300
    assert not out.exists()


def test_element_count_is_bounded_while_parsing(tmp_path, out, monkeypatch):
    path = xtbml(tmp_path / "many.xml", table_1d("Age", {a: 0.01 for a in range(40)}))
    monkeypatch.setattr(reader, "MAX_ELEMENTS", 60)  # the file holds about 100 elements and attributes
    with pytest.raises(XTbMLError, match=f"^{re.escape(str(path))}: more than 60 elements and attributes"):
        import_xtbml(path, "MANY", out)


@pytest.mark.parametrize(
    ("encoding", "xmlns"), [("utf-16", ""), ("iso-8859-1", ""), ("utf-8", ' xmlns="urn:x-xtbml"')]
)
def test_declared_encodings_and_a_default_namespace_are_read(tmp_path, out, encoding, xmlns):
    # Published forms of numbers beyond the table files' own: no leading zero, an exponent.
    ages = table_1d("Age", {0: ".0144", 1: "1.25e-05", 2: 1})
    text = xtbml(tmp_path / "x.xml", ages, name="Tafel - Männer").read_text(encoding="utf-8-sig")
    text = text.replace('encoding="utf-8"', f'encoding="{encoding}"').replace("<XTbML>", f"<XTbML{xmlns}>")
    (tmp_path / "x.xml").write_bytes(text.encode(encoding))
    imported = read_xtbml(tmp_path / "x.xml", "ENC")
    assert imported.metadata["sexes"] == ["m"]  # "Männer", decoded as declared
    assert imported.columns["qx_m"].tolist() == [0.0144, 1.25e-05, 1.0]


BANDED = table_2d("Age", "Duration", {(0, 1): 0.1, (5, 1): 0.1}).replace("<Increment>1", "<Increment>5", 1)
HUGE = 10**6  # the largest number an axis may declare


def _one_block(axes: str, body: str) -> str:
    return f"<Table><MetaData>{axes}</MetaData><Values>{body}</Values></Table>"


SELECT_GAP = {(3, 1): 0.1, (3, 3): 0.2, (4, 1): 0.1, (4, 2): 0.1, (4, 3): 0.1}  # issue age 3 lacks duration 2


# Hostile files (huge spans, gaps) are refused early, without huge vectors or long loops.
# fmt: off
REFUSED_STRUCTURES = [  # the blocks, the content type, the message after the file's name
    pytest.param([table_1d("Age", {0: 0.1}), table_1d("Age", {0: 0.2})], None,
                 "cannot map .*2 age-only tables in one file", id="several"),
    pytest.param([BANDED, table_1d("Age", {0: 0.1, 1: 0.1})], None, "cannot map .*ages in steps of 5",
                 id="banded"),
    pytest.param([table_2d("Month", "Age", {(1, 20): 0.1, (2, 20): 0.1})], None,
                 "cannot map .*no decrement-table form", id="months"),
    pytest.param([table_1d("Age", {0: 0.01})], SCALE,
                 "cannot map .*a projection scale is not a decrement table by itself", id="scale alone"),
    pytest.param([table_1d("Age", {-2: 0.1, -1: 0.2, 0: 1.0})], None, "<Y t='-2'>: Age -2 outside 0..1000",
                 id="negative ages"),
    pytest.param([_one_block(axis_def("Age", 0, HUGE), f"<Axis>{ys({HUGE - 1: 0.1, HUGE: 1})}</Axis>")],
                 None, "Age 999999", id="huge span"),
    pytest.param(  # a select period of a million years over one cell
        [_one_block(axis_def("Age", 0, 1) + axis_def("Duration", 1, HUGE),
                    f"<Axis t='0'><Axis>{ys({1: 0.1})}</Axis></Axis>"), table_1d("Age", {0: 0.1, 1: 1.0})],
        None, "a select period of 1000000 years", id="huge select period"),
    pytest.param(  # years of birth a million years apart: a grid of two million calendar years
        [_one_block(axis_def("Age", 0, 1) + axis_def("Year", -HUGE, HUGE),
                    f"<Axis t='0'><Axis>{ys({-HUGE: 0.1})}</Axis></Axis>")],
        "Generational Mortality", "Year -1000000 is not a calendar year", id="huge year span"),
    pytest.param([table_2d("Age", "Duration", SELECT_GAP), table_1d("Age", {x: 0.1 for x in range(4, 9)})],
                 None, "<Table> 1: no value for issue age 3, duration 2", id="select gap"),
]
# fmt: on


@pytest.mark.parametrize(("tables", "content", "message"), REFUSED_STRUCTURES)
def test_unmappable_and_hostile_structures_are_refused_naming_them(tmp_path, out, tables, content, message):
    path = xtbml(tmp_path / "h.xml", *tables, **({"content": content} if content else {}))
    error = XTbMLUnsupportedError if message.startswith("cannot map") else XTbMLError
    with pytest.raises(error, match=f"^{re.escape(str(path))}: .*{message}"):
        import_xtbml(path, "H", out)
    assert not out.exists()


def test_pairings_scales_arguments_and_paths_that_cannot_make_a_table_are_refused(tmp_path, out):
    fifo = tmp_path / "pipe.xml"
    os.mkfifo(fifo)
    with pytest.raises(XTbMLError, match=r"pipe\.xml: not a regular file"):
        import_xtbml(fifo, "P", out)
    with pytest.raises(XTbMLError, match="not a regular file"):
        import_xtbml(tmp_path, "P", out)
    with pytest.raises(FileNotFoundError):
        import_xtbml(tmp_path / "missing.xml", "P", out)

    def scale(name, table, label="S - Male"):
        return xtbml(tmp_path / name, table, name=label, content=SCALE)

    b = xtbml(tmp_path / "b.xml", table_1d("Age", {0: 0.1, 1: 1.0}), name="2012 Base - Male")
    no_year = xtbml(tmp_path / "p.xml", table_1d("Age", {0: 0.1}), name="Base - Male")
    named_9999 = xtbml(tmp_path / "n.xml", table_1d("Age", {0: 0.1}), name="Base 9999 Base Year - Male")
    by_age = scale("a.xml", table_1d("Age", {0: 0.01, 1: 0.0}))
    by_year = scale("y.xml", table_2d("Age", "Year", {(0, 2020): 0.01}), "S - Female")
    wild = scale("w.xml", table_1d("Age", {0: 5.0, 1: 0.0}))
    compound = {"scale": by_age, "formula": "compound"}
    cases = [
        (b, {"scale": by_age}, "needs formula="),
        (no_year, compound, "states no single base year"),
        (b, {"formula": "compound"}, "apply only with a scale"),
        (b, compound | {"scale": [by_age, by_year]}, "mix a scale by age with a scale by age and calendar"),
        (b, compound | {"scale": wild}, r"Age 0: improvement 5.0 outside \(-1, 1\)"),
        *[
            (b, compound | {"base_year": y}, "base_year must be a calendar year")
            for y in (0, 3001, True, "2012")
        ],
        (named_9999, compound, "base year 9999, not a calendar year"),
        (b, {"part": True}, "part must be a whole number"),
        (b, {"table_type": ["life"]}, "table_type must be one of"),
        (b, {"year": 2000}, "year= applies to a table of rates by age and calendar year"),
        (b, {"year": "2000"}, "year must be a calendar year"),
    ]
    for base, kwargs, message in cases:
        with pytest.raises(XTbMLError, match=message):
            read_xtbml(base, "X", **kwargs)
    for name in ("a/b", "a\\b", "a\nb", ""):  # refused before any file is read
        with pytest.raises(ValueError, match="bare file name"):
            read_xtbml(tmp_path / "missing.xml", name)
    with pytest.raises(TypeError, match="a path or a sequence of paths"):
        read_xtbml(b"b.xml", "X")


@pytest.mark.parametrize(
    ("name", "content"),
    [
        ("Population Life Tables 2000-2002 - Male", "Population Mortality"),
        ("Mortality Rates for the period 2000-2002 - Male", "Generational Mortality"),  # rates by period
    ],
)
def test_rates_by_age_and_calendar_year_are_read_one_year_at_a_time(tmp_path, name, content):
    cells = {
        (a, y): round(0.01 * (a + 1) - 0.001 * (y - 2000), 6) for a in range(3) for y in range(2000, 2003)
    }
    path = xtbml(tmp_path / "p.xml", table_2d("Age", "Year", cells), name=name, content=content)
    with pytest.raises(XTbMLUnsupportedError, match=r"calendar year 2000-2002 .* pick one year with year=Y"):
        read_xtbml(path, "POP")
    table = read_xtbml(path, "POP", year=2001)
    assert table.columns["qx_m"].tolist() == [cells[(a, 2001)] for a in range(3)]
    assert "generational" not in table.metadata and table.metadata["description"].endswith(", 2001")
    with pytest.raises(XTbMLError, match="has no calendar year 1999"):
        read_xtbml(path, "POP", year=1999)
