"""One block of policies projected on a plan: the gather along the select diagonals, the unisex
mixes, the running products and the rounding of what is returned.

Policy i at age x and select duration d at the start reads, in projection year k (k = 0, 1,
...), the one-year rate of its table at age x + k from the select column of duration d + k,
or from the ultimate column once d + k is past the select period. The rates are the tables'
rates in use (``_decrement``), and 1 from a table's last age on, as its ``qx`` gives them; a
blended policy mixes the rounded male and female rates with its weight, as a blended table
does. Survival is the running product of the rates as the tables hold them, and every quantity
is rounded once, when it is returned, as the tables round theirs.
"""

from __future__ import annotations

import numpy as np

from veltrane.portfolio.plan import RatePlan

__all__ = ["QUANTITIES", "project_block"]

#: What a projection can return, each a (policies x years) float64 array:
#: ``qx`` the rate of year k, ``px`` = 1 - qx, ``tpx`` the probability of staying to the end of
#: year k (k + 1 years), ``tqx`` = 1 - tpx, ``inforce`` the probability of being there at the
#: start of year k (1 for k = 0), ``dx`` the decrement expected in year k (inforce x qx).
QUANTITIES = ("qx", "px", "tpx", "tqx", "inforce", "dx")


def _diagonal_index(
    plan: RatePlan, group: np.ndarray, age: np.ndarray, offset: np.ndarray, years: int
) -> np.ndarray:
    """Flat index into the bank (row x width + age) of every policy-year."""
    width = plan.width
    period = plan.period[group].astype(np.int64)
    # Every policy reads its table's ultimate row (the last of its rows) once its select years
    # are over; only the first columns, while select durations remain, point to earlier rows.
    ultimate = (plan.first_row[group] + period) * width + age
    index: np.ndarray = np.add.outer(ultimate, np.arange(years, dtype=np.int64))
    for k in range(min(years, int(plan.period.max(initial=0)))):
        back = period - offset - k
        np.maximum(back, 0, out=back)
        back *= width
        index[:, k] -= back
    return index


def _mix(plan: RatePlan, group: np.ndarray, blend: np.ndarray, index: np.ndarray, q: np.ndarray) -> None:
    """Replace the male rates of blended policies by ``clip(b*q_m + (1-b)*q_f, 0, 1)``.

    The same operations in the same order as a blended table, so the rates are its rates bit for
    bit. ``index`` (the male rows' index) is used up.
    """
    blended = np.flatnonzero(~np.isnan(blend))
    if blended.size == 0:
        return
    rows: slice | np.ndarray = slice(None) if blended.size == q.shape[0] else blended
    female = index[rows]
    female += (plan.female_offset[group[rows]] * plan.width)[:, None]
    rates = np.take(plan.bank.reshape(-1), female, mode="clip")
    del female
    weight = blend[rows][:, None]
    rates *= 1.0 - weight
    male = q[rows]
    male *= weight
    male += rates
    np.clip(male, 0.0, 1.0, out=male)
    if isinstance(rows, np.ndarray):
        q[rows] = male


def _round_rates(plan: RatePlan, group: np.ndarray, q: np.ndarray) -> None:
    """Round each policy's rates in place to its table's rate decimals (qx, ix or ox)."""
    decimals = plan.decimals
    if int(decimals.min()) == int(decimals.max()):
        np.round(q, int(decimals[0]), out=q)
        return
    mine = decimals[group]
    for d in np.unique(mine):
        rows = np.flatnonzero(mine == d)
        q[rows] = np.round(q[rows], int(d))


def project_block(
    plan: RatePlan,
    group: np.ndarray,
    age: np.ndarray,
    offset: np.ndarray,
    blend: np.ndarray | None,
    years: int,
    what: tuple[str, ...],
    out: dict[str, np.ndarray] | None = None,
) -> dict[str, np.ndarray]:
    """Project one block of policies (arrays as in :class:`PolicyBatch`) into ``out`` or new arrays."""
    n = group.shape[0]
    if out is None:
        out = {name: np.empty((n, years), dtype=np.float64) for name in what}
    index = _diagonal_index(plan, group, age, offset, years)
    # The rates as the tables hold them; rounded last, once everything is derived from them.
    q = out["qx"] if "qx" in out else np.empty((n, years), dtype=np.float64)
    np.take(plan.bank.reshape(-1), index, out=q, mode="clip")  # in range by construction
    if blend is not None:
        _mix(plan, group, blend, index, q)
    del index
    if "px" in out:
        np.subtract(1.0, q, out=out["px"])
        np.round(out["px"], plan.px_decimals, out=out["px"])
    if any(name in out for name in ("tpx", "tqx", "inforce", "dx")):
        survival = out["tpx"] if "tpx" in out else np.empty((n, years), dtype=np.float64)
        np.subtract(1.0, q, out=survival)
        np.cumprod(survival, axis=1, out=survival)
        if "dx" in out:  # dx and tqx are probabilities of leaving: the tqx decimals
            dx = out["dx"]
            dx[:, 0] = q[:, 0]
            np.multiply(survival[:, :-1], q[:, 1:], out=dx[:, 1:])
            np.round(dx, plan.tqx_decimals, out=dx)
        if "tqx" in out:
            np.subtract(1.0, survival, out=out["tqx"])
            np.round(out["tqx"], plan.tqx_decimals, out=out["tqx"])
        if "tpx" in out or "inforce" in out:
            np.round(survival, plan.tpx_decimals, out=survival)
        if "inforce" in out:
            inforce = out["inforce"]
            inforce[:, 0] = 1.0
            inforce[:, 1:] = survival[:, :-1]
    if "qx" in out:
        _round_rates(plan, group, q)
    return out
