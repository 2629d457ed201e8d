"""Table sources: the checked metadata and columns of one decrement table, found by name and shared.

A table is a pair of files in a tables directory, ``NAME.toml`` (metadata) and ``NAME.csv``
(columns); ``docs/table-files.md`` describes the format. ``TableSource(name)`` searches the
directories of ``Config().tables_path`` in order and then the bundled tables, and returns one
shared object per name and search path.

Examples
--------
>>> from veltrane.tables.source import TableSource
>>> sult = TableSource("SULT")
>>> sult is TableSource("SULT"), sult.table_type, sult.start_age, sult.w
(True, 'life', 20, 120)
"""

from __future__ import annotations

import codecs
import contextlib
import copy
import errno
import hashlib
import io
import json
import numbers
import os
import stat
import tempfile
import tomllib
import weakref
from collections.abc import Callable, Iterable, Mapping
from pathlib import Path
from typing import Any, Final

import numpy as np
import polars as pl

from veltrane import config as _config
from veltrane._frames import from_pandas, is_pandas_frame
from veltrane.tables import _memory
from veltrane.tables import _table_format as fmt
from veltrane.tables import soa as _soa

__all__ = ["BUNDLED_TABLES_DIR", "TableSource", "register_table", "write_table"]

#: Directory of the tables shipped with the package; searched after ``Config().tables_path``.
BUNDLED_TABLES_DIR: Final = Path(__file__).parent / "data"

#: Most sources kept by the cache; past it the oldest loaded is dropped (tables holding it keep it).
_CACHE_MAX: Final = 128

# (table name, search path) -> source, oldest first. Keyed by the path tuple itself, so a
# changed ``tables_path`` misses at once without any file-system call on the hot path. Entries
# of a search path that is neither in force nor to be restored by an open ``with`` block are
# dropped at the next load: a program that keeps choosing new directories keeps no old tables.
_cache: dict[tuple[str, tuple[Path, ...]], TableSource] = {}
# Tables registered from memory by name; they come before any file of that name.
_registered: dict[str, TableSource] = {}
#: Run with a table name whose data changed: the name was registered, unregistered or written,
#: or now finds data other than what caches keyed by name were filled from. Caches of data
#: derived from sources by name (the unisex cohort cache) register here and drop that name.
_invalidation_callbacks: list[Callable[[str], None]] = []
# Name -> (metadata record, content digest) of the source whose data the caches keyed by name
# were last filled from; see ``TableSource._is_current``.
_filled_from: dict[str, tuple[fmt.TableMeta, str]] = {}
_digests: weakref.WeakKeyDictionary[TableSource, str] = weakref.WeakKeyDictionary()


def _invalidate(name: str) -> None:
    _filled_from.pop(name, None)
    for callback in tuple(_invalidation_callbacks):
        callback(name)


_SLOTS: Final = (
    "_table_name",
    "_file_name",
    "_file_path",
    "_data",
    "_valid_sexes",
    "_meta",
    "_metadata",
    "_w",
)


