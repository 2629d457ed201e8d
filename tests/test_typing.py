"""The package's types as a user's checker sees them: stubs that match the runtime, precise results."""

from __future__ import annotations

import doctest
import re
import shutil
import subprocess
import sys
import textwrap
from pathlib import Path

import pytest

pytest.importorskip("mypy")

USER_SCRIPT = textwrap.dedent(
    """
    import numpy as np
    from veltrane import ExitTable, LifeTable

    t = LifeTable("SULT", "u")
    reveal_type(t.qx(65))
    reveal_type(t.qx(np.arange(3)))
    reveal_type(t.tpx([65, 70], [1, 2]))
    reveal_type(t.select_path(45))
    reveal_type(LifeTable("DAV2004R", ("m", "f"), cohort=(1960, 1962)))
    reveal_type(LifeTable("DAV2004R", "m", cohort=range(1950, 1960)))
    reveal_type(LifeTable("DAV2004R", ["m", "f"], cohort=1960, return_dict=True))
    reveal_type(ExitTable("MOORHEAD_R", "u"))
    t.qxx(65)
    t.qx(65, m=5)
    """
)
TABLE = "veltrane.tables.life.LifeTable"
ARRAY = "numpy.ndarray[tuple[Any, ...], numpy.dtype[numpy.float64]]"
REVEALED = [
    "float",
    ARRAY,
    ARRAY,
    TABLE,
    f"tuple[{TABLE}, ...]",
    f"tuple[{TABLE}, ...]",
    f"dict[veltrane.base.TableKey, {TABLE}]",
    "veltrane.tables.exit.ExitTable",
]


def checker(tmp_path: Path, *args: str) -> list[str]:
    """Run a checker in tmp_path (away from the sources, so that the installed package is seen)."""
    done = subprocess.run(args, cwd=tmp_path, capture_output=True, text=True, timeout=600, check=False)
    return (done.stdout + done.stderr).splitlines()


def test_stubs_name_exactly_what_the_extensions_define(tmp_path):
    stubtest = [sys.executable, "-m", "mypy.stubtest", "veltrane.tables.decrement", "veltrane.helpers"]
    assert checker(tmp_path, *stubtest)[-1].startswith("Success"), checker(tmp_path, *stubtest)


def test_mypy_strict_on_a_user_script(tmp_path):
    (tmp_path / "user.py").write_text(USER_SCRIPT)
    (tmp_path / "mypy.ini").write_text("[mypy]\nplugins = veltrane.mypy_plugin\ncache_dir = .cache\n")
    lines = checker(tmp_path, sys.executable, "-m", "mypy", "--strict", "user.py")
    assert [m.group(1) for line in lines if (m := re.search(r'Revealed type is "(.*)"', line))] == REVEALED
    errors = [line for line in lines if ": error:" in line]
    assert len(errors) == 2, lines
    assert '"LifeTable" has no attribute "qxx"' in errors[0]
    assert 'No overload variant of "qx"' in errors[1]


ROOT = Path(__file__).resolve().parents[1]


def test_every_example_of_the_docs_passes_mypy_strict(tmp_path):
    """The README tour and every docs example, as a user's code, type-check cleanly."""
    from test_docs import python_lines

    for page in [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]:
        _, blocks = python_lines(page.read_text(encoding="utf-8"))
        examples = [doctest.DocTestParser().get_examples(block) for block in blocks]
        code = "".join(
            "".join(e.source for e in ex) if ex else block + "\n"
            for ex, block in zip(examples, blocks, strict=True)
        )
        (tmp_path / f"page_{page.stem.replace('-', '_').lower()}.py").write_text(code)
    (tmp_path / "mypy.ini").write_text("[mypy]\nplugins = veltrane.mypy_plugin\ncache_dir = .cache\n")
    pages = sorted(path.name for path in tmp_path.glob("page_*.py"))
    lines = checker(tmp_path, sys.executable, "-m", "mypy", "--strict", *pages)
    assert lines[-1].startswith("Success"), "\n".join(lines)


def test_the_package_itself_passes_mypy_strict(tmp_path):
    lines = checker(
        tmp_path, sys.executable, "-m", "mypy", "--strict", "--cache-dir", ".cache", "-p", "veltrane"
    )
    assert lines[-1].startswith("Success"), "\n".join(lines)


PYRIGHT = Path(sys.executable).with_name("pyright")


# pyright's package ships the checker and runs it on the machine's node.
@pytest.mark.skipif(not PYRIGHT.exists() or shutil.which("node") is None, reason="needs pyright and node")
def test_pyright_follows_the_many_table_constructor_without_a_plugin(tmp_path):
    (tmp_path / "user.py").write_text(USER_SCRIPT)
    lines = checker(tmp_path, str(PYRIGHT), "--pythonpath", sys.executable, "user.py")
    revealed = [m.group(1) for line in lines if (m := re.search(r'Type of ".*" is "(.*)"', line))]
    assert revealed[0] == "float" and "float64" in revealed[1] and revealed[3] == "LifeTable"
    assert revealed[4:7] == ["tuple[LifeTable, ...]", "tuple[LifeTable, ...]", "dict[TableKey, LifeTable]"]
    errors = [line for line in lines if " - error: " in line]
    assert 'Cannot access attribute "qxx"' in errors[0] and all(":15:" in e for e in errors[1:]), lines
