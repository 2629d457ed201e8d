"""Pickling of decrement tables and registries.

A table travels as a recipe: its class, the name of its table file with a fingerprint of that
file's contents, its keys (sex, cohort, duration, unisex blend, pending), the values of the
slots that subclasses add (a life table's interest rate), and the record of the modification in
force (tables merged by ``table_combination`` travel as recipes of their own, as they stood
when they were merged). Unpickling rebuilds the table from the file that the receiving process
finds under the same name, applies the modification again, and checks the rebuilt rates
against digests of the sent ones, so a table either arrives bit for bit or fails loudly.

Tables built from data that no table file holds (``TableSource.from_frame``, or a file that
changed since) are refused when pickled, except those made on purpose with no name
(``LifeTable.from_rates``, ``from_source``): they travel with their data. A select path travels
as the recipe of its select table, rebuilt and followed again on arrival.
"""

from __future__ import annotations

import hashlib
import warnings
from collections import OrderedDict
from contextlib import nullcontext
from typing import Any, NamedTuple

import numpy as np

from veltrane.config import Config
from veltrane.tables._unnamed import build, memory_data, unnamed_source
from veltrane.tables.decrement import DecrementTable, TableRegistry, _validate_table_class
from veltrane.tables.select_path import select_path_origin
from veltrane.tables.source import TableSource

__all__: list[str] = []


class TableRecipe(NamedTuple):
    """Everything needed to build a table again in another process."""

    cls: type
    table_name: str
    fingerprint: str
    sex: str | None
    cohort: int | None
    duration: int | str | None
    unisex_blend: float | None
    pending: bool
    slots: tuple[tuple[str, Any], ...]
    modifications: tuple[tuple[str, Any], ...] | None
    decimals: tuple[int, int | None]  # (the table's rate decimals, those of the modification)
    digests: tuple[str, str] | None  # (base rates, rates in force)
    descriptors: tuple[str, ...]  # as reported; an advanced table keeps them unmodified
    # A select path: the recipe of its select table, the issue age and the years (then the name,
    # fingerprint and keys above are unused: the path is rebuilt from the select table).
    path: tuple[TableRecipe, int, int | None] | None = None
    # A table on a source that no name finds: that source's metadata and frame.
    data: tuple[dict[str, Any], Any] | None = None


class _Unpicklable:
    """Stands in a modification record for a merged table that cannot be rebuilt elsewhere."""

    __slots__ = ("reason",)

    def __init__(self, reason: str) -> None:
        self.reason = reason

    def __reduce__(self) -> Any:
        raise TypeError(self.reason)


def fingerprint(source: TableSource) -> str:
    """A digest of a table source's metadata and columns (names, types and values)."""
    return source._digest()


def _digest(vector: np.ndarray | None) -> str:
    return (
        ""
        if vector is None
        else hashlib.blake2b(np.ascontiguousarray(vector).tobytes(), digest_size=16).hexdigest()
    )


def _label(table: DecrementTable) -> str:
    return f"{type(table).__name__} '{table._table.table_name}'"


def _source_name_and_fingerprint(table: DecrementTable) -> tuple[str, str]:
    """The name that finds the table's file again, and the fingerprint of that file."""
    source = table._table
    name = source.file_name
    why = (
        f"cannot pickle {_label(table)}: it was not built from the table file that the name "
        f"{name!r} finds now (it was built from data in memory, or the file or Config().tables_path "
        "changed since). Write the table with write_table() and build the table from it."
    )
    try:
        named = TableSource(name)
    except (OSError, ValueError) as exc:
        raise ValueError(why) from exc
    same = named is source or (table._table_is_private_copy and named._meta is source._meta)
    if not same and (table._table_is_private_copy or fingerprint(named) != fingerprint(source)):
        raise ValueError(why)
    return name, fingerprint(named)


def _decrement_decimals(table: DecrementTable) -> int:
    return int(table._decimals_for_decrement)


