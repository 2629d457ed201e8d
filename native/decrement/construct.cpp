// Construction of tables: the allocator (argument checks shared by every construction; a
// call naming several tables goes on to vectorial.cpp) and __init__ (loading the source,
// validating the keys against the table's structure, the first build). Every field exists
// before the first check that can fail.
#include "decrement/table.hpp"

#include <string>
#include <vector>

namespace veltrane::decrement {
namespace {


bool is_sequence_arg(PyObject* o) { return PyList_Check(o) || PyTuple_Check(o); }

// Cohorts and durations may also come as a range or a one-dimensional NumPy array: any
// sequence but text and mappings.
bool is_key_sequence(PyObject* o) {
    if (is_sequence_arg(o)) return true;
    if (PyUnicode_Check(o) || PyBytes_Check(o) || PyByteArray_Check(o) || PyDict_Check(o)) return false;
    if (PyArray_Check(o)) return PyArray_NDIM(reinterpret_cast<PyArrayObject*>(o)) == 1;
    return PySequence_Check(o) == 1;
}

using List = std::vector<py::ref>;

List one(PyObject* value) {
    List out;
    out.push_back(py::ref::borrow(value));
    return out;
}

List items_of(PyObject* seq) {
    py::ref fast = py::check(PySequence_Fast(seq, "expected a sequence"));
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(fast.get());
    List out;
    out.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) out.push_back(py::ref::borrow(PySequence_Fast_ITEMS(fast.get())[i]));
    return out;
}

bool is_float_object(PyObject* o) { return PyFloat_Check(o) || PyArray_IsScalar(o, Floating); }

// The cohort argument as a list (int or None); NumPy integers become ints.
List cohort_list(PyObject* cohort, bool& sequence) {
    sequence = false;
    if (cohort == Py_None) return one(Py_None);
    if (PyBool_Check(cohort)) py::raise(PyExc_TypeError, "cohort must be int or sequence of int, got bool");
    if (is_integer_object(cohort)) return one(py::check(PyNumber_Index(cohort)).get());
    if (is_key_sequence(cohort)) {
        sequence = true;
        List items = items_of(cohort);
        for (std::size_t i = 0; i < items.size(); ++i) {
            PyObject* v = items[i].get();
            if (v == Py_None) continue;
            if (PyBool_Check(v)) py::raise(PyExc_TypeError, "cohort element %zu must be int or None, got bool", i);
            if (is_integer_object(v)) {
                items[i] = py::check(PyNumber_Index(v));
                continue;
            }
            if (is_float_object(v)) py::raise(PyExc_TypeError, "cohort element %zu must be exact int, got %S", i, v);
            py::ref name = type_name_of(v);
            py::raise(PyExc_TypeError, "cohort element %zu must be int or None, got %U", i, name.get());
        }
        return items;
    }
    if (is_float_object(cohort)) py::raise(PyExc_TypeError, "cohort must be exact int, got %S", cohort);
    py::ref name = type_name_of(cohort);
    py::raise(PyExc_TypeError, "cohort must be int or sequence of int, got %U", name.get());
}

// The duration argument as a list (int, 'ult' or None). A scalar string other than 'ult' goes
// on to __init__, whose message names the table's minimum duration.
List duration_list(PyObject* duration, bool& sequence) {
    sequence = false;
    if (duration == Py_None || PyUnicode_Check(duration)) return one(duration);
    if (PyBool_Check(duration)) {
        py::raise(PyExc_TypeError, "duration must be int, 'ult', or sequence of int/'ult', got bool");
    }
    if (is_integer_object(duration)) return one(py::check(PyNumber_Index(duration)).get());
    if (is_key_sequence(duration)) {
        sequence = true;
        List items = items_of(duration);
        for (std::size_t i = 0; i < items.size(); ++i) {
            PyObject* v = items[i].get();
            if (v == Py_None || str_equals(v, "ult")) continue;
            if (PyBool_Check(v)) {
                py::raise(PyExc_TypeError, "duration element %zu must be int, 'ult', or None, got bool", i);
            }
            if (is_integer_object(v)) {
                items[i] = py::check(PyNumber_Index(v));
                continue;
            }
            py::ref name = type_name_of(v);
            py::raise(PyExc_TypeError, "duration element %zu must be int, 'ult', or None, got %U", i, name.get());
        }
        return items;
    }
    py::ref name = type_name_of(duration);
    py::raise(PyExc_TypeError, "duration must be int, 'ult', or sequence of int/'ult', got %U", name.get());
}

// The pieces of a blend check shared by the allocator and the pending path of __init__.
double checked_blend(PyObject* blend, const char* type_message) {
    double w = 0.0;
    try {
        w = numeric::validate_scalar(blend, "unisex_blend");
    } catch (const py::PyErrSet&) {
        if (!PyErr_ExceptionMatches(PyExc_TypeError)) throw;
        PyErr_Clear();
        py::raise(PyExc_TypeError, "%s", type_message);
    }
    return w;
}

}  // namespace

