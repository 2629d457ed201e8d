// DecrementTable's C type: allocation, fields, identity and copying. Construction
// (__new__/__init__) lives in construct.cpp, the state properties and rebuilds in
// lifecycle.cpp, the rate vectors in rates.cpp.
// Invariant: fields are created by table_alloc; array fields hold owned float64 vectors.
#include "decrement/contingencies.hpp"
#include "decrement/state.hpp"
#include "decrement/table.hpp"

#include <iterator>
#include <new>
#include <stdexcept>

#include "pyutil/members.hpp"

namespace veltrane::decrement {

PyObject* table_alloc(PyTypeObject* type, ModuleState* st) {
    PyObject* self = type->tp_alloc(type, 0);
    if (self == nullptr) py::throw_error_set();
    TableObject* t = as_table(self);
    t->st = st;
    t->weakrefs = nullptr;
    t->instance_id = -1;
    new (&t->table) py::ref();
    new (&t->sex) py::ref();
    new (&t->cohort) py::ref();
    new (&t->duration) py::ref();
    t->select_duration_set = false;
    new (&t->decrement_base) py::ref();
    new (&t->decrement) py::ref();
    t->modified = false;
    new (&t->lx) py::ref();
    new (&t->lx_raw) py::ref();
    new (&t->w_mod) py::ref();
    new (&t->modifications_applied) py::ref();
    new (&t->px) py::ref();
    new (&t->qx) py::ref();
    new (&t->unisex_blend) py::ref();
    new (&t->decimals_config) py::ref();
    new (&t->decimals_decrement_cache) py::ref();
    new (&t->cause_split) py::ref();
    new (&t->modification_record) py::ref();
    t->table_is_private_copy = false;
    t->metadata_pending = false;
    t->suspend_rebuild = false;
    t->rebuilds_since_calc = 0;
    t->initialized = false;
    t->caches_config_version = st->config_version;
    new (&t->scalar_columns) ScalarColumnsPtr();
    return self;
}

bool is_uninitialised(TableObject* t) { return !t->initialized || !t->table; }

void raise_uninitialised(TableObject* t) {
    py::ref name = type_name_of(reinterpret_cast<PyObject*>(t));
    py::raise(PyExc_ValueError,
              "%U instance is not initialised (no table loaded): construct it as %U(table_name, sex, ...), "
              "not with __new__ alone.",
              name.get(), name.get());
}

namespace {

template <class F>
void for_each_ref(TableObject* t, F&& f) {
    f(t->table);
    f(t->sex);
    f(t->cohort);
    f(t->duration);
    f(t->decrement_base);
    f(t->decrement);
    f(t->lx);
    f(t->lx_raw);
    f(t->w_mod);
    f(t->modifications_applied);
    f(t->px);
    f(t->qx);
    f(t->unisex_blend);
    f(t->decimals_config);
    f(t->decimals_decrement_cache);
    f(t->cause_split);
    f(t->modification_record);
}

int Table_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    int result = 0;
    for_each_ref(as_table(self), [&](py::ref& r) {
        if (result == 0 && r) result = visit(r.get(), arg);
    });
    return result;
}

int Table_clear(PyObject* self) {
    for_each_ref(as_table(self), [](py::ref& r) { r.reset(); });
    return 0;
}

void Table_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    TableObject* t = as_table(self);
    if (t->weakrefs != nullptr) PyObject_ClearWeakRefs(self);
    for_each_ref(t, [](py::ref& r) { r.~ref(); });
    t->scalar_columns.~ScalarColumnsPtr();
    type->tp_free(self);
    Py_DECREF(type);
}

Py_hash_t Table_hash(PyObject* self) {
    const long long id = as_table(self)->instance_id;
    // -1 is the interpreter's error value; no table is ever given it once built.
    return id == -1 ? -2 : static_cast<Py_hash_t>(id);
}