def recipe(table: DecrementTable) -> TableRecipe:
    """The recipe of a table; ValueError when the table cannot be rebuilt from one."""
    if table._table is None or not table._initialized:
        raise ValueError(f"cannot pickle an uninitialised {type(table).__name__}")
    if table._suspend_rebuild:
        raise ValueError(
            f"cannot pickle {_label(table)} inside batch_update(): its new keys are not built yet; "
            "pickle it after the block"
        )
    origin = select_path_origin(table._table)
    data = memory_data(table._table)
    if origin is not None:
        select_table, issue_age, years = origin
        name, print_, path = "", "", (recipe(select_table), issue_age, years)
    elif data is not None:
        name, print_, path = table._table.table_name, "", None
    else:
        (name, print_), path = _source_name_and_fingerprint(table), None
    modifications = None
    modification_decimals = None
    if table._modified:
        record = table._modification_record
        if record is None or record[0] is not table._decrement:
            raise ValueError(
                f"cannot pickle {_label(table)}: its modified rates were not made by modify_qx (they were "
                "restored or written directly), so there is nothing to rebuild them from; apply the "
                "modifications with modify_qx() before pickling"
            )
        _, modifications, modification_decimals = record
        for key, value in modifications:
            if key != "table_combination":
                continue
            for part in _parts(value):
                if isinstance(part, _Unpicklable):
                    raise ValueError(f"cannot pickle {_label(table)}: {part.reason}")
    duration = table._duration
    if duration is None and table.is_select and table._select_duration_set:
        duration = "ult"
    sex = table._sex
    blend = table._unisex_blend  # also one accepted by configure() on a male or female table
    pending = bool(table._metadata_pending)
    digests = None if pending else (_digest(table._decrement_base), _digest(table._decrement))
    return TableRecipe(
        cls=type(table),
        table_name=name,
        fingerprint=print_,
        sex=sex,
        cohort=table._cohort,
        duration=duration,
        unisex_blend=blend,
        pending=pending,
        slots=_slot_values(table),
        modifications=modifications,
        decimals=(_decrement_decimals(table), modification_decimals),
        digests=digests,
        descriptors=tuple(table._modifications_applied or ()),
        path=path,
        data=data,
    )


def _is_one(value: Any) -> bool:
    """Whether a recorded ``table_combination`` value stands for one table (not a sequence)."""
    return isinstance(value, TableRecipe | _Unpicklable)


def _parts(value: Any) -> tuple[Any, ...]:
    return (value,) if _is_one(value) else tuple(value)


def _slot_names(cls: type) -> list[str]:
    names: list[str] = []
    for klass in cls.__mro__:
        declared = klass.__dict__.get("__slots__")
        if declared is None:
            continue
        for slot in (declared,) if isinstance(declared, str) else declared:
            if slot in ("__dict__", "__weakref__"):
                continue
            if slot.startswith("__") and not slot.endswith("__"):
                slot = f"_{klass.__name__.lstrip('_')}{slot}"
            names.append(slot)
    return names


def _slot_values(table: DecrementTable) -> tuple[tuple[str, Any], ...]:
    values: list[tuple[str, Any]] = []
    for slot in _slot_names(type(table)):
        try:
            values.append((slot, object.__getattribute__(table, slot)))
        except AttributeError:
            continue
    extra = getattr(table, "__dict__", None)
    if extra:
        values.extend(("__dict__." + key, value) for key, value in extra.items())
    return tuple(values)


def _find_source(table_name: str, expected: str, cls: type) -> None:
    try:
        found = TableSource(table_name)
    except FileNotFoundError as exc:
        raise FileNotFoundError(
            f"cannot unpickle {cls.__name__} '{table_name}': no table file of that name in this process "
            "(set VELTRANE_TABLES_PATH or Config().tables_path where the table is unpickled)"
        ) from exc
    if fingerprint(found) != expected:
        raise ValueError(
            f"cannot unpickle {cls.__name__} '{table_name}': the table file found here "
            f"({found.file_path}) differs from the one the table was built from"
        )


