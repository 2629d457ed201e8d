"""Every table of the SOA table service by its number, from a store bundled with the package.

``TableSource("SOA3299")`` (and every table class) finds table 3299 here when no tables directory
holds a table of that name. A file of several unrelated tables gives ``SOA{n}_{part}`` for each
part and ``SOA{n}`` for its first part. The store is generated from the published XTbML files by
``tools/make_soa_store.py``, through the importer, and read with no network and no other file.

Format (``data/soa-tables.bin``): a header line, the length of the index (8 bytes, little
endian), the index (LZMA-compressed JSON: one row per table and per refused file or part, and the
offset and length of each chunk), then the chunks. A chunk is the LZMA-compressed text of the
tables of a few consecutive files: per table a line ``@NAME``, its metadata as one JSON line and
one line per column (name, then its values in shortest round-trip form, so every double reads
back bit for bit). Compressing a few files together keeps the store near the size of a solid
archive of the published files, while the first table loaded decompresses a chunk of some tens
of kilobytes, not the whole store.
"""

from __future__ import annotations

import difflib
import json
import lzma
import re
import struct
import threading
import zlib
from collections.abc import Iterable
from pathlib import Path
from typing import TYPE_CHECKING, Any, Final

import numpy as np
import polars as pl

if TYPE_CHECKING:
    from veltrane.tables.source import TableSource
    from veltrane.tables.xtbml.mapping import Mapped
    from veltrane.tables.xtbml.reader import Document

__all__ = [
    "STORE_PATH",
    "Store",
    "build_store",
    "is_soa_name",
    "load",
    "load_scale",
    "pack",
    "store",
    "unpack",
]

#: The bundled store.
STORE_PATH: Final = Path(__file__).parent / "data" / "soa-tables.bin"
_HEADER: Final = b"veltrane SOA table store 1\n"
#: Files per chunk: a first load decompresses one chunk, so chunks stay small.
FILES_PER_CHUNK: Final = 16
_NAME = re.compile(r"SOA([0-9]{1,6})(?:_([0-9]{1,4}))?")  # a part, or a calendar year
_INDEX_FIELDS = (
    "name",
    "number",
    "part",
    "table_name",
    "content_type",
    "nation",
    "provider",
    "description",
    "structure",
    "sexes",
    "ages",
    "table_type",
)


def is_soa_name(name: str) -> bool:
    """Whether ``name`` has the form of a table of the service (``SOA3299``, ``SOA3123_2``,
    ``SOA1501_1950``)."""
    return _NAME.fullmatch(name) is not None


# -- writing ---------------------------------------------------------------------------------------
def _number_text(value: float) -> str:
    text = repr(value)
    return "0" if text == "0.0" else text


def record_text(name: str, metadata: dict[str, Any], columns: dict[str, np.ndarray]) -> str:
    """One table as the store holds it: ``@NAME``, metadata JSON, one line per column but ``age``."""
    lines = [f"@{name}", json.dumps(metadata, sort_keys=True, ensure_ascii=False, separators=(",", ":"))]
    for column, values in columns.items():
        if column != "age":
            column = column or "-"  # a scale's one column has no suffix
            numbers = np.asarray(values, dtype=np.float64).tolist()
            lines.append(" ".join([column, *map(_number_text, numbers)]))
    return "\n".join(lines) + "\n"


