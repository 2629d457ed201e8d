"""A mypy plugin that types the many-table constructor.

A table class called with a sequence for its name, sex, cohort, blend or duration returns a tuple
of tables, and with ``return_dict=True`` a dictionary keyed by :class:`~veltrane.TableKey`. Type
checkers that follow the return type of ``__new__`` (pyright) see this from the stubs alone; mypy
takes every constructor call to return an instance of the class, so it needs this plugin::

    [tool.mypy]
    plugins = ["veltrane.mypy_plugin"]
"""

from __future__ import annotations

from collections.abc import Callable

from mypy.nodes import TypeInfo
from mypy.plugin import FunctionContext, Plugin
from mypy.types import (
    AnyType,
    Instance,
    LiteralType,
    NoneType,
    TupleType,
    Type,
    TypeOfAny,
    UnionType,
    get_proper_type,
)

_BASE = "veltrane.tables.decrement.DecrementTable"
_FANNED_OUT = ("table_name", "sex", "cohort", "unisex_blend", "duration")
_SEQUENCES = frozenset(
    {"builtins.list", "builtins.tuple", "builtins.range", "typing.Sequence", "numpy.ndarray"}
)


def _is_many(typ: Type) -> bool | None:
    """True for a sequence, False for one value, None when the type does not say."""
    proper = get_proper_type(typ)
    if isinstance(proper, TupleType):
        return True
    if isinstance(proper, Instance):
        if proper.type.fullname == "builtins.str":
            return False
        return any(base.fullname in _SEQUENCES for base in proper.type.mro) or (
            proper.type.fullname in _SEQUENCES
        )
    if isinstance(proper, UnionType):
        answers = {_is_many(item) for item in proper.items}
        return answers.pop() if len(answers) == 1 else None
    if isinstance(proper, NoneType | LiteralType):
        return False
    return None


def _is_true(typ: Type) -> bool | None:
    proper = get_proper_type(typ)
    if isinstance(proper, LiteralType):
        return proper.value is True
    if isinstance(proper, Instance) and proper.last_known_value is not None:
        return proper.last_known_value.value is True
    return None


def _constructor_type(ctx: FunctionContext, key: Instance | None) -> Type:
    table = get_proper_type(ctx.default_return_type)
    if not isinstance(table, Instance):
        return ctx.default_return_type
    given: dict[str, list[Type]] = {}
    for names, types in zip(ctx.callee_arg_names, ctx.arg_types, strict=False):
        if names is not None and types:
            given[names] = types
    if "return_dict" in given:
        wants_dict = _is_true(given["return_dict"][0])
        if wants_dict is None:
            return AnyType(TypeOfAny.special_form)
        if wants_dict:
            key_type: Type = key if key is not None else AnyType(TypeOfAny.special_form)
            return ctx.api.named_generic_type("builtins.dict", [key_type, table])
    answers = [_is_many(given[name][0]) for name in _FANNED_OUT if name in given]
    if any(answer is True for answer in answers):
        return ctx.api.named_generic_type("builtins.tuple", [table])
    if any(answer is None for answer in answers):
        return AnyType(TypeOfAny.special_form)
    return ctx.default_return_type


class _TablePlugin(Plugin):
    def get_function_hook(self, fullname: str) -> Callable[[FunctionContext], Type] | None:
        symbol = self.lookup_fully_qualified(fullname)
        if symbol is not None and isinstance(symbol.node, TypeInfo) and symbol.node.has_base(_BASE):
            key = self.lookup_fully_qualified("veltrane.base.TableKey")
            key_type = Instance(key.node, []) if key is not None and isinstance(key.node, TypeInfo) else None
            return lambda ctx: _constructor_type(ctx, key_type)
        return None


def plugin(version: str) -> type[Plugin]:
    """The entry point mypy calls."""
    return _TablePlugin
