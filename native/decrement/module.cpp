// The module veltrane.tables.decrement: module state, the collaborators it imports, its
// constants, and the public abstract class DecrementTable (abc.ABCMeta over the C type).
// Names are bound in a fixed order at import; the unisex cache registers with the
// configuration's reset hook, and a change hook keeps the settings snapshot current.
#include "decrement/contingencies.hpp"
#include "decrement/multistate.hpp"
#include "decrement/projection.hpp"
#include "decrement/stamping.hpp"
#include "decrement/table.hpp"
#include "decrement/valuation.hpp"
#include "decrement/public_calls.hpp"
#include "pyutil/module_functions.hpp"
#include "pyutil/module_slots.hpp"

#include <cstring>
#include <utility>

namespace veltrane::decrement {

ModuleState* state_of(PyObject* module) { return static_cast<ModuleState*>(PyModule_GetState(module)); }

ModuleState* state_from_type(PyTypeObject* type) {
    PyObject* module = PyType_GetModuleByDef(type, &module_def);
    if (module == nullptr) py::throw_error_set();
    return state_of(module);
}

bool str_equals(PyObject* obj, std::string_view text) {
    if (obj == nullptr || !PyUnicode_Check(obj)) return false;
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(obj, &size);
    if (data == nullptr) {
        PyErr_Clear();
        return false;
    }
    return std::string_view(data, static_cast<std::size_t>(size)) == text;
}

std::string utf8(PyObject* str) {
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(str, &size);
    if (data == nullptr) py::throw_error_set();
    return {data, static_cast<std::size_t>(size)};
}

py::ref type_name_of(PyObject* obj) {
    PyTypeObject* type = PyType_Check(obj) ? reinterpret_cast<PyTypeObject*>(obj) : Py_TYPE(obj);
    return py::check(PyType_GetName(type));
}

namespace {

int int_setting(PyObject* decimals, const char* name) {
    py::ref value = py::check(PyObject_GetAttrString(decimals, name));
    const long v = PyLong_AsLong(value.get());
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    return static_cast<int>(v);
}

}  // namespace

const ConfigSnapshot& config(ModuleState* st) {
    if (st->config_seen == st->config_version) return st->config_cache;
    // The refresh calls into Python, where the settings may change again: the snapshot is
    // marked with the version read before it, so such a change is picked up next time.
    const std::uint64_t version = st->config_version;
    py::ref cfg = py::check(PyObject_CallNoArgs(st->config));
    py::ref decimals = py::check(PyObject_GetAttrString(cfg.get(), "decimals"));
    ConfigSnapshot s;
    s.qx = int_setting(decimals.get(), "qx");
    s.ix = int_setting(decimals.get(), "ix");
    s.ox = int_setting(decimals.get(), "ox");
    s.px = int_setting(decimals.get(), "px");
    s.tpx = int_setting(decimals.get(), "tpx");
    s.tqx = int_setting(decimals.get(), "tqx");
    s.lx = int_setting(decimals.get(), "lx");
    s.dx = int_setting(decimals.get(), "dx");
    py::ref interpolation = py::check(PyObject_GetAttrString(cfg.get(), "lx_interpolation"));
    s.interpolation = str_equals(interpolation.get(), "linear")       ? kernels::Interpolation::linear
                      : str_equals(interpolation.get(), "hyperbolic") ? kernels::Interpolation::hyperbolic
                                                                      : kernels::Interpolation::exponential;
    py::ref warn = py::check(PyObject_GetAttrString(cfg.get(), "warn_on_chained_table_rebuild"));
    s.warn_chained = py::require(PyObject_IsTrue(warn.get())) == 1;
    st->config_cache = s;
    st->config_seen = version;
    return st->config_cache;
}

namespace {

PyObject* clear_cohort_unisex_cache(PyObject* module, PyObject*) {
    return py::guard([&]() -> PyObject* {
        py::ref result = py::check(PyObject_CallMethod(state_of(module)->unisex_cache, "clear", nullptr));
        Py_RETURN_NONE;
    });
}

PyObject* config_changed(PyObject* module, PyObject*) {
    ++state_of(module)->config_version;
    Py_RETURN_NONE;
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

// Module functions, bound by the exec slot at their place in the module's order.
PyMethodDef clear_cache_def = {
    "_clear_cohort_unisex_cache", clear_cohort_unisex_cache, METH_NOARGS,
    "_clear_cohort_unisex_cache()\n--\n\nEmpty the process-wide cache of cohort-projected unisex inputs."};
PyMethodDef config_changed_def = {"_config_changed", config_changed, METH_NOARGS,
                                  "_config_changed()\n--\n\nTell the module that a configuration setting changed."};
PyMethodDef configure_all_def = {
    "configure_all", FASTCALL_KW(configure_all), METH_FASTCALL | METH_KEYWORDS,
    "configure_all(tables, sex=None, cohort=None, duration=None, unisex_blend=None, interest_rate=None)\n--\n\n"
    "Call ``configure`` with the given settings on every table of ``tables`` (a dict's values, or any\n"
    "iterable) and return ``tables``. Each table is configured atomically; there is no global rollback."};

// _BatchUpdateContext.__init__ as a method with its parameter name, for inspect. It goes into
// the type's dict directly: the tp_init slot, which every construction calls, stays as made.
initproc batch_init = nullptr;

PyObject* batch_init_method(PyObject* self, PyObject* args, PyObject* kwargs) {
    if (batch_init(self, args, kwargs) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyMethodDef batch_init_def = {
    "__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(batch_init_method)),
    METH_VARARGS | METH_KEYWORDS,
    "__init__($self, /, table)\n--\n\nThe context of ``table.batch_update()`` for ``table``."};

void add_batch_init_method(PyTypeObject* type) {
    batch_init = type->tp_init;
    py::ref method = py::check(PyDescr_NewMethod(type, &batch_init_def));
    py::require(PyDict_SetItemString(type->tp_dict, "__init__", method.get()));
    PyType_Modified(type);
}

// Binds `name` in the module to `value` (a new reference is taken).
void bind(PyObject* module, const char* name, PyObject* value) { py::require(PyModule_AddObjectRef(module, name, value)); }

py::ref import(const char* name) { return py::check(PyImport_ImportModule(name)); }

// from `module_name` import each of `names`, binding them in `module`.
void import_names(PyObject* module, const char* module_name, std::initializer_list<const char*> names) {
    py::ref source = import(module_name);
    for (const char* name : names) {
        py::ref value = py::check(PyObject_GetAttrString(source.get(), name));
        bind(module, name, value.get());
    }
}

// A new reference to a module attribute, for the module state to own.
PyObject* attr(PyObject* module, const char* name) { return py::check(PyObject_GetAttrString(module, name)).release(); }

py::ref intern(const char* text) { return py::check(PyUnicode_InternFromString(text)); }

void init_names(Names& n) {
    n.table_type = intern("table_type");
    n.data = intern("data");
    n.columns = intern("columns");
    n.valid_sexes = intern("valid_sexes");
    n.w = intern("w");
    n.generational = intern("generational");
    n.select = intern("select");
    n.mi_structure = intern("mi_structure");
    n.grid_years = intern("grid_years");
    n.generational_formula_type = intern("generational_formula_type");
    n.base_year = intern("base_year");
    n.select_period = intern("select_period");
    n.start_duration = intern("start_duration");
    n.mi_by_duration = intern("mi_by_duration");
    n.table_name = intern("table_name");
    n.get_column = intern("get_column");
    n.to_numpy = intern("to_numpy");
    n.u = intern("u");
    n.m = intern("m");
    n.f = intern("f");
    n.ult = intern("ult");
    n.slots = intern("__slots__");
    n.file_name = intern("file_name");
    n.data_field = intern("_data");
    n.valid_sexes_field = intern("_valid_sexes");
    n.with_columns = intern("with_columns");
    n.f64_columns = intern("_f64_columns");
    n.interest_rate = intern("interest_rate");
    n.interest_rate_slot = intern("_interest_rate");
}

// The public class is made as a class statement would make it: by calling the metaclass
// with the C type and abc.ABC as bases, and an abstract `table_type` property. Beside it:
// - `__init_subclass__` marks the `__init__` of a class that declares
//   `_INIT_BUILDS_FROM_ARGUMENTS = True` as the one it was defined with (an attribute naming
//   the function itself, so a wrapper copying the function's attributes does not carry it);
//   a many-table call copies instances only while every such `__init__` is still in place;
// - `_apply_and_rebuild` is a function, so that inspect shows its sentinel defaults;
// - `__signature__` gives inspect the constructor's parameters for DecrementTable itself and
//   stays out of the way (None) for subclasses, whose own `__init__` describes their call.
constexpr const char* kPublicClassSource = R"PY(
import inspect

class _OwnSignature:
    __slots__ = ("owner", "signature", "inherited")

    def __init__(self, signature, inherited=None):
        self.owner = None
        self.signature = signature
        self.inherited = inherited

    def __set_name__(self, owner, name):
        self.owner = owner

    def __get__(self, instance, owner=None):
        if instance is not None or owner is None:
            return None
        if owner is self.owner:
            return self.signature
        # A subclass without an __init__ or __new__ of its own is called as the base's __init__
        # describes; one with its own is described by it.
        mro = owner.__mro__
        below = mro[: mro.index(self.owner)] if self.owner in mro else mro
        if self.inherited is None or any("__init__" in vars(c) or "__new__" in vars(c) for c in below):
            return None
        return self.inherited


def _without_self(function):
    signature = inspect.signature(function)
    return signature.replace(parameters=list(signature.parameters.values())[1:])


def _sign(cls):
    """Give a class of this module the parameters of its __init__ (after self) for inspect."""
    own = _OwnSignature(_without_self(cls.__init__))
    own.owner = cls
    cls.__signature__ = own


def _build(core, ABC, ABCMeta, abstractmethod, namespace, unset, marker):
    public = None

    def table_type(self):
        """The kind of table: "life", "disability" or "exit", supplied by each concrete class."""
        raise NotImplementedError
    table_type.__qualname__ = "DecrementTable.table_type"

    def __init_subclass__(cls, **kwargs):
        super(public, cls).__init_subclass__(**kwargs)
        own = vars(cls)
        init = own.get("__init__")
        if own.get("_INIT_BUILDS_FROM_ARGUMENTS") is True and inspect.isfunction(init):
            setattr(init, marker, init)
    __init_subclass__.__qualname__ = "DecrementTable.__init_subclass__"

    apply = core._apply_and_rebuild

    def _apply_and_rebuild(self, *, sex=unset, cohort=unset, duration_internal=unset, unisex_blend=unset):
        """Assign the given keys (those left at _CONFIGURE_UNSET are not touched), then rebuild
        once if the table has every key it needs."""
        apply(self, sex=sex, cohort=cohort, duration_internal=duration_internal, unisex_blend=unisex_blend)
    _apply_and_rebuild.__qualname__ = "DecrementTable._apply_and_rebuild"

    P = inspect.Parameter
    given = P.POSITIONAL_OR_KEYWORD
    defaults = {"sex": None, "cohort": None, "unisex_blend": None, "duration": None,
                "cartesian": False, "return_dict": False, "pending": False}
    call = [P("table_name", given)] + [P(k, given, default=v) for k, v in defaults.items()]
    call.append(P("_kw", P.VAR_KEYWORD))

    ns = dict(namespace)
    ns["__slots__"] = ()
    ns["__module__"] = "veltrane.tables.decrement"
    ns["__qualname__"] = "DecrementTable"
    ns["__signature__"] = _OwnSignature(inspect.Signature(call), _without_self(core.__init__))
    ns["__init_subclass__"] = __init_subclass__
    ns["_apply_and_rebuild"] = _apply_and_rebuild
    ns["table_type"] = property(abstractmethod(table_type))
    public = ABCMeta("DecrementTable", (core, ABC), ns)
    return public
)PY";

constexpr const char* kPublicClassDoc =
    "Abstract base of life, disability and exit decrement tables.\n\n"
    "A table is built from a named table file for one sex ('m', 'f' or 'u'), and where the\n"
    "table's structure requires it for a cohort (year of birth, generational tables) and a\n"
    "policy duration (select-ultimate tables). It holds the one-year decrement rates by age\n"
    "and the survivorship from a radix of 1,000,000.\n\n"
    "Parameters\n----------\n"
    "table_name : str\n    Name of the table file, without extension.\n"
    "sex : {'m', 'f', 'u'}\n    Sex (any case). Required unless ``pending=True``.\n"
    "cohort : int, optional\n    Year of birth; required for generational tables only.\n"
    "unisex_blend : float, optional\n    Male weight in [0, 1] blending male and female rates for sex 'u'.\n"
    "duration : int or 'ult', optional\n    Policy duration; required for select-ultimate tables only.\n"
    "pending : bool, default False\n    Allow a generational or select table whose keys arrive later.\n"
    "cartesian : bool, default False\n"
    "    With sequences of arguments: build every combination instead of pairing them.\n"
    "return_dict : bool, default False\n"
    "    With sequences of arguments: return a dict keyed by TableKey instead of a tuple.\n\n"
    "Any of table_name, sex, cohort, duration and unisex_blend may be a list or tuple: the call\n"
    "then builds several tables, pairing the sequences element by element (a one-element\n"
    "sequence is repeated; an empty cohort, duration or sex sequence gives no tables), and\n"
    "returns them as a tuple. With return_dict=True, tables that share a key leave the last\n"
    "of them under it, with a UserWarning naming the key.\n";

// inspect reads a class's parameters from its own __init__ when that is a Python function; a C
// method there is not followed by every version of inspect, so the C classes carry __signature__.
void give_signatures(PyObject* module) {
    py::ref sign = py::check(PyObject_GetAttrString(module, "_sign_class"));
    for (const char* name : {"TableRegistry", "_BatchUpdateContext"}) {
        py::ref cls = py::check(PyObject_GetAttrString(module, name));
        py::ref done = py::check(PyObject_CallOneArg(sign.get(), cls.get()));
    }
    py::require(PyObject_DelAttrString(module, "_sign_class"));
}

py::ref build_public_class(PyObject* module, ModuleState* st) {
    py::ref globals = py::check(PyDict_New());
    py::require(PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins()));
    py::ref module_name = py::check(PyUnicode_FromString("veltrane.tables.decrement"));
    py::require(PyDict_SetItemString(globals.get(), "__name__", module_name.get()));
    py::ref code = py::check(Py_CompileString(kPublicClassSource, "<veltrane.tables.decrement>", Py_file_input));
    py::ref done = py::check(PyEval_EvalCode(code.get(), globals.get(), globals.get()));
    PyObject* builder = PyDict_GetItemString(globals.get(), "_build");
    PyObject* sign = PyDict_GetItemString(globals.get(), "_sign");
    if (builder == nullptr || sign == nullptr) py::raise(PyExc_SystemError, "public class builder missing");
    // The other classes of the module get their signatures once they exist (give_signatures).
    py::require(PyObject_SetAttrString(module, "_sign_class", sign));

    py::ref abc = import("abc");
    py::ref abc_base = py::check(PyObject_GetAttrString(abc.get(), "ABC"));
    py::ref abcmeta = py::check(PyObject_GetAttrString(abc.get(), "ABCMeta"));
    py::ref abstract = py::check(PyObject_GetAttrString(abc.get(), "abstractmethod"));

    py::ref ns = py::check(PyDict_New());
    py::ref doc = py::check(PyUnicode_FromString(kPublicClassDoc));
    py::require(PyDict_SetItemString(ns.get(), "__doc__", doc.get()));
    // Deliberately asymmetric: a disability table accepts exits, an exit table no disability.
    py::ref combos = py::check(PyDict_New());
    for (auto [host, others] : {std::pair{"life", "exit disability"}, std::pair{"disability", "exit"},
                                std::pair{"exit", "exit"}}) {
        py::ref text = py::check(PyUnicode_FromString(others));
        py::ref parts = py::check(PyUnicode_Split(text.get(), nullptr, -1));
        py::ref kinds = py::check(PySet_New(parts.get()));
        py::require(PyDict_SetItemString(combos.get(), host, kinds.get()));
    }
    py::require(PyDict_SetItemString(ns.get(), "_VALID_TABLE_COMBINATIONS", combos.get()));
    py::ref prefixes = py::check(PyDict_New());
    for (const TableKind& kind : kTableKinds) {
        py::ref value = py::check(PyUnicode_FromStringAndSize(kind.prefix.data(), static_cast<Py_ssize_t>(kind.prefix.size())));
        py::ref key = py::check(PyUnicode_FromStringAndSize(kind.type.data(), static_cast<Py_ssize_t>(kind.type.size())));
        py::require(PyDict_SetItem(prefixes.get(), key.get(), value.get()));
    }
    py::require(PyDict_SetItemString(ns.get(), "_DECREMENT_PREFIX_MAP", prefixes.get()));
    py::ref threshold = py::check(PyLong_FromLong(kVectorialWarningThreshold));
    py::require(PyDict_SetItemString(ns.get(), "_VECTORIAL_MEMORY_WARNING_THRESHOLD", threshold.get()));
    st->prefix_map = Py_NewRef(prefixes.get());
    add_function_class_entries(st, ns.get());
    // Charts are Python (matplotlib is optional and imported only when a chart is drawn).
    py::ref plotting = import("veltrane.tables.plotting");
    py::ref plot = py::check(PyObject_GetAttrString(plotting.get(), "plot"));
    py::require(PyDict_SetItemString(ns.get(), "plot", plot.get()));
    // The select path builds a table from a private source, glue over the public API.
    py::ref paths = import("veltrane.tables.select_path");
    py::ref select_path = py::check(PyObject_GetAttrString(paths.get(), "select_path"));
    py::require(PyDict_SetItemString(ns.get(), "select_path", select_path.get()));

    py::ref marker = py::check(PyUnicode_FromString(kInitMarker));
    PyObject* call[7] = {reinterpret_cast<PyObject*>(st->core_type), abc_base.get(), abcmeta.get(), abstract.get(),
                         ns.get(), st->sentinel, marker.get()};
    return py::check(PyObject_Vectorcall(builder, call, 7, nullptr));
}

int decrement_exec(PyObject* module) {
    return py::guard_int([&] {
        ModuleState* st = state_of(module);
        new (st) ModuleState();
        py::import_numpy();
        init_names(st->names);

        // 1. Standard library and third-party names.
        for (const char* name : {"copy", "itertools", "warnings"}) {
            py::ref m = import(name);
            bind(module, name, m.get());
        }
        import_names(module, "abc", {"ABC", "abstractmethod"});
        import_names(module, "collections", {"OrderedDict"});
        import_names(module, "collections.abc", {"Sequence"});
        import_names(module, "pathlib", {"Path"});
        import_names(module, "typing", {"Union", "Any"});
        py::ref numpy = import("numpy");
        bind(module, "np", numpy.get());
        py::ref polars = import("polars");
        bind(module, "pl", polars.get());
        import_names(module, "numpy.typing", {"NDArray"});
        // 2. Collaborators.
        import_names(module, "veltrane.base", {"PaymentFrequencyLiteral", "TableKey", "_NUMERIC_TYPES"});
        import_names(module, "veltrane.config", {"Config", "_reset_callbacks"});
        import_names(module, "veltrane.helpers",
                     {"_EPS_INT", "_as_f64_safe", "_assert_probs_in_unit_interval", "_finalize_scalar_or_array",
                      "_is_finite_f64_array", "_is_finite_scalar", "_is_integer_valued", "_validate_numeric_input",
                      "_validate_scalar_numeric"});
        import_names(module, "veltrane.tables.base",
                     {"_GENERATIONAL_FORMULA_TYPE_MAP", "_LX_RADIX", "ModifyDecrement", "SexLiteral",
                      "_current_calendar_year", "_DecimalsConfig", "_gen_projected_improvement"});
        import_names(module, "veltrane.tables.source", {"TableSource"});

        st->table_source = attr(module, "TableSource");
        st->config = attr(module, "Config");
        st->formula_map = attr(module, "_GENERATIONAL_FORMULA_TYPE_MAP");
        st->projected = attr(module, "_gen_projected_improvement");
        {
            py::ref base = import("veltrane.tables.base");
            const char* builtins[] = {"_gen_exponential", "_gen_compound", "_gen_exponential_damped"};
            for (int i = 0; i < 3; ++i) st->builtin_formulas[i] = attr(base.get(), builtins[i]);
        }
        st->current_year = attr(module, "_current_calendar_year");
        st->decimals_config = attr(module, "_DecimalsConfig");
        py::ref radix = py::check(PyObject_GetAttrString(module, "_LX_RADIX"));
        st->lx_radix = PyFloat_AsDouble(radix.get());
        if (st->lx_radix == -1.0 && PyErr_Occurred()) py::throw_error_set();
        py::ref copy_module = import("copy");
        st->deepcopy = py::check(PyObject_GetAttrString(copy_module.get(), "deepcopy")).release();
        st->shallow_copy = py::check(PyObject_GetAttrString(copy_module.get(), "copy")).release();
        st->polars_series = py::check(PyObject_GetAttrString(polars.get(), "Series")).release();

        // 3-8. Module state: the unisex cache and its reset hook, the sentinel, the counter.
        py::ref ordered = py::check(PyObject_GetAttrString(module, "OrderedDict"));
        py::ref cache = py::check(PyObject_CallNoArgs(ordered.get()));
        bind(module, "_COHORT_ADJUSTED_QX_CACHE_UNISEX", cache.get());
        st->unisex_cache = cache.release();
        py::ref cache_max = py::check(PyLong_FromLong(kCohortCacheMax));
        bind(module, "_COHORT_ADJUSTED_QX_CACHE_MAX", cache_max.get());
        py::ref sentinel = py::check(PyObject_CallNoArgs(reinterpret_cast<PyObject*>(&PyBaseObject_Type)));
        bind(module, "_CONFIGURE_UNSET", sentinel.get());
        st->sentinel = sentinel.release();
        st->select_diagonals = py::check(PyDict_New()).release();
        py::add_function(module, clear_cache_def);
        py::ref clear = py::check(PyObject_GetAttrString(module, "_clear_cohort_unisex_cache"));
        py::ref reset_callbacks = py::check(PyObject_GetAttrString(module, "_reset_callbacks"));
        py::require(PyList_Append(reset_callbacks.get(), clear.get()));
        // The cache is keyed by table name: drop a name's entries when the name comes to mean other data.
        py::add_function(module, forget_unisex_name_def);
        py::ref forget = py::check(PyObject_GetAttrString(module, "_forget_cohort_unisex_name"));
        py::ref source_module = import("veltrane.tables.source");
        py::ref invalidation = py::check(PyObject_GetAttrString(source_module.get(), "_invalidation_callbacks"));
        py::require(PyList_Append(invalidation.get(), forget.get()));
        py::ref itertools = import("itertools");
        py::ref counter = py::check(PyObject_CallMethod(itertools.get(), "count", nullptr));
        bind(module, "_table_instance_counter", counter.get());
        st->instance_counter = counter.release();
        bind_vectorial_helpers(module);
        py::ref tol = py::check(PyFloat_FromDouble(kQCertaintyTol));
        bind(module, "_Q_CERTAINTY_TOL", tol.get());
        bind_combination_helpers(module);
        bind_fast_path_switch(module);

        // Settings changes reach the snapshot through the configuration's change hook.
        py::ref config_module = import("veltrane.config");
        py::ref change_callbacks = py::check(PyObject_GetAttrString(config_module.get(), "_change_callbacks"));
        py::add_function(module, config_changed_def);
        py::ref changed = py::check(PyObject_GetAttrString(module, "_config_changed"));
        py::require(PyList_Append(change_callbacks.get(), changed.get()));

        // 12. The table classes.
        st->core_type = reinterpret_cast<PyTypeObject*>(
            py::require(PyType_FromModuleAndSpec(module, table_type_spec(), nullptr)));
        py::ref public_class = build_public_class(module, st);
        bind(module, "DecrementTable", public_class.get());
        st->public_class = public_class.release();
        st->batch_type = make_batch_type(module);
        add_batch_init_method(st->batch_type);
        bind(module, "_BatchUpdateContext", reinterpret_cast<PyObject*>(st->batch_type));
        py::add_function(module, configure_all_def);
        bind_registry(module);
        give_signatures(module);
        bind_contingencies(module);
        bind_multistate(module);
        bind_valuation(module);
        bind_public_calls(module);
        return 0;
    });
}

int decrement_traverse(PyObject* module, visitproc visit, void* arg) {
    ModuleState* st = state_of(module);
    if (st == nullptr) return 0;
    Py_VISIT(st->core_type);
    Py_VISIT(st->public_class);
    Py_VISIT(st->batch_type);
    Py_VISIT(st->table_source);
    Py_VISIT(st->config);
    Py_VISIT(st->formula_map);
    Py_VISIT(st->projected);
    for (PyObject* f : st->builtin_formulas) Py_VISIT(f);
    Py_VISIT(st->current_year);
    Py_VISIT(st->decimals_config);
    Py_VISIT(st->deepcopy);
    Py_VISIT(st->shallow_copy);
    Py_VISIT(st->sentinel);
    Py_VISIT(st->prefix_map);
    Py_VISIT(st->instance_counter);
    Py_VISIT(st->unisex_cache);
    Py_VISIT(st->select_diagonals);
    Py_VISIT(st->polars_series);
    Py_VISIT(st->life_table);
    return 0;
}

int decrement_clear(PyObject* module) {
    ModuleState* st = state_of(module);
    if (st == nullptr) return 0;
    Py_CLEAR(st->core_type);
    Py_CLEAR(st->public_class);
    Py_CLEAR(st->batch_type);
    Py_CLEAR(st->table_source);
    Py_CLEAR(st->config);
    Py_CLEAR(st->formula_map);
    Py_CLEAR(st->projected);
    for (PyObject*& f : st->builtin_formulas) Py_CLEAR(f);
    Py_CLEAR(st->current_year);
    Py_CLEAR(st->decimals_config);
    Py_CLEAR(st->deepcopy);
    Py_CLEAR(st->shallow_copy);
    Py_CLEAR(st->sentinel);
    Py_CLEAR(st->prefix_map);
    Py_CLEAR(st->instance_counter);
    Py_CLEAR(st->unisex_cache);
    Py_CLEAR(st->select_diagonals);
    Py_CLEAR(st->polars_series);
    Py_CLEAR(st->life_table);
    return 0;
}

void decrement_free(void* module) {
    decrement_clear(static_cast<PyObject*>(module));
    ModuleState* st = state_of(static_cast<PyObject*>(module));
    if (st != nullptr) st->~ModuleState();
}

PyModuleDef_Slot module_slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(decrement_exec)},
    VELTRANE_SUPPORT_SLOTS
    {0, nullptr},
};

}  // namespace

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "veltrane.tables.decrement",
    "Decrement tables: the abstract DecrementTable and its machinery, in C++.",
    static_cast<Py_ssize_t>(sizeof(ModuleState)),
    nullptr,
    module_slots,
    decrement_traverse,
    decrement_clear,
    decrement_free,
};

}  // namespace veltrane::decrement

PyMODINIT_FUNC PyInit_decrement() { return PyModuleDef_Init(&veltrane::decrement::module_def); }