void check_scalar_blend(PyObject* blend, PyObject* sex) {
    if (str_equals(sex, "m") || str_equals(sex, "f")) {
        py::raise(PyExc_ValueError,
                  "Cannot specify unisex_blend=%S when sex='%S' is explicitly set. Use sex='u' to apply unisex "
                  "blending.",
                  blend, sex);
    }
    const double w = checked_blend(blend, "Expected numeric input for unisex_blend");
    if (!(0.0 <= w && w <= 1.0)) {
        py::ref shown = py::check(PyFloat_FromDouble(w));
        py::raise(PyExc_ValueError, "unisex_blend must be in [0.0, 1.0], got %S", shown.get());
    }
}

namespace {

py::ref lowered(PyObject* sex) {
    if (!PyUnicode_Check(sex)) return py::ref::borrow(sex);
    return py::check(PyObject_CallMethod(sex, "lower", nullptr));
}

// The sex argument of a many-table call as lower-cased strings. None stands alone for pending
// shells whose sex comes later (the allocator refused it without pending).
List sex_list(PyObject* sex, bool& sequence) {
    sequence = false;
    if (sex == Py_None) return one(Py_None);
    if (PyUnicode_Check(sex)) return one(lowered(sex).get());
    if (!is_sequence_arg(sex)) py::raise(PyExc_TypeError, "sex must be a string or a list/tuple of strings");
    sequence = true;
    List items = items_of(sex);
    for (py::ref& item : items) {
        if (!PyUnicode_Check(item.get())) py::raise(PyExc_TypeError, "sex must be a string or a list/tuple of strings");
        item = lowered(item.get());
    }
    return items;
}

}  // namespace

