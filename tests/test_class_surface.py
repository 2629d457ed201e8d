"""What users see of the class machinery: messages name their own class, never the internal base
that carries state and behaviour; instances that __init__ never reached; the base itself."""

from __future__ import annotations

import inspect

import pytest

from conftest import exactly
from veltrane.tables import decrement
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


# -- signatures, as inspect reads them -------------------------------------------------------------

N = inspect.Parameter.empty
UNSET = decrement._CONFIGURE_UNSET
# fmt: off
SIGNATURES = [
    (DecrementTable, "table_name=N sex=None cohort=None unisex_blend=None duration=None cartesian=False "
     "return_dict=False pending=False **_kw=N"),
    (DecrementTable.__init__, "self=N table_name=N sex=None cohort=None expected_table_type=None "
     "unisex_blend=None duration=None pending=False"),
    (DecrementTable._apply_and_rebuild,
     "self=N *sex=UNSET *cohort=UNSET *duration_internal=UNSET *unisex_blend=UNSET"),
    (DecrementTable.__eq__, "self=N other=N"),
    (DecrementTable.configure, "self=N sex=None cohort=None duration=None unisex_blend=None"),
    (DecrementTable.head, "self=N n=10 include_age=True show_normalized=False"),
    (DecrementTable.qx, "self=N x=None m=1"),
    (DecrementTable.tpx, "self=N x=N t=1"),
    (DecrementTable._prob_decrement_interval,
     "self=N prob_type=N x=N m=1 validate=True use_raw=False is_scalar_x_hint=None"),
    (decrement._BatchUpdateContext, "table=N"),
    (decrement._BatchUpdateContext.__init__, "self=N table=N"),
    (decrement._BatchUpdateContext.__exit__, "self=N exc_type=N exc_val=N exc_tb=N"),
    (decrement.TableRegistry, "table_class=None *maxsize=256"),
    (decrement.TableRegistry.__init__, "self=N table_class=None *maxsize=256"),
    (decrement.TableRegistry.get_or_create, "self=N table_class=N table_name=N sex=N cohort=None "
     "duration=None unisex_blend=None interest_rate=None **extra_kwargs=N"),
    (decrement._validate_table_class, "table_class=N name='table_class'"),
    # A concrete class shows its own __init__; one without its own shows the base's.
    (LifeTable, "table_name=N sex=None cohort=None unisex_blend=None duration=None cartesian=False "
     "return_dict=False pending=False interest_rate=None"),
    (type("Bare", (DecrementTable,), {"__slots__": (), "table_type": "life"}),
     "table_name=N sex=None cohort=None expected_table_type=None unisex_blend=None duration=None "
     "pending=False"),
]
# fmt: on


def shown(parameter: inspect.Parameter) -> str:
    marks = {inspect.Parameter.KEYWORD_ONLY: "*", inspect.Parameter.VAR_KEYWORD: "**"}
    default = parameter.default
    text = "N" if default is N else "UNSET" if default is UNSET else repr(default)
    return f"{marks.get(parameter.kind, '')}{parameter.name}={text}"


@pytest.mark.parametrize(("target", "expected"), SIGNATURES)
def test_signatures_give_the_parameters_and_defaults(target, expected):
    parameters = inspect.signature(target).parameters.values()
    assert " ".join(shown(p) for p in parameters) == expected


DUNDERS = {"__new__", "__init__", "__hash__", "__eq__", "__deepcopy__", "__setattr__", "__str__", "__repr__"}
DUNDERS |= {"__enter__", "__exit__", "__len__"}


def callables():
    for cls in (DecrementTable, decrement._BatchUpdateContext, decrement.TableRegistry):
        yield cls
        for name in dir(cls):
            if name.startswith("__") and name not in DUNDERS:
                continue
            if not isinstance(inspect.getattr_static(cls, name), property) and callable(getattr(cls, name)):
                yield getattr(cls, name)
    for value in vars(decrement).values():
        if callable(value) and getattr(value, "__module__", None) in (None, decrement.__name__):
            yield value


def test_every_callable_of_the_module_has_a_signature():
    for target in callables():
        inspect.signature(target)  # raises for a callable inspect cannot read
