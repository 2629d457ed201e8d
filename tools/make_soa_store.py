"""Generate the bundled SOA table store ``src/veltrane/tables/data/soa-tables.bin`` from the published files.

Run ``python tools/make_soa_store.py [RAW_FOLDER]``: every ``tNNNN.xml`` of the folder (by default
``../shared/tables/raw/soa-xtbml-all`` beside the checkout) is read by the XTbML importer and
written into the store, the refused files and parts with their reasons. The output depends only
on the files and the importer. ``--check`` writes nothing and fails (status 1) when the bundled
store does not hold what the files give; ``--out FILE`` writes elsewhere.
"""

from __future__ import annotations

import argparse
import collections
import re
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "src"))

from veltrane.tables.soa import FILES_PER_CHUNK, STORE_PATH, build_store, pack, unpack  # noqa: E402

RAW = (
    next((p / "shared" for p in ROOT.parents if (p / "shared").is_dir()), ROOT.parent / "shared")
    / "tables"
    / "raw"
    / "soa-xtbml-all"
)


def differences(built: tuple[dict, list[str]], stored: tuple[dict, list[str]]) -> list[str]:
    """What differs between two stores' contents (index rows and chunk texts), at most a few lines."""
    (index, chunks), (old_index, old_chunks) = built, stored
    found = []
    for key in sorted(set(index) | set(old_index)):
        if key in ("tables", "refused"):
            new_rows = {r["name"]: r for r in index.get(key, [])}
            old_rows = {r["name"]: r for r in old_index.get(key, [])}
            for name in sorted(set(new_rows) | set(old_rows)):
                if new_rows.get(name) != old_rows.get(name):
                    found.append(f"{key} {name}: {old_rows.get(name)} -> {new_rows.get(name)}")
        elif index.get(key) != old_index.get(key):
            found.append(f"{key}: {old_index.get(key)!r} -> {index.get(key)!r}")
    if len(chunks) != len(old_chunks):
        found.append(f"{len(old_chunks)} chunks -> {len(chunks)}")
    found += [
        f"chunk {i} differs" for i, (a, b) in enumerate(zip(chunks, old_chunks, strict=False)) if a != b
    ]
    return found


_DOCS = """
## The SOA table service by number

Every table of the SOA table service (a May-2022 copy of its {files:,} XTbML files) is found by its
table number, with no network and no file beside the package: `LifeTable("SOA3299", "m",
duration=1)`, `TableSource("SOA3299")`, `veltrane show SOA3299`, `veltrane export SOA3299`. A table
file or a registered table of the same name comes first. `veltrane tables --search WORDS` and
`veltrane.catalogue(search=WORDS)` search the service with the tables above (its rows come last,
with their number, table name, content type, nation and provider); `veltrane tables --soa` lists
all {tables:,} of its tables and `veltrane tables --soa --refused` the {refused_files:,} files and
{refused_parts:,} parts that have no table form here, each with its reason.

**Numbers and parts.** The file `tNNNN.xml` is the table `SOANNNN`. A file of several tables that
do not make one select-and-ultimate table (the three RP-2014 tables of table 3123, the blocks of a
claim-termination study) gives each part that maps as `SOA{{n}}_{{part}}` (from 1), and `SOA{{n}}`
is its first part. A table of rates by age and calendar year (population tables, the SSA rates of
table 1501: the name says "period" or "life tables", or the content type is not generational) gives
the period table of each year as `SOA{{n}}_{{year}}` (`SOA1501_1950`); a table by age and year of
birth (a name stating a generation, cohort or birth) stays one generational table.
{mapped_files:,} of the {files:,} files give at least one table. The {scales} projection scales
are no tables by themselves, but each is the scale of a base table by number:
`read_xtbml(base, name, scale="SOA2583", formula="compound")`, `veltrane import BASE.xml --scale
SOA2583 ...` (a file of that name comes first).

**Table classes.** The file's content type chooses the class: voluntary termination and premium
persistency are exit tables (`ExitTable`), claim incidence disability tables (`DisabilityTable`),
everything else life tables (`LifeTable`), mortality of disabled lives and recovery included. The
sex is the one the table's name states (male, female), else "u". A select block by issue age and
duration is read by attained age: `duration=d` at age x is the rate of issue age x - d + 1.

| content type | class | tables |
|---|---|---|
{content_rows}
**Refused structures.** A file is refused, with its reason, when its structure has no table form
here; the counts below are of files and parts:

| reason | count |
|---|---|
{refused_rows}
Two-dimensional blocks other than issue age by duration (claim termination by months or years
since disablement and age at disablement, population tables by age and calendar year, select
blocks whose issue ages come in bands) have no decrement-table form; projection scales are
improvement rates, not a table by themselves (import them as the scale of a base table); rates
above 1 are not probabilities of one year (no such file's description says its rates are capped at
1, so none is clipped); years outside 1000..3000 are not calendar years. Ages in bands (abridged
population tables of five-year probabilities, incidence by five-year age group) are refused rather
than expanded: the files follow different conventions for what a band's value means.

**The store.** The tables come from `src/veltrane/tables/data/soa-tables.bin` ({size:.1f} MB),
which `tools/make_soa_store.py` generates from the published files through the XTbML importer
(the one reader of XTbML here) and checks with `--check`. It holds each table's metadata and
columns as text in shortest round-trip form, LZMA-compressed in chunks of {per_chunk} files: a table's
first load decompresses one chunk (milliseconds); later loads come from the source cache.
"""


