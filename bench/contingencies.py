"""Cost of the life contingencies: scalar calls and whole-life annuities at every age.

Run with ``python bench/contingencies.py`` (or as part of ``make bench``). Targets: a scalar
call at most 2 microseconds (the continuous annuity, ``mu``, ``lifetime_quantile`` and the
joint-life and last-survivor annuities of two lives on two tables too; the exponential and
hyperbolic interpolations and the increasing benefits are reported beside);
the whole-life annuity-due at every age of a table in one call at most 2 times the NumPy floor
(survivors by cumprod, discount, reverse cumsum), whose values it must reproduce. Scalar calls
at whole ages and terms read columns cached with the table state: ``annuity(t, 65)`` and
``insurance(t, 65)`` are set beside a pure-Python peer that keeps commutation columns per basis
and answers by looking them up (target: no slower than the peer). A benchmark, not a test: it
reports, it never fails a build.
"""

from __future__ import annotations

import statistics
import timeit

import numpy as np

from timing import median_seconds
from veltrane import LifeTable
from veltrane.config import Config
from veltrane.contingencies import JointLife, annuity, commutation, insurance, pure_endowment

SCALAR_TARGET_US = 2.0
VECTOR_TARGET_RATIO = 2.0
RATE = 0.05


def scalar_us(stmt: str, namespace: dict[str, object], number: int = 50_000) -> float:
    runs = timeit.repeat(stmt, globals=namespace, number=number, repeat=7)
    return statistics.median(runs) / number * 1e6


class CommutationPeer:
    """A pure-Python peer: commutation columns per basis (table, rate), built once, kept in a dict.

    ``annuity(table, x)`` is Nx / Dx and ``insurance(table, x)`` is Mx / Dx, at the table's rate:
    the cached lookup such a library answers a scalar call with.
    """

    def __init__(self) -> None:
        self.columns: dict[tuple[int, float], tuple[list[float], list[float], list[float]]] = {}

    def basis(self, table: LifeTable, i: float) -> tuple[list[float], list[float], list[float]]:
        key = (id(table), i)
        found = self.columns.get(key)
        if found is None:
            frame = commutation(table, i)
            found = (frame["Dx"].to_list(), frame["Nx"].to_list(), frame["Mx"].to_list())
            self.columns[key] = found
        return found

    def annuity(self, table: LifeTable, x: int, i: float = RATE) -> float:
        d, n, _ = self.basis(table, i)
        return n[x] / d[x]

    def insurance(self, table: LifeTable, x: int, i: float = RATE) -> float:
        d, _, m = self.basis(table, i)
        return m[x] / d[x]


def peer_comparison(table: LifeTable) -> None:
    """The scalar calls beside the peer's, and beside the bare list lookup it is made of."""
    peer = CommutationPeer()
    d, n, m = peer.basis(table, RATE)
    namespace: dict[str, object] = {
        "t": table,
        "annuity": annuity,
        "insurance": insurance,
        "peer": peer,
        "D": d,
        "N": n,
        "M": m,
    }
    assert abs(peer.annuity(table, 65) - annuity(table, 65)) < 1e-12 * annuity(table, 65)
    assert abs(peer.insurance(table, 65) - insurance(table, 65)) < 1e-12 * insurance(table, 65)
    print("  scalar calls at whole ages beside a pure-Python peer's cached commutation lookup")
    for ours, theirs, bare in (
        ("annuity(t, 65)", "peer.annuity(t, 65)", "N[65] / D[65]"),
        ("insurance(t, 65)", "peer.insurance(t, 65)", "M[65] / D[65]"),
    ):
        ours_ns = scalar_us(ours, namespace, number=200_000) * 1e3
        peer_ns = scalar_us(theirs, namespace, number=200_000) * 1e3
        bare_ns = scalar_us(bare, namespace, number=200_000) * 1e3
        verdict = "ok" if ours_ns <= peer_ns else "MISSED"
        print(
            f"    {ours:<18} {ours_ns:6.0f} ns   peer {peer_ns:6.0f} ns   "
            f"{ours_ns / peer_ns:4.2f}x   {verdict}   (the bare lookup {bare}: {bare_ns:.0f} ns)"
        )
    fresh = LifeTable("SULT", "u", interest_rate=RATE)
    # A new rate at every call: each pays the build of its column.
    rates = iter(RATE * (1.0 + 1e-9 * k) for k in range(1, 10**9))
    first_us = median_seconds(lambda: annuity(fresh, 65, i=next(rates)), number=200) * 1e6
    print(f"    the first call of a basis (builds its column over every age): {first_us:.1f} us")