class TableSource:
    """The metadata and columns of one decrement table.

    ``TableSource(name)`` returns the shared, cached source of the table ``name`` (bare file name,
    no extension): the same object for as long as the name and ``Config().tables_path`` stay the
    same, until ``TableSource.clear_cache()``, ``Config().reset()`` or ``write_table`` of that name.
    The cache is bounded: it keeps the sources of the search paths in force or to be restored by
    an open ``with`` block, at most ``_CACHE_MAX`` of them, and reads a dropped one again.

    Parameters
    ----------
    table_name : str
        Name of the table: the stem shared by ``NAME.toml`` and ``NAME.csv``.

    Raises
    ------
    FileNotFoundError
        No directory holds the table; the message lists every directory searched.
    OSError
        Something other than a regular file has the name of a table file (a directory, a FIFO,
        a dangling link or a link loop), or a file cannot be read.
    ValueError
        The files break the format; the message names the file, the column (or metadata key)
        and the row (age and line number).

    Notes
    -----
    Sources are shared between tables, so treat them as read-only. A table that needs different
    columns takes ``copy.copy(source)`` (a new object sharing the frame) and replaces ``_data`` or
    ``_valid_sexes`` on its copy. ``copy.deepcopy`` clones the frame as well. Sources pickle with
    their data.
    """

    # ``_f64_columns``: the float64 columns read by the decrement tables, kept with the frame
    # they came from (filled by the extension; a copy or a new frame starts without it).
    # ``_path_origin``: for the source of a select path, what the path was followed from (kept by
    # copies, so that a copied path still pickles); unset otherwise.
    # ``_memory_data``: for a source that no name finds (``LifeTable.from_rates``), its metadata
    # and frame, with which its tables pickle (kept by copies); unset otherwise.
    __slots__ = (*_SLOTS, "_f64_columns", "_path_origin", "_memory_data", "__weakref__")
    _path_origin: Any
    _memory_data: Any

    _table_name: str
    _file_name: str
    _file_path: Path | None
    _data: pl.DataFrame
    _valid_sexes: list[str]
    _meta: fmt.TableMeta
    _metadata: dict[str, Any]
    _w: int

    def __new__(cls, table_name: str) -> TableSource:
        if _registered and (registered := _registered.get(table_name)) is not None:
            return registered
        key = (table_name, _config.Config().tables_path)
        try:
            return _cache[key]
        except KeyError:
            pass
        source = _load(table_name, key[1])
        _store(key, source)
        return source

    def __init__(self, table_name: str) -> None:
        # Everything happens in __new__; a cached source must come back untouched.
        pass

    # -- construction --------------------------------------------------------------------------
    @classmethod
    def from_frame(
        cls,
        name: str,
        metadata: Mapping[str, Any],
        data: pl.DataFrame,
        file_path: str | os.PathLike[str] | None = None,
    ) -> TableSource:
        """Check and build a source from parsed pieces (not cached, not found by name).

        Parameters
        ----------
        name : str
            Table name, returned as ``table_name`` and ``file_name``.
        metadata : mapping
            The metadata, shaped as the TOML file (top-level keys, ``generational``, ``select``
            and ``source`` sub-mappings).
        data : polars.DataFrame or pandas.DataFrame
            Column ``age`` and the rate and improvement columns (a pandas frame's index plays no
            part). Numeric columns are taken as they are; text columns are parsed cell by cell.
            Ages may start above 0: rows of rate 0 are added below the first age, which becomes
            ``start_age`` (a ``start_age`` given in the metadata may not lie below it). Survivor
            columns ``lx_{sex}`` are turned into one-year rates ``{prefix}_{sex}``, 1 at the last
            age.
        file_path : path-like, optional
            File the pieces came from, used in messages and as ``file_path``.

        Returns
        -------
        TableSource

        Raises
        ------
        ValueError
            The pieces break the format (the message names the column and row).
        """
        path = None if file_path is None else Path(file_path)
        where = str(path) if path is not None else f"table {name!r}"
        if is_pandas_frame(data):
            try:
                data = from_pandas(data, where)
            except ValueError as exc:
                raise fmt.TableFormatError(str(exc)) from None
        if not isinstance(data, pl.DataFrame):
            raise TypeError(f"data must be a polars or pandas DataFrame, got {type(data).__name__}")
        if not isinstance(metadata, Mapping):
            raise TypeError(f"metadata must be a mapping, got {type(metadata).__name__}")
        _check_name(name)
        data, metadata, added = _memory.shape_frame(data, metadata, where)

        def row_name(i: int) -> str:  # rows of the frame given, not counting those added below it
            return (
                f"row {i + 1 - added}"
                if i >= added
                else f"age {i} (a row of rate 0 added below the first age)"
            )

        return cls._build(name, metadata, data, path, where, where, row_name)

    @classmethod
    def from_rates(
        cls,
        name: str,
        rates: Any,
        *,
        table_type: str = "life",
        start_age: int = 0,
        description: str = "",
        source: Mapping[str, Any] | None = None,
    ) -> TableSource:
        """Build a period table from rate vectors (not cached; ``register()`` it to use it by name).

        Parameters
        ----------
        name : str
            Table name.
        rates : sequence of float, or mapping of sex to sequence of float
            One-year rates by age from ``start_age``: one vector (a unisex table, sex "u"), or
            one per sex ``{"m": ..., "f": ...}``, all of one length.
        table_type : str, default "life"
            "life", "disability" or "exit".
        start_age : int, default 0
            Age of the first rate; the ages below it carry rate 0 and are marked as before the
            table's start.
        description : str, optional
            Free text shown in summaries.
        source : mapping, optional
            The ``[source]`` metadata (name, authority, reference, ...).

        Returns
        -------
        TableSource

        Examples
        --------
        >>> src = TableSource.from_rates("TINY", [0.1, 0.2, 1.0], start_age=60)
        >>> src.start_age, src.w, src.valid_sexes
        (60, 62, ['u'])
        """
        if isinstance(start_age, bool) or not isinstance(start_age, numbers.Integral):
            raise ValueError(f"start_age must be a whole number >= 0, got {start_age!r}")
        start_age = int(start_age)
        if not 0 <= start_age <= fmt.MAX_FIRST_AGE:
            raise ValueError(f"start_age must be a whole number in 0..{fmt.MAX_FIRST_AGE}, got {start_age!r}")
        prefix = fmt.RATE_PREFIX.get(table_type)
        if prefix is None:
            raise ValueError(f"table_type must be one of {', '.join(fmt.RATE_PREFIX)}, got {table_type!r}")
        frame = _memory.frame_from_rates(rates, prefix, start_age)
        metadata: dict[str, Any] = {"table_type": table_type, "start_age": start_age}
        if description:
            metadata["description"] = description
        if source:
            metadata["source"] = dict(source)
        return cls.from_frame(name, metadata, frame)

    @classmethod
    def from_select_grid(
        cls,
        name: str,
        select: Any,
        ultimate: Any,
        *,
        first_select_age: int,
        first_ultimate_age: int,
        table_type: str = "life",
        sex: str = "u",
        survivors: bool = False,
        description: str = "",
    ) -> TableSource:
        """Build a select-and-ultimate table from a select block as printed, by selection age.

        Parameters
        ----------
        name : str
            Table name.
        select : matrix of float (rows of one length)
            A row per selection age from ``first_select_age``, a column per duration: q[x],
            q[x]+1, ... None or NaN marks an empty cell, which the ultimate rate of its attained
            age fills (ValueError where there is none).
        ultimate : sequence of float
            Ultimate rates by attained age from ``first_ultimate_age`` to the last age of the
            table (which closes there). It may start at most one select period after the first
            selection age.
        first_select_age, first_ultimate_age : int
        table_type : str, default "life"
        sex : str, default "u"
        survivors : bool, default False
            The block and the ultimate column hold survivors (l[x]+t and l(y)) instead of rates.
        description : str, optional

        Returns
        -------
        TableSource
            Select columns by attained age (duration d at age y holds the rate of the life
            selected at y - d + 1), start duration 1. Cells that no printed selection age reaches
            below the first ultimate age hold 0. Use it through ``register()`` or
            ``LifeTable.from_source``.
        """
        prefix = fmt.RATE_PREFIX.get(table_type)
        if prefix is None:
            raise ValueError(f"table_type must be one of {', '.join(fmt.RATE_PREFIX)}, got {table_type!r}")
        frame, metadata = _memory.select_frame(
            select,
            ultimate,
            first_select_age=first_select_age,
            first_ultimate_age=first_ultimate_age,
            prefix=prefix,
            sex=sex,
            survivors=bool(survivors),
        )
        metadata["table_type"] = table_type
        if description:
            metadata["description"] = description
        return cls.from_frame(name, metadata, frame)

    def register(self) -> TableSource:
        """Make this source the table ``table_name`` for every ``TableSource(name)`` and table class.

        A registered table comes before any file of that name, whatever ``Config().tables_path``
        says, until ``TableSource.unregister(name)``. It lives in this process only: worker
        processes that rebuild tables by name must register it too. Cached data derived from
        the name (the unisex cohort cache) is dropped. Returns the source itself.

        Examples
        --------
        >>> from veltrane.tables.life import LifeTable
        >>> _ = TableSource.from_rates("TINY", [0.1, 0.2, 1.0], start_age=60).register()
        >>> LifeTable("TINY", "u").qx(61)
        0.2
        >>> TableSource.unregister("TINY")
        """
        _check_name(self._table_name)
        _registered[self._table_name] = self
        _forget(self._table_name)
        return self

    @staticmethod
    def unregister(name: str) -> None:
        """Forget the source registered under ``name``; its files, if any, are found again.

        Raises
        ------
        KeyError
            No source is registered under ``name``.
        """
        if name not in _registered:
            raise KeyError(f"no table {name!r} is registered")
        del _registered[name]
        _forget(name)

    @staticmethod
    def registered() -> list[str]:
        """Names of the tables registered from memory, in order of registration."""
        return list(_registered)

    @staticmethod
    def _is_current(source: object) -> bool:
        """Whether ``TableSource(name)`` gives this source's data now (a shallow copy counts).

        Looks only at what is registered or cached, never at files. Caches keyed by table name
        (the unisex cohort cache) hold only what current sources give: a table built before its
        name came to mean other data keeps its rates, but must not hand them to newer tables.
        Asking is also how such a cache learns that the name now gives other data than it was
        filled from (another search path, a file read again after ``clear_cache()``): that name
        alone is dropped first, through ``_invalidation_callbacks``. Data that only was read again
        drops nothing. Objects other than sources count as current.
        """
        if not isinstance(source, TableSource):
            return True
        name = source._file_name
        found = _registered.get(name)
        if found is None:
            found = _cache.get((name, _config.Config().tables_path))
        if found is None or found._meta is not source._meta:
            return False
        filled = _filled_from.get(name)
        if filled is None or filled[0] is not found._meta:
            digest = found._digest()
            if filled is not None and filled[1] != digest:
                _invalidate(name)
            _filled_from[name] = (found._meta, digest)
        return True

    def _digest(self) -> str:
        """A digest of the metadata and columns (names, types and values); kept per source."""
        known = _digests.get(self)
        if known is not None:
            return known
        h = hashlib.blake2b(digest_size=16)
        h.update(json.dumps(self._metadata, sort_keys=True, default=repr).encode())
        for name in self._data.columns:
            column = self._data.get_column(name)
            h.update(f"\0{name}\0{column.dtype}\0".encode())
            h.update(np.ascontiguousarray(column.to_numpy()).tobytes())
        digest = h.hexdigest()
        _digests[self] = digest
        return digest

    @classmethod
    def _build(
        cls,
        name: str,
        metadata: Mapping[str, Any],
        data: pl.DataFrame,
        file_path: Path | None,
        meta_where: str,
        data_where: str,
        row_name: Callable[[int], str],
    ) -> TableSource:
        meta = fmt.parse_metadata(metadata, meta_where)
        valid_sexes = fmt.check_columns(data.columns, meta, data_where)
        frame = fmt.convert_frame(data, data_where, row_name)
        w = frame.height - 1
        if meta.omega is not None and meta.omega > w:
            # The metadata promises ages up to omega: fewer rows mean a file cut short, which
            # would otherwise load as a table that simply ends earlier.
            given = "" if meta_where == data_where else f" in {meta_where}"
            raise fmt.TableFormatError(
                f"{data_where}: column 'age', {row_name(w)}: the ages end at {w}, short of key 'omega' = "
                f"{meta.omega}{given}; rows up to age {meta.omega} expected (is the file cut short?)"
            )
        if meta.start_age > w:
            problem = f"{meta.start_age} lies beyond the last age {w} of {data_where}"
            raise fmt.TableFormatError(f"{meta_where}: key 'start_age': {problem}")
        fmt.check_start_age(frame, meta.start_age, data_where, row_name)
        self = object.__new__(cls)
        self._table_name = name
        self._file_name = name
        self._file_path = file_path
        self._data = frame
        self._valid_sexes = valid_sexes
        self._meta = meta
        self._metadata = copy.deepcopy(dict(metadata))
        self._w = w
        return self

    @staticmethod
    def clear_cache() -> None:
        """Forget every loaded source, so the next ``TableSource(name)`` reads the files again.

        Data derived from a name (the unisex cohort cache) is dropped only for the names whose
        files are found to hold other data when they are used again.
        """
        _cache.clear()

    # -- identity and shape -----------------------------------------------------------------------
    @property
    def table_name(self) -> str:
        """Name of the table."""
        return self._table_name

    @property
    def file_name(self) -> str:
        """Name the files were found under (their stem): ``TableSource(file_name)`` finds them again."""
        return self._file_name

    @property
    def file_path(self) -> Path | None:
        """Path of the metadata file ``NAME.toml`` (the columns are beside it in ``NAME.csv``).

        For a source built by ``from_frame``, the path given there, or None.
        """
        return self._file_path

    @property
    def table_type(self) -> str:
        """ "life", "disability" or "exit"."""
        return self._meta.table_type

    @property
    def data(self) -> pl.DataFrame:
        """The columns: ``age`` (Int64, 0..w) and the rate and improvement columns (Float64)."""
        return self._data

    @property
    def valid_sexes(self) -> list[str]:
        """Sexes of the table (a new list on every call: the source is shared).

        The metadata's ``sexes`` when given, else the sexes having rate columns, in file order.
        Whether each of them has its columns is checked by the table classes when a sex is used.
        """
        return list(self._valid_sexes)

    @property
    def w(self) -> int:
        """Terminal age: the age of the last row."""
        return self._w

    @property
    def omega(self) -> int:
        """Limiting age (metadata ``omega``, default ``w``)."""
        return self._w if self._meta.omega is None else self._meta.omega

    @property
    def start_age(self) -> int:
        """First age with meaningful rates; all rates below it are 0."""
        return self._meta.start_age

    @property
    def description(self) -> str:
        """Free text from the metadata ("" when absent)."""
        return self._meta.description

    @property
    def sex_independent(self) -> bool:
        """Whether the rates do not depend on sex (default: the sexes are just "u")."""
        if self._meta.sex_independent is not None:
            return self._meta.sex_independent
        return self._valid_sexes == ["u"]

    @property
    def metadata(self) -> dict[str, Any]:
        """The metadata as parsed (without defaults filled in); a fresh deep copy on every call."""
        return copy.deepcopy(self._metadata)

    # -- generational -----------------------------------------------------------------------------
    @property
    def generational(self) -> bool:
        """Whether rates improve by calendar year (the metadata has a ``[generational]`` table)."""
        return self._meta.generational is not None

    @property
    def generational_formula_type(self) -> str | None:
        """Name of the improvement formula (e.g. "exponential", "compound"), or None."""
        gen = self._meta.generational
        return None if gen is None else gen.formula_type

    @property
    def base_year(self) -> int | None:
        """Calendar year of the base rates of a generational table, or None."""
        gen = self._meta.generational
        return None if gen is None else gen.base_year

    @property
    def mi_structure(self) -> str | None:
        """Layout of the improvement columns: "flat", "year_indexed" or "select_period"."""
        gen = self._meta.generational
        return None if gen is None else gen.mi_structure

    @property
    def grid_years(self) -> list[int] | None:
        """Ascending calendar years of the year-indexed improvement columns (a fresh list)."""
        gen = self._meta.generational
        return None if gen is None or gen.grid_years is None else list(gen.grid_years)

    @property
    def mi_by_duration(self) -> bool:
        """Whether improvement depends on the select duration (``mi_structure == "select_period"``)."""
        return self.mi_structure == "select_period"

    # -- select -----------------------------------------------------------------------------------
    @property
    def select(self) -> bool:
        """Whether the table is select-and-ultimate (the metadata has a ``[select]`` table)."""
        return self._meta.select is not None

    @property
    def select_period(self) -> int | None:
        """Number of select durations before the ultimate column applies."""
        sel = self._meta.select
        return None if sel is None else sel.period

    @property
    def start_duration(self) -> int | None:
        """Duration of the first select column (default 1)."""
        sel = self._meta.select
        return None if sel is None else sel.start_duration

    @property
    def select_improvement_diagonal(self) -> str | None:
        """How improvement follows the select diagonal (``select.improvement_diagonal``), or None."""
        sel = self._meta.select
        return None if sel is None else sel.improvement_diagonal

    # -- presentation -----------------------------------------------------------------------------
    def _taxonomy_lines(self) -> list[str]:
        sexes = ", ".join(self._valid_sexes) or "none"
        independent = " (sex-independent)" if self.sex_independent else ""
        lines = [f"Type: {self.table_type} table, sexes {sexes}{independent}"]
        parts = []
        if (sel := self._meta.select) is not None:
            last = sel.start_duration + sel.period - 1
            parts.append(
                f"select-and-ultimate, select period {sel.period} (durations {sel.start_duration}-{last})"
            )
        if (gen := self._meta.generational) is not None:
            structure = gen.mi_structure.replace("_", "-")
            if gen.grid_years is not None:
                structure += f" {gen.grid_years[0]}-{gen.grid_years[-1]}"
            formula = f"{gen.formula_type} formula, " if gen.formula_type else ""
            base = f", base year {gen.base_year}" if gen.base_year is not None else ""
            parts.append(f"generational, {formula}{structure} improvement{base}")
        lines.append("Structure: " + ("; ".join(parts) or "period"))
        below = f" (rates 0 below {self.start_age})" if self.start_age else ""
        lines.append(f"Ages: {self.start_age}-{self._w}{below}, omega {self.omega}")
        src = self._meta.source
        cited = [str(src[k]) for k in ("name", "authority", "year") if k in src]
        if cited:
            lines.append("Source: " + ", ".join(cited))
        return lines

    def __repr__(self) -> str:
        return (
            f"<TableSource {self._table_name!r}: {self.table_type}, sexes {self._valid_sexes}, "
            f"ages 0-{self._w}, {self._data.width - 1} rate/improvement columns>"
        )

    # -- copies -----------------------------------------------------------------------------------
    def __copy__(self) -> TableSource:
        new = object.__new__(type(self))
        for slot in _SLOTS:
            object.__setattr__(new, slot, getattr(self, slot))
        new._valid_sexes = list(self._valid_sexes)  # cheap, and spares the shared source in-place edits
        if (origin := getattr(self, "_path_origin", None)) is not None:
            new._path_origin = origin
        if (data := getattr(self, "_memory_data", None)) is not None:
            new._memory_data = data
        return new

    def __deepcopy__(self, memo: dict[int, Any]) -> TableSource:
        new = self.__copy__()
        memo[id(self)] = new
        new._data = self._data.clone()
        new._meta = copy.deepcopy(self._meta, memo)
        new._metadata = copy.deepcopy(self._metadata, memo)
        return new

    def __reduce__(self) -> tuple[Callable[..., TableSource], tuple[Any, ...]]:
        return _restore, (type(self), tuple(getattr(self, slot) for slot in _SLOTS))