def _reason_kind(reason: str) -> str:
    text = re.sub(r"^t[0-9]+\.xml: ", "", reason)
    text = re.sub(r"^cannot map .*?: (?=[a-z0-9<])", "", text)
    text = re.sub(r"^<Table> [0-9]+(, [^:]*)?: ", "", text)
    text = re.sub(r"-?[0-9]+(\.[0-9]+)?", "N", text)
    return text.split(";")[0].split(" (")[0]


def docs_section(path: Path = STORE_PATH) -> str:
    """The section of ``docs/catalogue.md`` on the service, from the bundled store's index."""
    index, _ = unpack(path.read_bytes())
    tables, refused = index["tables"], index["refused"]
    kinds = collections.Counter((r["content_type"], r["table_type"]) for r in tables if "record" not in r)
    classes = {"life": "LifeTable", "exit": "ExitTable", "disability": "DisabilityTable"}
    content_rows = "".join(
        f"| {content or '(none)'} | `{classes[kind]}` | {count} |\n"
        for (content, kind), count in sorted(kinds.items(), key=lambda item: (-item[1], item[0]))
    )
    reasons = collections.Counter(_reason_kind(r["reason"]) for r in refused)
    refused_rows = "".join(
        f"| `{reason.replace('|', '/')}` | {count} |\n"
        for reason, count in sorted(reasons.items(), key=lambda i: (-i[1], i[0]))
    )
    return _DOCS.format(
        files=index["files"],
        tables=len(tables),
        refused_files=sum(r["part"] is None for r in refused),
        refused_parts=sum(r["part"] is not None for r in refused),
        mapped_files=len({r["number"] for r in tables}),
        scales=len(index["scales"]),
        content_rows=content_rows,
        refused_rows=refused_rows,
        size=path.stat().st_size / 1e6,
        per_chunk=FILES_PER_CHUNK,
    )


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n", 1)[0])
    parser.add_argument("raw", nargs="?", type=Path, default=RAW, help="folder of tNNNN.xml files")
    parser.add_argument("--out", type=Path, default=STORE_PATH, help="store to write or check")
    parser.add_argument("--check", action="store_true", help="compare with the store, write nothing")
    args = parser.parse_args(argv)
    if not args.raw.is_dir():
        print(f"no folder {args.raw}", file=sys.stderr)
        return 2
    start = time.perf_counter()
    index, chunks = build_store(args.raw)
    seconds = time.perf_counter() - start
    summary = f"{index['files']} files: {len(index['tables'])} tables, {len(index['refused'])} refused"
    if args.check:
        try:
            stored = unpack(args.out.read_bytes())
        except (OSError, ValueError) as exc:
            print(f"{args.out}: {exc}", file=sys.stderr)
            return 1
        found = differences((index, chunks), stored)
        if found:
            print(f"{args.out} differs from what {args.raw} gives:", *found[:20], sep="\n  ", file=sys.stderr)
            return 1
        print(f"{args.out} is up to date ({summary}; built in {seconds:.1f} s)")
        return 0
    data = pack(index, chunks)
    temporary = args.out.with_name(args.out.name + ".tmp")
    temporary.write_bytes(data)
    temporary.replace(args.out)  # never a half-written store
    print(f"wrote {args.out}: {len(data) / 1e6:.2f} MB, {summary} ({seconds:.1f} s)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