PyObject* Table_richcompare(PyObject* self, PyObject* other, int op) {
    if (op == Py_EQ) return Py_NewRef(self == other ? Py_True : Py_False);
    if (op == Py_NE) return Py_NewRef(self != other ? Py_True : Py_False);
    Py_RETURN_NOTIMPLEMENTED;
}

// ---- raw field access ---------------------------------------------------------------

struct RefField {
    const char* name;
    py::ref TableObject::*member;
    bool array;
};

struct BoolField {
    const char* name;
    bool TableObject::*member;
};

constexpr RefField ref_fields[] = {
    {"_table", &TableObject::table, false},
    {"_sex", &TableObject::sex, false},
    {"_cohort", &TableObject::cohort, false},
    {"_duration", &TableObject::duration, false},
    {"_decrement_base", &TableObject::decrement_base, true},
    {"_decrement", &TableObject::decrement, true},
    {"_lx", &TableObject::lx, true},
    {"_lx_raw", &TableObject::lx_raw, true},
    {"_w_mod", &TableObject::w_mod, false},
    {"_modifications_applied", &TableObject::modifications_applied, false},
    {"_px", &TableObject::px, true},
    {"_qx", &TableObject::qx, true},
    {"_unisex_blend", &TableObject::unisex_blend, false},
    {"_decimals_config", &TableObject::decimals_config, false},
    {"_decimals_decrement_cache", &TableObject::decimals_decrement_cache, false},
    {"_cause_split", &TableObject::cause_split, false},
    {"_modification_record", &TableObject::modification_record, false},
};

constexpr BoolField bool_fields[] = {
    {"_select_duration_set", &TableObject::select_duration_set},
    {"_modified", &TableObject::modified},
    {"_table_is_private_copy", &TableObject::table_is_private_copy},
    {"_metadata_pending", &TableObject::metadata_pending},
    {"_suspend_rebuild", &TableObject::suspend_rebuild},
    {"_initialized", &TableObject::initialized},
};

PyObject* get_ref_field(PyObject* self, void* closure) {
    const RefField* field = static_cast<const RefField*>(closure);
    return (as_table(self)->*(field->member)).new_reference();
}

int set_ref_field(PyObject* self, PyObject* value, void* closure) {
    return py::guard_int([&] {
        const RefField* field = static_cast<const RefField*>(closure);
        py::ref& slot = as_table(self)->*(field->member);
        if (value == nullptr || value == Py_None) {
            slot.reset();
            return 0;
        }
        if (field->array) {
            // Kernels read these as spans: keep them owned, contiguous float64 vectors.
            py::ref arr = py::is_f64_vector(value) ? py::ref::borrow(value) : py::copy_as_f64(value);
            if (PyArray_NDIM(reinterpret_cast<PyArrayObject*>(arr.get())) != 1) {
                py::raise(PyExc_ValueError, "%s must be a one-dimensional float64 vector", field->name);
            }
            slot = std::move(arr);
            return 0;
        }
        slot = py::ref::borrow(value);
        return 0;
    });
}

PyObject* get_bool_field(PyObject* self, void* closure) {
    const BoolField* field = static_cast<const BoolField*>(closure);
    return PyBool_FromLong(as_table(self)->*(field->member));
}

int set_bool_field(PyObject* self, PyObject* value, void* closure) {
    const BoolField* field = static_cast<const BoolField*>(closure);
    if (value == nullptr) {
        PyErr_Format(PyExc_AttributeError, "cannot delete %s", field->name);
        return -1;
    }
    const int truth = PyObject_IsTrue(value);
    if (truth < 0) return -1;
    as_table(self)->*(field->member) = truth == 1;
    return 0;
}

PyObject* get_instance_id(PyObject* self, void*) { return PyLong_FromLongLong(as_table(self)->instance_id); }

int set_instance_id(PyObject* self, PyObject* value, void*) {
    if (value == nullptr || !PyLong_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "_instance_id must be an int");
        return -1;
    }
    const long long id = PyLong_AsLongLong(value);
    if (id == -1 && PyErr_Occurred()) return -1;
    as_table(self)->instance_id = id;
    return 0;
}

