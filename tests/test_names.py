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