def _restore(cls: type[TableSource], state: tuple[Any, ...]) -> TableSource:
    """Rebuild a pickled source through the loader's checks, so that a damaged or edited pickle
    fails as a damaged file would instead of giving rates that nobody wrote."""
    if not (isinstance(cls, type) and issubclass(cls, TableSource)):
        raise ValueError(f"cannot unpickle a TableSource as {cls!r}: the pickle is damaged")
    if not isinstance(state, tuple) or len(state) != len(_SLOTS):
        raise ValueError("cannot unpickle a TableSource: its pickled state is damaged")
    name, file_name, file_path, data, valid_sexes, meta, metadata, w = state
    _check_name(name)
    ok = (
        file_name == name
        and (file_path is None or isinstance(file_path, Path))
        and isinstance(data, pl.DataFrame)
        and isinstance(valid_sexes, list)
        and isinstance(metadata, dict)
    )
    if not ok:
        raise ValueError(f"cannot unpickle table source {name!r}: its pickled state is damaged")
    where = f"pickled table source {name!r}"
    # A table's private copy may have gained a sex (a blended unisex column): its columns are
    # judged against the sexes it holds; everything else is read as the loader reads it.
    judged = {**metadata, "sexes": valid_sexes} if valid_sexes else metadata
    checked = cls._build(name, judged, data, file_path, where, where, lambda i: f"row {i + 1}")
    parsed = fmt.parse_metadata(metadata, where)
    if meta != parsed or w != checked._w or checked._valid_sexes != valid_sexes:
        raise ValueError(
            f"{where}: its parsed metadata, sexes or last age (w = {w!r}) disagree with its metadata "
            f"and {checked._w + 1} rows; the pickle is damaged"
        )
    checked._meta = parsed
    checked._metadata = copy.deepcopy(metadata)
    return checked


