"""Names are discoverable: the lazily loading modules list what they load, and every listed name loads."""

from __future__ import annotations

import importlib

import pytest


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

    everything = veltrane.catalogue()
    selected = veltrane.catalogue(search="SELECT")
    expected = [name for name in everything["name"] if TableSource(name).select]
    assert selected["name"].to_list() == expected and len(expected) >= 3
    # Words in any order; the files of a directory on the search path come before the bundled ones.
    tables.period(name="MYTAB", sexes=("u",))
    mine = veltrane.catalogue(search=["mytab", "life"])
    assert mine.row(0, named=True) | {"description": None, "source": None} == {
        "name": "MYTAB",
        "type": "life",
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
