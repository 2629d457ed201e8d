"""Improvement columns from projection-scale files, for a base table that becomes generational.

A scale by age gives one ``mi_{sex}`` column applied with a named formula (compound,
exponential, exponential_damped); a scale by age and calendar year gives ``mi_{sex}_{year}``
columns applied year by year (projected_improvement). Scales published over fewer ages than the
base table are extended flat: ages below the first use its rate, ages above the last use the last
one, as the scales' edge rates are meant.
"""

from __future__ import annotations

import re
from collections.abc import Sequence

import numpy as np

from veltrane.tables._table_format import YEARS
from veltrane.tables.xtbml.mapping import Mapped, sex_of
from veltrane.tables.xtbml.reader import Document, XTbMLError

__all__ = ["FORMULAS", "base_year_of", "improvement_columns"]

#: Formulas for a scale by age; a scale by age and year is always applied year by year.
FORMULAS = ("compound", "exponential", "exponential_damped")
_BY_YEAR = "projected_improvement"


def base_year_of(docs: Sequence[Document], given: int | None, notes: list[str]) -> int:
    """The base year given, or the one every base table's name states (a year in 1000..3000)."""
    if given is not None:
        if isinstance(given, bool) or not isinstance(given, int) or given not in YEARS:
            raise XTbMLError(
                f"base_year must be a calendar year in {YEARS.start}..{YEARS.stop - 1}, got {given!r}"
            )
        return given
    years = set()
    for doc in docs:
        stated = re.search(r"(?<!\d)(\d{4}) base year", doc.name, re.IGNORECASE)
        found = {stated[1]} if stated else set(re.findall(r"(?<!\d)(1[89]\d\d|20\d\d)(?!\d)", doc.name))
        if len(found) != 1:
            raise XTbMLError(
                f"{doc.path}: the name {doc.name!r} states no single base year; give base_year= (--base-year)"
            )
        years.add(int(found.pop()))
    if len(years) != 1:
        raise XTbMLError(
            f"base tables state different base years {sorted(years)}; give base_year= (--base-year)"
        )
    year = years.pop()
    if year not in YEARS:
        raise XTbMLError(
            f"the base tables' names state the base year {year}, not a calendar year in "
            f"{YEARS.start}..{YEARS.stop - 1}; give base_year= (--base-year)"
        )
    notes.append(f"base year {year} read from the table name")
    return year


def _extend(vector: np.ndarray, first: int, last: int, upto: int) -> np.ndarray:
    """The scale over ages 0..upto, flat beyond its published ages ``first..last``."""
    out = np.empty(upto + 1)
    span = min(last, upto)
    out[: first + 1] = vector[first]
    out[first : span + 1] = vector[first : span + 1]
    out[span + 1 :] = vector[last]
    return out


def improvement_columns(
    scales: Sequence[tuple[Document, Mapped]],
    sexes: Sequence[str],
    last: int,
    formula: str | None,
    notes: list[str],
) -> tuple[dict[str, np.ndarray], dict[str, object]]:
    """The ``mi_*`` columns for the base table's sexes, and its ``[generational]`` keys (less base_year)."""
    for doc, mapped in scales:
        if mapped.kind not in ("scale", "scale_by_year"):
            raise XTbMLError(
                f"{doc.path}: {doc.name!r} is not a projection scale (its content type is "
                f"{doc.content_type!r}); give improvement scales as scale files"
            )
    kinds = {mapped.kind for _, mapped in scales}
    if len(kinds) != 1:
        raise XTbMLError(
            "the scales mix a scale by age with a scale by age and calendar year; give scales of one kind"
        )
    by_year = kinds == {"scale_by_year"}
    if by_year:
        if formula not in (None, _BY_YEAR):
            raise XTbMLError(
                f"a scale by age and calendar year is applied year by year; formula {formula!r} "
                f"does not apply (leave it out, or give {_BY_YEAR!r})"
            )
        formula = _BY_YEAR
    elif formula not in FORMULAS:
        raise XTbMLError(
            f"a scale by age needs formula= (--formula) one of {', '.join(FORMULAS)}, got {formula!r}"
        )

    by_sex: dict[str, tuple[Document, Mapped]] = {}
    for doc, mapped in scales:
        sex = sex_of(doc.name) if len(scales) > 1 else "u"
        if sex is None or sex in by_sex:
            raise XTbMLError(f"{doc.path}: cannot tell which sex the scale {doc.name!r} is for")
        by_sex[sex] = (doc, mapped)
    grids = {tuple(m.grid_years or ()) for _, m in by_sex.values()}
    if len(grids) > 1:
        raise XTbMLError("the scales cover different calendar years; give scales of one edition")

    columns: dict[str, np.ndarray] = {}
    for sex in sexes:
        source = by_sex.get(sex) or by_sex.get("u")
        if source is None:
            raise XTbMLError(f"no improvement scale for sex {sex!r} (scales given for {', '.join(by_sex)})")
        doc, mapped = source
        if mapped.first > 0 or mapped.last != last:
            notes.append(
                f"{doc.name}: published for ages {mapped.first}-{mapped.last}, extended flat to 0-{last}"
            )
        for suffix, vector in mapped.columns.items():
            name = f"mi_{sex}_{suffix}" if suffix else f"mi_{sex}"
            columns[name] = _extend(vector, mapped.first, mapped.last, last)
    generational: dict[str, object] = {"formula_type": formula}
    if by_year:
        generational["mi_structure"] = "year_indexed"
        generational["grid_years"] = list(next(iter(by_sex.values()))[1].grid_years or [])
    return columns, generational
