"""The documentation stays true: every example in docs/*.md runs and prints what the page shows.

Only the ```python blocks of a page are run, in order, as one session (later examples use the
tables of earlier ones); the lines outside them are blanked, so a failure reports the page's own
line numbers. Warnings are errors here as everywhere, so an example that provokes one must show
how it is caught.
"""

from __future__ import annotations

import doctest
import re
import tempfile
from pathlib import Path

import pytest

from veltrane.config import Config
from veltrane.tables import decrement
from veltrane.tables.life import LifeTable
from veltrane.tables.source import TableSource

DOCS = Path(__file__).resolve().parents[1] / "docs"
PAGES = sorted(DOCS.glob("*.md"))
FENCE = re.compile(r"^\s*```(\S*)\s*$")
FLAGS = doctest.ELLIPSIS | doctest.NORMALIZE_WHITESPACE


def python_lines(text: str) -> tuple[str, list[str]]:
    """The page with everything but the inside of ```python blocks blanked; the blocks' texts."""
    kept, blocks, block = [], [], None  # block: the lines of an open python block, False in another
    for line in text.splitlines():
        fence = FENCE.match(line)
        if fence and (block is None or not fence.group(1)):  # an opening fence, or a closing one
            if block:
                blocks.append("\n".join(block))
            block = ([] if fence.group(1) == "python" else False) if block is None else None
        elif isinstance(block, list):
            block.append(line)
        kept.append(line if isinstance(block, list) and not fence else "")
    return "\n".join(kept) + "\n", blocks


@pytest.fixture
def session(tmp_path: Path, monkeypatch: pytest.MonkeyPatch):
    """Temporary directories of the examples under tmp_path; settings and caches put back."""
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path))
    decrement._clear_cohort_unisex_cache()
    registered = set(TableSource.registered())
    with Config():
        yield
    for name in set(TableSource.registered()) - registered:  # tables a page registered in memory
        TableSource.unregister(name)
    TableSource.clear_cache()
    decrement._clear_cohort_unisex_cache()


@pytest.mark.parametrize("page", PAGES, ids=[p.name for p in PAGES])
def test_examples_run_as_shown(page: Path, session: None) -> None:
    text, blocks = python_lines(page.read_text(encoding="utf-8"))
    # A python block without prompts would be shown to readers but never checked.
    unchecked = [b.strip().splitlines()[0] for b in blocks if ">>>" not in b]
    assert not unchecked, f"{page.name}: python blocks without >>> examples: {unchecked}"
    test = doctest.DocTestParser().get_doctest(text, {"__name__": "__docs__"}, page.name, str(page), 0)
    # Every prompt on the page is an example that runs: none hides in a block that is not read.
    prompts = sum(line.lstrip().startswith(">>>") for line in page.read_text(encoding="utf-8").splitlines())
    assert len(test.examples) == prompts
    report: list[str] = []
    runner = doctest.DocTestRunner(optionflags=FLAGS)
    result = runner.run(test, out=report.append, clear_globs=True)
    assert result.failed == 0, "".join(report)


def test_truncation_warning_points_to_a_section_of_the_guide() -> None:
    """The truncation warnings name a section of the user guide; that section must exist."""
    table = LifeTable("SULT", "u")
    spike = [1.0] * 121
    spike[100] = 1.5 / table.qx(100)  # certain death at 100, live rates after it
    with pytest.warns(UserWarning) as caught:
        table.modify_qx({"decrement_multiplier": spike})
    message = str(caught[0].message)
    pointer = re.search(r"user guide '([^']+)' \((\w+)\)", message)
    assert pointer, message
    section, label = pointer.groups()
    headings = [
        line.lstrip("#").strip()
        for line in (DOCS / "guide.md").read_text(encoding="utf-8").splitlines()
        if line.startswith("#")
    ]
    assert section in headings  # the exact heading, so the pointer resolves
    assert label.replace("_", " ") in [h.lower() for h in headings]
