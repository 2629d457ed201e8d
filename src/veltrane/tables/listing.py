"""The tables a process can open: the tables registered in memory, the table files on the search path,
then the tables of the SOA table service by number.

``catalogue()`` lists them as a Polars frame; ``did_you_mean(name)`` suggests close names for a name
that is not there. The command line's ``veltrane tables`` prints the same list.
"""

from __future__ import annotations

import difflib
import os
from collections.abc import Iterable
from pathlib import Path
from typing import Any

import polars as pl

from veltrane.config import Config

__all__ = ["SOA_LOCATION", "catalogue", "did_you_mean", "soa_refused", "soa_rows", "table_locations"]

_COLUMNS: dict[str, Any] = {
    "name": pl.String,
    "number": pl.Int64,
    "table_name": pl.String,
    "content_type": pl.String,
    "nation": pl.String,
    "provider": pl.String,
    "type": pl.String,
    "table_class": pl.String,
    "structure": pl.String,
    "sexes": pl.List(pl.String),
    "ages": pl.String,
    "description": pl.String,
    "source": pl.String,
    "location": pl.String,
}
_CLASSES = {"life": "LifeTable", "disability": "DisabilityTable", "exit": "ExitTable"}
#: What the search words are looked for in.
_SEARCHED = (
    "name",
    "number",
    "table_name",
    "content_type",
    "nation",
    "provider",
    "type",
    "structure",
    "description",
    "source",
)
#: Location of the tables of the SOA table service.
SOA_LOCATION = "SOA table service"


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
    from veltrane.tables.soa import is_soa_name, store

    numbered = name.upper()  # "soa3299": the service's names are upper case
    if numbered != name and is_soa_name(numbered) and numbered in store().tables:
        same.insert(0, numbered)
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
    cited = source.metadata.get("source", {})
    identity = str(cited.get("table_identity", ""))
    return {
        "name": name,
        "number": int(identity) if identity.isdigit() else None,
        "table_name": str(cited.get("name", "")),
        "content_type": str(cited.get("content_type", "")),
        "nation": str(cited.get("nation", "")),
        "provider": str(cited.get("provider", cited.get("authority", ""))),
        "type": source.table_type,
        "table_class": _CLASSES.get(source.table_type, ""),
        "structure": taxonomy.get("Structure", ""),
        "sexes": list(source.valid_sexes),
        "ages": f"{source.start_age}-{source.w}",
        "description": source.description,
        "source": str(cited.get("name", "")),
        "location": location,
    }


def soa_rows() -> list[dict[str, object]]:
    """One row per table of the SOA table service, from the bundled store's index (no table is loaded)."""
    from veltrane.tables.soa import store

    return [
        {
            "name": row["name"],
            "number": row["number"],
            "table_name": row["table_name"],
            "content_type": row["content_type"],
            "nation": row["nation"],
            "provider": row["provider"],
            "type": row["table_type"],
            "table_class": _CLASSES[row["table_type"]],
            "structure": row["structure"],
            "sexes": row["sexes"],
            "ages": row["ages"],
            "description": row["description"],
            "source": row["table_name"],
            "location": SOA_LOCATION,
        }
        for row in store().catalogue()["tables"]
    ]


def soa_refused() -> pl.DataFrame:
    """The files and parts of the SOA table service that have no table form here, with the reason.

    Columns ``name``, ``number``, ``part`` (null for a whole file), ``table_name``,
    ``content_type`` and ``reason`` (one line).
    """
    from veltrane.tables.soa import store

    schema = {
        "name": pl.String,
        "number": pl.Int64,
        "part": pl.Int64,
        "table_name": pl.String,
        "content_type": pl.String,
        "reason": pl.String,
    }
    return pl.DataFrame(store().catalogue()["refused"], schema=schema)


def _words(search: str | Iterable[str] | None) -> list[str]:
    if search is None:
        return []
    if isinstance(search, str):
        return search.split()
    return [word for words in search for word in str(words).split()]


def catalogue(search: str | Iterable[str] | None = None, soa: bool = True) -> pl.DataFrame:
    """The tables available to this process, one row each, as a Polars frame.

    Parameters
    ----------
    search : str or iterable of str, optional
        Words that must all occur (in any order, case ignored) in a table's name, number, table
        name, content type, nation, provider, type, structure, description or source:
        ``catalogue(search="select")`` lists the select tables. A string is split into words.
    soa : bool, default True
        List the tables of the SOA table service (``SOA{n}``, ``SOA{n}_{part}``) after the others.

    Returns
    -------
    polars.DataFrame
        Columns ``name``; ``number`` (the provider's table number, when the table has one),
        ``table_name``, ``content_type``, ``nation`` and ``provider`` as the published file
        states them; ``type`` ("life", "disability" or "exit") and ``table_class`` (the class
        that opens it); ``structure``, ``sexes`` (a list), ``ages`` (first-last),
        ``description``, ``source`` (the publication the rates come from) and ``location``
        ("registered", "bundled", the directory of the files, or "SOA table service"), in the
        order in which names are looked up. A table whose files cannot be read is listed with
        type "?" and the reason in ``structure``.
    """
    words = _words(search)
    rows = []
    shadowing = set()
    for name, location in table_locations():
        shadowing.add(name)
        row = _row(name, location)
        if _matches(words, *(str(row.get(field) or "") for field in _SEARCHED)):
            rows.append(row)
    if soa:
        for row in soa_rows():
            if row["name"] not in shadowing and _matches(words, *(str(row[field]) for field in _SEARCHED)):
                rows.append(row)
    return pl.DataFrame(rows, schema=_COLUMNS)
