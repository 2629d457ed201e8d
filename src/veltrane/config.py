"""Global configuration of the decrement-table machinery.

``Config()`` always returns the one process-wide configuration object. Settings are
read by the tables at the time of use, so a change takes effect at once. Native code
keeps a cheap copy of the settings and is told of every change through
``_change_callbacks``; ``reset()`` additionally runs every entry of ``_reset_callbacks``.

Examples
--------
>>> from veltrane.config import Config
>>> Config().lx_interpolation
'linear'
>>> with Config().override(lx_interpolation="exponential"):
...     Config().lx_interpolation
'exponential'
"""

from __future__ import annotations

import os
import warnings
from collections.abc import Callable, Iterable, Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any, Final

__all__ = ["LX_INTERPOLATIONS", "MAX_DECIMALS", "Config", "DecimalsSettings"]

# ``importlib.reload`` runs this module again in the same namespace. Native modules hold the
# callback lists and the configuration object, so a reload keeps those (see the module's end).
_BEFORE_RELOAD: Final[dict[str, Any]] = {
    name: globals()[name] for name in ("DecimalsSettings", "Config") if name in globals()
}

#: Functions run by ``Config().reset()`` after the defaults are restored.
_reset_callbacks: list[Callable[[], None]] = globals().get("_reset_callbacks", [])
#: Functions run after any setting changes (native caches re-read the settings).
_change_callbacks: list[Callable[[], None]] = globals().get("_change_callbacks", [])

#: Accepted values of ``lx_interpolation``.
LX_INTERPOLATIONS: Final = ("linear", "exponential", "hyperbolic")
#: Largest number of decimals any quantity may be rounded to.
MAX_DECIMALS: Final = 15

# Defaults. Probabilities keep 12 decimals: more than any published table carries
# (they print at most 9), far above the noise of double arithmetic (about 1e-16).
# Survivorship counts keep 9 decimals of a life out of the radix of 1,000,000: values
# near the radix still round to clean decimals, because 1e6 * 1e9 stays below 2**53.
_DEFAULT_DECIMALS: Final[dict[str, int]] = {
    "qx": 12,
    "ix": 12,
    "ox": 12,
    "px": 12,
    "tpx": 12,
    "tqx": 12,
    "lx": 9,
    "dx": 9,
}
_DEFAULT_LX_INTERPOLATION: Final = "linear"
_DEFAULT_WARN_ON_CHAINED_REBUILD: Final = True
_TABLES_PATH_ENV: Final = "VELTRANE_TABLES_PATH"


def _notify_change() -> None:
    for callback in tuple(_change_callbacks):
        callback()


def _check_decimals(name: str, value: object) -> int:
    if isinstance(value, bool) or not isinstance(value, int):
        raise TypeError(f"decimals.{name} must be an int, got {type(value).__name__}")
    if not 0 <= value <= MAX_DECIMALS:
        raise ValueError(f"decimals.{name} must be in [0, {MAX_DECIMALS}], got {value}")
    return value


class DecimalsSettings:
    """Numbers of decimals to which each kind of quantity is rounded.

    Attributes
    ----------
    qx, ix, ox : int
        One-year rates of life, disability and exit tables (default 12).
    px, tpx, tqx : int
        Survival and decrement probabilities (default 12).
    lx, dx : int
        Survivors and decrements out of the radix of 1,000,000 (default 9).
    """

    __slots__ = tuple(_DEFAULT_DECIMALS)
    qx: int
    ix: int
    ox: int
    px: int
    tpx: int
    tqx: int
    lx: int
    dx: int

    def __init__(self, **values: int) -> None:
        for name, default in _DEFAULT_DECIMALS.items():
            object.__setattr__(self, name, default)
        for name, value in values.items():
            setattr(self, name, value)

    def __setattr__(self, name: str, value: object) -> None:
        if name not in _DEFAULT_DECIMALS:
            raise AttributeError(f"unknown decimals setting {name!r}; known: {list(_DEFAULT_DECIMALS)}")
        object.__setattr__(self, name, _check_decimals(name, value))
        _notify_change()

    def as_dict(self) -> dict[str, int]:
        """Return the settings as a plain ``{name: decimals}`` dictionary."""
        return {name: getattr(self, name) for name in _DEFAULT_DECIMALS}

    def _assign(self, values: dict[str, int]) -> None:
        checked = {name: _check_decimals(name, value) for name, value in values.items()}
        for name, value in checked.items():
            if name not in _DEFAULT_DECIMALS:
                raise AttributeError(f"unknown decimals setting {name!r}")
            object.__setattr__(self, name, value)
        _notify_change()

    def __repr__(self) -> str:
        inner = ", ".join(f"{k}={v}" for k, v in self.as_dict().items())
        return f"DecimalsSettings({inner})"


