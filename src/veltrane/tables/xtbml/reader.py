"""The XML layer of the XTbML importer: one file in, plain blocks of numbers out.

Knows the element names and the files' quirks (a byte-order mark, a year axis whose scale type
says "Age", an axis of a single value with increment 0) and nothing about decrement tables;
``mapping`` gives the blocks their actuarial meaning. Every error names the file and the element.
"""

from __future__ import annotations

import math
import reprlib
import stat
import xml.etree.ElementTree as ET
from dataclasses import dataclass, field
from pathlib import Path
from xml.parsers import expat

from veltrane.tables._table_format import NUMBER_FORM, read_decimal, read_whole

__all__ = ["Axis", "Block", "Document", "XTbMLError", "XTbMLUnsupportedError", "read_document"]

#: Files larger than this are not read: the largest published tables are well under it.
MAX_BYTES = 64 * 1024 * 1024
#: Most elements (attributes counted with them), deepest nesting, and longest text of one
#: element (characters) or one tag (bytes) read. The largest published files hold about 15,000
#: elements 6 deep and texts under 4,000 characters; the parsed tree costs a few hundred bytes
#: an element, so these bound the memory a file can take, however its bytes are spent.
MAX_ELEMENTS = 250_000
MAX_DEPTH = 32
MAX_TEXT = 1_000_000
_FEED = 2**16  # bytes handed to the parser at a time
#: Largest age or duration read: far beyond any published table, and small enough that vectors
#: by age (and grids of them by year) stay small whatever span an axis declares.
MAX_AGE = 1000


class XTbMLError(ValueError):
    """An XTbML file is malformed: the message names the file and the element."""


class XTbMLUnsupportedError(XTbMLError):
    """A well-formed XTbML file whose structure has no decrement-table form here."""


@dataclass(frozen=True, slots=True)
class Axis:
    """One ``AxisDef``: its kind ("age", "duration", "year" or another name, lower-cased)."""

    kind: str
    label: str
    scale_type: str
    values: range  # a range, not a tuple: an axis may declare a huge span over a few cells

    @property
    def step(self) -> int:
        return self.values.step if len(self.values) > 1 else 1

    def span(self) -> str:
        lo, hi = self.values[0], self.values[-1]
        step = f" step {self.step}" if self.step != 1 else ""
        return f"{self.label}[{lo}-{hi}{step}]"


@dataclass(frozen=True, slots=True)
class Block:
    """One ``<Table>``: its axes (outer first), the published cells (empty ones left out) and its
    own description (files holding several tables describe each one)."""

    number: int
    axes: tuple[Axis, ...]
    cells: dict[tuple[int, ...], float] = field(repr=False)
    description: str = ""
    nation: str = ""

    def shape(self) -> str:
        return "x".join(axis.span() for axis in self.axes)


@dataclass(frozen=True, slots=True)
class Document:
    """The classification of a file and its blocks."""

    path: Path
    identity: str
    name: str
    provider: str
    reference: str
    content_type: str
    description: str
    blocks: tuple[Block, ...]

    def shape(self) -> str:
        return " + ".join(block.shape() for block in self.blocks)

    @property
    def nation(self) -> str:
        """The nation the first ``<Table>`` that states one gives ("" when none does)."""
        return next((block.nation for block in self.blocks if block.nation), "")


# Values quoted in messages are abbreviated: a file may hold anything where a number belongs.
_short = reprlib.Repr()
_short.maxstring = 60


def _quote(value: str | None) -> str:
    return repr(value) if value is None or len(value) <= _short.maxstring else _short.repr(value)


def _local(tag: str) -> str:
    return tag.rsplit("}", 1)[-1]  # namespaced tags come as uri}Tag


def _child(elem: ET.Element, name: str) -> ET.Element | None:
    return next((c for c in elem if c.tag == name or _local(c.tag) == name), None)


def _children(elem: ET.Element, name: str) -> list[ET.Element]:
    return [c for c in elem if c.tag == name or _local(c.tag) == name]  # most files use no namespace


def _text(elem: ET.Element | None, name: str) -> str:
    child = None if elem is None else _child(elem, name)
    return "" if child is None or child.text is None else " ".join(child.text.split())