def _decimals_override(table_type: str, decimals: int | None) -> Any:
    """A context in which rates of this type round to ``decimals`` (a no-op when they do already)."""
    prefix = DecrementTable._DECREMENT_PREFIX_MAP[table_type]
    if decimals is None or getattr(Config().decimals, prefix) == decimals:
        return nullcontext()
    return Config().override(decimals={prefix: decimals})


def _pairs(value: Any) -> bool:
    return isinstance(value, tuple) and all(
        isinstance(item, tuple) and len(item) == 2 and isinstance(item[0], str) for item in value
    )


def _check_recipe(r: Any) -> None:
    """Refuse a recipe that no ``recipe()`` call could have made: the pickle was damaged or edited."""
    ok = (
        isinstance(r, TableRecipe)
        and isinstance(r.cls, type)
        and _pairs(r.slots)
        and (r.modifications is None or _pairs(r.modifications))
        and isinstance(r.decimals, tuple)
        and len(r.decimals) == 2
        and (r.digests is None or (isinstance(r.digests, tuple) and len(r.digests) == 2))
        and isinstance(r.descriptors, tuple)
        and all(isinstance(d, str) for d in r.descriptors)
        and (r.path is None or (isinstance(r.path, tuple) and len(r.path) == 3))
        and (
            r.data is None or (isinstance(r.data, tuple) and len(r.data) == 2 and isinstance(r.data[0], dict))
        )
    )
    if not ok:
        raise ValueError(
            "cannot unpickle a table: its pickled recipe is damaged (not one that pickling writes)"
        )


def rebuild(r: TableRecipe) -> DecrementTable:
    """Build the table that a recipe describes, checking its rates against the sent digests."""
    _check_recipe(r)
    if r.path is not None:
        select_table, issue_age, years = r.path
        table = rebuild(select_table).select_path(issue_age, years)
    elif r.data is not None:
        try:
            source = unnamed_source(r.table_name, *r.data)
        except (TypeError, ValueError) as exc:
            raise ValueError(
                f"cannot unpickle {r.cls.__name__} '{r.table_name}': its data is damaged ({exc})"
            ) from exc
        table = build(source, lambda private: _construct(r, private))
    else:
        table = _construct(r)
    # Only the slots that the class declares in Python travel; the core's own fields are
    # rebuilt above, never taken from the pickle.
    known = set(_slot_names(type(table)))
    checks = getattr(type(table), "_SLOT_CHECKS", {})
    for name, value in r.slots:
        if name.startswith("__dict__.") and hasattr(table, "__dict__"):
            table.__dict__[name[len("__dict__.") :]] = value
        elif name in known:
            if (check := checks.get(name)) is not None:
                try:
                    value = check(value)
                except (TypeError, ValueError) as exc:
                    raise ValueError(
                        f"cannot unpickle {_label(table)}: its pickled recipe sets {name!r} to a value "
                        f"the table refuses ({exc}); the pickle is damaged"
                    ) from exc
            object.__setattr__(table, name, value)
        else:
            raise ValueError(
                f"cannot unpickle {_label(table)}: its pickled recipe sets {name!r}, which is not a slot "
                f"of {type(table).__name__} (the pickle is damaged)"
            )
    if r.modifications is not None:
        modifications: dict[str, Any] = {}
        for key, value in r.modifications:
            if key == "table_combination":
                if not _is_one(value) and not isinstance(value, tuple):
                    _check_recipe(value)  # raises: a merged table travels as a recipe
                value = rebuild(value) if _is_one(value) else tuple(rebuild(v) for v in value)
            modifications[key] = value
        with warnings.catch_warnings(), _decimals_override(table.table_type, r.decimals[1]):
            # The sender saw these warnings (truncation at certainty) when it modified the table.
            warnings.simplefilter("ignore")
            table.modify_qx(modifications)  # type: ignore[arg-type]  # the keys of the sender's call
    table._modifications_applied = list(r.descriptors)
    if r.digests is not None and r.digests != (_digest(table._decrement_base), _digest(table._decrement)):
        raise ValueError(
            f"cannot unpickle {_label(table)}: its rates rebuilt here differ from the pickled ones "
            "(are the settings, Config().decimals, the same in both processes?)"
        )
    return table