def build_store(folder: Path) -> tuple[dict[str, Any], list[str]]:
    """The index and the chunk texts of the store for the published files in ``folder``.

    Every table is built as a source once, so a table that the importer maps but the table
    format refuses is listed as refused, never stored.
    """
    from veltrane.tables.xtbml.service import Mapped, Refused, Scale, read_service

    tables: list[dict[str, Any]] = []
    refused: list[dict[str, Any]] = []
    scales: list[dict[str, Any]] = []
    texts: dict[int, list[str]] = {}  # file number -> records
    for item in read_service(folder):
        if isinstance(item, Scale):
            doc, mapped = item.doc, item.mapped
            about = {
                "kind": mapped.kind,
                "first": mapped.first,
                "last": mapped.last,
                "grid_years": mapped.grid_years,
                "name": doc.name,
                "identity": doc.identity,
                "provider": doc.provider,
                "reference": doc.reference,
                "content_type": doc.content_type,
                "description": doc.description,
            }
            texts.setdefault(item.number, []).append(record_text(item.name, about, mapped.columns))
            scales.append({"name": item.name, "number": item.number, "table_name": doc.name})
            continue
        if isinstance(item, Refused):
            refused.append(
                _refused_row(
                    item.name, item.number, item.part, item.table_name, item.content_type, item.reason
                )
            )
            continue
        assert isinstance(item, Mapped)
        table = item.table
        try:
            source = table.to_source()
        except ValueError as exc:
            reason = " ".join(str(exc).split())
            refused.append(
                _refused_row(table.name, item.number, item.part, item.table_name, item.content_type, reason)
            )
            continue
        text = record_text(table.name, table.metadata, table.columns)
        row = {
            "name": table.name,
            "number": item.number,
            "part": item.part,
            "table_name": item.table_name,
            "content_type": item.content_type,
            "nation": item.nation,
            "provider": item.provider,
            "description": item.description,
            **_shape(source),
        }
        tables.append(row)
        texts.setdefault(item.number, []).append(text)
    _add_first_parts(tables)
    numbers = sorted(texts)
    chunks: list[str] = []
    chunk_of: dict[int, int] = {}
    for start in range(0, len(numbers), FILES_PER_CHUNK):
        group = numbers[start : start + FILES_PER_CHUNK]
        chunks.append("".join(text for n in group for text in texts[n]))
        chunk_of.update(dict.fromkeys(group, len(chunks) - 1))
    for row in (*tables, *scales):
        row["chunk"] = chunk_of[row["number"]]
    index = {
        "scales": scales,
        "format": 1,
        "files": len({r["number"] for r in (*tables, *refused)}),
        "tables": tables,
        "refused": refused,
    }
    return index, chunks


def _refused_row(
    name: str, number: int, part: int | None, table_name: str, content_type: str, reason: str
) -> dict[str, Any]:
    return {
        "name": name,
        "number": number,
        "part": part,
        "table_name": table_name,
        "content_type": content_type,
        "reason": reason,
    }


def _add_first_parts(tables: list[dict[str, Any]]) -> None:
    """``SOA{n}`` for the first part of a file of several tables, when that part maps."""
    names = {row["name"] for row in tables}
    for row in list(tables):
        if row["part"] == 1 and f"SOA{row['number']}" not in names:
            tables.append({**row, "name": f"SOA{row['number']}", "record": row["name"]})
    tables.sort(key=lambda r: (r["number"], r["part"] is not None, r["part"] or 0))


def _shape(source: TableSource) -> dict[str, Any]:
    taxonomy = dict(line.split(": ", 1) for line in source._taxonomy_lines() if ": " in line)
    return {
        "structure": taxonomy.get("Structure", ""),
        "sexes": list(source.valid_sexes),
        "ages": f"{source.start_age}-{source.w}",
        "table_type": source.table_type,
    }


def pack(index: dict[str, Any], chunks: Iterable[str]) -> bytes:
    """The store's bytes: header, lookup, catalogue and chunks (offsets filled in here)."""
    blobs = [lzma.compress(text.encode(), preset=9 | lzma.PRESET_EXTREME) for text in chunks]
    spans, at = [], 0
    for blob in blobs:
        spans.append(f"{at}:{len(blob)}")
        at += len(blob)
    lines = [" ".join(spans), str(index["files"])]
    lines += [f"{r['name']} {r['number']} {r['chunk']} {r.get('record', r['name'])}" for r in index["tables"]]
    lines += [f"{r['name']} {r['number']} -" for r in index["refused"]]
    # A scale is refused as a table, so it is listed twice: marked "~" as a scale.
    lines += [f"~{r['name']} {r['number']} {r['chunk']} {r['name']}" for r in index["scales"]]
    lookup = zlib.compress("\n".join(lines).encode(), 9)
    catalogue = lzma.compress(json.dumps(index, ensure_ascii=False).encode(), preset=9)
    sizes = struct.pack("<QQ", len(lookup), len(catalogue))
    return _HEADER + sizes + lookup + catalogue + b"".join(blobs)


def _sections(data: bytes, where: str) -> tuple[bytes, bytes, memoryview]:
    start = len(_HEADER) + 16
    if not data.startswith(_HEADER) or len(data) < start:
        raise ValueError(f"{where}: not a SOA table store of this version")
    lookup_size, catalogue_size = struct.unpack_from("<QQ", data, len(_HEADER))
    middle = start + lookup_size
    body = memoryview(data)[middle + catalogue_size :]
    return data[start:middle], data[middle : middle + catalogue_size], body


def _catalogue(blob: bytes, where: str) -> dict[str, Any]:
    try:
        loaded: dict[str, Any] = json.loads(lzma.decompress(blob))
        return loaded
    except (lzma.LZMAError, ValueError) as exc:
        raise ValueError(f"{where}: the store is damaged ({exc})") from None