PyObject* Table_new(PyTypeObject* type, PyObject* args, PyObject* kwargs) {
    return py::guard([&]() -> PyObject* {
        // The internal base carries state and behaviour only: tables are made through a class
        // that names their kind.
        if (type == state_from_type(type)->core_type) {
            py::raise(PyExc_TypeError, "cannot create '%s' instances", type->tp_name);
        }
        if (PyType_HasFeature(type, Py_TPFLAGS_IS_ABSTRACT)) {
            // Let the interpreter word the refusal exactly as for any abstract class.
            py::ref empty = py::check(PyTuple_New(0));
            py::ref obj = py::check(PyBaseObject_Type.tp_new(type, empty.get(), nullptr));
            py::raise(PyExc_TypeError, "Can't instantiate abstract class %s", type->tp_name);
        }
        static const char* const names[] = {"table_name", "sex",         "cohort",  "unisex_blend",
                                            "duration",   "cartesian", "return_dict", "pending"};
        PyObject* values[8] = {nullptr, Py_None, Py_None, Py_None, Py_None, Py_False, Py_False, Py_False};
        const Py_ssize_t nargs = PyTuple_GET_SIZE(args);
        if (nargs > 8) py::raise(PyExc_TypeError, "%s() takes at most 8 positional arguments", type->tp_name);
        for (Py_ssize_t i = 0; i < nargs; ++i) values[i] = PyTuple_GET_ITEM(args, i);
        if (kwargs != nullptr) {
            for (int i = 0; i < 8; ++i) {
                PyObject* v = PyDict_GetItemString(kwargs, names[i]);
                if (v == nullptr) continue;
                if (i < nargs) py::raise(PyExc_TypeError, "%s() got multiple values for argument '%s'", type->tp_name, names[i]);
                values[i] = v;
            }
        }
        PyObject* table_name_arg = values[0];
        if (table_name_arg == nullptr) {
            py::raise(PyExc_TypeError, "%s() missing required argument: 'table_name'", type->tp_name);
        }
        PyObject* sex = values[1];
        PyObject* cohort = values[2];
        PyObject* blend = values[3];
        PyObject* duration = values[4];
        const bool cartesian = py::require(PyObject_IsTrue(values[5])) == 1;
        const bool return_dict = py::require(PyObject_IsTrue(values[6])) == 1;
        const bool pending = py::require(PyObject_IsTrue(values[7])) == 1;

        bool cohort_sequence = false;
        bool duration_sequence = false;
        List cohorts = cohort_list(cohort, cohort_sequence);
        List durations = duration_list(duration, duration_sequence);
        List table_names = resolve_table_names(table_name_arg);
        py::ref class_name = type_name_of(reinterpret_cast<PyObject*>(type));
        if (sex == Py_None && !pending) {
            py::raise(PyExc_TypeError, "%U(): 'sex' is required unless pending=True. Pass sex='m', 'f', or 'u'.",
                      class_name.get());
        }
        if (pending) {
            if (cartesian) {
                py::raise(PyExc_ValueError,
                          "%U(): cartesian=True is not compatible with pending=True. Create individual pending "
                          "instances and configure them separately.",
                          class_name.get());
            }
            if (return_dict) {
                py::raise(PyExc_ValueError,
                          "%U(): return_dict=True is not compatible with pending=True. Use TableRegistry for keyed "
                          "caching of configured instances.",
                          class_name.get());
            }
            if (cohort_sequence) {
                py::raise(PyExc_ValueError,
                          "%U(): cohort as a sequence is not compatible with pending=True. Pass a scalar cohort or "
                          "omit it (deferred via configure()).",
                          class_name.get());
            }
            if (duration_sequence) {
                py::raise(PyExc_ValueError,
                          "%U(): duration as a sequence is not compatible with pending=True. Pass a scalar duration "
                          "or omit it (deferred via configure()).",
                          class_name.get());
            }
        }
        bool sex_sequence = false;
        List sexes = sex_list(sex, sex_sequence);
        const bool blend_sequence = is_sequence_arg(blend);
        const bool single = !sex_sequence && PyUnicode_Check(table_name_arg) && !cohort_sequence &&
                            !duration_sequence && !blend_sequence && !cartesian && !return_dict;
        if (!single) {
            // The blend is checked there, once the argument lists are aligned.
            VectorialCall call;
            call.table_names = std::move(table_names);
            call.sexes = std::move(sexes);
            call.sex_sequence = sex_sequence;
            call.cohorts = std::move(cohorts);
            call.durations = std::move(durations);
            call.blend = blend;
            call.blend_sequence = blend_sequence;
            call.cartesian = cartesian;
            call.return_dict = return_dict;
            call.pending = pending;
            call.kwargs = kwargs;
            return construct_many(type, call);
        }
        if (blend != Py_None) check_scalar_blend(blend, sexes.front().get());
        return table_alloc(type, state_from_type(type));
    });
}

