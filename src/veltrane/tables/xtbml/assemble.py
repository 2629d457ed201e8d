"""One table from XTbML files: one file per sex, optionally paired with projection scales.

The files' columns are named for their sexes and checked to share one shape (ages, select
period, trend); the metadata carries the files' identity under ``[source]``. Nothing is written
here: the result is handed to ``TableSource.from_frame`` or ``write_table``.
"""

from __future__ import annotations

import os
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any

import numpy as np
import polars as pl

from veltrane.tables.xtbml.mapping import Mapped, age_basis, map_document, sex_of, table_type_of
from veltrane.tables.xtbml.pairing import base_year_of, improvement_columns
from veltrane.tables.xtbml.reader import Document, XTbMLError, XTbMLUnsupportedError, read_document

if TYPE_CHECKING:
    from veltrane.tables.source import TableSource

__all__ = ["ImportedTable", "from_documents", "read_xtbml"]

_PREFIX = {"life": "qx", "disability": "ix", "exit": "ox"}
PathLike = str | os.PathLike[str]


@dataclass(frozen=True, slots=True)
class ImportedTable:
    """A table read from XTbML files: its name, metadata (shaped as ``NAME.toml``) and columns."""

    name: str
    metadata: dict[str, Any]
    columns: dict[str, np.ndarray]

    def to_source(self) -> TableSource:
        """An in-memory ``TableSource`` (register it to use it by name without files)."""
        from veltrane.tables.source import TableSource

        return TableSource.from_frame(self.name, self.metadata, pl.DataFrame(self.columns))

    def write(self, directory: PathLike) -> Path:
        """Write ``NAME.toml`` and ``NAME.csv`` in ``directory``; return the ``.toml`` path."""
        from veltrane.tables.source import write_table

        return write_table(directory, self.name, self.metadata, self.columns)


def _paths(files: PathLike | Sequence[PathLike], what: str) -> list[Path]:
    if isinstance(files, (str, os.PathLike)):
        return [Path(files)]
    if isinstance(files, Sequence) and all(isinstance(f, (str, os.PathLike)) for f in files):
        return [Path(f) for f in files]
    raise TypeError(f"{what} must be a path or a sequence of paths, got {files!r}")


def read_xtbml(
    files: PathLike | Sequence[PathLike],
    name: str,
    *,
    scale: PathLike | Sequence[PathLike] = (),
    formula: str | None = None,
    base_year: int | None = None,
    sex: str | None = None,
    table_type: str | None = None,
    part: int | None = None,
    year: int | None = None,
) -> ImportedTable:
    """Read XTbML files (one per sex) into one table.

    Parameters
    ----------
    files : path or sequence of paths
        The rate tables: one file, or one per sex (the sex is read from each table's name).
    name : str
        Name of the resulting table.
    scale : path or sequence of paths, optional
        Projection scales (one, or one per sex) that make the table generational; a scale of
        the SOA table service may be given by number ("SOA2583") when no file has that name.
    formula : str, optional
        With a scale by age: "compound", "exponential" or "exponential_damped". A scale by age
        and calendar year is applied year by year ("projected_improvement").
    base_year : int, optional
        Calendar year of the base rates; by default the year the base table's name states.
    sex : str, optional
        Sex of a single file ("m", "f", "u"), when its name does not state it.
    table_type : str, optional
        "life", "exit" or "disability"; by default from the content type.
    part : int, optional
        Which ``<Table>`` (from 1) of a file holding several unrelated tables.
    year : int, optional
        Which calendar year of a table of rates by age and calendar year (read as a period table).

    Raises
    ------
    XTbMLUnsupportedError
        A file's structure has no decrement-table form; the message names the structure.
    XTbMLError
        A file is malformed, or the files do not fit together; the message names the file.
    """
    from veltrane.tables.source import _check_name

    _check_name(name)  # before reading: the name must be usable for files and registration
    paths = _paths(files, "files")
    if not paths:
        raise XTbMLError("no XTbML file given")
    if sex is not None and (len(paths) != 1 or sex not in ("m", "f", "u")):
        raise XTbMLError(f"sex= applies to a single file and is one of m, f, u, got {sex!r}")
    if table_type is not None and (not isinstance(table_type, str) or table_type not in _PREFIX):
        raise XTbMLError(f"table_type must be one of {', '.join(_PREFIX)}, got {table_type!r}")
    if part is not None and (isinstance(part, bool) or not isinstance(part, int)):
        raise XTbMLError(f"part must be a whole number (from 1), got {part!r}")
    if year is not None and (isinstance(year, bool) or not isinstance(year, int)):
        raise XTbMLError(f"year must be a calendar year (a whole number), got {year!r}")
    docs = [read_document(p) for p in paths]
    return from_documents(
        docs,
        name,
        scale=scale,
        formula=formula,
        base_year=base_year,
        sex=sex,
        table_type=table_type,
        part=part,
        year=year,
    )


