"""Generate the bundled SOA table store ``src/veltrane/tables/data/soa-tables.bin`` from the published files.

Run ``python tools/make_soa_store.py [RAW_FOLDER]``: every ``tNNNN.xml`` of the folder (by default
``../shared/tables/raw/soa-xtbml-all`` beside the checkout) is read by the XTbML importer and
written into the store, the refused files and parts with their reasons. The output depends only
on the files and the importer. ``--check`` writes nothing and fails (status 1) when the bundled
store does not hold what the files give; ``--out FILE`` writes elsewhere.
"""

from __future__ import annotations

import argparse
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "src"))

from veltrane.tables.soa import STORE_PATH, build_store, pack, unpack  # noqa: E402

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
