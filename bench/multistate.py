"""Cost of the disability model: its annuities at every age of the model in one call.

Run with ``python bench/multistate.py`` (or as part of ``make bench``). Target: each whole-life
annuity at every starting age at most 2 times the NumPy floor, a chain that steps all starting
ages together a year at a time on rate vectors prepared beforehand (the model reads its tables
at each call), whose values it must reproduce. A benchmark, not a test: it reports, it never
fails a build.
"""

from __future__ import annotations

import numpy as np

from timing import median_seconds
from veltrane import DisabilityTable, ExitTable, LifeTable
from veltrane.multistate import DisabilityModel

VECTOR_TARGET_RATIO = 2.0
RATE = 0.04


def padded(table: object, mortality: bool, length: int) -> np.ndarray:
    """The rates at ages 0..length-1: a mortality table is 1 from its last age, any other 0 after it."""
    rates = np.round(table._decrement[: table.w + 1], table._decimals_for_decrement)  # type: ignore[attr-defined]
    out = np.full(length, 1.0 if mortality else 0.0)
    out[: rates.size - (1 if mortality else 0)] = rates[: rates.size - (1 if mortality else 0)]
    return out


def numpy_annuities(rates: tuple[np.ndarray, ...], end: int, payable: int) -> np.ndarray:
    """ä at every starting age 0..end-1 for an active life, paid in state ``payable`` (0 or 1)."""
    qa, ia, qi, r = rates
    ages = np.arange(end)
    states = [np.ones(end), np.zeros(end)]
    value, vk, v = np.zeros(end), 1.0, 1.0 / (1.0 + RATE)
    for k in range(end):
        value += vk * states[payable]
        a, i, q, back = qa[ages + k], ia[ages + k], qi[ages + k], r[ages + k]
        active, disabled = states
        states = [
            active * np.maximum(1.0 - a - i, 0.0) + disabled * back,
            active * i + disabled * np.maximum(1.0 - q - back, 0.0),
        ]
        vk *= v
    return value


def main() -> None:
    tables = (
        LifeTable("SULT", "u"),
        DisabilityTable("CIDA1985_90", "m"),
        LifeTable("PBGC_DISABLED", "m"),
        ExitTable("KRIEGER_RECOVERY", "u"),
    )
    model = DisabilityModel(*tables[:3], recovery=tables[3])
    end = max(tables[0].w, tables[2].w) + 1
    rates = tuple(
        padded(t, mortality, 2 * end) for t, mortality in zip(tables, (True, False, True, False), strict=True)
    )
    ages = np.arange(float(end))
    print("Disability model (SULT actives, CIDA 1985 91-day incidence, PBGC disabled, Krieger recovery)")
    print(f"  whole-life annuities at all {end} starting ages (target <= {VECTOR_TARGET_RATIO}x NumPy)")
    for payable, index in (("disabled", 1), ("active", 0)):
        ours = model.annuity(ages, i=RATE, payable=payable)
        floor = numpy_annuities(rates, end, index)
        same = np.allclose(ours, floor, rtol=1e-12, atol=1e-15)
        ours_us = median_seconds(lambda p=payable: model.annuity(ages, i=RATE, payable=p), number=200) * 1e6
        floor_us = median_seconds(lambda i=index: numpy_annuities(rates, end, i), number=200) * 1e6
        ratio = ours_us / floor_us
        verdict = "ok" if ratio <= VECTOR_TARGET_RATIO else "MISSED"
        print(
            f"    payable={payable:<9} veltrane {ours_us:7.1f} us   NumPy {floor_us:7.1f} us   "
            f"{ratio:5.2f}x   {verdict}   same values (1e-12): {'yes' if same else 'NO'}"
        )
    print()


if __name__ == "__main__":
    main()
