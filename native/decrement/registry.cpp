// The registry of configured tables: one shared instance per (class, name, sex, cohort,
// duration, blend), held in an OrderedDict in recency order (least recently used first)
// and bounded by _maxsize. Invariants: _cache is always an OrderedDict, _maxsize >= 1, and
// a call that raises leaves the cache as it was. The OrderedDict is changed only through
// its own methods and item assignment; the dict C API would bypass its linked order.
#include "decrement/arguments.hpp"
#include "decrement/table.hpp"

#include <array>
#include <cstddef>
#include <new>
#include <utility>

#include "pyutil/members.hpp"
#include "pyutil/module_functions.hpp"

namespace veltrane::decrement {
namespace {

constexpr long kDefaultMaxsize = 256;

struct RegistryObject {
    PyObject_HEAD
    PyObject* weakrefs;
    py::ref cache;        // collections.OrderedDict: key -> table
    py::ref maxsize;      // the int as given (for reading back)
    Py_ssize_t limit;     // the same, clipped to Py_ssize_t, for comparisons
    py::ref table_class;  // default class of get_or_create, or null
    py::ref move_to_end;  // the cache's bound move_to_end: a hit costs one call, no lookup
};

RegistryObject* as_registry(PyObject* o) { return reinterpret_cast<RegistryObject*>(o); }

ModuleState* registry_state(PyObject* self) { return state_from_type(Py_TYPE(self)); }

py::ref ordered_dict_type() {
    py::ref collections = py::check(PyImport_ImportModule("collections"));
    return py::check(PyObject_GetAttrString(collections.get(), "OrderedDict"));
}

py::ref call_method(PyObject* obj, const char* name, PyObject* arg) {
    py::ref method = py::check(PyUnicode_InternFromString(name));
    PyObject* args[2] = {obj, arg};
    return py::check(PyObject_VectorcallMethod(method.get(), args, (arg ? 2 : 1) | PY_VECTORCALL_ARGUMENTS_OFFSET,
                                               nullptr));
}

// `name` is the argument's name (null: "table_class"), made into text only for a message.
[[noreturn]] void refuse_class(PyObject* name, const char* format, PyObject* shown) {
    py::ref fallback = name ? py::ref() : py::check(PyUnicode_FromString("table_class"));
    py::raise(PyExc_TypeError, format, name ? name : fallback.get(), shown);
}

// Raises unless `cls` is a concrete subclass of DecrementTable.
void validate_table_class(ModuleState* st, PyObject* cls, PyObject* name = nullptr) {
    if (!PyType_Check(cls)) {
        py::ref type = type_name_of(cls);
        refuse_class(name, "%S must be a type, got %U.", type.get());
    }
    if (st->public_class == nullptr) py::raise(PyExc_RuntimeError, "the decrement module has been torn down");
    // A real subclass: the registry builds through the class and hands out its instances.
    if (!PyType_IsSubtype(reinterpret_cast<PyTypeObject*>(cls), reinterpret_cast<PyTypeObject*>(st->public_class))) {
        py::ref klass = type_name_of(cls);
        refuse_class(name, "%S must be a DecrementTable subclass, got %U.", klass.get());
    }
    py::ref abstract = py::ref::steal(PyObject_GetAttrString(cls, "__abstractmethods__"));
    if (!abstract) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) py::throw_error_set();
        PyErr_Clear();
        return;
    }
    if (py::require(PyObject_IsTrue(abstract.get())) == 1) {
        py::ref klass = type_name_of(cls);
        refuse_class(name, "%S must be a concrete DecrementTable subclass; %U is abstract.", klass.get());
    }
}

// The int value of a maxsize argument (bools refused), with its clipped Py_ssize_t value.
std::pair<py::ref, Py_ssize_t> checked_maxsize(PyObject* value) {
    if (PyBool_Check(value) || !PyIndex_Check(value)) {
        py::ref type = type_name_of(value);
        py::raise(PyExc_TypeError, "maxsize must be an int, got %U", type.get());
    }
    py::ref as_int = py::check(PyNumber_Index(value));
    const Py_ssize_t limit = PyNumber_AsSsize_t(as_int.get(), nullptr);  // clips: any huge bound is no bound
    if (limit < 1) py::raise(PyExc_ValueError, "maxsize must be a positive integer");
    return {std::move(as_int), limit};
}