def _construct(r: TableRecipe, staged: str | None = None) -> DecrementTable:
    """The table of the recipe's keys, on its named file (or on the name ``staged`` just registered)."""
    if staged is None:
        _find_source(r.table_name, r.fingerprint, r.cls)
    name = r.table_name if staged is None else staged
    table: DecrementTable = DecrementTable.__new__(r.cls, name, "m")
    # A male or female table may hold a blend accepted by configure() (it applies once the sex
    # becomes "u"); the constructor refuses one with those sexes, so configure() sets it again.
    later = r.unisex_blend if r.sex in ("m", "f") else None
    with _decimals_override(table.table_type, r.decimals[0]):
        DecrementTable.__init__(
            table,
            name,
            r.sex,  # type: ignore[arg-type]  # a sex the sender's table held
            r.cohort,
            expected_table_type=getattr(r.cls, "_TABLE_TYPE", None),
            unisex_blend=None if later is not None else r.unisex_blend,
            duration=r.duration,
            pending=r.pending,
        )
        if later is not None:
            DecrementTable.configure(table, unisex_blend=later)
    return table


# -- entry points of the extension module ------------------------------------------------------------
def _reduce_table(table: DecrementTable) -> tuple[Any, tuple[TableRecipe]]:
    return rebuild, (recipe(table),)


def _combination_record(value: Any) -> Any:
    """Recipes of the tables merged by a ``table_combination`` step, taken when they are merged."""

    def one(other: DecrementTable) -> TableRecipe | _Unpicklable:
        try:
            return recipe(other)
        except Exception as exc:  # the merge itself succeeded; only pickling is lost
            return _Unpicklable(f"the table merged by table_combination cannot be pickled: {exc}")

    if isinstance(value, DecrementTable):
        return one(value)
    return tuple(one(other) for other in value)


def _reduce_registry(registry: TableRegistry) -> tuple[Any, tuple[Any, ...]]:
    return _rebuild_registry, (registry._table_class, registry._maxsize, tuple(registry._cache.items()))


def _rebuild_registry(
    table_class: type | None, maxsize: int, entries: tuple[tuple[Any, Any], ...]
) -> TableRegistry:
    registry = TableRegistry(table_class, maxsize=maxsize)
    if (
        not isinstance(entries, tuple)
        or len(entries) > registry._maxsize
        or not all(
            isinstance(entry, tuple)
            and len(entry) == 2
            and isinstance(entry[0], tuple)
            and len(entry[0]) == 6
            and _registry_tables(entry[1]) is not None
            for entry in entries
        )
    ):
        raise ValueError(
            "cannot unpickle a TableRegistry: its pickled entries are damaged (not key, table pairs)"
        )
    for key, value in entries:
        for table in _registry_tables(value) or ():
            _check_registry_entry(key, table)
    registry._cache = OrderedDict(entries)
    return registry


def _registry_tables(value: object) -> list[DecrementTable] | None:
    """The tables of a registry entry: one table, or the tuple or dictionary a many-table call made."""
    if isinstance(value, DecrementTable):
        return [value]
    tables = list(value.values()) if isinstance(value, dict) else value
    if isinstance(tables, tuple | list) and all(isinstance(t, DecrementTable) for t in tables):
        return list(tables)
    return None


def _check_registry_entry(key: tuple[Any, ...], table: DecrementTable) -> None:
    """Refuse an entry whose table is not one that ``get_or_create`` could have made for its key.

    The class and the table name never change on a table; the other keys (sex, cohort, duration,
    blend) may, if a holder of the shared table configured it, so they are not compared.
    """
    cls, name = key[0], key[1]
    try:
        _validate_table_class(cls, "a pickled TableRegistry key's table class")
    except TypeError as exc:
        raise ValueError(f"cannot unpickle a TableRegistry: {exc} (the pickle is damaged)") from exc
    if not isinstance(table, cls) or table._table.file_name != name:
        raise ValueError(
            f"cannot unpickle a TableRegistry: its entry for {cls.__name__} {name!r} holds "
            f"{_label(table)} (the pickle is damaged)"
        )