def unpack(data: bytes) -> tuple[dict[str, Any], list[str]]:
    """The index and the chunk texts of a store's bytes."""
    _, blob, body = _sections(data, "store")
    store = Store.parse(data, "store")
    chunks = [lzma.decompress(body[at : at + size]).decode() for at, size in store.chunks]
    return _catalogue(blob, "store"), chunks


# -- reading ---------------------------------------------------------------------------------------
class Store:
    """A store read into memory: where each table is, and the compressed catalogue and chunks.

    Only the small lookup is decoded on opening, into a line per name; the tables, refusals and
    numbers it lists are sorted out when first asked for, the catalogue (table names, content
    types, reasons of refusal) likewise, and a chunk when one of its tables is loaded.
    """

    __slots__ = ("_derived", "_lookup", "body", "catalogue_blob", "chunks", "decoded", "files", "where")

    def __init__(self, data: bytes, where: str) -> None:
        lookup, self.catalogue_blob, self.body = _sections(data, where)
        self.where = where
        try:
            lines = zlib.decompress(lookup).decode().split("\n")
            self.chunks = tuple((int(a), int(b)) for a, b in (span.split(":") for span in lines[0].split()))
            self.files = int(lines[1])
            # name -> "number chunk record", "number -" for a refused file or part; "~name" a scale
            self._lookup: dict[str, str] = dict(line.split(" ", 1) for line in lines[2:])
        except (zlib.error, ValueError, IndexError) as exc:
            raise ValueError(f"{where}: the store is damaged ({exc})") from None
        self._derived: dict[str, Any] = {}
        self.decoded: dict[str, Any] = {}

    @classmethod
    def parse(cls, data: bytes, where: str) -> Store:
        """The store of ``data``; ``where`` names it in messages."""
        return cls(data, where)

    def place(self, name: str) -> tuple[int, str] | None:
        """(chunk, record name) of the table ``name``, or None when the store has no such table."""
        entry = self._lookup.get(name)
        if entry is None:
            return None
        fields = entry.split(" ")
        if len(fields) != 3:  # refused
            return None
        return int(fields[1]), fields[2]

    def _sorted(self) -> dict[str, Any]:
        if not self._derived:
            tables: dict[str, tuple[int, str]] = {}
            refused: set[str] = set()
            scales: dict[str, int] = {}
            numbers: dict[int, list[str]] = {}
            for name, entry in self._lookup.items():
                number, *rest = entry.split(" ")
                if name.startswith("~"):
                    scales[name[1:]] = int(rest[0])
                    continue
                if rest == ["-"]:
                    refused.add(name)
                else:
                    tables[name] = (int(rest[0]), rest[1])
                numbers.setdefault(int(number), []).append(name)
            self._derived.update(tables=tables, refused=frozenset(refused), scales=scales, numbers=numbers)
        return self._derived

    @property
    def tables(self) -> dict[str, tuple[int, str]]:
        """Name -> (chunk, record name) of every table."""
        found: dict[str, tuple[int, str]] = self._sorted()["tables"]
        return found

    @property
    def refused(self) -> frozenset[str]:
        """Names of the refused files and parts."""
        found: frozenset[str] = self._sorted()["refused"]
        return found

    @property
    def scales(self) -> dict[str, int]:
        """Name -> chunk of every projection scale."""
        found: dict[str, int] = self._sorted()["scales"]
        return found

    @property
    def numbers(self) -> dict[int, list[str]]:
        """Number -> names of its tables and refused parts."""
        found: dict[int, list[str]] = self._sorted()["numbers"]
        return found

    def catalogue(self) -> dict[str, Any]:
        """The index: rows of the tables and of the refused files and parts."""
        if not self.decoded:
            self.decoded.update(_catalogue(self.catalogue_blob, self.where))
        return self.decoded

    def chunk(self, number: int) -> dict[str, str]:
        """Records of one chunk by table name; the last few chunks read stay decompressed."""
        with _lock:
            cached = _chunks.get(number)
            if cached is None:
                at, size = self.chunks[number]
                text = lzma.decompress(self.body[at : at + size]).decode()
                cached = {}
                for record in text.split("\n@"):
                    name, _, rest = record.lstrip("@").partition("\n")
                    cached[name] = rest
                if len(_chunks) >= _CHUNKS_KEPT:
                    del _chunks[next(iter(_chunks))]
                _chunks[number] = cached
            return cached


_store: Store | None = None
_chunks: dict[int, dict[str, str]] = {}
_CHUNKS_KEPT: Final = 4
_lock = threading.Lock()  # threads loading tables share the chunk cache