// Installs `cache`; the previous one (and its tables) is released last, once the registry
// is consistent again.
void install_cache(RegistryObject* r, py::ref cache) {
    py::ref bound = py::check(PyObject_GetAttrString(cache.get(), "move_to_end"));
    py::ref old_cache = std::exchange(r->cache, std::move(cache));
    py::ref old_bound = std::exchange(r->move_to_end, std::move(bound));
}

Py_ssize_t entries(PyObject* cache) {
    const Py_ssize_t n = PyObject_Size(cache);
    if (n < 0) py::throw_error_set();
    return n;
}

PyObject* cache_of(RegistryObject* r) {
    if (!r->cache) py::raise(PyExc_RuntimeError, "TableRegistry has been cleared by the garbage collector");
    return r->cache.get();
}

// ---- type slots -------------------------------------------------------------------------

PyObject* Registry_new(PyTypeObject* type, PyObject*, PyObject*) {
    return py::guard([&] {
        py::ref od = ordered_dict_type();
        py::ref cache = py::check(PyObject_CallNoArgs(od.get()));
        py::ref maxsize = py::check(PyLong_FromLong(kDefaultMaxsize));
        PyObject* self = type->tp_alloc(type, 0);
        if (self == nullptr) py::throw_error_set();
        RegistryObject* r = as_registry(self);
        r->weakrefs = nullptr;
        new (&r->cache) py::ref();
        new (&r->maxsize) py::ref(std::move(maxsize));
        r->limit = kDefaultMaxsize;
        new (&r->table_class) py::ref();
        new (&r->move_to_end) py::ref();
        py::ref owned = py::ref::steal(self);
        install_cache(r, std::move(cache));
        return owned.release();
    });
}

int Registry_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    return py::guard_int([&] {
        static const char* keywords[] = {"table_class", "maxsize", nullptr};
        PyObject* table_class = Py_None;
        PyObject* maxsize = nullptr;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "|O$O:TableRegistry", const_cast<char**>(keywords),
                                         &table_class, &maxsize)) {
            py::throw_error_set();
        }
        // Validate everything, then assign: a re-initialisation that fails changes nothing.
        py::ref size_obj;
        Py_ssize_t limit = kDefaultMaxsize;
        if (maxsize != nullptr) {
            auto [value, clipped] = checked_maxsize(maxsize);
            size_obj = std::move(value);
            limit = clipped;
        } else {
            size_obj = py::check(PyLong_FromLong(kDefaultMaxsize));
        }
        if (table_class != Py_None) validate_table_class(registry_state(self), table_class);
        py::ref od = ordered_dict_type();
        py::ref cache = py::check(PyObject_CallNoArgs(od.get()));
        RegistryObject* r = as_registry(self);
        py::ref given = table_class == Py_None ? py::ref() : py::ref::borrow(table_class);
        py::ref old_class = std::exchange(r->table_class, std::move(given));
        r->maxsize = std::move(size_obj);
        r->limit = limit;
        install_cache(r, std::move(cache));
        return 0;
    });
}

int Registry_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    RegistryObject* r = as_registry(self);
    Py_VISIT(r->cache.get());
    Py_VISIT(r->maxsize.get());
    Py_VISIT(r->table_class.get());
    Py_VISIT(r->move_to_end.get());
    return 0;
}

int Registry_clear(PyObject* self) {
    RegistryObject* r = as_registry(self);
    r->cache.reset();
    r->maxsize.reset();
    r->table_class.reset();
    r->move_to_end.reset();
    return 0;
}

void Registry_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    RegistryObject* r = as_registry(self);
    if (r->weakrefs != nullptr) PyObject_ClearWeakRefs(self);
    r->cache.~ref();
    r->maxsize.~ref();
    r->table_class.~ref();
    r->move_to_end.~ref();
    type->tp_free(self);
    Py_DECREF(type);
}

Py_ssize_t Registry_len(PyObject* self) {
    RegistryObject* r = as_registry(self);
    if (!r->cache) return 0;
    return PyObject_Size(r->cache.get());
}