PyObject* get_rebuilds(PyObject* self, void*) { return PyLong_FromLong(as_table(self)->rebuilds_since_calc); }

int set_rebuilds(PyObject* self, PyObject* value, void*) {
    if (value == nullptr || !PyLong_Check(value)) {
        PyErr_SetString(PyExc_TypeError, "_rebuilds_since_calc must be an int");
        return -1;
    }
    const long n = PyLong_AsLong(value);
    if (n == -1 && PyErr_Occurred()) return -1;
    as_table(self)->rebuilds_since_calc = n;
    return 0;
}

// ---- read-only properties -------------------------------------------------------------------

// A property without a setter, wrapped so that assignment is refused in the words of a Python
// property and names the instance's own class, not the internal base type that declares it.
struct ReadOnly {
    const char* name;
    getter get;
    void* closure;
};

PyObject* get_read_only(PyObject* self, void* closure) {
    const ReadOnly* r = static_cast<const ReadOnly*>(closure);
    return r->get(self, r->closure);
}

int refuse_assignment(PyObject* self, PyObject* value, void* closure) {
    return py::guard_int([&]() -> int {
        const ReadOnly* r = static_cast<const ReadOnly*>(closure);
        py::ref klass = type_name_of(self);
        py::raise(PyExc_AttributeError, "property '%s' of '%U' object has no %s", r->name, klass.get(),
                  value == nullptr ? "deleter" : "setter");
    });
}

// ---- copying --------------------------------------------------------------------------

// Copies the slots that Python subclasses declare (e.g. a life table's interest rate),
// and an instance dictionary where a subclass has one.
void copy_subclass_state(PyObject* self, PyObject* copy, PyObject* memo, ModuleState* st) {
    // Held: deepcopy runs Python code, which may reassign __bases__ or delete a descriptor.
    const py::ref mro_ref = py::ref::borrow(Py_TYPE(self)->tp_mro);
    PyObject* mro = mro_ref.get();
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro); ++i) {
        auto* klass = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro, i));
        if (klass == st->core_type || klass->tp_dict == nullptr) continue;
        PyObject* slots = PyDict_GetItemWithError(klass->tp_dict, st->names.slots.get());
        if (slots == nullptr) {
            if (PyErr_Occurred()) py::throw_error_set();
            continue;
        }
        py::ref names = PyUnicode_Check(slots) ? py::check(PyTuple_Pack(1, slots))
                                               : py::check(PySequence_Tuple(slots));
        for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(names.get()); ++k) {
            PyObject* name = PyTuple_GET_ITEM(names.get(), k);
            if (str_equals(name, "__dict__") || str_equals(name, "__weakref__")) continue;
            const py::ref descr_ref = py::ref::borrow(PyDict_GetItemWithError(klass->tp_dict, name));
            PyObject* descr = descr_ref.get();
            if (descr == nullptr) {
                if (PyErr_Occurred()) py::throw_error_set();
                continue;
            }
            descrgetfunc get = Py_TYPE(descr)->tp_descr_get;
            descrsetfunc set = Py_TYPE(descr)->tp_descr_set;
            if (get == nullptr || set == nullptr) continue;
            PyObject* value = get(descr, self, reinterpret_cast<PyObject*>(Py_TYPE(self)));
            if (value == nullptr) {
                if (!PyErr_ExceptionMatches(PyExc_AttributeError)) py::throw_error_set();
                PyErr_Clear();
                continue;
            }
            py::ref owned = py::ref::steal(value);
            py::ref copied = py::check(PyObject_CallFunctionObjArgs(st->deepcopy, owned.get(), memo, nullptr));
            py::require(set(descr, copy, copied.get()));
        }
    }
    py::ref dict = py::ref::steal(PyObject_GetAttrString(self, "__dict__"));
    if (!dict) {
        if (!PyErr_ExceptionMatches(PyExc_AttributeError)) py::throw_error_set();
        PyErr_Clear();
        return;
    }
    if (PyDict_Check(dict.get()) && PyDict_GET_SIZE(dict.get()) > 0) {
        py::ref copied = py::check(PyObject_CallFunctionObjArgs(st->deepcopy, dict.get(), memo, nullptr));
        py::ref target = py::check(PyObject_GetAttrString(copy, "__dict__"));
        py::require(PyDict_Update(target.get(), copied.get()));
    }
}

