"""A whole folder of the SOA table service (``tNNNN.xml``, NNNN the table number) read by the importer.

Each file becomes the table ``SOA{n}``; a file whose ``<Table>`` parts do not make one table
gives each part that maps as ``SOA{n}_{part}``, and ``SOA{n}`` is its first part. A table of
rates by age and calendar year gives the period table of each year as ``SOA{n}_{year}``. Files and
parts that the importer refuses are kept with the one-line reason, the folder stripped from it.
``tools/make_soa_store.py`` writes the result as the bundled store (``veltrane.tables.soa``).
"""

from __future__ import annotations

import re
from collections.abc import Iterator
from dataclasses import dataclass
from pathlib import Path

from veltrane.tables._table_format import YEARS
from veltrane.tables.xtbml import mapping
from veltrane.tables.xtbml.assemble import ImportedTable, from_documents
from veltrane.tables.xtbml.reader import Document, XTbMLError, read_document

__all__ = ["Mapped", "Refused", "Scale", "read_service", "service_files"]

_FILE = re.compile(r"t([0-9]+)\.xml")


@dataclass(frozen=True, slots=True)
class Mapped:
    """One table of the service: its name, number, part (None for a whole file) and what the file says."""

    table: ImportedTable
    number: int
    part: int | None
    table_name: str
    content_type: str
    nation: str
    provider: str
    description: str


@dataclass(frozen=True, slots=True)
class Refused:
    """A file (part None) or one part of a file that has no table form here, and why."""

    name: str
    number: int
    part: int | None
    table_name: str
    content_type: str
    reason: str


@dataclass(frozen=True, slots=True)
class Scale:
    """A projection scale of the service: no table by itself, but the scale of a base table by number."""

    name: str
    number: int
    doc: Document
    mapped: mapping.Mapped


def service_files(folder: Path) -> list[tuple[int, Path]]:
    """(number, path) of every ``tNNNN.xml`` in ``folder``, by number."""
    found = []
    for path in folder.iterdir():
        match = _FILE.fullmatch(path.name)
        if match is not None and path.is_file():
            found.append((int(match.group(1)), path))
    return sorted(found)


def _reason(exc: XTbMLError, path: Path) -> str:
    # The folder is where this copy lives, not part of why; one line whatever the message.
    return " ".join(str(exc).replace(str(path), path.name).split())


def read_service(folder: Path) -> Iterator[Mapped | Refused | Scale]:
    """Every table and refusal of the folder, by number and then part."""
    for number, path in service_files(folder):
        yield from _read_file(number, path)


def _read_file(number: int, path: Path) -> Iterator[Mapped | Refused | Scale]:
    name = f"SOA{number}"
    try:
        doc = read_document(path)
    except XTbMLError as exc:
        yield Refused(name, number, None, "", "", _reason(exc, path))
        return
    try:
        yield _mapped(doc, from_documents([doc], name), number, None)
        return
    except XTbMLError as exc:
        whole = exc
    if len(doc.blocks) == 1 and _by_calendar_year(doc):
        yield Refused(name, number, None, doc.name, doc.content_type, _reason(whole, path))
        years = sorted(
            {key[[a.kind for a in doc.blocks[0].axes].index("year")] for key in doc.blocks[0].cells}
        )
        for year in years:
            try:
                yield _mapped(doc, from_documents([doc], f"{name}_{year}", year=year), number, year)
            except XTbMLError as exc:
                yield Refused(f"{name}_{year}", number, year, doc.name, doc.content_type, _reason(exc, path))
        return
    if len(doc.blocks) == 1:
        yield Refused(name, number, None, doc.name, doc.content_type, _reason(whole, path))
        if mapping.is_scale(doc):
            try:
                scale = mapping.map_document(doc)
            except XTbMLError:
                return
            if scale.kind != "rates":
                yield Scale(name, number, doc, scale)
        return
    results: list[Mapped | Refused] = []
    for part, block in enumerate(doc.blocks, start=1):
        try:
            results.append(_mapped(doc, from_documents([doc], f"{name}_{part}", part=part), number, part))
        except XTbMLError as exc:
            label = block.description or doc.name
            results.append(
                Refused(f"{name}_{part}", number, part, label, doc.content_type, _reason(exc, path))
            )
    if not any(isinstance(r, Mapped) for r in results):
        yield Refused(name, number, None, doc.name, doc.content_type, _reason(whole, path))
        return
    yield from results


def _by_calendar_year(doc: Document) -> bool:
    axes = doc.blocks[0].axes
    if {axis.kind for axis in axes} != {"age", "year"} or mapping.is_scale(doc):
        return False
    # A "Year" axis of years since an event (claim termination) holds no calendar years.
    years = next(axis.values for axis in axes if axis.kind == "year")
    return years[0] in YEARS and years[-1] in YEARS and mapping.by_calendar_year(doc)


def _mapped(doc: Document, table: ImportedTable, number: int, part: int | None) -> Mapped:
    label = (
        doc.name if part is None or part > len(doc.blocks) else doc.blocks[part - 1].description or doc.name
    )
    return Mapped(
        table,
        number,
        part,
        label,
        doc.content_type,
        doc.nation,
        table.metadata["source"].get("provider", ""),
        doc.description,
    )