def _clear_on_reset() -> None:
    _cache.clear()
    _filled_from.clear()


_config._reset_callbacks.append(_clear_on_reset)


# -- files ------------------------------------------------------------------------------------------
def register_table(source: TableSource) -> TableSource:
    """Register an in-memory source under its name (``source.register()``); return it."""
    if not isinstance(source, TableSource):
        raise TypeError(f"register_table() takes a TableSource, got {type(source).__name__}")
    return source.register()


def _forget(name: str) -> None:
    """Drop what is cached under ``name``: it may now mean other data."""
    for key in [k for k in _cache if k[0] == name]:
        _cache.pop(key, None)
    _invalidate(name)


def _store(key: tuple[str, tuple[Path, ...]], source: TableSource) -> None:
    """Cache a loaded source; drop the sources of search paths that no longer apply, and the
    oldest beyond ``_CACHE_MAX``."""
    in_use = _config.Config()._tables_paths_in_use()
    for old in [k for k in _cache if k[1] not in in_use]:
        del _cache[old]
    _cache[key] = source
    while len(_cache) > _CACHE_MAX:
        del _cache[next(iter(_cache))]


def _check_name(name: object) -> str:
    if not isinstance(name, str):
        raise TypeError(f"table name must be a str, got {type(name).__name__}")
    if not name or name in (".", "..") or any(sep and sep in name for sep in ("/", "\\", os.sep, os.altsep)):
        raise ValueError(f"table name must be a bare file name (no directory), got {name!r}")
    if any(not ch.isprintable() for ch in name):
        # NUL, line breaks, tabs and other control characters: no file system or listing keeps them.
        raise ValueError(f"table name must be a bare file name of printable characters, got {name!r}")
    return name