namespace {

struct InitArgs {
    PyObject* table_name = nullptr;
    PyObject* sex = Py_None;
    PyObject* cohort = Py_None;
    PyObject* expected_table_type = Py_None;
    PyObject* unisex_blend = Py_None;
    PyObject* duration = Py_None;
    bool pending = false;
};

void reset_fields(TableObject* t) {
    ModuleState* st = t->st;
    py::ref id = py::check(PyIter_Next(st->instance_counter));
    t->instance_id = PyLong_AsLongLong(id.get());
    if (t->instance_id == -1 && PyErr_Occurred()) py::throw_error_set();
    t->table.reset();
    t->sex.reset();
    t->cohort.reset();
    t->duration.reset();
    t->select_duration_set = false;
    t->decrement_base.reset();
    t->decrement.reset();
    t->modified = false;
    t->lx.reset();
    t->lx_raw.reset();
    t->scalar_columns.reset();
    t->w_mod.reset();
    t->modifications_applied = py::check(PyList_New(0));
    t->px.reset();
    t->qx.reset();
    t->unisex_blend.reset();
    t->decimals_config.reset();
    t->decimals_decrement_cache.reset();
    t->table_is_private_copy = false;
    t->metadata_pending = false;
    t->suspend_rebuild = false;
    t->rebuilds_since_calc = 0;
}

py::ref column_name(std::string_view prefix, PyObject* sex) {
    return py::check(PyUnicode_FromFormat("%s_%S", std::string(prefix).c_str(), sex));
}

void check_rate_columns(TableObject* t, std::string_view prefix, PyObject* columns, PyObject* name) {
    py::ref sexes = source_attr(t, t->st->names.valid_sexes.get());
    py::ref iter = py::check(PyObject_GetIter(sexes.get()));
    py::ref missing = py::check(PyList_New(0));
    while (py::ref sex = py::ref::steal(PyIter_Next(iter.get()))) {
        py::ref col = column_name(prefix, sex.get());
        if (py::require(PySequence_Contains(columns, col.get())) == 0) py::require(PyList_Append(missing.get(), col.get()));
    }
    if (PyErr_Occurred()) py::throw_error_set();
    if (PyList_GET_SIZE(missing.get()) > 0) {
        py::raise(PyExc_ValueError, "Missing required %s_* columns in table '%S': %R", std::string(prefix).c_str(),
                  name, missing.get());
    }
}

void check_mi_columns(TableObject* t, PyObject* columns, PyObject* name) {
    const Names& n = t->st->names;
    py::ref sexes = source_attr(t, n.valid_sexes.get());
    py::ref structure = source_attr(t, n.mi_structure.get());
    py::ref missing = py::check(PyList_New(0));
    auto need = [&](py::ref col) {
        if (py::require(PySequence_Contains(columns, col.get())) == 0) py::require(PyList_Append(missing.get(), col.get()));
    };
    py::ref iter = py::check(PyObject_GetIter(sexes.get()));
    while (py::ref sex = py::ref::steal(PyIter_Next(iter.get()))) {
        if (!str_equals(sex.get(), "m") && !str_equals(sex.get(), "f")) continue;
        if (str_equals(structure.get(), "year_indexed")) {
            py::ref years = source_attr(t, n.grid_years.get());
            if (years.is_none()) continue;
            py::ref year_iter = py::check(PyObject_GetIter(years.get()));
            while (py::ref year = py::ref::steal(PyIter_Next(year_iter.get()))) {
                need(py::check(PyUnicode_FromFormat("mi_%S_%S", sex.get(), year.get())));
            }
            if (PyErr_Occurred()) py::throw_error_set();
        } else if (str_equals(structure.get(), "select_period")) {
            need(py::check(PyUnicode_FromFormat("mi_%S_ult", sex.get())));
            py::ref period = source_attr(t, n.select_period.get());
            const long sp = period.is_none() ? 0 : PyLong_AsLong(period.get());
            if (sp == -1 && PyErr_Occurred()) py::throw_error_set();
            // The durations the table has: from its start duration, one per year of the period.
            const long start = start_duration(t);
            for (long d = start; d - start < sp; ++d) {
                need(py::check(PyUnicode_FromFormat("mi_%S_s%ld", sex.get(), d)));
            }
        } else {
            need(py::check(PyUnicode_FromFormat("mi_%S", sex.get())));
        }
    }
    if (PyErr_Occurred()) py::throw_error_set();
    if (PyList_GET_SIZE(missing.get()) > 0) {
        py::raise(PyExc_ValueError, "Missing MI columns in generational table '%S' (mi_structure='%S'): %R", name,
                  structure.get(), missing.get());
    }
}

void check_blend_for_sex(PyObject* blend, PyObject* sex) {
    if (blend != Py_None && (str_equals(sex, "m") || str_equals(sex, "f"))) {
        py::raise(PyExc_ValueError,
                  "Cannot specify unisex_blend=%S when sex='%S' is explicitly set. Use sex='u' to apply unisex "
                  "blending.",
                  blend, sex);
    }
}

void init_pending(TableObject* t, const InitArgs& a) {
    t->metadata_pending = true;
    if (a.sex != Py_None) t->sex = py::ref::borrow(a.sex);
    if (a.cohort != Py_None) t->cohort = validate_cohort_year(t, a.cohort);
    if (a.duration != Py_None) {
        t->duration = normalise_duration(t, a.duration);
        t->select_duration_set = true;
    }
    if (a.unisex_blend != Py_None) {
        check_blend_for_sex(a.unisex_blend, a.sex);
        if (PyBool_Check(a.unisex_blend)) py::raise(PyExc_TypeError, "unisex_blend must be numeric, not bool.");
        const double w = numeric::validate_scalar(a.unisex_blend, "unisex_blend");
        if (!(0.0 <= w && w <= 1.0)) py::raise(PyExc_ValueError, "unisex_blend must be in [0.0, 1.0], got %S.", a.unisex_blend);
        t->unisex_blend = py::ref::borrow(a.unisex_blend);
    }
    t->w_mod = source_attr(t, t->st->names.w.get());
    t->initialized = true;
}

void require_cohort(TableObject* t, PyObject* name) {
    const Names& n = t->st->names;
    py::ref formula = source_attr(t, n.generational_formula_type.get());
    py::ref structure = source_attr(t, n.mi_structure.get());
    if (str_equals(formula.get(), "projected_improvement")) {
        py::raise(PyExc_ValueError,
                  "Table '%S' uses 'projected_improvement': 'cohort' (year of birth) is required. The projection "
                  "year for each age x is derived as cohort + x.",
                  name);
    }
    if (str_equals(structure.get(), "flat")) {
        py::raise(PyExc_ValueError, "Table '%S' is a generational table: 'cohort' (year of birth) is required.", name);
    }
    if (str_equals(structure.get(), "year_indexed")) {
        py::raise(PyExc_ValueError, "Table '%S' (year_indexed): 'cohort' (year of birth) is required.", name);
    }
    py::raise(PyExc_ValueError,
              "Table '%S' is a generational table (mi_structure='%S'): 'cohort' (year of birth) is required.", name,
              structure.get());
}

void assign_duration(TableObject* t, PyObject* duration, PyObject* name) {
    const Names& n = t->st->names;
    if (!source_flag(t, n.select.get())) {
        if (duration != Py_None) {
            py::raise(PyExc_ValueError, "duration is only valid for select tables. Table '%S' is not a select table.",
                      name);
        }
        return;
    }
    const long start = start_duration(t);
    if (duration == Py_None) {
        py::ref period = source_attr(t, n.select_period.get());
        py::raise(PyExc_ValueError,
                  "Table '%S' is a select-ultimate table (select_period=%S, start_duration=%ld): 'duration' is "
                  "required. Pass an integer >= %ld or duration='ult' for the ultimate column.",
                  name, period.get(), start, start);
    }
    if (str_equals(duration, "ult")) {
        t->duration = t->st->names.ult.dup();
    } else if (PyBool_Check(duration)) {
        py::raise(PyExc_TypeError, "duration must be int, 'ult', or None, got bool");
    } else {
        bool ok = false;
        if (is_integer_object(duration)) {
            py::ref as_int = py::check(PyNumber_Index(duration));
            py::ref start_int = py::check(PyLong_FromLong(start));
            if (py::require(PyObject_RichCompareBool(as_int.get(), start_int.get(), Py_GE)) == 1) {
                t->duration = std::move(as_int);
                ok = true;
            }
        }
        if (!ok) {
            py::raise(PyExc_ValueError, "duration must be an integer >= %ld or 'ult' for select tables, got %R.", start,
                      duration);
        }
    }
    t->select_duration_set = true;
}

void init_table(TableObject* t, InitArgs a) {
    const Names& n = t->st->names;
    py::ref class_name = type_name_of(reinterpret_cast<PyObject*>(Py_TYPE(t)));
    py::ref cohort_holder;
    if (is_sequence_arg(a.cohort)) {
        const Py_ssize_t len = PySequence_Size(a.cohort);
        if (len != 1) {
            py::raise(PyExc_TypeError, "cohort in __init__ must be int or None, got sequence of length %zd", len);
        }
        // Only an integer unwraps to its value: anything else goes on unchanged, so that the
        // cohort checks refuse it (int() would silently turn [1970.7] into 1970).
        py::ref item = py::check(PySequence_GetItem(a.cohort, 0));
        cohort_holder = is_integer_object(item.get()) ? py::check(PyNumber_Index(item.get())) : std::move(item);
        a.cohort = cohort_holder.get();
    }
    if (a.sex == Py_None && !a.pending) {
        py::raise(PyExc_TypeError,
                  "%U(): 'sex' is required unless pending=True. Pass sex='m', 'f', or 'u', or use %U('%S', "
                  "pending=True).",
                  class_name.get(), class_name.get(), a.table_name);
    }
    py::ref sex_holder = lowered(a.sex);
    a.sex = sex_holder.get();

    reset_fields(t);
    t->table = py::check(PyObject_CallOneArg(t->st->table_source, a.table_name));
    py::ref name = table_name(t);
    py::ref type = source_attr(t, n.table_type.get());
    if (a.expected_table_type != Py_None &&
        py::require(PyObject_RichCompareBool(type.get(), a.expected_table_type, Py_NE)) == 1) {
        py::raise(PyExc_ValueError, "Table '%S' is of type '%S', expected '%S'.", name.get(), type.get(),
                  a.expected_table_type);
    }
    std::string_view prefix;
    for (const TableKind& kind : kTableKinds) {
        if (str_equals(type.get(), kind.type)) prefix = kind.prefix;
    }
    if (prefix.empty()) py::raise(PyExc_ValueError, "Unknown table_type '%S' in table '%S'.", type.get(), name.get());

    py::ref data = source_attr(t, n.data.get());
    py::ref columns = py::check(PyObject_GetAttr(data.get(), n.columns.get()));
    const bool select = source_flag(t, n.select.get());
    const bool generational = source_flag(t, n.generational.get());
    if (!select) check_rate_columns(t, prefix, columns.get(), name.get());
    if (generational) check_mi_columns(t, columns.get(), name.get());
    if (a.pending && !generational && !select) {
        py::raise(PyExc_ValueError,
                  "pending=True has no effect on static period table '%S'. A static period table requires no "
                  "deferred metadata (cohort, duration). Use the normal constructor instead.",
                  name.get());
    }
    const bool complete = a.sex != Py_None && (!generational || a.cohort != Py_None) &&
                          (!select || a.duration != Py_None);
    if (a.pending && !complete) {
        init_pending(t, a);
        return;
    }
    if (generational) {
        if (a.cohort == Py_None) require_cohort(t, name.get());
        set_cohort(t, a.cohort);
    } else if (a.cohort != Py_None) {
        py::raise(PyExc_ValueError, "Cohort should not be specified for static tables.");
    }
    assign_duration(t, a.duration, name.get());

    // A select table keeps its unisex rates in the select columns: look for the one of the duration.
    py::ref unisex_col =
        select ? select_column(t, n.u.get(), t->duration.get(), prefix) : column_name(prefix, n.u.get());
    const bool native_unisex = py::require(PySequence_Contains(columns.get(), unisex_col.get())) == 1;
    check_blend_for_sex(a.unisex_blend, a.sex);
    if (str_equals(a.sex, "u") && !native_unisex && a.unisex_blend == Py_None) {
        py::raise(PyExc_ValueError,
                  "unisex_blend parameter is required when sex='u' because table '%S' lacks native unisex column "
                  "'%U'. Example: %U('%S', sex='u', unisex_blend=0.5)",
                  name.get(), unisex_col.get(), class_name.get(), name.get());
    }
    if (str_equals(a.sex, "u") && a.unisex_blend != Py_None) {
        generate_unisex(t, a.unisex_blend);
        t->unisex_blend = py::ref::borrow(a.unisex_blend);
    }
    set_sex(t, a.sex);
    t->w_mod = source_attr(t, n.w.get());
    t->rebuilds_since_calc = 0;
    t->initialized = true;
}

}  // namespace

