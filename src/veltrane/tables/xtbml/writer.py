"""XTbML files of any table: the inverse of the importer.

A period table is one ``<Table>`` by age (or by duration, for an exit table whose rows are policy
years); a select-and-ultimate table is its select block by issue age x duration plus the ultimate
table by age, the attained-age columns read back to issue ages (issue age = x - d + 1); a
generational table is its base table and its scale (two files), or the rates of one cohort.
Values are written in their shortest round-trip form, so the importer reads the same doubles.
"""

from __future__ import annotations

import contextlib
import os
import tempfile
from collections.abc import Sequence
from dataclasses import dataclass
from pathlib import Path
from typing import TYPE_CHECKING, Any
from xml.sax.saxutils import escape

from veltrane.tables.xtbml.mapping import sex_of, table_type_of
from veltrane.tables.xtbml.reader import XTbMLError

if TYPE_CHECKING:
    from veltrane.tables.source import TableSource

__all__ = ["write_xtbml"]

_PREFIX = {"life": "qx", "disability": "ix", "exit": "ox"}
# A content type the importer reads back as the same table type.
_CONTENT_TYPE = {"life": "Mortality", "disability": "Claim Incidence", "exit": "Termination Voluntary"}
_SEX_WORD = {"m": "Male", "f": "Female", "u": "Unisex"}


@dataclass(frozen=True, slots=True)
class _Axis:
    name: str
    values: range


@dataclass(frozen=True, slots=True)
class _Block:
    description: str
    axes: tuple[_Axis, ...]
    cells: dict[tuple[int, ...], float]


def _number(value: float) -> str:
    return repr(float(value))


def _axis_xml(axis: _Axis) -> str:
    step = axis.values.step if len(axis.values) > 1 else 1
    scale = "Age" if axis.name == "Age" else "Ordinal Date" if axis.name == "Duration" else "Calendar Year"
    return (
        f'      <AxisDef id="{axis.name}">\n'
        f"        <ScaleType>{scale}</ScaleType>\n"
        f"        <AxisName>{axis.name}</AxisName>\n"
        f"        <MinScaleValue>{axis.values[0]}</MinScaleValue>\n"
        f"        <MaxScaleValue>{axis.values[-1]}</MaxScaleValue>\n"
        f"        <Increment>{step}</Increment>\n"
        "      </AxisDef>\n"
    )


def _values_xml(block: _Block) -> str:
    lines = ["    <Values>"]
    if len(block.axes) == 1:
        lines.append("      <Axis>")
        for t in block.axes[0].values:
            if (t,) in block.cells:
                lines.append(f'        <Y t="{t}">{_number(block.cells[(t,)])}</Y>')
        lines.append("      </Axis>")
    else:
        outer, inner = block.axes
        for t in outer.values:
            row = [(u, block.cells[(t, u)]) for u in inner.values if (t, u) in block.cells]
            if not row:
                continue
            lines.append(f'      <Axis t="{t}">')
            lines.append("        <Axis>")
            lines.extend(f'          <Y t="{u}">{_number(v)}</Y>' for u, v in row)
            lines.append("        </Axis>")
            lines.append("      </Axis>")
    lines.append("    </Values>")
    return "\n".join(lines) + "\n"


def _document(info: dict[str, str], nation: str, blocks: Sequence[_Block]) -> str:
    parts = ['<?xml version="1.0" encoding="utf-8"?>\n<XTbML>\n  <ContentClassification>\n']
    for tag in (
        "TableIdentity",
        "ProviderName",
        "TableReference",
        "ContentType",
        "TableName",
        "TableDescription",
    ):
        if info.get(tag):
            parts.append(f"    <{tag}>{escape(info[tag])}</{tag}>\n")
    parts.append("  </ContentClassification>\n")
    for block in blocks:
        parts.append("  <Table>\n    <MetaData>\n")
        parts.append("      <ScalingFactor>0</ScalingFactor>\n      <DataType>Floating Point</DataType>\n")
        if nation:
            parts.append(f"      <Nation>{escape(nation)}</Nation>\n")
        if block.description:
            parts.append(f"      <TableDescription>{escape(block.description)}</TableDescription>\n")
        parts.extend(_axis_xml(axis) for axis in block.axes)
        parts.append("    </MetaData>\n")
        parts.append(_values_xml(block))
        parts.append("  </Table>\n")
    parts.append("</XTbML>\n")
    return "".join(parts)


