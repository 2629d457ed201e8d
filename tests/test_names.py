"""Names are discoverable: the lazily loading modules list what they load, and every listed name loads."""

from __future__ import annotations

import importlib

import pytest

from veltrane import LifeTable


@pytest.mark.parametrize("module", ["veltrane", "veltrane.tables", "veltrane.portfolio"])
def test_lazy_names_are_listed_and_load(module):
    mod = importlib.import_module(module)
    listed = dir(mod)
    for name in mod.__all__:
        assert name in listed
        assert getattr(mod, name) is not None
    with pytest.raises(AttributeError, match=f"module '{module}' has no attribute 'nope'"):
        mod.nope  # noqa: B018


def test_the_top_level_offers_tables_and_contingencies():
    import veltrane
    from veltrane.contingencies import annuity

    assert {"LifeTable", "ExitTable", "DisabilityTable", "TableRegistry", "TableSource"} <= set(dir(veltrane))
    assert veltrane.annuity is annuity


def test_the_catalogue_lists_what_can_be_opened_and_searches_it(tables):
    import veltrane
    from veltrane.tables.source import TableSource

    everything = veltrane.catalogue(soa=False)
    selected = veltrane.catalogue(search="SELECT", soa=False)
    expected = [name for name in everything["name"] if TableSource(name).select]
    assert selected["name"].to_list() == expected and len(expected) >= 3
    # Words in any order; the files of a directory on the search path come before the bundled ones.
    tables.period(name="MYTAB", sexes=("u",))
    mine = veltrane.catalogue(search=["mytab", "life"])
    assert mine.row(0, named=True) | {"description": None, "source": None} == {
        "name": "MYTAB",
        "number": None,
        "table_name": "",
        "content_type": "",
        "nation": "",
        "provider": "",
        "type": "life",
        "table_class": "LifeTable",
        "structure": "period",
        "sexes": ["u"],
        "ages": f"0-{TableSource('MYTAB').w}",
        "description": None,
        "source": None,
        "location": str(tables.directory),
    }
    assert veltrane.catalogue(search="no such words").height == 0


@pytest.mark.parametrize(("name", "suggested"), [("cso2017", ["CSO2017"]), ("SULTT", ["SULT"]), ("zzzz", [])])
def test_close_names_are_suggested(name, suggested):
    from veltrane.tables.listing import did_you_mean

    assert did_you_mean(name)[: len(suggested) or None] == suggested


@pytest.mark.parametrize(
    ("build", "shown"),
    [
        (lambda: LifeTable("CSO2017", "m", duration=1), ["LifeTable CSO2017", "duration</th><td>1<", "<svg"]),
        (
            lambda: LifeTable("CSO2017", "m", duration=1).select_path(45),
            ["ages</th><td>45-120<", "<td>45</td>"],
        ),
        (lambda: LifeTable("DAV2004R", "m", pending=True), ["pending"]),
        (lambda: LifeTable("SULT", "u", interest_rate=0.05), ["interest</th><td>0.05<", "<td>20</td>"]),
    ],
)
def test_tables_show_themselves_in_a_notebook(build, shown):
    page = build()._repr_html_()
    assert all(text in page for text in shown), page


def test_the_notebook_card_shows_the_rates_the_table_gives():
    table = LifeTable("SULT", "u")
    table.modify_qx({"decrement_multiplier": 1.5})
    page = table._repr_html_()
    assert f"<td>60</td><td>{table.qx(60)!r}</td>" in page and "decrement_multiplier" in page