PyObject* Registry_repr(PyObject* self) {
    const Py_ssize_t n = Registry_len(self);
    if (n < 0) return nullptr;
    return PyUnicode_FromFormat("TableRegistry(%zd entries)", n);
}

// ---- methods --------------------------------------------------------------------------------

constexpr std::array<const char*, 7> kGetNames = {"table_class", "table_name", "sex", "cohort",
                                                  "duration", "unisex_blend", "interest_rate"};

// Matches the named parameters; every other keyword is gathered into `extra`.
std::array<PyObject*, 7> parse_get_or_create(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                                             py::ref& extra) {
    std::array<PyObject*, 7> values{};
    if (nargs > static_cast<Py_ssize_t>(values.size())) {
        py::raise(PyExc_TypeError, "get_or_create() takes at most 7 positional arguments (%zd given)", nargs);
    }
    for (Py_ssize_t i = 0; i < nargs; ++i) values[static_cast<std::size_t>(i)] = args[i];
    const Py_ssize_t nkw = kwnames ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t k = 0; k < nkw; ++k) {
        PyObject* key = PyTuple_GET_ITEM(kwnames, k);
        std::size_t slot = values.size();
        for (std::size_t i = 0; i < kGetNames.size(); ++i) {
            if (str_equals(key, kGetNames[i])) slot = i;
        }
        if (slot == values.size()) {
            if (!extra) extra = py::check(PyDict_New());
            py::require(PyDict_SetItem(extra.get(), key, args[nargs + k]));
            continue;
        }
        if (values[slot] != nullptr) {
            py::raise(PyExc_TypeError, "get_or_create() got multiple values for argument '%s'", kGetNames[slot]);
        }
        values[slot] = args[nargs + k];
    }
    for (std::size_t i = 0; i < 3; ++i) {
        if (values[i] == nullptr) {
            py::raise(PyExc_TypeError, "get_or_create() missing required argument '%s'", kGetNames[i]);
        }
    }
    for (PyObject*& v : values) {
        if (v == nullptr) v = Py_None;
    }
    return values;
}

PyObject* Registry_get_or_create(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        RegistryObject* r = as_registry(self);
        py::ref extra;
        const std::array<PyObject*, 7> a = parse_get_or_create(args, nargs, kwnames, extra);
        PyObject* cls = a[0] != Py_None ? a[0] : r->table_class.get();
        if (cls == nullptr) {
            py::raise(PyExc_TypeError,
                      "table_class must be provided either at registry construction or per get_or_create() call.");
        }
        // Hold what the calls below could otherwise release (the default class, the cache).
        py::ref klass = py::ref::borrow(cls);
        validate_table_class(registry_state(self), cls);
        py::ref cache = py::ref::borrow(cache_of(r));
        py::ref move_to_end = r->move_to_end.dup();
        py::ref key = py::check(PyTuple_Pack(6, cls, a[1], a[2], a[3], a[4], a[5]));
        PyObject* hit = PyDict_GetItemWithError(cache.get(), key.get());
        if (hit != nullptr) {
            py::ref table = py::ref::borrow(hit);
            py::check(PyObject_CallOneArg(move_to_end.get(), key.get()));
            return table.release();
        }
        if (PyErr_Occurred()) py::throw_error_set();

        py::ref kwargs = py::check(PyDict_New());
        py::require(PyDict_SetItemString(kwargs.get(), "cohort", a[3]));
        py::require(PyDict_SetItemString(kwargs.get(), "duration", a[4]));
        py::require(PyDict_SetItemString(kwargs.get(), "unisex_blend", a[5]));
        if (extra) py::require(PyDict_Update(kwargs.get(), extra.get()));
        if (a[6] != Py_None) py::require(PyDict_SetItemString(kwargs.get(), "interest_rate", a[6]));
        PyObject* positional[2] = {a[1], a[2]};
        py::ref table = py::check(PyObject_VectorcallDict(cls, positional, 2, kwargs.get()));
        // The construction ran Python code that may have used this registry: store at the
        // most recent end whatever it left, then evict the least recently used.
        const int present = py::require(PyDict_Contains(cache.get(), key.get()));
        py::require(PyObject_SetItem(cache.get(), key.get(), table.get()));
        if (present == 1) py::check(PyObject_CallOneArg(move_to_end.get(), key.get()));
        while (entries(cache.get()) > r->limit) {
            py::ref evicted = call_method(cache.get(), "popitem", Py_False);
        }
        return table.release();
    });
}