def _info(source: TableSource, sex: str, content_type: str | None = None) -> dict[str, str]:
    cited = source.metadata.get("source", {})
    name = str(cited.get("name") or source.description or source.table_name)
    if sex_of(name) != sex:
        # The name must state the sex written, so that the file reads back as that sex: the
        # sex's own part of a name joined from several files, else the name with the sex added.
        own = [part for part in name.split("; ") if sex_of(part) == sex]
        name = own[0] if len(own) == 1 else f"{name} - {_SEX_WORD[sex]}"
        if sex_of(name) != sex:
            name = f"{source.table_name} - {_SEX_WORD[sex]}"
    # A generational table's content type names its scale too ("...; Projection Scale"): the
    # rates file keeps the rest, or the importer would read it as a scale.
    kind = content_type or "; ".join(
        part
        for part in str(cited.get("content_type", "")).split("; ")
        if "projection scale" not in part.lower()
    )
    if (content_type is None and table_type_of(kind) != source.table_type) or not kind:
        kind = _CONTENT_TYPE[source.table_type]
    provider = cited.get("provider") or cited.get("authority") or ""
    return {
        "TableIdentity": str(cited.get("table_identity", "")),
        "ProviderName": str(provider),
        "TableReference": str(cited.get("reference", "")),
        "ContentType": kind,
        "TableName": name,
        "TableDescription": source.description,
    }


def _by_duration(source: TableSource) -> bool:
    notes = str(source.metadata.get("source", {}).get("notes", ""))
    return source.table_type == "exit" and "rows are policy years" in notes


def _period_block(source: TableSource, values: Sequence[float], description: str = "") -> _Block:
    first = source.start_age
    axis = _Axis("Duration" if _by_duration(source) else "Age", range(first, source.w + 1))
    return _Block(description, (axis,), {(x,): float(values[x]) for x in axis.values})


def _select_blocks(source: TableSource, column: str) -> list[_Block]:
    """The select block by issue age x duration, and the ultimate block by attained age.

    Duration k of issue age i is the select column k at attained age i + k - 1. The columns'
    first ages (below the first age + k - 1) belong to issue ages below the table's first age:
    they are written as such only when they differ from the ultimate rate (the importer fills the
    cells of unpublished issue ages with it).
    """
    data = source.data
    period = source.select_period or 0
    start = source.start_duration or 1
    first, last = source.start_age, source.w
    ultimate_values = data[f"{column}_ult"].to_list()
    columns = [data[f"{column}_s{k}"].to_list() for k in range(1, period + 1)]
    below = any(
        columns[k - 1][x] != ultimate_values[x]
        for k in range(2, period + 1)
        for x in range(first, min(first + k - 1, last + 1))
    )
    low = max(0, first - period + 1) if below else first
    cells: dict[tuple[int, ...], float] = {}
    for k, values in enumerate(columns, start=1):
        for issue in range(low, last - k + 2):
            if issue + k - 1 >= first:
                cells[(issue, start + k - 1)] = float(values[issue + k - 1])
    select = _Block(
        "select rates by issue age and duration",
        (_Axis("Age", range(low, last + 1)), _Axis("Duration", range(start, start + period))),
        cells,
    )
    ultimate = _Block(
        "ultimate rates by attained age",
        (_Axis("Age", range(first, last + 1)),),
        {(x,): float(ultimate_values[x]) for x in range(first, last + 1)},
    )
    return [select, ultimate]


def _write(path: Path, text: str) -> None:
    """Write beside the target, then move into place: a failure leaves no half-written file."""
    folder = path.parent if str(path.parent) else Path(".")
    if path.exists() and not path.is_file():
        raise IsADirectoryError(f"{path} exists and is not a regular file; nothing written")
    try:
        handle = tempfile.NamedTemporaryFile(  # noqa: SIM115 (closed below, moved into place)
            "w", encoding="utf-8", newline="\n", dir=folder, prefix=".veltrane-", suffix=".tmp", delete=False
        )
    except OSError as exc:
        raise type(exc)(f"cannot write {path}: {exc.strerror}") from None
    try:
        with handle:
            handle.write(text)
        os.chmod(handle.name, 0o644)
        os.replace(handle.name, path)
    except OSError as exc:
        raise type(exc)(f"cannot write {path}: {exc.strerror}") from None
    finally:
        with contextlib.suppress(FileNotFoundError):
            os.unlink(handle.name)


def _source_of(name_or_source: str | TableSource) -> TableSource:
    from veltrane.tables.source import TableSource

    if isinstance(name_or_source, TableSource):
        return name_or_source
    if isinstance(name_or_source, str):
        return TableSource(name_or_source)
    raise TypeError(f"write_xtbml() takes a table name or a TableSource, got {type(name_or_source).__name__}")


def _choose_sex(source: TableSource, sex: str | None) -> str:
    sexes = source.valid_sexes
    if sex is None:
        if len(sexes) != 1:
            raise XTbMLError(
                f"table {source.table_name!r} has the sexes {', '.join(sexes)}; an XTbML file holds one: "
                "give sex= (--sex)"
            )
        return sexes[0]
    if sex not in sexes:
        raise XTbMLError(f"table {source.table_name!r} has no sex {sex!r} (it has {', '.join(sexes)})")
    return sex