def read_document(path: str | Path) -> Document:
    """Parse one XTbML file.

    Raises
    ------
    XTbMLError
        The file is not XML (or in an encoding not read), not XTbML, declares a document type,
        outgrows the parse limits, or an element is missing or holds a bad value.
    OSError
        The file does not exist or cannot be read.
    """
    path = Path(path)
    if not stat.S_ISREG(path.stat().st_mode):  # a FIFO would block the read for ever
        raise XTbMLError(f"{path}: not a regular file")
    with path.open("rb") as handle:
        data = handle.read(MAX_BYTES + 1)
    if len(data) > MAX_BYTES:
        raise XTbMLError(f"{path}: larger than {MAX_BYTES // 2**20} MB; not an XTbML table")
    root = _parse(path, data)
    if _local(root.tag) != "XTbML":
        raise XTbMLError(f"{path}: not an XTbML file (root element <{_local(root.tag)}>, expected <XTbML>)")
    info = _child(root, "ContentClassification")
    if info is None:
        raise XTbMLError(f"{path}: <ContentClassification> missing")
    tables = _children(root, "Table")
    if not tables:
        raise XTbMLError(f"{path}: no <Table> element")
    blocks = tuple(_block(path, i, table) for i, table in enumerate(tables, start=1))
    return Document(
        path=path,
        identity=_text(info, "TableIdentity"),
        name=_text(info, "TableName") or path.stem,
        provider=", ".join(p for p in (_text(info, "ProviderName"), _text(info, "ProviderDomain")) if p),
        reference=_text(info, "TableReference"),
        content_type=_text(info, "ContentType"),
        description=_text(info, "TableDescription"),
        blocks=blocks,
    )


def _parse(path: Path, data: bytes) -> ET.Element:
    """The tree of ``data``, refused as soon as it declares a document type or outgrows the limits.

    The parser reads the declared encoding and skips a byte-order mark, so the checks hold in
    any encoding it accepts.
    """
    builder = ET.TreeBuilder()
    parser = expat.ParserCreate(namespace_separator="}")  # namespaced tags come as uri}Tag
    parser.buffer_text = True
    count = depth = 0
    encoding = ""

    def declaration(_version: str, declared: str | None, _standalone: int) -> None:
        nonlocal encoding
        encoding = declared or ""

    def doctype(*_: object) -> None:
        # XTbML has no document type, and entities are declared only inside one: refusing it
        # before its body is read keeps entity expansion out of reach.
        raise XTbMLError(f"{path}: <!DOCTYPE>/<!ENTITY> declarations are not accepted in XTbML files")

    def start(tag: str, attrs: dict[str, str]) -> None:
        nonlocal count, depth
        count += 1 + len(attrs)
        depth += 1
        if count > MAX_ELEMENTS:
            raise XTbMLError(f"{path}: more than {MAX_ELEMENTS} elements and attributes; not an XTbML table")
        if depth > MAX_DEPTH:
            raise XTbMLError(f"{path}: <{_local(tag)}> nested more than {MAX_DEPTH} deep; not an XTbML table")
        builder.start(tag, attrs)

    def end(tag: str) -> None:
        nonlocal depth
        depth -= 1
        text = builder.end(tag).text
        if text is not None and len(text) > MAX_TEXT:
            raise XTbMLError(
                f"{path}: <{_local(tag)}> holds more than {MAX_TEXT} characters; not an XTbML table"
            )

    parser.XmlDeclHandler = declaration
    parser.StartDoctypeDeclHandler = doctype
    parser.StartElementHandler = start
    parser.EndElementHandler = end
    parser.CharacterDataHandler = builder.data
    try:
        # Fed in pieces, so that one tag too long to be XTbML (millions of attributes) is
        # refused before the parser takes it apart: the parser reports where its last
        # complete piece of markup ended.
        for offset in range(0, len(data), _FEED):
            parser.Parse(data[offset : offset + _FEED], False)
            if min(offset + _FEED, len(data)) - parser.CurrentByteIndex > MAX_TEXT:
                raise XTbMLError(
                    f"{path}: a tag or comment of more than {MAX_TEXT} bytes; not an XTbML table"
                )
        parser.Parse(b"", True)
    except expat.ExpatError as exc:
        raise XTbMLError(f"{path}: not well-formed XML: {exc}") from None
    except XTbMLError:
        raise
    except (LookupError, ValueError):
        # No codec of that name, or one the parser cannot use (multi-byte, not a text encoding).
        raise XTbMLError(
            f"{path}: encoding {_quote(encoding)} of the XML declaration is not supported "
            "(UTF-8, UTF-16 or a one-byte encoding such as ISO-8859-1)"
        ) from None
    return builder.close()


def _whole(path: Path, where: str, name: str, text: str | None) -> int:
    value = (text or "").strip()
    number = read_whole(value)
    if number is None:
        raise XTbMLError(f"{path}: {where}: <{name}> {_quote(value)} is not a whole number")
    if abs(number) > 10**6:  # ages, durations and years; anything larger is a broken file
        raise XTbMLError(f"{path}: {where}: <{name}> {number} is out of range")
    return number