def _load(name: str, tables_path: tuple[Path, ...]) -> TableSource:
    _check_name(name)
    searched = (*tables_path, BUNDLED_TABLES_DIR)
    for directory in searched:
        toml_path, csv_path = directory / f"{name}.toml", directory / f"{name}.csv"
        has_toml, has_csv = _is_table_file(toml_path, name), _is_table_file(csv_path, name)
        if has_toml and has_csv:
            return _read(name, toml_path, csv_path)
        if has_toml or has_csv:
            missing, found = (csv_path, toml_path) if has_toml else (toml_path, csv_path)
            raise FileNotFoundError(f"table {name!r}: {missing} is missing (found {found.name} beside it)")
    if _soa.is_soa_name(name):  # after the directories: a file of that name comes first
        return _soa.load(name)
    hint = " (give the bare name, without extension)" if name.endswith((".toml", ".csv")) else ""
    dirs = ", ".join(str(d) for d in searched)
    raise FileNotFoundError(
        f"table {name!r} not found{hint}; searched for {name}.toml/{name}.csv in: {dirs}" + _suggestion(name)
    )


def _suggestion(name: str) -> str:
    """ " (did you mean 'X'?)" naming the available tables close to ``name``, case ignored, or ""."""
    from veltrane.tables.listing import did_you_mean

    close = did_you_mean(name)
    return f" (did you mean {' or '.join(repr(n) for n in close)}?)" if close else ""


