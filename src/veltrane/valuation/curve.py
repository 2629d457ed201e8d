"""Yield curves: annual-compounding spot rates by term, one curve or a set of scenarios."""

from __future__ import annotations

from typing import Any

import numpy as np

__all__ = ["YieldCurve"]


def _vector(values: Any, name: str, ndim: tuple[int, ...]) -> np.ndarray:
    try:
        array = np.array(values, dtype=np.float64)
    except (TypeError, ValueError) as exc:
        raise ValueError(f"YieldCurve: {name} must hold numbers: {exc}") from exc
    if array.ndim not in ndim or array.size == 0:
        raise ValueError(
            f"YieldCurve: {name} must be a non-empty {' or '.join(f'{d}-D' for d in ndim)} array"
        )
    bad = ~np.isfinite(array)
    if bad.any():
        where = int(np.argmax(bad.ravel()))
        raise ValueError(f"YieldCurve: {name} must be finite, got {float(array[bad][0])!r} at {where}")
    return array


class YieldCurve:
    """Annual-compounding spot rates s(t): the discount factor of time t is (1 + s(t))^-t.

    Between the given terms the spot rate is interpolated linearly; before the first and after
    the last it is flat. A 2-D ``spot_rates`` (scenarios x terms) is a set of scenarios: every
    valuation result then gains a leading scenario axis.

    Parameters
    ----------
    terms : array-like
        Terms in years, > 0 and strictly increasing.
    spot_rates : array-like
        Spot rates (> -1), one per term, or one row per scenario.
    """

    def __init__(self, terms: Any, spot_rates: Any) -> None:
        self.terms = _terms(terms)
        rates = _vector(spot_rates, "spot_rates", (1, 2))
        if rates.shape[-1] != self.terms.size:
            raise ValueError(
                f"YieldCurve: spot_rates must have one column per term ({self.terms.size}), "
                f"got {rates.shape[-1]}"
            )
        if (rates <= -1.0).any():
            raise ValueError(f"YieldCurve: spot rates must be > -1, got {float(rates[rates <= -1.0][0])!r}")
        self.scenario_set = rates.ndim == 2
        self.spot_rates = np.atleast_2d(rates)
        self._log_factors: np.ndarray | None = None

    @classmethod
    def from_discount_factors(cls, terms: Any, factors: Any) -> YieldCurve:
        """A curve through discount factors, interpolated log-linearly (from 1 at time 0) between
        the terms and extended beyond the last at the last segment's forward rate."""
        t = _terms(terms)
        f = _vector(factors, "factors", (1, 2))
        if f.shape[-1] != t.size:
            raise ValueError(
                f"YieldCurve: factors must have one column per term ({t.size}), got {f.shape[-1]}"
            )
        if (f <= 0.0).any():
            where = np.argwhere(np.atleast_2d(f) <= 0.0)[0]
            got = np.atleast_2d(f)[tuple(where)]
            term = float(t[where[-1]])
            raise ValueError(f"YieldCurve: discount factors must be > 0, got {float(got)!r} at term {term!r}")
        curve = cls(t, np.atleast_2d(f) ** (-1.0 / t) - 1.0 if f.ndim == 2 else f ** (-1.0 / t) - 1.0)
        curve._log_factors = np.log(np.atleast_2d(f))
        return curve

    @property
    def scenarios(self) -> int:
        """Number of scenarios (1 for a single curve)."""
        return int(self.spot_rates.shape[0])

    def discount(self, t: Any) -> np.ndarray | float:
        """Discount factors at times ``t`` (years >= 0): shape of ``t``, with a leading scenario
        axis for a scenario set."""
        times = np.asarray(t, dtype=np.float64)
        if (~np.isfinite(times)).any() or (times < 0).any():
            raise ValueError("YieldCurve.discount: times must be finite and >= 0")
        flat = times.reshape(-1)
        out = np.stack([self._row(s, flat) for s in range(self.scenarios)]).reshape(
            (self.scenarios, *times.shape)
        )
        if not self.scenario_set:
            out = out[0]
            return float(out) if out.ndim == 0 else out
        return out

    def _row(self, s: int, t: np.ndarray) -> np.ndarray:
        if self._log_factors is None:
            spot = np.interp(t, self.terms, self.spot_rates[s])
            factors: np.ndarray = np.power(1.0 + spot, -t)
            return factors
        knots = np.concatenate(([0.0], self.terms))
        logs = np.concatenate(([0.0], self._log_factors[s]))
        inside = np.interp(t, knots, logs)
        if knots.size >= 2:
            slope = (logs[-1] - logs[-2]) / (knots[-1] - knots[-2])
            beyond = t > knots[-1]
            inside[beyond] = logs[-1] + slope * (t[beyond] - knots[-1])
        result: np.ndarray = np.exp(inside)
        return result

    def grid(self, steps: int, m: int) -> np.ndarray:
        """Discount factors at t = j / m for j < steps: (scenarios, steps), C-contiguous."""
        t = np.arange(steps, dtype=np.float64) / m
        return np.ascontiguousarray(np.stack([self._row(s, t) for s in range(self.scenarios)]))

    @classmethod
    def flat(cls, rate: float) -> YieldCurve:
        """The same rate at every term."""
        return cls([1.0], [rate])

    def __repr__(self) -> str:
        kind = f"{self.scenarios} scenarios" if self.scenario_set else "one curve"
        return f"YieldCurve({self.terms.size} terms, {kind})"


def _terms(terms: Any) -> np.ndarray:
    t = _vector(terms, "terms", (1,))
    if (t <= 0).any():
        raise ValueError(f"YieldCurve: terms must be > 0, got {float(t[t <= 0][0])!r}")
    unsorted = np.flatnonzero(np.diff(t) <= 0)
    if unsorted.size:
        k = int(unsorted[0]) + 1
        raise ValueError(
            f"YieldCurve: terms must be strictly increasing, got {float(t[k])!r} "
            f"after {float(t[k - 1])!r} (term {k})"
        )
    return t
