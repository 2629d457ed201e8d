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
    if module == "veltrane":
        from veltrane.contingencies import annuity

        assert mod.annuity is annuity
    with pytest.raises(AttributeError, match=f"module '{module}' has no attribute 'nope'"):
        mod.nope  # noqa: B018


def test_the_catalogue_lists_what_can_be_opened_and_searches_it(tables):
    import veltrane
    from veltrane.tables.source import TableSource

    everything = veltrane.catalogue(soa=False)
    selected = veltrane.catalogue(search="SELECT", soa=False)
    expected = [name for name in everything["name"] if TableSource(name).select]
    assert selected["name"].to_list() == expected and len(expected) >= 3
    # Words in any order; the files of a directory on the search path come before the bundled ones.
    tables.period(name="MYTAB", sexes=("u",))
    row = veltrane.catalogue(search=["mytab", "life"]).row(0, named=True)
    keys = ("name", "number", "table_class", "structure", "sexes", "ages", "location")
    want = ["MYTAB", None, "LifeTable", "period", ["u"], f"0-{TableSource('MYTAB').w}", str(tables.directory)]
    assert [row[k] for k in keys] == want
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


def test_an_unknown_name_in_python_suggests_close_names():
    with pytest.raises(FileNotFoundError, match=r"not found; .* \(did you mean 'CSO2017' or 'CSO2001'\?\)$"):
        LifeTable("cso2017", "f", duration=1)


def test_a_projection_shows_its_size_and_the_yearly_means():
    import polars as pl

    from veltrane.portfolio import project

    policies = pl.DataFrame({"table_name": ["SULT", "SULT"], "sex": ["u", "u"], "age": [60, 70]})
    result = project(policies, 3)
    means = result.by_year()
    assert means["year"].to_list() == [0, 1, 2]
    assert means["qx"].to_list() == list((result["qx"][0] + result["qx"][1]) / 2)
    assert "2 policies × 3 years" in result._repr_html_() and repr(result).startswith("<Projection of 2")


def test_a_valuation_shows_its_totals_and_cash_flows():
    import polars as pl

    from veltrane.valuation import Product, value

    policies = pl.DataFrame({"table_name": ["SULT"], "sex": ["u"], "age": [60]})
    result = value(policies, Product(death_benefit=1000.0, term=5), interest=0.03)
    page = result._repr_html_()
    assert "policies</th><td>1<" in page and "death_benefits" in page
    assert repr(result).startswith("<Valuation of 1 policies: ")