def _absolute(entry: str | os.PathLike[str]) -> Path:
    """``entry`` made absolute against the working directory of now.

    A relative directory would otherwise mean another directory after ``os.chdir``, while the
    sources already found through it stayed cached under the same spelling.
    """
    return Path(entry).absolute()


def _env_tables_path() -> tuple[Path, ...]:
    """The directories of ``VELTRANE_TABLES_PATH``, made absolute; warns of entries that are not
    directories.

    Called by ``Config()`` and ``Config().reset()``: the warning points at their caller. A typo
    in the variable would otherwise only show as "table not found" much later.
    """
    raw = os.environ.get(_TABLES_PATH_ENV, "")
    paths = tuple(_absolute(p) for p in raw.split(os.pathsep) if p)
    for path in paths:
        if not path.is_dir():
            problem = "is not a directory" if path.exists() else "does not exist"
            warnings.warn(
                f"{_TABLES_PATH_ENV}: {path} {problem}; no tables are read from it", UserWarning, stacklevel=3
            )
    return paths


class Config:
    """The process-wide configuration (a singleton: ``Config() is Config()``).

    Attributes
    ----------
    decimals : DecimalsSettings
        Decimals per quantity (``qx``, ``ix``, ``ox``, ``px``, ``lx``, ``tpx``, ``tqx``, ``dx``).
    lx_interpolation : {"linear", "exponential", "hyperbolic"}
        Survivorship between integer ages: linear (uniform distribution of decrements,
        the default), exponential (constant force of decrement) or hyperbolic (Balducci:
        1/l linear between integer ages).
    warn_on_chained_table_rebuild : bool
        Warn when several setters rebuilt a table between two calculations (default True).
    tables_path : tuple of Path
        Directories searched for table files before the bundled tables. Defaults to the
        entries of the environment variable ``VELTRANE_TABLES_PATH``. Relative entries are
        made absolute against the working directory when they are set (or read from the
        variable), so a later ``os.chdir`` does not change where tables are found.

    Notes
    -----
    The object is also a context manager: settings changed inside ``with Config():`` are
    restored on exit, and ``Config().override(...)`` sets some for one block.
    """

    __slots__ = ("_decimals", "_lx_interpolation", "_overridden", "_saved", "_tables_path", "_warn_chained")
    _instance: Config | None = None
    _decimals: DecimalsSettings
    _lx_interpolation: str
    _warn_chained: bool
    _tables_path: tuple[Path, ...]
    _saved: list[dict[str, Any]]
    _overridden: list[dict[str, Any]]

    def __new__(cls) -> Config:
        inst = cls._instance
        if inst is None:
            inst = object.__new__(cls)
            inst._decimals = DecimalsSettings()
            inst._lx_interpolation = _DEFAULT_LX_INTERPOLATION
            inst._warn_chained = _DEFAULT_WARN_ON_CHAINED_REBUILD
            inst._tables_path = _env_tables_path()
            inst._saved = []
            inst._overridden = []
            cls._instance = inst
        return inst

    # -- settings -------------------------------------------------------------------
    @property
    def decimals(self) -> DecimalsSettings:
        """Decimals per quantity; assign its attributes, or a mapping to this property."""
        return self._decimals

    @decimals.setter
    def decimals(self, values: DecimalsSettings | dict[str, int]) -> None:
        if isinstance(values, DecimalsSettings):
            values = values.as_dict()
        if not isinstance(values, dict):
            raise TypeError(f"decimals must be a mapping of names to ints, got {type(values).__name__}")
        self._decimals._assign(dict(values))

    @property
    def lx_interpolation(self) -> str:
        """Interpolation of survivorship between integer ages: "linear", "exponential" or "hyperbolic"."""
        return self._lx_interpolation

    @lx_interpolation.setter
    def lx_interpolation(self, value: str) -> None:
        if value not in LX_INTERPOLATIONS:
            raise ValueError(f"lx_interpolation must be one of {list(LX_INTERPOLATIONS)}, got {value!r}")
        self._lx_interpolation = value
        _notify_change()

    @property
    def warn_on_chained_table_rebuild(self) -> bool:
        """Whether repeated setter rebuilds between calculations issue a UserWarning."""
        return self._warn_chained

    @warn_on_chained_table_rebuild.setter
    def warn_on_chained_table_rebuild(self, value: bool) -> None:
        if not isinstance(value, bool):
            raise TypeError(f"warn_on_chained_table_rebuild must be a bool, got {type(value).__name__}")
        self._warn_chained = value
        _notify_change()

    @property
    def tables_path(self) -> tuple[Path, ...]:
        """Directories searched for table files, in order, before the bundled tables (absolute)."""
        return self._tables_path

    @tables_path.setter
    def tables_path(self, value: str | os.PathLike[str] | Iterable[str | os.PathLike[str]]) -> None:
        if isinstance(value, (str, os.PathLike)):
            entries: Iterable[Any] = [value]
        else:
            entries = value
        paths = []
        for entry in entries:
            if not isinstance(entry, (str, os.PathLike)):
                raise TypeError(f"tables_path entries must be str or Path, got {type(entry).__name__}")
            paths.append(_absolute(entry))
        self._tables_path = tuple(paths)
        _notify_change()

    # -- whole-state operations -------------------------------------------------------
    def _state(self) -> dict[str, Any]:
        return {
            "decimals": self._decimals.as_dict(),
            "lx_interpolation": self._lx_interpolation,
            "warn_on_chained_table_rebuild": self._warn_chained,
            "tables_path": self._tables_path,
        }

    def _set_state(self, state: dict[str, Any]) -> None:
        self._decimals._assign(state["decimals"])
        self._lx_interpolation = state["lx_interpolation"]
        self._warn_chained = state["warn_on_chained_table_rebuild"]
        self._tables_path = state["tables_path"]
        _notify_change()

    def reset(self) -> None:
        """Restore every default, then run each function in ``_reset_callbacks``."""
        self._set_state(
            {
                "decimals": dict(_DEFAULT_DECIMALS),
                "lx_interpolation": _DEFAULT_LX_INTERPOLATION,
                "warn_on_chained_table_rebuild": _DEFAULT_WARN_ON_CHAINED_REBUILD,
                "tables_path": _env_tables_path(),
            }
        )
        for callback in tuple(_reset_callbacks):
            callback()

    @contextmanager
    def override(self, **settings: Any) -> Iterator[Config]:
        """Apply ``settings`` for one ``with`` block and restore the previous ones after it.

        ``decimals`` may be given as a partial mapping, e.g. ``decimals={"qx": 6}``.
        """
        saved = self._state()
        self._overridden.append(saved)  # its tables_path applies again after the block
        try:
            for name, value in settings.items():
                if name == "decimals":
                    self._decimals._assign(dict(value))
                elif name in ("lx_interpolation", "warn_on_chained_table_rebuild", "tables_path"):
                    setattr(self, name, value)
                else:
                    raise AttributeError(f"unknown setting {name!r}")
            yield self
        finally:
            # By identity: blocks held open by generators need not close in order.
            self._overridden[:] = [state for state in self._overridden if state is not saved]
            self._set_state(saved)

    def __enter__(self) -> Config:
        self._saved.append(self._state())
        return self

    def __exit__(self, *exc_info: object) -> None:
        self._set_state(self._saved.pop())

    def _tables_paths_in_use(self) -> list[tuple[Path, ...]]:
        """The search path in force and those that open ``with`` blocks will restore."""
        return [self._tables_path, *(state["tables_path"] for state in (*self._saved, *self._overridden))]

    def __repr__(self) -> str:
        s = self._state()
        return (
            f"Config(decimals={s['decimals']}, lx_interpolation={s['lx_interpolation']!r}, "
            f"warn_on_chained_table_rebuild={s['warn_on_chained_table_rebuild']}, "
            f"tables_path={[str(p) for p in s['tables_path']]})"
        )


# After a reload the classes of the first import stay in force: the one configuration object,
# whose changes native code follows, is an instance of them.
if _BEFORE_RELOAD:
    DecimalsSettings = _BEFORE_RELOAD["DecimalsSettings"]  # type: ignore[misc]
    Config = _BEFORE_RELOAD["Config"]  # type: ignore[misc]