def store() -> Store:
    """The bundled store, opened once per process."""
    global _store
    if _store is None:
        _store = Store.parse(STORE_PATH.read_bytes(), str(STORE_PATH))
    return _store


def load(name: str) -> TableSource:
    """The source of the service's table ``name`` (``SOA{n}`` or ``SOA{n}_{part}``).

    Raises
    ------
    FileNotFoundError
        No file of that number (the message suggests close numbers), or no such part.
    XTbMLUnsupportedError
        The file or part is in the service but has no table form here; the message says why.
    """
    from veltrane.tables.source import TableSource

    match = _NAME.fullmatch(name)
    if match is None:
        raise FileNotFoundError(f"table {name!r} is not a SOA table number (SOA3299, SOA3123_2)")
    found = store()
    place = found.place(name)
    if place is None:
        if name in found.refused:
            from veltrane.tables.xtbml.reader import XTbMLUnsupportedError

            reason = next(r["reason"] for r in found.catalogue()["refused"] if r["name"] == name)
            if name in found.scales:
                reason += f' (by number: scale="{name}")'
            parts = [n for n in found.numbers.get(int(match.group(1)), []) if n.startswith(f"{name}_")]
            if parts and not match.group(2):
                reason += f"; its tables are {parts[0]}" + (f" to {parts[-1]}" if len(parts) > 1 else "")
            raise XTbMLUnsupportedError(f"table {name!r} of the SOA table service is refused: {reason}")
        raise FileNotFoundError(_missing(found, name, int(match.group(1))))
    chunk, record_name = place
    metadata, body = _record(found, chunk, record_name)
    # Python floats, not arrays: a first frame built from arrays costs polars an import that
    # would double the time of a first load.
    columns: dict[str, pl.Series] = {}
    for line in body.splitlines():
        column, *values = line.split(" ")
        columns[column] = pl.Series(column, [float(v) for v in values], dtype=pl.Float64)
    length = len(next(iter(columns.values())))
    frame = pl.DataFrame([pl.Series("age", range(length), dtype=pl.Int64), *columns.values()])
    return TableSource.from_frame(name, metadata, frame)


def _record(found: Store, chunk: int, name: str) -> tuple[dict[str, Any], str]:
    meta_line, _, body = found.chunk(chunk)[name].partition("\n")
    return json.loads(meta_line), body


def load_scale(name: str) -> tuple[Document, Mapped]:
    """The projection scale ``name`` of the service (``SOA2583``) as the importer reads a scale file.

    Raises
    ------
    XTbMLError
        The service has no projection scale of that number.
    """
    from veltrane.tables.xtbml.mapping import Mapped
    from veltrane.tables.xtbml.reader import Document, XTbMLError

    found = store()
    chunk = found.scales.get(name)
    if chunk is None:
        raise XTbMLError(f"{name}: no file of that name, and no projection scale of the SOA table service")
    about, body = _record(found, chunk, name)
    columns = {}
    for line in body.splitlines():
        column, *values = line.split(" ")
        columns["" if column == "-" else column] = np.array([float(v) for v in values])
    doc = Document(
        path=Path(name),
        identity=about["identity"],
        name=about["name"],
        provider=about["provider"],
        reference=about["reference"],
        content_type=about["content_type"],
        description=about["description"],
        blocks=(),
    )
    mapped = Mapped(about["kind"], about["first"], about["last"], columns, grid_years=about["grid_years"])
    return doc, mapped


def _missing(found: Store, name: str, number: int) -> str:
    names = found.numbers.get(number)
    if names is not None:
        parts = sorted((n for n in names if "_" in n), key=lambda n: int(n.rpartition("_")[2]))
        if len(parts) > 6:
            return f"table {name!r}: the file of SOA table {number} has the parts {parts[0]} to {parts[-1]}"
        if parts:
            return f"table {name!r}: the file of SOA table {number} has the parts {', '.join(parts)}"
        return f"table {name!r}: SOA table {number} is one table; its name is SOA{number}"
    known = sorted(found.numbers)
    close = sorted(known, key=lambda n: (abs(n - number), n))[:3]
    alike = difflib.get_close_matches(str(number), [str(n) for n in known], n=3, cutoff=0.75)
    suggestions = list(dict.fromkeys([*(int(a) for a in alike), *close]))[:4]
    names_ = ", ".join(f"SOA{n}" for n in suggestions)
    return (
        f"table {name!r}: no table {number} in the SOA table service bundled here "
        f"({found.files} files, numbers {known[0]}-{known[-1]}); close numbers: {names_}"
    )
