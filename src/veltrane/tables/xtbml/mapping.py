"""What an XTbML file means as a decrement table: blocks of cells in, columns by age out.

One file gives the columns of one sex. Vectors run over ages 0..last; ages below the first
published one hold 0 and are marked by ``first`` (the table's ``start_age``), never filled with
rates. Select blocks (issue age x duration) are re-indexed to attained age, x = issue age + d - 1
for durations counted from 1, as the table classes read select columns. Whatever cannot be
expressed so is refused with the structure named.
"""

from __future__ import annotations

import re
from dataclasses import dataclass, field

import numpy as np

from veltrane.tables._table_format import MAX_SELECT_DURATION, YEARS
from veltrane.tables.xtbml.reader import Block, Document, XTbMLError, XTbMLUnsupportedError

__all__ = ["Mapped", "age_basis", "by_calendar_year", "map_document", "sex_of", "table_type_of"]


@dataclass(slots=True)
class Mapped:
    """The columns of one file, by suffix ("" plain, "s1".., "ult", or a grid year for scales).

    ``kind`` is "rates" (a decrement table), "scale" (improvement by age) or "scale_by_year"
    (improvement by age and calendar year; the suffixes are the years).
    """

    kind: str
    first: int
    last: int
    columns: dict[str, np.ndarray]
    select_period: int | None = None
    start_duration: int | None = None
    #: Improvement columns of a table that carries its own trend (by year of birth).
    mi: dict[str, np.ndarray] = field(default_factory=dict)
    grid_years: list[int] | None = None
    base_year: int | None = None
    notes: list[str] = field(default_factory=list)


# -- what the name and the content type say ------------------------------------------------------
_UNISEX = re.compile(r"unisex|gender[- ]blended|\bblended\b|\bneutral\b", re.IGNORECASE)
_FEMALE = re.compile(r"\b(females?|women|woman|frauen|weiblich|femmes?)\b", re.IGNORECASE)
_MALE = re.compile(r"\b(males?|men|man|m(ä|ae)nner|m(ä|ae)nnlich|hommes?)\b", re.IGNORECASE)


def sex_of(name: str) -> str | None:
    """The sex that a table's name states ("m", "f", "u"); None when it states none or both."""
    if _UNISEX.search(name):
        return "u"
    female, male = bool(_FEMALE.search(name)), bool(_MALE.search(name))
    if female == male:
        return None
    return "f" if female else "m"


def age_basis(name: str) -> str | None:
    """ "ALB" (age last birthday) or "ANB" (age nearest birthday) when the name says so."""
    found = {basis for basis in ("ALB", "ANB") if re.search(rf"\b{basis}\b", name)}
    return found.pop() if len(found) == 1 else None


def table_type_of(content_type: str) -> str:
    """ "exit" for lapse and persistency tables, "disability" for claim incidence, else "life".

    Mortality of disabled lives, recovery and claim cost are not incidence rates: they stay
    life tables (one decrement out of the state the table describes).
    """
    text = content_type.lower()
    if any(word in text for word in ("lapse", "persistency", "voluntary", "withdrawal", "surrender")):
        return "exit"
    if "incidence" in text:
        return "disability"
    return "life"


_BY_BIRTH = re.compile(r"generation|génération|birth|cohort|naissance", re.IGNORECASE)
_BY_PERIOD = re.compile(r"\bperiod\b|\blife tables?\b", re.IGNORECASE)


def by_calendar_year(doc: Document) -> bool:
    """Whether rates by age and year are by calendar year (period rates of each year), not by year
    of birth: the name or description says "period" or "life tables" and states no generation,
    cohort or birth, or the content type is not generational."""
    text = f"{doc.name} {doc.description}"
    if _BY_BIRTH.search(text):
        return False
    return bool(_BY_PERIOD.search(text)) or "generation" not in doc.content_type.lower()


def is_scale(doc: Document) -> bool:
    text = f"{doc.content_type} {doc.name}".lower()
    return "projection scale" in text or "improvement" in text or "trend factor" in text