def numpy_annuities(q: np.ndarray, i: float) -> np.ndarray:
    """ä(x) at every age 0..w: l from the rates, D = v^x l, N = the sums of D from x up, N / D."""
    lx = np.concatenate(([1.0], np.cumprod(1.0 - q[:-1])))
    d = lx * (1.0 + i) ** -np.arange(q.size)
    return np.cumsum(d[::-1])[::-1] / d


def main() -> None:
    table = LifeTable("SULT", "u", interest_rate=RATE)
    ages = np.arange(table.w + 1.0)
    print(f"Life contingencies (table SULT, i = {RATE}, linear interpolation)")
    print(f"  scalar calls, median per call (target <= {SCALAR_TARGET_US:.0f} us)")
    namespace: dict[str, object] = {
        "t": table,
        # A select table at duration 1: every call follows the select diagonal (25 select years).
        "s": LifeTable("CSO2017", "m", duration=1, interest_rate=RATE),
        # Two lives on two tables: a joint-life and a last-survivor status.
        "c": JointLife(table, LifeTable("CSO1980", "f"), status="joint"),
        "ls": JointLife(table, LifeTable("CSO1980", "f"), status="last"),
        "annuity": annuity,
        "insurance": insurance,
        "pure_endowment": pure_endowment,
    }
    for stmt in (
        "annuity(t, 65)",
        "annuity(t, 65, 20, m=12)",
        "annuity(t, 65, m=12, method='woolhouse')",
        "annuity(t, 65, m=None)",
        "annuity(t, 65.5, 10.25, m=None)",
        "insurance(t, 65, m=None)",
        "insurance(t, 65, m=12, moment=2)",
        "pure_endowment(t, 65, 20)",
        "t.ex(65, complete=True)",
        "t.ex(65, 10)",
        "t.mu(65.5)",
        "t.lifetime_quantile(65, 0.5)",
        "insurance(s, 45)",
        "annuity(s, 45, m=None)",
        "annuity(c, (65, 60))",
        "annuity(ls, (65, 60))",
        "insurance(c, (65, 60), 20)",
        "c.tpx((65, 60), 10)",
    ):
        us = scalar_us(stmt, namespace)
        print(f"    {stmt:<42} {us:6.2f} us   {'ok' if us <= SCALAR_TARGET_US else 'MISSED'}")

    peer_comparison(table)

    ours = annuity(table, ages)
    floor = numpy_annuities(table._decrement, RATE)
    same = np.allclose(ours, floor, rtol=1e-12, atol=0.0)
    ours_us = median_seconds(lambda: annuity(table, ages), number=2000) * 1e6
    floor_us = median_seconds(lambda: numpy_annuities(table._decrement, RATE), number=2000) * 1e6
    ratio = ours_us / floor_us
    verdict = "ok" if ratio <= VECTOR_TARGET_RATIO else "MISSED"
    print(f"  whole-life annuity-due at all {ages.size} ages (target <= {VECTOR_TARGET_RATIO}x NumPy)")
    print(
        f"    veltrane {ours_us:7.2f} us   NumPy {floor_us:7.2f} us   {ratio:5.2f}x   {verdict}   "
        f"same values (1e-12): {'yes' if same else 'NO'}"
    )
    many = np.random.default_rng(7).uniform(20.0, 100.0, 1_000_000)
    many_ms = median_seconds(lambda: annuity(table, many, 20, m=12), number=1, repeat=5) * 1e3
    print(f"    20-year monthly annuities at 1,000,000 fractional ages: {many_ms:.1f} ms")
    with Config().override(lx_interpolation="exponential"):
        exp_us = scalar_us("annuity(t, 65, m=None)", namespace)
        exp_ins_us = scalar_us("insurance(t, 65, m=12)", namespace)
    with Config().override(lx_interpolation="hyperbolic"):
        hyp_us = scalar_us("insurance(t, 65, m=None)", namespace, number=5_000)
    print(
        f"    exponential: annuity(t, 65, m=None) {exp_us:.2f} us, insurance(t, 65, m=12) "
        f"{exp_ins_us:.2f} us; hyperbolic (quadrature): insurance(t, 65, m=None) {hyp_us:.2f} us"
    )
    rising_us = scalar_us("insurance(t, 40, increasing=True)", namespace, number=5_000)
    print(f"    insurance(t, 40, increasing=True) (one level value a year of cover): {rising_us:.2f} us")
    columns_us = median_seconds(lambda: commutation(table), number=200) * 1e6
    print(f"    commutation columns (a Polars frame of {ages.size} rows): {columns_us:.1f} us")
    print()


if __name__ == "__main__":
    main()
