"""Text forms: summary(), str() and repr()."""

from __future__ import annotations

import numpy as np
import pytest

from veltrane.tables.life import LifeTable


def test_str_and_repr(standard):
    t = LifeTable("GEN", "m", cohort=1970)
    assert str(t) == "LifeTable(table='GEN', sex='m', cohort=1970, modified=False, age_range=0\u20137)"
    assert repr(t) == "<LifeTable table='GEN' sex='m' cohort=1970 modified=False age_range=0\u20137>"
    t._w_mod, t._modified = 5, True
    assert str(t).endswith("modified=True, age_range=0\u20135)")


def test_summary_of_a_ready_table(standard):
    t = LifeTable("GSEL", "f", cohort=1980, duration=2)
    lines = t.summary().split("\n")
    assert lines[:2] == ["LifeTable: GSEL", "Sex: f"]
    assert all(line.startswith("  ") for line in lines[2 : lines.index("Cohort: 1980")])
    assert lines[lines.index("Cohort: 1980") :][:4] == [
        "Cohort: 1980",
        "Duration: 2",
        "w (current): 7",
        "Modified: False",
    ]
    samples = lines[lines.index("Sample qx values (first 5):") :]
    assert samples[1:6] == [f"  qx({a}) = {t.qx(a)}" for a in range(5)]
    assert samples[6] == "Sample qx values (last 5):" and samples[7:] == [
        f"  qx({a}) = {t.qx(a)}" for a in range(3, 8)
    ]
    t.duration = "ult"
    assert "Duration: ult" in t.summary()


def test_summary_of_a_modified_blend():
    t = LifeTable("SULT", "u")
    t._unisex_blend = 0.25
    t._decrement = np.round(t._decrement_base[:100] * 1.1, 12)
    t._w_mod, t._modified = 99, True
    t._modifications_applied = ["decrement_multiplier=1.1", "omega_truncated_by_certainty: 120->99 at age 99"]
    text = t.summary()
    assert "Unisex blend: 0.25 (male weight=0.25, female weight=0.75)" in text
    assert "Modifications applied: decrement_multiplier=1.1\n" in text
    assert "Note: modify truncated omega at certainty (120->99 at age 99)" in text
    base = np.round(t._decrement_base, 12)
    assert f"  qx(99) = {t._decrement[99]} (original: {base[99]})" in text
    t._decrement = np.append(t._decrement_base, 0.5)  # longer than the base: no original to show
    assert "  qx(121) = 0.5 (original: N/A)" in t.summary()


@pytest.mark.parametrize("w", [0, 2, 4, 5, 7])
def test_samples_of_short_tables(tables, w):
    tables.write("TINY", {"table_type": "life", "sexes": ["m"]}, {"qx_m": [0.1] * w + [1.0]})
    lines: list[str] = []
    t = LifeTable("TINY", "m")
    t._append_decrement_rate_sample_summary(lines, "qx", 12, t.qx)
    split = lines.index("Sample qx values (last 5):")
    first, last = lines[1:split], lines[split + 1 :]
    assert len(first) == len(last) == min(w + 1, 5)
    assert last[-1] == f"  qx({w}) = 1.0"


# fmt: off
BLENDS = [(0.7, "0.7", "0.30000000000000004"), (0.1, "0.1", "0.9"), (0.25, "0.25", "0.75"),
          (1 / 3, "0.3333333333333333", "0.6666666666666667"), (1, "1.0", "0.0")]
# fmt: on


@pytest.mark.parametrize(("blend", "male", "female"), BLENDS)
def test_blend_weights_are_shown_as_computed(standard, blend, male, female):
    t = LifeTable("PER", "u", unisex_blend=blend)
    line = f"Unisex blend: {male} (male weight={male}, female weight={female})"
    assert t.summary().split("\n")[2] == line


def test_a_summary_lists_what_a_pending_table_lacks(standard):
    t = LifeTable("GEN", pending=True)
    lines = t.summary().split("\n")
    assert lines[:3] == ["LifeTable: GEN", "Metadata: pending (needs: sex, cohort)", "Sex: None"]
    assert lines[-1] == "w (current): 7" and not any("Sample" in line for line in lines)
    t.sex, t.cohort = "m", 1970
    assert "Cohort: 1970" in t.summary()


def test_a_select_table_out_of_the_pending_state_prints_the_ready_form(standard):
    t = LifeTable("GSEL", pending=True)
    t.configure(sex="m", duration=1)  # a select table leaves the pending state with sex and duration
    assert not t.metadata_pending
    lines = t.summary().split("\n")
    assert lines[:2] == ["LifeTable: GSEL", "Sex: m"] and not any("pending" in line for line in lines)
    assert lines[-4:] == ["Cohort: None", "Duration: 1", "w (current): 7", "Modified: False"]
    with pytest.raises(ValueError, match="assign 'cohort' before calculations"):
        t.qx(3)  # still without rates: calculations are refused, and there are no samples
    t.cohort = 1970
    assert "Cohort: 1970" in t.summary() and "Sample qx values (first 5):" in t.summary()