# -- classification --------------------------------------------------------------------------------
def map_document(doc: Document, *, part: int | None = None, year: int | None = None) -> Mapped:
    """Columns of one file; ``part`` (from 1) picks one of several unrelated tables in a file,
    ``year`` one calendar year of a table of rates by age and calendar year."""
    blocks = doc.blocks
    if part is not None:
        if not 1 <= part <= len(blocks):
            raise XTbMLError(f"{doc.path}: part {part} does not exist (the file has {len(blocks)} <Table>s)")
        blocks = (blocks[part - 1],)
    kinds = [tuple(axis.kind for axis in block.axes) for block in blocks]
    scale = is_scale(doc)
    if year is not None and (scale or len(blocks) != 1 or set(kinds[0]) != {"age", "year"}):
        raise XTbMLError(f"{doc.path}: year= applies to a table of rates by age and calendar year")
    if len(blocks) == 1:
        block, kind = blocks[0], kinds[0]
        if kind == ("age",):
            return _ages_only(doc, block, "scale" if scale else "rates")
        if kind == ("duration",) and not scale:
            mapped = _ages_only(doc, block, "rates")
            mapped.notes.append(f"rows are policy years (durations {mapped.first}-{mapped.last}), not ages")
            return mapped
        if set(kind) == {"age", "year"}:
            if scale:
                return _scale_by_year(doc, block)
            if year is not None or by_calendar_year(doc):
                return _one_calendar_year(doc, block, year)
            return _by_year_of_birth(doc, block)
    elif all(k == ("age",) for k in kinds):
        raise _refuse(
            doc,
            f"{len(blocks)} age-only tables in one file, not a select block; pick one with part=N (--part N)",
        )
    elif not scale and all(k == ("age", "duration") for k in kinds[:-1]) and _is_ultimate(blocks[-1]):
        return _select(doc, blocks[:-1], blocks[-1])
    raise _refuse(doc, "no decrement-table form (axes must be age, duration, or age x duration + age)")


def _refuse(doc: Document, why: str) -> XTbMLUnsupportedError:
    return XTbMLUnsupportedError(f"{doc.path}: cannot map {doc.shape()}: {why}")


def _is_ultimate(block: Block) -> bool:
    kinds = tuple(axis.kind for axis in block.axes)
    # Some files give the ultimate block a one-value duration axis (the first ultimate duration).
    return kinds == ("age",) or (kinds == ("age", "duration") and len(block.axes[1].values) == 1)


def _check_step(doc: Document, block: Block, axis_index: int) -> None:
    axis = block.axes[axis_index]
    if axis.step != 1:
        raise _refuse(
            doc, f"<Table> {block.number} has {axis.label.lower()}s in steps of {axis.step} (banded)"
        )


def _rate(doc: Document, block: Block, key: tuple[int, ...], kind: str) -> float:
    value = block.cells[key]
    # An improvement of 100% or more would turn the projected rates negative.
    if (0.0 <= value <= 1.0) if kind == "rates" else (-1.0 < value < 1.0):
        return value
    at = ", ".join(f"{a.label} {k}" for a, k in zip(block.axes, key, strict=True))
    what = f"rate {value!r} outside [0, 1]" if kind == "rates" else f"improvement {value!r} outside (-1, 1)"
    raise XTbMLError(f"{doc.path}: <Table> {block.number}, {at}: {what}")


def _ages_only(doc: Document, block: Block, kind: str) -> Mapped:
    _check_step(doc, block, 0)
    published = sorted(key[0] for key in block.cells)
    first, last = published[0], published[-1]
    missing = [a for a in range(first, last + 1) if (a,) not in block.cells]
    if missing:
        raise XTbMLError(
            f"{doc.path}: <Table> {block.number}: no value for {block.axes[0].label} {missing[0]}"
        )
    vector = np.zeros(last + 1)
    for a in range(first, last + 1):
        vector[a] = _rate(doc, block, (a,), kind)
    return Mapped(kind, first, last, {"": vector})


