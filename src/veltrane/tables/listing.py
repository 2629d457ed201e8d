"""The tables a process can open: the tables registered in memory, then the table files on the search path.

``catalogue()`` lists them as a Polars frame; ``did_you_mean(name)`` suggests close names for a name
that is not there. The command line's ``veltrane tables`` prints the same list.
"""

from __future__ import annotations

import difflib
import os
from collections.abc import Iterable
from pathlib import Path

import polars as pl

from veltrane.config import Config

__all__ = ["catalogue", "did_you_mean", "table_locations"]

_COLUMNS = {
    "name": pl.String,
    "type": pl.String,
    "structure": pl.String,
    "sexes": pl.List(pl.String),
    "ages": pl.String,
    "description": pl.String,
    "source": pl.String,
    "location": pl.String,
}


def _table_files() -> list[tuple[str, Path]]:
    """(name, directory) of every table pair, in search order; a shadowed name is listed once."""
    from veltrane.tables.source import BUNDLED_TABLES_DIR

    found: dict[str, Path] = {}
    for directory in (*Config().tables_path, BUNDLED_TABLES_DIR):
        if not directory.is_dir():
            continue
        for toml in sorted(directory.glob("*.toml")):
            # Whatever has the name is listed; loading it says what is wrong with it.
            if os.path.lexists(toml.with_suffix(".csv")):
                found.setdefault(toml.stem, directory)
    return list(found.items())


def table_locations() -> list[tuple[str, str]]:
    """(name, location) of every table that ``TableSource(name)`` would open, each name once.

    The location is "registered" for a table registered in memory, "bundled" for a table that comes
    with the package, else the directory of its files. A registered name hides a file of the same
    name, and an earlier directory of the search path hides a later one.
    """
    from veltrane.tables.source import BUNDLED_TABLES_DIR, TableSource

    found: dict[str, str] = {name: "registered" for name in TableSource.registered()}
    for name, directory in _table_files():
        found.setdefault(name, "bundled" if directory == BUNDLED_TABLES_DIR else str(directory))
    return list(found.items())


def did_you_mean(name: str) -> list[str]:
    """The names of available tables close to ``name``: the same name in another case first."""
    names = [known for known, _ in table_locations()]
    same = [known for known in names if known.casefold() == name.casefold() and known != name]
    folded = {known.casefold(): known for known in names}
    close = difflib.get_close_matches(name.casefold(), list(folded), n=3, cutoff=0.6)
    return [known for known in dict.fromkeys([*same, *(folded[c] for c in close)]) if known != name]


def _matches(words: Iterable[str], *texts: str) -> bool:
    """Whether every word occurs in the texts, ignoring case."""
    haystack = " ".join(texts).casefold()
    return all(word.casefold() in haystack for word in words)


def _row(name: str, location: str) -> dict[str, object]:
    from veltrane.tables.source import TableSource

    try:
        source = TableSource(name)
    except (OSError, ValueError) as exc:
        return {"name": name, "type": "?", "structure": f"unreadable: {exc}", "location": location}
    taxonomy = dict(line.split(": ", 1) for line in source._taxonomy_lines() if ": " in line)
    return {
        "name": name,
        "type": source.table_type,
        "structure": taxonomy.get("Structure", ""),
        "sexes": list(source.valid_sexes),
        "ages": f"{source.start_age}-{source.w}",
        "description": source.description,
        "source": str(source.metadata.get("source", {}).get("name", "")),
        "location": location,
    }


def catalogue(search: str | Iterable[str] | None = None) -> pl.DataFrame:
    """The tables available to this process, one row each, as a Polars frame.

    Parameters
    ----------
    search : str or iterable of str, optional
        Words that must all occur (in any order, case ignored) in a table's name, type,
        structure, description or source: ``catalogue(search="select")`` lists the select
        tables. A string is split into words.

    Returns
    -------
    polars.DataFrame
        Columns ``name``, ``type`` ("life", "disability" or "exit"), ``structure``, ``sexes``
        (a list), ``ages`` (first-last), ``description``, ``source`` (the publication the rates
        come from) and ``location`` ("registered", "bundled" or the directory of the files), in
        the order in which names are looked up. A table whose files cannot be read is listed
        with type "?" and the reason in ``structure``.
    """
    if search is None:
        words: list[str] = []
    elif isinstance(search, str):
        words = search.split()
    else:
        words = [str(word) for word in search]
    rows = []
    for name, location in table_locations():
        row = _row(name, location)
        fields = ("name", "type", "structure", "description", "source")
        if _matches(words, *(str(row.get(field, "")) for field in fields)):
            rows.append(row)
    return pl.DataFrame(rows, schema=_COLUMNS)