def from_documents(
    docs: Sequence[Document],
    name: str,
    *,
    scale: PathLike | Sequence[PathLike] = (),
    formula: str | None = None,
    base_year: int | None = None,
    sex: str | None = None,
    table_type: str | None = None,
    part: int | None = None,
    year: int | None = None,
) -> ImportedTable:
    """``read_xtbml`` of files already parsed (the options checked by it): a file is parsed once
    however many of its parts are read."""
    mapped = [map_document(doc, part=part, year=year) for doc in docs]
    for doc, m in zip(docs, mapped, strict=True):
        if m.kind != "rates":
            raise XTbMLUnsupportedError(
                f"{doc.path}: cannot map {doc.shape()}: a projection scale is not a decrement table by "
                "itself; give it as the scale of a base table (scale=, --scale)"
            )
    labels = [_label(doc, part) + ("" if year is None else f", {year}") for doc in docs]
    sexes = [sex] if sex is not None else _sexes(docs, labels)
    first = _check_same_shape(docs, mapped)
    kind = table_type if table_type is not None else table_type_of(docs[0].content_type)
    notes = list(dict.fromkeys(n for m in mapped for n in m.notes))
    if part is not None:
        notes.append(f"<Table> {part} of {len(docs[0].blocks)} in the file")
    columns: dict[str, np.ndarray] = {"age": np.arange(first.last + 1)}
    for s, m in zip(sexes, mapped, strict=True):
        for suffix, vector in m.columns.items():
            columns[f"{_PREFIX[kind]}_{s}" + (f"_{suffix}" if suffix else "")] = vector
    metadata: dict[str, Any] = {
        "table_type": kind,
        "description": "; ".join(labels),
        "sexes": sexes,
        "omega": first.last,
        "start_age": first.first,
    }
    if first.select_period is not None:
        metadata["select"] = {"period": first.select_period, "start_duration": first.start_duration}
    scales = _paths(scale, "scale")
    if first.mi:
        if scales:
            raise XTbMLError(
                f"{docs[0].path}: the table carries its own trend by year of birth; give no scale"
            )
        columns.update(_own_trend(sexes, mapped))
        metadata["generational"] = {
            "formula_type": "projected_improvement",
            "base_year": first.base_year,
            "mi_structure": "year_indexed",
            "grid_years": sorted({int(y) for m in mapped for y in m.mi}),
        }
    elif scales:
        pairs = [_scale(p) for p in scales]
        scale_docs = [d for d, _ in pairs]
        mi, generational = improvement_columns(pairs, sexes, first.last, formula, notes)
        generational["base_year"] = base_year_of(docs, base_year, notes)
        columns.update(mi)
        metadata["generational"] = generational
        metadata["description"] += " with " + "; ".join(d.name for d in scale_docs)
        docs = [*docs, *scale_docs]
    elif formula is not None or base_year is not None:
        raise XTbMLError("formula= and base_year= apply only with a scale (scale=, --scale)")
    metadata["source"] = _source(docs, notes)
    return ImportedTable(name, metadata, columns)


def _scale(path: Path) -> tuple[Document, Mapped]:
    """A scale file, or a projection scale of the SOA table service by number (``SOA2583``)."""
    from veltrane.tables import soa

    if not os.path.lexists(path) and soa.is_soa_name(str(path)):
        return soa.load_scale(str(path))
    doc = read_document(path)
    return doc, map_document(doc)


def _label(doc: Document, part: int | None) -> str:
    """What names the table read: the chosen part's own description, else the file's name."""
    if part is None:
        return doc.name
    return doc.blocks[part - 1].description or doc.name


def _sexes(docs: Sequence[Document], labels: Sequence[str]) -> list[str]:
    if len(docs) == 1:
        return [sex_of(labels[0]) or "u"]
    sexes = []
    for doc, label in zip(docs, labels, strict=True):
        sex = sex_of(label)
        if sex is None:
            raise XTbMLError(
                f"{doc.path}: the name {label!r} states no single sex; import it alone with sex="
            )
        if sex in sexes:
            raise XTbMLError(f"{doc.path}: a second table for sex {sex!r}; give one file per sex")
        sexes.append(sex)
    return sexes


def _check_same_shape(docs: Sequence[Document], mapped: Sequence[Mapped]) -> Mapped:
    first = mapped[0]
    for doc, m in zip(docs[1:], mapped[1:], strict=True):
        ours = (m.first, m.last, m.select_period, bool(m.mi), m.base_year)
        theirs = (first.first, first.last, first.select_period, bool(first.mi), first.base_year)
        if ours != theirs:
            raise XTbMLError(
                f"{doc.path}: ages {m.first}-{m.last}, select period {m.select_period} do not match "
                f"{docs[0].path.name} (ages {first.first}-{first.last}, "
                f"select period {first.select_period}); "
                "one table needs one shape"
            )
    return first


def _own_trend(sexes: Sequence[str], mapped: Sequence[Mapped]) -> dict[str, np.ndarray]:
    years = sorted({int(y) for m in mapped for y in m.mi})
    columns = {}
    for s, m in zip(sexes, mapped, strict=True):
        zero = np.zeros(m.last + 1)  # outside a sex's grid its improvement is 0 by construction
        for y in years:
            columns[f"mi_{s}_{y}"] = m.mi.get(str(y), zero)
    return columns


def _source(docs: Sequence[Document], notes: list[str]) -> dict[str, Any]:
    def joined(values: list[str]) -> str:
        return "; ".join(dict.fromkeys(v for v in values if v))

    source: dict[str, Any] = {
        "name": joined([d.name for d in docs]),
        "table_identity": joined([d.identity for d in docs]),
        "provider": joined([d.provider for d in docs]),
        "reference": joined([d.reference for d in docs]),
        "content_type": joined([d.content_type for d in docs]),
    }
    bases = {age_basis(d.name) for d in docs}
    if len(bases) == 1 and None not in bases:
        source["age_basis"] = bases.pop()
    if notes:
        source["notes"] = "; ".join(notes)
    return {k: v for k, v in source.items() if v}
