"""Generate the bundled tables in ``src/veltrane/tables/data/`` from published parametric laws.

Run ``python tools/make_bundled_tables.py``: it rewrites the files, and the output depends only on
this script (no dates, no randomness), so anyone can regenerate and compare them.

Tables
------
SULT
    Standard Ultimate Life Table: Makeham's law mu(x) = A + B c^x with A = 0.00022, B = 2.7e-6,
    c = 1.124, ages 20-120, unisex.
SSSM
    Standard Select Survival Model built on it: two-year select period with
    q_[x] = 0.9^2 q_x and q_[x]+1 = 0.9 q_(x+1), stored by attained age.
"""

from __future__ import annotations

import math
import sys
from pathlib import Path
from typing import Any

ROOT = Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "src"))

from veltrane.tables.source import BUNDLED_TABLES_DIR, write_table  # noqa: E402

MAKEHAM_A = 0.00022
MAKEHAM_B = 2.7e-6
MAKEHAM_C = 1.124
START_AGE = 20
OMEGA = 120
#: Select factor per year still to run in the select period: duration d of 2 uses 0.9 ** (3 - d).
SELECT_FACTOR = 0.9
SELECT_PERIOD = 2

_SOURCE = {
    "name": "Standard Ultimate Life Table",
    "authority": "Society of Actuaries (long-term actuarial mathematics exam tables)",
    "reference": (
        "Dickson, Hardy and Waters, Actuarial Mathematics for Life Contingent Risks, "
        "Cambridge University Press: Makeham's law with A = 0.00022, B = 2.7e-6, c = 1.124"
    ),
}
_CLOSURE = (
    f"Rates are 0 below age {START_AGE}; Makeham's law gives the rates from age {START_AGE} to {OMEGA - 1}, "
    f"and the table is closed at omega {OMEGA} by setting q_{OMEGA} = 1."
)


def makeham_q(age: int) -> float:
    """One-year death probability under Makeham's law: 1 - exp(-integral of mu over [x, x+1])."""
    integral = MAKEHAM_A + MAKEHAM_B * MAKEHAM_C**age * (MAKEHAM_C - 1.0) / math.log(MAKEHAM_C)
    return -math.expm1(-integral)  # expm1 keeps full precision for the small young-age rates


def ultimate_rates() -> list[float]:
    """Rates for ages 0..OMEGA: 0 below the start age, Makeham up to OMEGA - 1, 1 at OMEGA."""
    return [0.0 if x < START_AGE else 1.0 if x == OMEGA else makeham_q(x) for x in range(OMEGA + 1)]


def sult() -> tuple[dict[str, Any], dict[str, list[Any]]]:
    metadata = {
        "table_type": "life",
        "description": f"Standard Ultimate Life Table (Makeham), unisex. {_CLOSURE}",
        "sexes": ["u"],
        "sex_independent": True,
        "omega": OMEGA,
        "start_age": START_AGE,
        "source": _SOURCE,
    }
    return metadata, {"age": list(range(OMEGA + 1)), "qx_u": ultimate_rates()}


def sssm() -> tuple[dict[str, Any], dict[str, list[Any]]]:
    ult = ultimate_rates()
    columns: dict[str, list[Any]] = {"age": list(range(OMEGA + 1))}
    for d in range(1, SELECT_PERIOD + 1):
        factor = SELECT_FACTOR ** (SELECT_PERIOD + 1 - d)
        # Certain death at omega stays certain whatever the duration.
        columns[f"qx_u_s{d}"] = [q if q == 1.0 else factor * q for q in ult]
    columns["qx_u_ult"] = ult
    metadata = {
        "table_type": "life",
        "description": (
            "Standard Select Survival Model: two-year select period on the Standard Ultimate Life Table, "
            "q_[x] = 0.9^2 q_x and q_[x]+1 = 0.9 q_(x+1); select columns by attained age. " + _CLOSURE
        ),
        "sexes": ["u"],
        "sex_independent": True,
        "omega": OMEGA,
        "start_age": START_AGE,
        "select": {"period": SELECT_PERIOD, "start_duration": 1},
        "source": {**_SOURCE, "name": "Standard Select Survival Model"},
    }
    return metadata, columns


def main() -> None:
    for name, build in (("SULT", sult), ("SSSM", sssm)):
        metadata, columns = build()
        path = write_table(BUNDLED_TABLES_DIR, name, metadata, columns)
        print(f"wrote {path} and {path.with_suffix('.csv').name}")


if __name__ == "__main__":
    main()
