"""Leaks: memory stays flat over many constructions and rebuilds; no call keeps a reference it was given."""

from __future__ import annotations

import contextlib
import gc
import os
import sys
import weakref
from pathlib import Path

import numpy as np
import pytest

from veltrane.config import Config
from veltrane.tables.decrement import DecrementTable
from veltrane.tables.life import LifeTable

STATM = Path("/proc/self/statm")


def resident_bytes() -> int:
    return int(STATM.read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def churn(rounds: int, gen, blend, select) -> None:
    """One construction and one setter rebuild a round, with failures, blends and copies mixed in."""
    for i in range(rounds):
        LifeTable("SULT", "u")
        if i & 1:
            gen.sex = "f" if i & 2 else "m"
        else:
            gen.cohort = 1930 + i % 64
        if i % 16 == 0:
            select.duration = 1 + i % 3
            blend.unisex_blend = 0.25 + (i % 16) / 32
            blend.copy()
            with contextlib.suppress(ValueError):
                LifeTable("GEN", "m")  # refused: no cohort
            with contextlib.suppress(ValueError):
                gen.cohort = 1800


@pytest.mark.skipif(not STATM.exists(), reason="reads the resident set size from /proc")
@pytest.mark.skipif(
    bool(os.environ.get("VELTRANE_SANITIZED")), reason="the sanitizer's allocator holds freed memory back"
)
def test_memory_is_flat_over_100000_constructions_and_rebuilds(standard):
    gen = LifeTable("GEN", "m", cohort=1970)
    blend = LifeTable("GEN", "u", cohort=1970, unisex_blend=0.5)
    select = LifeTable("GSEL", "m", cohort=1970, duration=1)
    with Config().override(warn_on_chained_table_rebuild=False):
        churn(5_000, gen, blend, select)  # warm-up: caches, allocator pools, interned names
        gc.collect()
        before = resident_bytes()
        churn(50_000, gen, blend, select)  # 100,000 constructions and rebuilds
        gc.collect()
        grown = resident_bytes() - before
    # One lost 8-rate vector per round alone would be about 6 MB.
    assert grown < 4 * 2**20, f"resident memory grew by {grown / 2**20:.1f} MB"


def test_tables_in_cycles_are_collected(standard):
    t = LifeTable("GEN", "u", cohort=1970, unisex_blend=0.5)
    t._modifications_applied.append(t)
    copy = t.copy()
    refs = [weakref.ref(t), weakref.ref(copy)]
    del t, copy
    gc.collect()
    assert [r() for r in refs] == [None, None]


def keeps_no_reference(operation, *inputs) -> None:
    def attempt():
        with contextlib.suppress(TypeError, ValueError):
            operation()

    attempt()  # warm-up: one-time caches may keep what they need
    gc.collect()
    before = [sys.getrefcount(o) for o in inputs]
    for _ in range(100):
        attempt()
    gc.collect()
    assert [sys.getrefcount(o) for o in inputs] == before


def _operations(t_gen, t_sel, t_blend, pending):
    name, sex, other = "".join(["GE", "N"]), "".join(["M"]), "".join(["f"])
    cohort, cohort2, bad = int("1970"), int("1985"), int("1850")  # new objects, not cached small ints
    duration, weight, method = np.int64(2), float("0.375"), "".join(["p", "x"])

    def alternate(obj, attr, a, b):
        return lambda: (setattr(obj, attr, a), setattr(obj, attr, b))

    def init_refused(**kwargs):
        return lambda: DecrementTable.__init__(LifeTable.__new__(LifeTable, name, sex), name, sex, **kwargs)

    def batch(table, a, b):
        def run():
            with table.batch_update():
                table.cohort = a
            with contextlib.suppress(KeyError), table.batch_update():
                table.cohort = b
                raise KeyError

        return run

    return {  # name: (call, the inputs it must not keep)
        "construct": (lambda: LifeTable(name, sex, cohort=cohort), name, sex, cohort),
        "construct_select": (lambda: LifeTable("GSEL", sex, cohort=cohort, duration=duration),
                             sex, cohort, duration),
        "construct_pending": (lambda: LifeTable(name, cohort=cohort, pending=True), name, cohort),
        "construct_blend": (lambda: LifeTable(name, "u", cohort=cohort, unisex_blend=weight),
                            name, cohort, weight),
        "refused_sex": (lambda: LifeTable(name, "x", cohort=cohort), name, cohort),
        "refused_cohort": (lambda: LifeTable(name, sex, cohort=bad), name, sex, bad),
        "refused_sequence": (init_refused(cohort=[cohort, cohort]), name, sex, cohort),
        "refused_blend": (lambda: LifeTable(name, sex, cohort=cohort, unisex_blend=weight), name, weight),
        "set_sex": (alternate(t_gen, "sex", sex, other), sex, other),
        "set_cohort": (alternate(t_gen, "cohort", cohort, cohort2), cohort, cohort2),
        "set_cohort_refused": (lambda: setattr(t_gen, "cohort", bad), bad),
        "set_duration": (alternate(t_sel, "duration", duration, "ult"), duration),
        "set_blend": (alternate(t_blend, "unisex_blend", weight, 0.5), weight),
        "ensure_ready_refused": (lambda: pending._ensure_ready(method), pending, method),
        "copy": (lambda: (t_blend.copy(), t_blend.modifications_applied), t_blend),
        "configure": (lambda: t_gen.configure(sex=other, cohort=cohort2), other, cohort2),
        "configure_refused": (lambda: contextlib.suppress(ValueError)(t_gen.configure)(cohort=bad), bad),
        "batch_update": (batch(t_gen, cohort, cohort2), cohort, cohort2),
    }  # fmt: skip


OPERATIONS = list(_operations(None, None, None, None))


@pytest.mark.parametrize("operation", OPERATIONS)
def test_calls_keep_no_reference(standard, operation):
    tables = (
        LifeTable("GEN", "m", cohort=1970),
        LifeTable("GSEL", "m", cohort=1970, duration=1),
        LifeTable("GEN", "u", cohort=1970, unisex_blend=0.5),
        LifeTable("GEN", pending=True),
    )
    call, *inputs = _operations(*tables)[operation]
    with Config().override(warn_on_chained_table_rebuild=False):
        keeps_no_reference(call, *inputs)