def _is_table_file(path: Path, name: str) -> bool:
    """Whether ``path`` is a regular file (following links); False when nothing has that name.

    Anything else under the name (a directory, a FIFO, a dangling link or a link loop) is
    reported as what it is: calling it "missing" would send the user looking in the wrong place,
    and opening a FIFO would hang.
    """
    try:
        mode = path.stat().st_mode
    except FileNotFoundError:
        if not os.path.lexists(path):
            return False
        raise FileNotFoundError(
            f"table {name!r}: {path} is a symbolic link to {os.readlink(path)}, which does not exist"
        ) from None
    except NotADirectoryError:
        return False  # a tables_path entry that is a file holds no tables
    except OSError as exc:
        if exc.errno != errno.ELOOP:
            raise
        raise OSError(f"table {name!r}: {path} is a symbolic link loop") from None
    if stat.S_ISREG(mode):
        return True
    if stat.S_ISDIR(mode):
        raise IsADirectoryError(f"table {name!r}: {path} is a directory, not a file")
    kind = "a FIFO (named pipe)" if stat.S_ISFIFO(mode) else "a socket" if stat.S_ISSOCK(mode) else "a device"
    raise OSError(f"table {name!r}: {path} is {kind}, not a regular file")


def _read_text(path: Path) -> str:
    """The file's text: UTF-8, with or without a byte-order mark (some editors write one)."""
    data = path.read_bytes()
    if data.startswith((codecs.BOM_UTF16_LE, codecs.BOM_UTF16_BE)):
        raise fmt.TableFormatError(f"{path}: the file is UTF-16 text; save it as UTF-8")
    offset = data.find(b"\0")
    if offset >= 0:
        problem = "a NUL byte (binary data, or UTF-16 text without a byte-order mark)"
    else:
        try:
            return data.decode("utf-8-sig")
        except UnicodeDecodeError as exc:
            offset, problem = exc.start, f"byte 0x{data[exc.start]:02x}, which is not UTF-8"
    line = data.count(b"\n", 0, offset) + 1
    raise fmt.TableFormatError(f"{path}: line {line}: {problem}; table files are UTF-8 text")