// The interpreter's own argument messages would name the internal base type
// ("_DecrementTableBase.copy()"); these name the method only, as the other methods do.
void take_arguments(const char* method, Py_ssize_t expected, Py_ssize_t nargs, PyObject* kwnames) {
    if (kwnames != nullptr && PyTuple_GET_SIZE(kwnames) > 0) {
        py::raise(PyExc_TypeError, "%s() takes no keyword arguments", method);
    }
    if (nargs != expected) {
        py::raise(PyExc_TypeError, "%s() takes %zd positional argument%s (%zd given)", method, expected,
                  expected == 1 ? "" : "s", nargs);
    }
}

PyObject* Table_deepcopy(PyObject* self, PyObject* memo) {
    return py::guard([&] {
        TableObject* t = as_table(self);
        ModuleState* st = t->st;
        py::ref copy = py::ref::steal(table_alloc(Py_TYPE(self), st));
        if (memo != Py_None) {
            py::ref key = py::check(PyLong_FromVoidPtr(self));
            py::require(PyObject_SetItem(memo, key.get(), copy.get()));
        }
        TableObject* c = as_table(copy.get());
        c->instance_id = t->instance_id;
        for (const RefField& field : ref_fields) {
            const py::ref& source = t->*(field.member);
            if (!source) continue;
            c->*(field.member) =
                py::check(PyObject_CallFunctionObjArgs(st->deepcopy, source.get(), memo, nullptr));
        }
        for (const BoolField& field : bool_fields) c->*(field.member) = t->*(field.member);
        c->rebuilds_since_calc = t->rebuilds_since_calc;
        c->caches_config_version = t->caches_config_version;
        copy_subclass_state(self, copy.get(), memo, st);
        // A copy taken inside a batch update is an ordinary table.
        c->suspend_rebuild = false;
        return copy.release();
    });
}

// __eq__ as a method beside the richcompare slot, so that inspect names its parameter.
PyObject* Table_eq_method(PyObject* self, PyObject* other) { return Table_richcompare(self, other, Py_EQ); }

PyObject* Table_copy(PyObject* self, PyObject*) {
    return py::guard([&] {
        py::ref memo = py::check(PyDict_New());
        return py::require(Table_deepcopy(self, memo.get()));
    });
}

PyObject* Table_deepcopy_method(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        take_arguments("__deepcopy__", 1, nargs, kwnames);
        return py::require(Table_deepcopy(self, args[0]));
    });
}