PyObject* Registry_clear_method(PyObject* self, PyObject*) {
    return py::guard([&]() -> PyObject* {
        py::ref cache = py::ref::borrow(cache_of(as_registry(self)));
        call_method(cache.get(), "clear", nullptr);
        Py_RETURN_NONE;
    });
}

// ---- fields -------------------------------------------------------------------------------------

int refuse_delete(PyObject* value, const char* name) {
    if (value != nullptr) return 0;
    PyErr_Format(PyExc_AttributeError, "cannot delete %s", name);
    return -1;
}

PyObject* get_cache(PyObject* self, void*) { return as_registry(self)->cache.new_reference(); }

int set_cache(PyObject* self, PyObject* value, void*) {
    if (refuse_delete(value, "_cache") < 0) return -1;
    return py::guard_int([&] {
        py::ref od = ordered_dict_type();
        if (py::require(PyObject_IsInstance(value, od.get())) == 0) {
            py::ref type = type_name_of(value);
            py::raise(PyExc_TypeError, "_cache must be an OrderedDict, got %U", type.get());
        }
        install_cache(as_registry(self), py::ref::borrow(value));
        return 0;
    });
}

PyObject* get_maxsize(PyObject* self, void*) { return as_registry(self)->maxsize.new_reference(); }

int set_maxsize(PyObject* self, PyObject* value, void*) {
    if (refuse_delete(value, "_maxsize") < 0) return -1;
    return py::guard_int([&] {
        auto [as_int, limit] = checked_maxsize(value);
        RegistryObject* r = as_registry(self);
        r->maxsize = std::move(as_int);
        r->limit = limit;
        return 0;
    });
}

PyObject* get_table_class(PyObject* self, void*) { return as_registry(self)->table_class.new_reference(); }

int set_table_class(PyObject* self, PyObject* value, void*) {
    if (refuse_delete(value, "_table_class") < 0) return -1;
    return py::guard_int([&] {
        if (value != Py_None) validate_table_class(registry_state(self), value);
        py::ref old = std::exchange(as_registry(self)->table_class,
                                    value == Py_None ? py::ref() : py::ref::borrow(value));
        return 0;
    });
}

