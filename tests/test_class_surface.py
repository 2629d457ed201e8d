"""What users see of the class machinery: messages name their own class, never the internal base
that carries state and behaviour; instances that __init__ never reached; the base itself."""

from __future__ import annotations

import pytest

from conftest import exactly
from veltrane.tables.decrement import DecrementTable
from veltrane.tables.exit import ExitTable
from veltrane.tables.life import LifeTable

BASE = DecrementTable.__mro__[1]
UNINITIALISED = (
    "LifeTable instance is not initialised (no table loaded): construct it as "
    "LifeTable(table_name, sex, ...), not with __new__ alone."
)


@pytest.mark.parametrize("cls", [LifeTable, ExitTable])
@pytest.mark.parametrize(
    "name", ["w", "modified", "modifications_applied", "table_name", "omega", "is_select"]
)
def test_read_only_properties_name_the_users_class(standard, tables, cls, name):
    tables.period("EXIT", table_type="exit", prefix="ox")
    t = cls("PER" if cls is LifeTable else "EXIT", "m")
    before = getattr(t, name)
    with exactly(AttributeError, f"property '{name}' of '{cls.__name__}' object has no setter"):
        setattr(t, name, 3)
    with exactly(AttributeError, f"property '{name}' of '{cls.__name__}' object has no deleter"):
        delattr(t, name)
    assert getattr(t, name) == before


def test_a_subclass_may_make_a_read_only_name_writable():
    class Rated(LifeTable):
        __slots__ = ("_label",)
        omega = property(lambda self: self._label, lambda self, v: object.__setattr__(self, "_label", v))

    t = Rated("SULT", "u")
    t.omega = "capped"
    assert t.omega == "capped"
    t.sex = "u"  # the base's own setters still route, and raw writes stay open to subclasses
    object.__setattr__(t, "_modified", True)
    assert t.modified
    with exactly(AttributeError, "property 'w' of 'Rated' object has no setter"):
        t.w = 3


# fmt: off
ARGUMENT_ERRORS = [
    (lambda t: t.copy(1), "copy() takes 0 positional arguments (1 given)"),
    (lambda t: t.__deepcopy__(), "__deepcopy__() takes 1 positional argument (0 given)"),
    (lambda t: t.__copy__(memo={}), "copy() takes no keyword arguments"),
    (lambda t: t._append_decrement_rate_sample_summary([], symbol="qx"),
     "_append_decrement_rate_sample_summary() got an unexpected keyword argument 'symbol'"),
]
# fmt: on


@pytest.mark.parametrize(("call", "message"), ARGUMENT_ERRORS)
def test_argument_errors_do_not_name_the_base(call, message):
    with exactly(TypeError, message):
        call(LifeTable("SULT", "u"))


# -- an instance that __init__ never reached -------------------------------------------------------


def test_text_forms_of_an_uninitialised_table():
    u = LifeTable.__new__(LifeTable, "SULT", "u")
    assert repr(u) == "<LifeTable (uninitialised)>" and str(u) == "LifeTable(uninitialised)"
    assert u.summary() == "LifeTable: (uninitialised)\nMetadata: none (allocated by __new__ without __init__)"
    assert repr(u.copy()) == "<LifeTable (uninitialised)>"


# fmt: off
USES = [
    lambda u: u.qx(3), lambda u: u.lx([1, 2]), lambda u: u.tpx(3, 2),
    lambda u: u.modify_qx({"decrement_multiplier": 2.0}), lambda u: u.reset_modifications(),
    lambda u: u.view_data(), lambda u: u.table_name, lambda u: setattr(u, "sex", "u"),
    lambda u: u.configure(sex="u"),
]
# fmt: on


@pytest.mark.parametrize("use", USES)
def test_calculations_on_an_uninitialised_table_are_refused(use):
    u = LifeTable.__new__(LifeTable, "SULT", "u")
    with exactly(ValueError, UNINITIALISED):
        use(u)
    u.__init__("SULT", "u")  # and it can still be initialised
    assert repr(u).startswith("<LifeTable table='SULT' sex='u'")


@pytest.mark.parametrize("make", [lambda: BASE("SULT", "u"), lambda: BASE.__new__(BASE, "SULT", "u")])
def test_the_internal_base_is_not_instantiable(make):
    with exactly(TypeError, "cannot create 'veltrane.tables.decrement._DecrementTableBase' instances"):
        make()