def _read(name: str, toml_path: Path, csv_path: Path) -> TableSource:
    toml_text, csv_text = _read_text(toml_path), _read_text(csv_path)
    return _parse(name, toml_text, io.StringIO(csv_text, newline=""), toml_path, csv_path)


def _parse(
    name: str, toml_text: str, csv_lines: Iterable[str], toml_path: Path, csv_path: Path
) -> TableSource:
    try:
        metadata = tomllib.loads(toml_text)
    except tomllib.TOMLDecodeError as exc:
        raise fmt.TableFormatError(f"{toml_path}: invalid TOML: {exc}") from exc
    except RecursionError:  # the parser recurses once per level of nested arrays or tables
        raise fmt.TableFormatError(f"{toml_path}: invalid TOML: arrays or tables nested too deeply") from None
    cells, lines = fmt.read_csv_cells(csv_lines, str(csv_path))
    return TableSource._build(
        name, metadata, cells, toml_path, str(toml_path), str(csv_path), lambda i: f"line {lines[i]}"
    )


def write_table(
    directory: str | os.PathLike[str],
    name: str,
    metadata: Mapping[str, Any],
    columns: Mapping[str, Iterable[object]],
    *,
    validate: bool = True,
) -> Path:
    """Write a table as ``NAME.toml`` and ``NAME.csv`` in ``directory`` (created if missing).

    A pair of that name already in ``directory`` is replaced. Both files are written beside
    their targets first and then moved into place, so a failure (a full disk, a directory in
    the way) leaves the old pair, never a new ``.toml`` beside an old ``.csv``.

    Floats are written in their shortest exact form, so reading the files back gives the same
    doubles. Cached sources of that name are dropped, so the next ``TableSource(name)`` reads the
    new files.

    Parameters
    ----------
    directory : path-like
        Tables directory.
    name : str
        Table name (stem of both files).
    metadata : mapping
        The metadata, shaped as the TOML file.
    columns : mapping of str to sequence
        Columns in file order, ``age`` included; all of the same length. ``None`` writes an empty cell.
    validate : bool, default True
        Check the pair as ``TableSource`` would read it and write nothing if it breaks the format.
        Pass False to write deliberately malformed files.

    Returns
    -------
    Path
        Path of the written ``NAME.toml``.

    Raises
    ------
    ValueError
        ``validate`` is set and the table breaks the format, or the columns differ in length.
    """
    folder = Path(directory)
    _check_name(name)
    toml_path, csv_path = folder / f"{name}.toml", folder / f"{name}.csv"
    if validate:  # before serialising, which would choke on values of the wrong shape
        fmt.parse_metadata(metadata, str(toml_path))
    toml_text, csv_text = fmt.toml_text(metadata), fmt.csv_text(columns)
    if validate:
        _parse(name, toml_text, io.StringIO(csv_text, newline=""), toml_path, csv_path)
    _write_pair(folder, ((toml_path, toml_text), (csv_path, csv_text)))
    _forget(name)
    return toml_path