PyGetSetDef registry_getsets[] = {
    {"_cache", get_cache, set_cache, "The cached tables by key, least recently used first (an OrderedDict).",
     nullptr},
    {"_maxsize", get_maxsize, set_maxsize, "The most tables the registry keeps.", nullptr},
    {"_table_class", get_table_class, set_table_class, "The default table class of get_or_create, or None.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyObject* Registry_reduce(PyObject* self, PyObject*) {
    return py::guard([&] { return call_pickling("_reduce_registry", self).release(); });
}

// __init__ as a method beside the tp_init slot, so that inspect reads its parameters.
PyObject* Registry_init_method(PyObject* self, PyObject* args, PyObject* kwargs) {
    if (Registry_init(self, args, kwargs) < 0) return nullptr;
    Py_RETURN_NONE;
}

PyMethodDef registry_methods[] = {
    {"__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(Registry_init_method)),
     METH_VARARGS | METH_KEYWORDS | METH_COEXIST,
     "__init__($self, /, table_class=None, *, maxsize=256)\n--\n\n"
     "An empty registry keeping at most ``maxsize`` tables, with ``table_class`` as the default\n"
     "class of get_or_create."},
    {"get_or_create", FASTCALL_KW(Registry_get_or_create), METH_FASTCALL | METH_KEYWORDS,
     "get_or_create($self, /, table_class, table_name, sex, cohort=None, duration=None, unisex_blend=None, "
     "interest_rate=None, **extra_kwargs)\n--\n\n"
     "The table for these keys: the cached instance when there is one (marked most recently used;\n"
     "the other arguments of this call are then ignored), else a new\n"
     "``table_class(table_name, sex, cohort=..., duration=..., unisex_blend=..., **extra_kwargs)``\n"
     "(with ``interest_rate`` when given), cached under the key. ``table_class=None`` uses the\n"
     "registry's default class. The key is (table_class, table_name, sex, cohort, duration,\n"
     "unisex_blend) exactly as passed; interest_rate and extra arguments are not part of it."},
    {"clear", Registry_clear_method, METH_NOARGS, "clear($self, /)\n--\n\nForget every cached table."},
    {"__reduce__", Registry_reduce, METH_NOARGS,
     "__reduce__($self, /)\n--\n\nPickle the registry with its tables, in order of use."},
    {nullptr, nullptr, 0, nullptr},
};

PyMemberDef registry_members[] = {
    {"__weaklistoffset__", VELTRANE_T_PYSSIZET, offsetof(RegistryObject, weakrefs), VELTRANE_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot registry_slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(Registry_new)},
    {Py_tp_init, reinterpret_cast<void*>(Registry_init)},
    {Py_tp_dealloc, reinterpret_cast<void*>(Registry_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(Registry_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(Registry_clear)},
    {Py_tp_repr, reinterpret_cast<void*>(Registry_repr)},
    {Py_mp_length, reinterpret_cast<void*>(Registry_len)},
    {Py_tp_methods, registry_methods},
    {Py_tp_getset, registry_getsets},
    {Py_tp_members, registry_members},
    {Py_tp_doc, const_cast<char*>(
                    "TableRegistry(table_class=None, *, maxsize=256)\n--\n\n"
                    "A bounded cache of configured tables for batch calculations.\n\n"
                    "Policies with the same table class, table name, sex, cohort, duration and unisex\n"
                    "blend receive the very same table object. When more than ``maxsize`` tables are\n"
                    "cached, the least recently used one is dropped (it stays valid for whoever holds it).\n"
                    "Meant for single-life tables; not safe for concurrent use from several threads.\n\n"
                    "Parameters\n----------\n"
                    "table_class : type, optional\n"
                    "    Default concrete DecrementTable subclass for get_or_create.\n"
                    "maxsize : int, default 256\n"
                    "    Most tables kept (at least 1).\n")},
    {0, nullptr},
};

PyType_Spec registry_spec = {
    "veltrane.tables.decrement.TableRegistry",
    static_cast<int>(sizeof(RegistryObject)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
    registry_slots,
};

// ---- module function ----------------------------------------------------------------------------

PyObject* validate_table_class_function(PyObject* module, PyObject* const* args, Py_ssize_t nargs,
                                        PyObject* kwnames) {
    static constexpr std::array<const char*, 2> names = {"table_class", "name"};
    return py::guard([&]() -> PyObject* {
        const Arguments<2> a = parse_arguments("_validate_table_class", names, 1, args, nargs, kwnames);
        validate_table_class(state_of(module), a.values[0], a.values[1]);
        Py_RETURN_NONE;
    });
}

PyMethodDef validate_def = {
    "_validate_table_class", FASTCALL_KW(validate_table_class_function), METH_FASTCALL | METH_KEYWORDS,
    "_validate_table_class(table_class, name='table_class')\n--\n\n"
    "Raise TypeError unless ``table_class`` is a concrete DecrementTable subclass; ``name`` is the\n"
    "argument's name in the message."};

}  // namespace

void bind_registry(PyObject* module) {
    py::add_function(module, validate_def);

    py::ref type = py::check(PyType_FromModuleAndSpec(module, &registry_spec, nullptr));
    py::ref maxsize = py::check(PyLong_FromLong(kDefaultMaxsize));
    py::require(PyObject_SetAttrString(type.get(), "_DEFAULT_MAXSIZE", maxsize.get()));
    py::ref annotations = py::check(PyDict_New());
    py::require(PyDict_SetItemString(annotations.get(), "_DEFAULT_MAXSIZE", reinterpret_cast<PyObject*>(&PyLong_Type)));
    py::require(PyObject_SetAttrString(type.get(), "__annotations__", annotations.get()));
    py::require(PyModule_AddObjectRef(module, "TableRegistry", type.get()));
}

}  // namespace veltrane::decrement