def _select(doc: Document, select: tuple[Block, ...], ultimate: Block) -> Mapped:
    durations = select[0].axes[1].values
    if len(durations) > MAX_SELECT_DURATION:
        raise _refuse(doc, f"a select period of {len(durations)} years (at most {MAX_SELECT_DURATION})")
    for block in select:
        _check_step(doc, block, 0)
        _check_step(doc, block, 1)
        if block.axes[1].values != durations:
            raise _refuse(doc, f"select blocks with different durations ({block.axes[1].span()})")
    _check_step(doc, ultimate, 0)
    d0, period = durations[0], len(durations)
    if len(ultimate.axes) == 2 and ultimate.axes[1].values[0] != d0 + period:
        raise _refuse(
            doc, f"the ultimate block starts at duration {ultimate.axes[1].values[0]}, not {d0 + period}"
        )
    rates: dict[tuple[int, int], float] = {}  # (issue age, duration); blocks of different age ranges merge
    origin: dict[int, int] = {}  # issue age -> number of its block
    for block in select:
        for key in block.cells:
            origin[key[0]] = block.number
            pair = (key[0], key[1])
            if pair in rates:
                raise XTbMLError(
                    f"{doc.path}: <Table> {block.number}: issue age {key[0]} appears in two blocks"
                )
            rates[pair] = _rate(doc, block, key, "rates")
    for i in sorted({i for i, _ in rates}):
        # Leading and trailing durations may be unpublished (the select period starts later, or
        # runs past the last age); one missing between published ones is a gap in the file.
        published = [d for d in durations if (i, d) in rates]
        gap = next((d for d in range(published[0], published[-1] + 1) if (i, d) not in rates), None)
        if gap is not None:
            raise XTbMLError(
                f"{doc.path}: <Table> {origin[i]}: no value for issue age {i}, duration {gap} "
                "between published ones"
            )
    ult = {key[0]: _rate(doc, ultimate, key, "rates") for key in ultimate.cells}
    issue = sorted({i for i, _ in rates})
    first = min(issue[0], min(ult))
    last = max(ult)
    reach = max(i + d - d0 for i, d in rates)
    if reach > last:
        raise _refuse(doc, f"select rates run to age {reach}, past the last ultimate age {last}")
    missing = [x for x in range(min(ult), last + 1) if x not in ult]
    if missing:
        raise XTbMLError(f"{doc.path}: <Table> {ultimate.number}: no value for Age {missing[0]}")
    columns: dict[str, np.ndarray] = {}
    filled = 0
    ult_vector = np.zeros(last + 1)
    for x, q in ult.items():
        ult_vector[x] = q
    for d in durations:
        vector = np.zeros(last + 1)
        for x in range(first, last + 1):
            key = (x - (d - d0), d)
            if key in rates:
                vector[x] = rates[key]
            else:  # no policy of that issue age is published: the ultimate rate, or 0 below it
                vector[x] = ult_vector[x]
                filled += 1
        columns[f"s{d - d0 + 1}"] = vector
    columns["ult"] = ult_vector
    notes = [
        f"select columns by attained age (issue ages {issue[0]}-{issue[-1]}, durations {d0}-{durations[-1]})"
    ]
    if filled:
        notes.append(
            "select cells of unpublished issue ages hold the ultimate rate of the attained age (0 below it)"
        )
    if min(ult) > first:
        notes.append(f"ultimate rates published from age {min(ult)}; the ultimate column holds 0 below it")
    return Mapped("rates", first, last, columns, select_period=period, start_duration=1, notes=notes)


def _grid(doc: Document, block: Block) -> tuple[int, int, dict[tuple[int, int], float]]:
    """Cells keyed (age, year) whichever axis is outer; age steps of 1."""
    kinds = [axis.kind for axis in block.axes]
    age_at = kinds.index("age")
    _check_step(doc, block, age_at)
    _check_step(doc, block, 1 - age_at)
    cells = {(k[age_at], k[1 - age_at]): v for k, v in block.cells.items()}
    outside = sorted(y for _, y in cells if y not in YEARS)
    if outside:
        year_axis = block.axes[1 - age_at].label
        raise XTbMLError(
            f"{doc.path}: <Table> {block.number}: {year_axis} {outside[0]} is not a calendar year "
            f"in {YEARS.start}..{YEARS.stop - 1}"
        )
    ages = sorted({a for a, _ in cells})
    return ages[0], ages[-1], cells


def _scale_by_year(doc: Document, block: Block) -> Mapped:
    first, last, cells = _grid(doc, block)
    years = sorted({y for _, y in cells})
    columns: dict[str, np.ndarray] = {}
    for year in years:
        vector = np.zeros(last + 1)
        for age in range(first, last + 1):
            if (age, year) not in cells:
                raise XTbMLError(f"{doc.path}: <Table> {block.number}: no value for age {age}, year {year}")
            key = (age, year) if block.axes[0].kind == "age" else (year, age)
            vector[age] = _rate(doc, block, key, "scale")
        columns[str(year)] = vector
    return Mapped("scale_by_year", first, last, columns, grid_years=years)