def write_xtbml(
    name_or_source: str | TableSource,
    path: str | os.PathLike[str],
    *,
    sex: str | None = None,
    cohort: int | None = None,
    scale_path: str | os.PathLike[str] | None = None,
) -> list[Path]:
    """Write a table as an XTbML file that ``read_xtbml`` reads back to the same rates.

    Parameters
    ----------
    name_or_source : str or TableSource
        The table: a name found as ``TableSource(name)`` finds it, or a source.
    path : path-like
        File to write (replaced if it exists).
    sex : str, optional
        The sex written ("m", "f", "u"); required when the table has several.
    cohort : int, optional
        For a generational table: write the rates of this year of birth as a period table.
        Without it a generational table is written as its base table, and its improvement scale
        goes to ``scale_path`` (by default ``path`` with ``-scale`` before the suffix).
    scale_path : path-like, optional
        Where a generational table's scale is written.

    Returns
    -------
    list of Path
        The files written: the table, then its scale when one was written.

    Raises
    ------
    XTbMLError
        The sex or cohort does not apply to the table. Nothing is written.
    OSError
        A file cannot be written; no file is left half-written.
    """
    source = _source_of(name_or_source)
    sex = _choose_sex(source, sex)
    target = Path(path)
    column = f"{_PREFIX[source.table_type]}_{sex}"
    generational = source.metadata.get("generational")
    if cohort is not None:
        if generational is None:
            raise XTbMLError(f"table {source.table_name!r} is not generational; cohort= does not apply")
        if source.select:
            raise XTbMLError(
                f"table {source.table_name!r} is select and generational: write it without cohort="
            )
        text = _cohort_text(source, sex, cohort)
        _write(target, text)
        return [target]
    if source.select:
        blocks = _select_blocks(source, column)
    else:
        blocks = [_period_block(source, source.data[column].to_list())]
    nation = str(source.metadata.get("source", {}).get("nation", ""))
    if generational is None:
        _write(target, _document(_info(source, sex), nation, blocks))
        return [target]
    scale_target = (
        Path(scale_path)
        if scale_path is not None
        else target.with_name(f"{target.stem}-scale{target.suffix}")
    )
    base_year = generational.get("base_year")
    info = _info(source, sex)
    # The published name often names the scale too, which would make the base read as a scale.
    info["TableName"] = f"{source.table_name} base table - {_SEX_WORD[sex]}"
    if base_year is not None:
        info["TableName"] += f" ({base_year} base year)"
    base = _document(info, nation, blocks)
    scale = _document(_scale_info(source, sex), nation, [_scale_block(source, sex, generational)])
    _write(target, base)
    _write(scale_target, scale)
    return [target, scale_target]


def _scale_info(source: TableSource, sex: str) -> dict[str, str]:
    info = _info(source, sex, content_type="Projection Scale")
    info["TableName"] = f"Improvement scale of {info['TableName']}"
    return info


def _scale_block(source: TableSource, sex: str, generational: dict[str, Any]) -> _Block:
    data = source.data
    ages = range(0, source.w + 1)
    if generational.get("mi_structure") == "year_indexed":
        years = [int(y) for y in generational["grid_years"]]
        cells: dict[tuple[int, ...], float] = {}
        for year in years:
            values = data[f"mi_{sex}_{year}"].to_list()
            cells.update({(x, year): float(values[x]) for x in ages})
        return _Block("", (_Axis("Age", ages), _Axis("Year", range(years[0], years[-1] + 1))), cells)
    values = data[f"mi_{sex}"].to_list()
    return _Block("", (_Axis("Age", ages),), {(x,): float(values[x]) for x in ages})


def _cohort_text(source: TableSource, sex: str, cohort: int) -> str:
    from veltrane.tables.life import LifeTable

    if isinstance(cohort, bool) or not isinstance(cohort, int):
        raise XTbMLError(f"cohort must be a year of birth (a whole number), got {cohort!r}")
    classes = {"life": LifeTable}
    cls = classes.get(source.table_type)
    if cls is None:
        raise XTbMLError(f"table {source.table_name!r}: cohort rates are written for life tables only")
    try:
        table = cls(source.table_name, sex, cohort=cohort)  # type: ignore[arg-type]  # a sex of the source
    except ValueError as exc:
        raise XTbMLError(str(exc)) from None
    rates = table.qx(list(range(source.w + 1)))
    nation = str(source.metadata.get("source", {}).get("nation", ""))
    info = _info(source, sex)
    # The published name often names the scale, which would make the file read as a scale.
    info["TableName"] = f"{source.table_name} - {_SEX_WORD[sex]} (year of birth {cohort})"
    block = _period_block(source, [float(r) for r in rates], f"rates of the year of birth {cohort}")
    return _document(info, nation, [block])