def _write_pair(folder: Path, files: tuple[tuple[Path, str], ...]) -> None:
    """Write both files beside their targets, then move them into place: a failure on the way
    (a full disk, a directory in the way) leaves whatever pair was there, never half of a new one."""
    try:
        folder.mkdir(parents=True, exist_ok=True)
    except FileExistsError:
        raise NotADirectoryError(
            f"{folder} is not a directory; give a tables directory to write into"
        ) from None
    for path, _ in files:
        if os.path.lexists(path) and not path.is_file():
            raise FileExistsError(f"{path} exists and is not a regular file; nothing written")
    written: list[tuple[str, Path]] = []
    try:
        for path, text in files:
            handle = tempfile.NamedTemporaryFile(  # noqa: SIM115 (closed below, kept on success)
                "w",
                encoding="utf-8",
                newline="",
                dir=folder,
                prefix=".veltrane-",
                suffix=".tmp",
                delete=False,
            )
            written.append((handle.name, path))
            with handle:
                handle.write(text)
            # The temporary file is private (0o600); the table keeps the mode of the file it replaces.
            mode = stat.S_IMODE(path.stat().st_mode) if path.is_file() else 0o644
            os.chmod(handle.name, mode)
        for temporary, path in written:
            os.replace(temporary, path)
    finally:
        for temporary, _ in written:
            with contextlib.suppress(FileNotFoundError):
                os.unlink(temporary)
