"""Published tables in the XTbML interchange format, read into this package's table files.

``read_xtbml`` reads one file (or one per sex, with optional projection scales) into an
``ImportedTable``; ``import_xtbml`` writes it as ``NAME.toml`` + ``NAME.csv``; ``write_xtbml``
writes any table back as XTbML. ``docs/xtbml.md``
says what maps to what and which structures are refused.

Examples
--------
>>> from veltrane.tables.xtbml import XTbMLError, read_xtbml
>>> issubclass(XTbMLError, ValueError)
True
"""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from typing import Any

from veltrane.tables.xtbml.assemble import ImportedTable, PathLike, read_xtbml
from veltrane.tables.xtbml.pairing import FORMULAS
from veltrane.tables.xtbml.reader import XTbMLError, XTbMLUnsupportedError
from veltrane.tables.xtbml.writer import write_xtbml

__all__ = [
    "FORMULAS",
    "ImportedTable",
    "XTbMLError",
    "XTbMLUnsupportedError",
    "import_xtbml",
    "read_xtbml",
    "write_xtbml",
]


def import_xtbml(
    files: PathLike | Sequence[PathLike],
    name: str,
    directory: PathLike,
    **options: Any,
) -> Path:
    """Read XTbML files as ``read_xtbml`` does and write the table into ``directory``.

    Nothing is written when a file is refused or malformed, or the table breaks the format.

    Returns
    -------
    Path
        Path of the written ``NAME.toml``.
    """
    return read_xtbml(files, name, **options).write(directory)