def _axis(path: Path, where: str, elem: ET.Element) -> Axis:
    label = _text(elem, "AxisName") or elem.get("id", "")
    where = f"{where}, <AxisDef id={label!r}>"
    if not label:
        raise XTbMLError(f"{path}: {where}: <AxisName> missing")
    bounds = []
    for name in ("MinScaleValue", "MaxScaleValue", "Increment"):
        child = _child(elem, name)
        if child is None:
            raise XTbMLError(f"{path}: {where}: <{name}> missing")
        bounds.append(_whole(path, where, name, child.text))
    lo, hi, step = bounds
    if hi < lo:
        raise XTbMLError(f"{path}: {where}: <MaxScaleValue> {hi} below <MinScaleValue> {lo}")
    if step <= 0 and hi != lo:  # a single-value axis is written with increment 0 (t2360)
        raise XTbMLError(f"{path}: {where}: <Increment> {step} must be positive")
    # The axis's name says what it is: some files tag a year axis with scale type "Age".
    return Axis(label.lower(), label, _text(elem, "ScaleType"), range(lo, hi + 1, max(step, 1)))


def _block(path: Path, number: int, table: ET.Element) -> Block:
    where = f"<Table> {number}"
    meta = _child(table, "MetaData")
    if meta is None:
        raise XTbMLError(f"{path}: {where}: <MetaData> missing")
    scaling = _text(meta, "ScalingFactor")
    if scaling and scaling != "0":
        raise XTbMLUnsupportedError(
            f"{path}: {where}: <ScalingFactor> {scaling}: only unscaled values (0) are read"
        )
    axes = tuple(_axis(path, where, elem) for elem in _children(meta, "AxisDef"))
    if not axes:
        raise XTbMLError(f"{path}: {where}: <MetaData> has no <AxisDef>")
    values = _child(table, "Values")
    if values is None:
        raise XTbMLError(f"{path}: {where}: <Values> missing")
    cells: dict[tuple[int, ...], float] = {}
    outer = _child(values, "Axis")
    many = tuple(i for i, axis in enumerate(axes) if len(axis.values) > 1)
    if len(axes) > 1 and len(many) == 1 and outer is not None and outer.get("t") is None:
        # A one-value axis left out of <Values> (t2360's ultimate Duration[3-3]): read the other
        # axis alone and put the single value back into each key.
        flat: dict[tuple[int, ...], float] = {}
        _collect(path, where, values, (axes[many[0]],), (), flat)
        for (t,), value in flat.items():
            cells[tuple(t if i == many[0] else axis.values[0] for i, axis in enumerate(axes))] = value
    else:
        _collect(path, where, values, axes, (), cells)
    if not cells:
        raise XTbMLError(f"{path}: {where}: <Values> holds no numbers")
    return Block(number, axes, cells, _text(meta, "TableDescription"), _text(meta, "Nation"))


def _collect(
    path: Path,
    where: str,
    elem: ET.Element,
    axes: tuple[Axis, ...],
    key: tuple[int, ...],
    cells: dict[tuple[int, ...], float],
) -> None:
    """Walk ``<Axis t=..>`` levels down to the ``<Y t=..>`` cells of the innermost axis."""
    axis = axes[len(key)]
    if len(key) == len(axes) - 1:
        for inner in _children(elem, "Axis"):
            for y in _children(inner, "Y"):
                _cell(path, where, y, axis, key, cells)
        return
    for inner in _children(elem, "Axis"):
        label = f"{where}, <Axis t={_quote(inner.get('t'))}>"
        t = _on_axis(path, label, axis, _whole(path, label, "Axis t", inner.get("t")))
        _collect(path, label, inner, axes, (*key, t), cells)


def _on_axis(path: Path, label: str, axis: Axis, t: int) -> int:
    if t not in axis.values:
        raise XTbMLError(f"{path}: {label}: {axis.label} {t} outside the axis {axis.span()}")
    if not _readable(axis, t):
        raise XTbMLError(f"{path}: {label}: {axis.label} {t} outside 0..{MAX_AGE}")
    return t


def _readable(axis: Axis, t: int) -> bool:
    return t in axis.values and (axis.kind not in ("age", "duration") or 0 <= t <= MAX_AGE)


def _cell(
    path: Path,
    where: str,
    y: ET.Element,
    axis: Axis,
    key: tuple[int, ...],
    cells: dict[tuple[int, ...], float],
) -> None:
    # Cells are most of a file: the label naming one is built only for a message.
    t_text = y.get("t")
    t = None if t_text is None else read_whole(t_text.strip())
    if t is None or not _readable(axis, t):
        label = f"{where}, <Y t={_quote(t_text)}>"
        t = _on_axis(path, label, axis, _whole(path, label, "Y t", t_text))
    text = (y.text or "").strip()
    if not text:
        return  # an empty cell is an unpublished one
    value = read_decimal(text, bare_point=True)  # some published files write ".0144"
    cell = (*key, t)
    if value is None or not math.isfinite(value) or cell in cells:
        label = f"{path}: {where}, <Y t={_quote(t_text)}>"
        if value is None:
            raise XTbMLError(f"{label}: value {_quote(text)} is not a number ({NUMBER_FORM})")
        if not math.isfinite(value):
            raise XTbMLError(f"{label}: value {_quote(text)} is not finite")
        raise XTbMLError(f"{label}: the cell appears twice")
    cells[cell] = value