int Table_init(PyObject* self, PyObject* args, PyObject* kwargs) {
    return py::guard_int([&] {
        TableObject* t = as_table(self);
        if (t->initialized) return 0;
        static const char* keywords[] = {"table_name", "sex",      "cohort", "expected_table_type",
                                         "unisex_blend", "duration", "pending", nullptr};
        InitArgs a;
        PyObject* pending = Py_False;
        if (!PyArg_ParseTupleAndKeywords(args, kwargs, "O|OOOOOO:__init__", const_cast<char**>(keywords),
                                         &a.table_name, &a.sex, &a.cohort, &a.expected_table_type, &a.unisex_blend,
                                         &a.duration, &pending)) {
            py::throw_error_set();
        }
        a.pending = py::require(PyObject_IsTrue(pending)) == 1;
        init_table(t, a);
        return 0;
    });
}

namespace {

// __init__ as a method beside the tp_init slot, so that inspect reads its parameters.
PyObject* Table_init_method(PyObject* self, PyObject* args, PyObject* kwargs) {
    if (Table_init(self, args, kwargs) < 0) return nullptr;
    Py_RETURN_NONE;
}

}  // namespace

PyMethodDef construct_methods[] = {
    {"__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(Table_init_method)),
     METH_VARARGS | METH_KEYWORDS | METH_COEXIST,
     "__init__($self, /, table_name, sex=None, cohort=None, expected_table_type=None, unisex_blend=None, "
     "duration=None, pending=False)\n--\n\n"
     "Load the table file, check the keys against the table's structure and build the rates\n"
     "(or, with pending=True and keys missing, leave a pending table). Does nothing on a table\n"
     "that is already initialised."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
