"""Import of every published XTbML file in ``../shared/tables/raw/soa-xtbml`` (target: under 3 s in all).

Run with ``make bench`` or ``python bench/xtbml.py``. Each file is read and written as a table
file pair into a scratch folder, as ``veltrane import FILE --name NAME --out DIR`` does; the
files the importer refuses (claim-termination and banded tables, scales on their own, several
tables in one file) are read up to their refusal, which is part of the work. Reported: the
median time over all files, the slowest file and the count of imported and refused files.

A benchmark, not a test: it reports, it never fails a build. It says so and stops when the
published files are not beside the checkout.
"""

from __future__ import annotations

import sys
import tempfile
import time
from pathlib import Path

from veltrane.tables.xtbml import XTbMLUnsupportedError, import_xtbml

sys.path.insert(0, str(Path(__file__).resolve().parent))
from timing import median_seconds

SOA = Path(__file__).resolve().parents[2] / "shared" / "tables" / "raw" / "soa-xtbml"
TARGET_SECONDS = 3.0
REPEAT = 5


def import_all(files: list[Path], out: Path) -> tuple[int, int]:
    imported = refused = 0
    for path in files:
        try:
            import_xtbml(path, path.stem, out)
            imported += 1
        except XTbMLUnsupportedError:
            refused += 1
    return imported, refused


def slowest(files: list[Path], out: Path) -> tuple[str, float]:
    times = {}
    for path in files:
        start = time.perf_counter()
        import_all([path], out)
        times[path.name] = time.perf_counter() - start
    name = max(times, key=times.__getitem__)
    return name, times[name]


def main() -> None:
    files = sorted(SOA.glob("*.xml"))
    if not files:
        print(f"XTbML import: no published files at {SOA}; skipped")
        return
    with tempfile.TemporaryDirectory() as tmp:
        out = Path(tmp)
        imported, refused = import_all(files, out)
        seconds = median_seconds(lambda: import_all(files, out), repeat=REPEAT)
        name, one = slowest(files, out)
    verdict = "ok" if seconds <= TARGET_SECONDS else "MISSED"
    print(f"XTbML import of the published files (median of {REPEAT} runs; target <= {TARGET_SECONDS:.0f} s)")
    print(f"  {len(files)} files ({imported} imported, {refused} refused)   {seconds:6.3f} s   {verdict}")
    print(f"  slowest file: {name} {one * 1e3:.0f} ms")
    print()


if __name__ == "__main__":
    main()