def _one_calendar_year(doc: Document, block: Block, year: int | None) -> Mapped:
    """The period rates of one calendar year of a table by age and calendar year."""
    _, _, cells = _grid(doc, block)
    years = sorted({y for _, y in cells})
    if year is None:
        raise _refuse(
            doc,
            f"rates by age and calendar year {years[0]}-{years[-1]} (a period table of each year), "
            "not by year of birth; pick one year with year=Y (--year Y)",
        )
    if year not in years:
        raise XTbMLError(
            f"{doc.path}: <Table> {block.number} has no calendar year {year} (it has {years[0]}-{years[-1]})"
        )
    ages = sorted(a for a, y in cells if y == year)
    missing = next((a for a in range(ages[0], ages[-1] + 1) if (a, year) not in cells), None)
    if missing is not None:
        raise XTbMLError(f"{doc.path}: <Table> {block.number}: no value for age {missing}, year {year}")
    vector = np.zeros(ages[-1] + 1)
    age_first = block.axes[0].kind == "age"
    for age in ages:
        vector[age] = _rate(doc, block, (age, year) if age_first else (year, age), "rates")
    notes = [f"the rates of calendar year {year} of a table by age and calendar year {years[0]}-{years[-1]}"]
    return Mapped("rates", ages[0], ages[-1], {"": vector}, notes=notes)


def _by_year_of_birth(doc: Document, block: Block) -> Mapped:
    """A table of rates by age and year of birth, as base rates with year-indexed improvement.

    With base year B the base rate of age x is that of the cohort B - x, and the improvement of
    age x in calendar year y is 1 - q(x, y - x) / q(x, y - 1 - x): the projection's product then
    telescopes to q(x, cohort) exactly. Cohorts outside an age's published ones take the nearest
    published cohort's rate (the improvement there is 0).
    """
    first, last, cells = _grid(doc, block)
    for (age, yob), q in cells.items():
        if not 0.0 <= q <= 1.0:
            raise XTbMLError(
                f"{doc.path}: <Table> {block.number}, Age {age}, Year {yob}: rate {q!r} outside [0, 1]"
            )
    by_age: dict[int, dict[int, float]] = {}
    for (age, yob), q in cells.items():
        by_age.setdefault(age, {})[yob] = q
    spans: dict[int, tuple[int, int]] = {}
    for age in range(first, last + 1):
        row = by_age.get(age)
        if not row:
            raise XTbMLError(f"{doc.path}: <Table> {block.number}: no value for age {age}")
        lo, hi = min(row), max(row)
        gap = next((c for c in range(lo, hi + 1) if c not in row), None)
        if gap is not None:
            raise _refuse(doc, f"age {age} has no rate for year of birth {gap} between published ones")
        if 0.0 in row.values() and any(v > 0.0 for v in row.values()):
            zero = min(c for c, v in row.items() if v == 0.0)
            raise _refuse(
                doc,
                f"age {age} has rate 0 for year of birth {zero} and positive rates for others; "
                "such rates by year of birth cannot be expressed as base rates with improvement",
            )
        spans[age] = (lo, hi)
    base = max(hi for _, hi in spans.values())

    def rate_of(age: int, yob: int) -> float:
        lo, hi = spans[age]
        return by_age[age][min(max(yob, lo), hi)]

    start = min(lo + age + 1 for age, (lo, _) in spans.items()) - 1
    stop = max(hi + age for age, (_, hi) in spans.items()) + 1
    years = list(range(start, stop + 1))
    base_vector = np.zeros(last + 1)
    mi = {str(y): np.zeros(last + 1) for y in years}
    for age in range(first, last + 1):
        base_vector[age] = rate_of(age, base - age)
        for y in years:
            before = rate_of(age, y - 1 - age)
            mi[str(y)][age] = 0.0 if before == 0.0 else 1.0 - rate_of(age, y - age) / before
    lo_all = min(lo for lo, _ in spans.values())
    notes = [
        f"rates by year of birth {lo_all}-{base} held as base year {base} rates with year-indexed "
        "improvement that reproduces them; other years of birth take the nearest published one's rates"
    ]
    return Mapped(
        "rates", first, last, {"": base_vector}, mi=mi, grid_years=years, base_year=base, notes=notes
    )
