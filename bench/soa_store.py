"""The SOA table service: import of all its files, building the bundled store, loading a table by number.

Run with ``make bench`` or ``python bench/soa_store.py``. Reported: the time to read every file of
``../shared/tables/raw/soa-xtbml-all`` through the importer (each file, or each part of a file of
several tables), the time to build the store from them (importing, checking every table as a source,
compressing), the store's size, and the time of a first ``TableSource("SOA3299")`` in a fresh
process (target <= 20 ms) and of a later one from the source cache.

A benchmark, not a test: it reports, it never fails a build. The import and the build are skipped
when the published files are not beside the checkout; the loads need only the package.
"""

from __future__ import annotations

import subprocess
import sys
import time
from pathlib import Path

from veltrane.tables import soa
from veltrane.tables.xtbml.service import Mapped, read_service

sys.path.insert(0, str(Path(__file__).resolve().parent))
from timing import median_seconds

SERVICE = Path(__file__).resolve().parents[2] / "shared" / "tables" / "raw" / "soa-xtbml-all"
FIRST_LOAD_TARGET_MS = 20.0
RUNS = 5
_FIRST_LOAD = """
import time
import veltrane
from veltrane.tables.source import TableSource
TableSource("SULT")  # the first table of a process pays polars' own first-use costs
start = time.perf_counter()
TableSource("SOA3299")
first = time.perf_counter() - start
start = time.perf_counter()
TableSource("SOA3299")
print(first, time.perf_counter() - start)
"""


def first_loads() -> tuple[float, float]:
    """Median over fresh processes of the first and of a cached load of SOA3299, in seconds."""
    runs = []
    for _ in range(RUNS):
        out = subprocess.run([sys.executable, "-c", _FIRST_LOAD], check=True, capture_output=True, text=True)
        first, again = map(float, out.stdout.split())
        runs.append((first, again))
    runs.sort()
    return runs[len(runs) // 2]


def main() -> None:
    print("SOA table service by number")
    if SERVICE.is_dir():
        start = time.perf_counter()
        items = list(read_service(SERVICE))
        read = time.perf_counter() - start
        mapped = sum(isinstance(item, Mapped) for item in items)
        files = len({item.number for item in items})
        refused = len(items) - mapped
        print(f"  import of {files:,} files ({mapped:,} tables, {refused:,} refused)   {read:6.2f} s")
        seconds = median_seconds(lambda: soa.pack(*soa.build_store(SERVICE)), repeat=1)
        print(f"  building the store from them                              {seconds:6.2f} s")
    else:
        print(f"  no published files at {SERVICE}; import and build skipped")
    size = soa.STORE_PATH.stat().st_size / 1e6
    print(f"  store {soa.STORE_PATH.name}: {size:.2f} MB")
    first, again = first_loads()
    verdict = "ok" if first * 1e3 <= FIRST_LOAD_TARGET_MS else "MISSED"
    print(
        f"  TableSource('SOA3299'): first load {first * 1e3:5.1f} ms   {verdict} "
        f"(target <= {FIRST_LOAD_TARGET_MS:.0f} ms), later {again * 1e6:.1f} us (source cache)"
    )
    print()


if __name__ == "__main__":
    main()