PyObject* Table_copy_method(PyObject* self, PyObject* const*, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        take_arguments("copy", 0, nargs, kwnames);
        return py::require(Table_copy(self, nullptr));
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

// getset table: the raw fields first, then the properties from lifecycle.cpp.
PyGetSetDef* build_getsets() {
    static PyGetSetDef defs[64];
    std::size_t n = 0;
    defs[n++] = {"_instance_id", get_instance_id, set_instance_id, "process-unique identity; the hash", nullptr};
    for (const RefField& f : ref_fields) {
        defs[n++] = {f.name, get_ref_field, set_ref_field, nullptr, const_cast<RefField*>(&f)};
    }
    for (const BoolField& f : bool_fields) {
        defs[n++] = {f.name, get_bool_field, set_bool_field, nullptr, const_cast<BoolField*>(&f)};
    }
    defs[n++] = {"_rebuilds_since_calc", get_rebuilds, set_rebuilds, "setter rebuilds since the last calculation",
                 nullptr};
    static ReadOnly read_only[64];
    std::size_t k = 0;
    for (const PyGetSetDef* p = table_properties; p->name != nullptr; ++p) {
        defs[n] = *p;
        if (p->set == nullptr) {
            read_only[k] = {p->name, p->get, p->closure};
            defs[n].get = get_read_only;
            defs[n].set = refuse_assignment;
            defs[n].closure = &read_only[k++];
        }
        ++n;
    }
    defs[n] = {nullptr, nullptr, nullptr, nullptr, nullptr};
    return defs;
}

PyMethodDef* build_methods() {
    static PyMethodDef defs[128];
    std::size_t n = 0;
    defs[n++] = {"__deepcopy__", FASTCALL_KW(Table_deepcopy_method), METH_FASTCALL | METH_KEYWORDS,
                 "__deepcopy__($self, memo, /)\n--\n\nA deep copy that keeps the instance id (so it hashes alike)."};
    defs[n++] = {"copy", FASTCALL_KW(Table_copy_method), METH_FASTCALL | METH_KEYWORDS,
                 "copy($self, /)\n--\n\nReturn a deep copy of the table (``copy.deepcopy(self)``)."};
    defs[n++] = {"__copy__", FASTCALL_KW(Table_copy_method), METH_FASTCALL | METH_KEYWORDS,
                 "__copy__($self, /)\n--\n\nA table shares nothing mutable with its copy: the same as copy()."};
    defs[n++] = {"__eq__", Table_eq_method, METH_O | METH_COEXIST,
                 "__eq__($self, other, /)\n--\n\nTrue only for the table itself: tables compare by identity."};
    for (const PyMethodDef* groups :
         {construct_methods, lifecycle_methods, configure_methods, rates_methods, unisex_methods, function_methods,
          presentation_methods, summary_methods, modification_methods, pickling_methods, timestep_methods, period_methods,
          cause_methods,
          expectation_methods}) {
        for (const PyMethodDef* p = groups; p->ml_name != nullptr; ++p) {
            if (n + 1 >= std::size(defs)) throw std::length_error("too many table methods for the method table");
            defs[n++] = *p;
        }
    }
    defs[n] = {nullptr, nullptr, 0, nullptr};
    return defs;
}

PyMemberDef members[] = {
    {"__weaklistoffset__", VELTRANE_T_PYSSIZET, offsetof(TableObject, weakrefs), VELTRANE_READONLY, nullptr},
    {nullptr, 0, 0, 0, nullptr},
};

PyType_Slot table_slots[] = {
    {Py_tp_new, reinterpret_cast<void*>(Table_new)},
    {Py_tp_init, reinterpret_cast<void*>(Table_init)},
    {Py_tp_dealloc, reinterpret_cast<void*>(Table_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(Table_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(Table_clear)},
    {Py_tp_hash, reinterpret_cast<void*>(Table_hash)},
    {Py_tp_richcompare, reinterpret_cast<void*>(Table_richcompare)},
    {Py_tp_str, reinterpret_cast<void*>(Table_str)},
    {Py_tp_repr, reinterpret_cast<void*>(Table_repr)},
    {Py_tp_getset, nullptr},
    {Py_tp_methods, nullptr},
    {Py_tp_members, members},
    {Py_tp_doc, const_cast<char*>("The state and behaviour of decrement tables (see DecrementTable).")},
    {0, nullptr},
};

}  // namespace

PyType_Spec* table_type_spec() {
    for (PyType_Slot* s = table_slots; s->slot != 0; ++s) {
        if (s->slot == Py_tp_getset) s->pfunc = build_getsets();
        if (s->slot == Py_tp_methods) s->pfunc = build_methods();
    }
    static PyType_Spec spec = {
        "veltrane.tables.decrement._DecrementTableBase",
        static_cast<int>(sizeof(TableObject)),
        0,
        Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE | Py_TPFLAGS_HAVE_GC,
        table_slots,
    };
    return &spec;
}

}  // namespace veltrane::decrement
