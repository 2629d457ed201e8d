// The observable state of a table: properties forwarding to the table source, the key
// properties (sex, cohort, duration, unisex_blend) with their rebuilds, readiness, and
// the reset of modifications. Validate first, then assign: a failed setter changes nothing.
#include "decrement/table.hpp"
#include "decrement/transaction.hpp"

#include <vector>

namespace veltrane::decrement {

// ---- helpers shared across the module ---------------------------------------------------

py::ref source_attr(TableObject* t, PyObject* name) {
    if (!t->table) raise_uninitialised(t);
    return py::check(PyObject_GetAttr(t->table.get(), name));
}

bool source_flag(TableObject* t, PyObject* name) {
    py::ref value = source_attr(t, name);
    return py::require(PyObject_IsTrue(value.get())) == 1;
}

py::ref table_name(TableObject* t) { return source_attr(t, t->st->names.table_name.get()); }

long source_w(TableObject* t) {
    py::ref w = source_attr(t, t->st->names.w.get());
    const long value = PyLong_AsLong(w.get());
    if (value == -1 && PyErr_Occurred()) py::throw_error_set();
    return value;
}

std::string_view prefix_for(TableObject* t) {
    py::ref type = source_attr(t, t->st->names.table_type.get());
    for (const TableKind& kind : kTableKinds) {
        if (str_equals(type.get(), kind.type)) return kind.prefix;
    }
    py::raise(PyExc_ValueError, "Unknown table_type '%S'.", type.get());
}

void invalidate_caches(TableObject* t) {
    t->lx.reset();
    t->lx_raw.reset();
    t->px.reset();
    t->qx.reset();
    t->decimals_decrement_cache.reset();
    t->scalar_columns.reset();
}

bool metadata_complete(TableObject* t) {
    const Names& n = t->st->names;
    if (t->sex.is_none()) return false;
    if (source_flag(t, n.generational.get()) && t->cohort.is_none()) return false;
    if (source_flag(t, n.select.get()) && !t->select_duration_set) return false;
    return true;
}

namespace {

// `stacklevel` counts Python frames only: 1 when a C calculation is the caller (its caller's
// line is then the current frame), 2 when Python code called _ensure_ready itself.
void ensure_ready_at(TableObject* t, std::string_view method_name, int stacklevel) {
    const Names& n = t->st->names;
    // A select table may leave the pending state before all its keys arrived (sex and duration
    // without the cohort of a generational table): without rates it is refused the same way.
    if (t->metadata_pending || t->decrement.is_none()) {
        std::vector<std::string> missing;
        if (t->sex.is_none()) missing.emplace_back("sex");
        if (source_flag(t, n.generational.get()) && t->cohort.is_none()) missing.emplace_back("cohort");
        if (source_flag(t, n.select.get()) && !t->select_duration_set) missing.emplace_back("duration");
        std::string names_text, hint_args;
        for (std::size_t i = 0; i < missing.size(); ++i) {
            names_text += (i ? ", '" : "'") + missing[i] + "'";
            hint_args += (i ? ", " : "") + missing[i] + "=...";
        }
        if (missing.empty()) {
            names_text = "metadata";
            hint_args = "...";
        }
        std::string tail = "lt.configure(" + hint_args + ")";
        if (!method_name.empty()) tail += ", called from " + std::string(method_name);
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' is not ready: assign %s before calculations (%s).", name.get(),
                  names_text.c_str(), tail.c_str());
    }
    if (t->rebuilds_since_calc >= 2 && !t->suspend_rebuild && config(t->st).warn_chained) {
        py::ref name = table_name(t);
        py::ref message = py::check(PyUnicode_FromFormat(
            "Table '%S': %ld setters triggered rebuilds between calculations. Use configure() or "
            "batch_update() for a single rebuild.",
            name.get(), t->rebuilds_since_calc));
        py::warn_obj(PyExc_UserWarning, message.get(), stacklevel);
    }
    t->rebuilds_since_calc = 0;
    if (t->caches_config_version != t->st->config_version) {
        invalidate_caches(t);
        t->caches_config_version = t->st->config_version;
    }
}

}  // namespace

void ensure_ready(TableObject* t, std::string_view method_name) { ensure_ready_at(t, method_name, 1); }

namespace {

py::ref copy_vector(const py::ref& v) {
    if (v.is_none()) return {};
    return py::copy_as_f64(v.get());
}

bool same_value(const py::ref& current, PyObject* value) {
    if (current.is_none()) return value == Py_None;
    if (value == Py_None) return false;
    return py::require(PyObject_RichCompareBool(current.get(), value, Py_EQ)) == 1;
}


// What a key setter does after storing its new value.
void after_key_change(TableObject* t, bool rebuild_needs_sex) {
    if (t->suspend_rebuild) {
        ++t->rebuilds_since_calc;
        return;
    }
    if (t->metadata_pending) {
        if (!metadata_complete(t)) {
            ++t->rebuilds_since_calc;
            return;
        }
        PyObject* unset = t->st->sentinel;
        apply_and_rebuild(t, unset, unset, unset, unset);
        return;
    }
    if (!rebuild_needs_sex || !t->sex.is_none()) {
        rebuild_rates(t);
        invalidate_caches(t);
    }
    ++t->rebuilds_since_calc;
}

}  // namespace

namespace {

// The base rates of the current keys, their working copy, flags and caches.
void install_base_rates(TableObject* t) {
    py::ref base = compute_decrement(t);
    py::ref working = py::copy_as_f64(base.get());
    py::ref w = source_attr(t, t->st->names.w.get());
    t->decrement_base = std::move(base);
    t->decrement = std::move(working);
    t->modified = false;
    t->w_mod = std::move(w);
    // The split of merged causes stays: it names the vector it belongs to, which a time-step
    // restore may bring back.
    invalidate_caches(t);
}

}  // namespace

void rebuild_rates(TableObject* t) {
    if (str_equals(t->sex.get(), "u") && !t->unisex_blend.is_none()) generate_unisex(t, t->unisex_blend.get());
    install_base_rates(t);
}

void apply_and_rebuild(TableObject* t, PyObject* sex, PyObject* cohort, PyObject* duration, PyObject* blend) {
    KeyChange change(t);
    PyObject* unset = t->st->sentinel;
    if (sex != unset) t->sex = py::ref::borrow(sex == Py_None ? nullptr : sex);
    if (cohort != unset) t->cohort = py::ref::borrow(cohort == Py_None ? nullptr : cohort);
    if (blend != unset) t->unisex_blend = py::ref::borrow(blend == Py_None ? nullptr : blend);
    if (duration != unset) {
        t->duration = py::ref::borrow(duration == Py_None ? nullptr : duration);
        t->select_duration_set = true;
    }
    if (source_flag(t, t->st->names.select.get()) && !t->sex.is_none() && t->select_duration_set) {
        t->metadata_pending = false;
    }
    if (metadata_complete(t)) {
        rebuild_rates(t);
        t->metadata_pending = false;
        invalidate_caches(t);
    }
    change.commit();
}

void set_sex(TableObject* t, PyObject* value) {
    py::ref v = PyUnicode_Check(value) ? py::check(PyObject_CallMethod(value, "lower", nullptr)) : py::ref::borrow(value);
    py::ref valid = source_attr(t, t->st->names.valid_sexes.get());
    if (py::require(PySequence_Contains(valid.get(), v.get())) == 0) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Invalid sex '%S' for table '%S'. Valid options: %R.", v.get(), name.get(),
                  valid.get());
    }
    if (same_value(t->sex, v.get())) return;
    KeyChange change(t);
    t->sex = std::move(v);
    after_key_change(t, false);
    change.commit();
}

void set_cohort(TableObject* t, PyObject* value) {
    if (!source_flag(t, t->st->names.generational.get())) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Cohort can only be set for generational tables ('%S' is not generational).",
                  name.get());
    }
    py::ref year = validate_cohort_year(t, value);
    if (same_value(t->cohort, year.get())) return;
    KeyChange change(t);
    t->cohort = std::move(year);
    after_key_change(t, true);
    change.commit();
}

py::ref normalise_duration(TableObject* t, PyObject* value) {
    const Names& n = t->st->names;
    py::ref name = table_name(t);
    if (!source_flag(t, n.select.get())) {
        py::raise(PyExc_ValueError,
                  "duration can only be set on select tables. Table '%S' is not a select table.", name.get());
    }
    if (value == Py_None) {
        py::raise(PyExc_ValueError,
                  "Table '%S' is a select-ultimate table: 'duration' must be a positive integer or 'ult', got "
                  "None. Use duration='ult' for the ultimate column.",
                  name.get());
    }
    if (PyBool_Check(value)) py::raise(PyExc_TypeError, "duration must be int, 'ult', or None, got bool");
    if (str_equals(value, "ult")) return {};
    const long start = start_duration(t);
    if (is_integer_object(value)) {
        py::ref as_int = py::check(PyNumber_Index(value));
        py::ref start_int = py::check(PyLong_FromLong(start));
        if (py::require(PyObject_RichCompareBool(as_int.get(), start_int.get(), Py_GE)) == 1) return as_int;
    }
    py::raise(PyExc_ValueError, "duration must be an integer >= %ld or 'ult', got %R.", start, value);
}

void set_duration(TableObject* t, PyObject* value) {
    py::ref v = normalise_duration(t, value);
    const bool unchanged = v.is_none() ? (t->select_duration_set && is_ultimate(t->duration.get()))
                                       : (!is_ultimate(t->duration.get()) && same_value(t->duration, v.get()));
    if (unchanged) return;
    KeyChange change(t);
    t->duration = std::move(v);
    t->select_duration_set = true;
    after_key_change(t, false);
    change.commit();
}

namespace {

// ---- forwarding properties ---------------------------------------------------------------

enum class Declared { any, str, boolean, integer, list, dict };

struct Forward {
    const char* name;
    const char* attr;  // attribute of the source (null: the source itself)
    Declared type;
};

constexpr Forward forwards[] = {
    {"table", nullptr, Declared::any},
    {"table_name", "table_name", Declared::str},
    {"generational", "generational", Declared::boolean},
    {"base_year", "base_year", Declared::integer},
    {"omega", "omega", Declared::integer},
    {"start_age", "start_age", Declared::integer},
    {"description", "description", Declared::str},
    {"valid_sexes", "valid_sexes", Declared::list},
    {"sex_independent", "sex_independent", Declared::boolean},
    {"generational_formula_type", "generational_formula_type", Declared::str},
    {"select_improvement_diagonal", "select_improvement_diagonal", Declared::str},
    {"select", "select", Declared::boolean},
    {"select_period", "select_period", Declared::integer},
    {"start_duration", "start_duration", Declared::integer},
    {"mi_by_duration", "mi_by_duration", Declared::boolean},
    {"mi_structure", "mi_structure", Declared::str},
    {"grid_years", "grid_years", Declared::list},
    {"file_name", "file_name", Declared::str},
    {"file_path", "file_path", Declared::any},
    {"data", "data", Declared::any},
    {"metadata", "metadata", Declared::dict},
};

PyObject* checked(py::ref value, Declared type) {
    PyObject* v = value.get();
    bool ok = true;
    const char* expected = "";
    switch (type) {
        case Declared::any: break;
        case Declared::str: ok = PyUnicode_Check(v); expected = "str"; break;
        case Declared::boolean: ok = PyBool_Check(v); expected = "bool"; break;
        case Declared::integer: ok = PyLong_Check(v); expected = "int"; break;
        case Declared::list: ok = PyList_Check(v); expected = "list"; break;
        case Declared::dict: ok = PyDict_Check(v); expected = "dict"; break;
    }
    if (!ok && v != Py_None) {
        py::ref actual = type_name_of(v);
        py::raise(PyExc_TypeError, "Expected %s, got %U", expected, actual.get());
    }
    return value.release();
}

PyObject* get_forward(PyObject* self, void* closure) {
    return py::guard([&] {
        const Forward* f = static_cast<const Forward*>(closure);
        TableObject* t = as_table(self);
        if (f->attr == nullptr) return t->table.new_reference();
        if (!t->table) raise_uninitialised(t);
        return checked(py::check(PyObject_GetAttrString(t->table.get(), f->attr)), f->type);
    });
}

PyObject* get_w(PyObject* self, void*) {
    return py::guard([&] { return checked(py::ref::borrow(as_table(self)->w_mod.or_none()), Declared::integer); });
}

// ---- key properties -------------------------------------------------------------------------

PyObject* get_sex(PyObject* self, void*) { return as_table(self)->sex.new_reference(); }
PyObject* get_cohort(PyObject* self, void*) { return as_table(self)->cohort.new_reference(); }
PyObject* get_modified(PyObject* self, void*) { return PyBool_FromLong(as_table(self)->modified); }
PyObject* get_pending(PyObject* self, void*) { return PyBool_FromLong(as_table(self)->metadata_pending); }

PyObject* get_modifications(PyObject* self, void*) {
    TableObject* t = as_table(self);
    if (t->modifications_applied.is_none()) return PyList_New(0);
    return PySequence_List(t->modifications_applied.get());
}

int reject_delete(PyObject* value, const char* name) {
    if (value != nullptr) return 0;
    PyErr_Format(PyExc_AttributeError, "cannot delete %s", name);
    return -1;
}

int put_sex(PyObject* self, PyObject* value, void*) {
    if (reject_delete(value, "sex") < 0) return -1;
    return py::guard_int([&] {
        set_sex(as_table(self), value);
        return 0;
    });
}

int put_cohort(PyObject* self, PyObject* value, void*) {
    if (reject_delete(value, "cohort") < 0) return -1;
    return py::guard_int([&] {
        set_cohort(as_table(self), value);
        return 0;
    });
}

PyObject* get_duration(PyObject* self, void*) {
    return py::guard([&]() -> PyObject* {
        TableObject* t = as_table(self);
        if (!source_flag(t, t->st->names.select.get())) Py_RETURN_NONE;
        if (is_ultimate(t->duration.get())) return t->st->names.ult.new_reference();
        return t->duration.new_reference();
    });
}

int put_duration(PyObject* self, PyObject* value, void*) {
    if (reject_delete(value, "duration") < 0) return -1;
    return py::guard_int([&] {
        set_duration(as_table(self), value);
        return 0;
    });
}

PyObject* get_is_select(PyObject* self, void*) {
    return py::guard([&] { return PyBool_FromLong(source_flag(as_table(self), as_table(self)->st->names.select.get())); });
}

PyObject* get_blend(PyObject* self, void*) {
    return py::guard([&]() -> PyObject* {
        TableObject* t = as_table(self);
        if (t->unisex_blend.is_none()) Py_RETURN_NONE;
        return py::require(PyNumber_Float(t->unisex_blend.get()));
    });
}

int put_blend(PyObject* self, PyObject* value, void*) {
    if (reject_delete(value, "unisex_blend") < 0) return -1;
    return py::guard_int([&] {
        TableObject* t = as_table(self);
        if (!str_equals(t->sex.get(), "u")) {
            py::raise(PyExc_ValueError, "unisex_blend can only be set when sex='u'. Current sex is '%S'.",
                      t->sex.or_none());
        }
        const double w = numeric::validate_scalar(value, "unisex_blend", "unisex_blend.setter");
        py::ref weight = py::check(PyFloat_FromDouble(w));
        if (!(0.0 <= w && w <= 1.0)) py::raise(PyExc_ValueError, "unisex_blend must be in [0.0, 1.0], got %R.", weight.get());
        if (!t->unisex_blend.is_none() && same_value(t->unisex_blend, weight.get())) return 0;
        KeyChange change(t);
        generate_unisex(t, weight.get());
        t->unisex_blend = std::move(weight);
        if (!t->suspend_rebuild) install_base_rates(t);
        ++t->rebuilds_since_calc;
        change.commit();
        return 0;
    });
}

PyObject* get_decimals(PyObject* self, void*) {
    return py::guard([&] {
        TableObject* t = as_table(self);
        if (t->decimals_config.is_none()) t->decimals_config = py::check(PyObject_CallNoArgs(t->st->decimals_config));
        return t->decimals_config.new_reference();
    });
}

PyObject* get_decimals_for_decrement(PyObject* self, void*) {
    return py::guard([&] { return PyLong_FromLong(decimals_for_decrement(as_table(self))); });
}

// ---- methods ----------------------------------------------------------------------------------

PyObject* Table_ensure_ready(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        PyObject* method = nargs > 0 ? args[0] : nullptr;
        if (kwnames != nullptr) {
            for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(kwnames); ++k) {
                if (!str_equals(PyTuple_GET_ITEM(kwnames, k), "method_name") || method != nullptr) {
                    py::raise(PyExc_TypeError, "_ensure_ready() takes one optional argument 'method_name'");
                }
                method = args[nargs + k];
            }
        }
        if (nargs > 1) py::raise(PyExc_TypeError, "_ensure_ready() takes at most 1 argument");
        std::string name = method == nullptr || method == Py_None ? std::string() : utf8(method);
        ensure_ready_at(as_table(self), name, 2);
        Py_RETURN_NONE;
    });
}

PyObject* Table_check_metadata_complete(PyObject* self, PyObject*) {
    return py::guard([&] { return PyBool_FromLong(metadata_complete(as_table(self))); });
}

PyObject* Table_apply_and_rebuild(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        TableObject* t = as_table(self);
        if (nargs != 0) py::raise(PyExc_TypeError, "_apply_and_rebuild() takes keyword arguments only");
        PyObject* unset = t->st->sentinel;
        PyObject* values[4] = {unset, unset, unset, unset};
        static const char* const names[4] = {"sex", "cohort", "duration_internal", "unisex_blend"};
        if (kwnames != nullptr) {
            for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(kwnames); ++k) {
                PyObject* key = PyTuple_GET_ITEM(kwnames, k);
                bool known = false;
                for (int i = 0; i < 4; ++i) {
                    if (str_equals(key, names[i])) {
                        values[i] = args[k];
                        known = true;
                    }
                }
                if (!known) py::raise(PyExc_TypeError, "_apply_and_rebuild() got an unexpected keyword argument '%U'", key);
            }
        }
        apply_and_rebuild(t, values[0], values[1], values[2], values[3]);
        Py_RETURN_NONE;
    });
}

PyObject* Table_invalidate_caches(PyObject* self, PyObject*) {
    invalidate_caches(as_table(self));
    Py_RETURN_NONE;
}

PyObject* Table_reset_modifications(PyObject* self, PyObject*) {
    return py::guard([&]() -> PyObject* {
        TableObject* t = as_table(self);
        py::ref working = copy_vector(t->decrement_base);
        py::ref w = source_attr(t, t->st->names.w.get());
        py::ref empty = py::check(PyList_New(0));
        t->decrement = std::move(working);
        t->modified = false;
        t->w_mod = std::move(w);
        t->modifications_applied = std::move(empty);
        t->cause_split.reset();
        t->modification_record.reset();
        invalidate_caches(t);
        Py_RETURN_NONE;
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyGetSetDef table_properties[] = {
#define FORWARD(i) {forwards[i].name, get_forward, nullptr, nullptr, const_cast<Forward*>(&forwards[i])}
    FORWARD(0), FORWARD(1), FORWARD(2), FORWARD(3), FORWARD(4), FORWARD(5), FORWARD(6),
    FORWARD(7), FORWARD(8), FORWARD(9), FORWARD(10), FORWARD(11), FORWARD(12), FORWARD(13),
    FORWARD(14), FORWARD(15), FORWARD(16), FORWARD(17), FORWARD(18), FORWARD(19), FORWARD(20),
#undef FORWARD
    {"w", get_w, nullptr, "The terminal age in force (lowered by modifications that truncate).", nullptr},
    {"sex", get_sex, put_sex, "Sex code: 'm', 'f' or 'u'. Setting it rebuilds the rates.", nullptr},
    {"cohort", get_cohort, put_cohort, "Year of birth of a generational table. Setting it rebuilds the rates.",
     nullptr},
    {"duration", get_duration, put_duration,
     "Select duration: an int, 'ult' for the ultimate column, None for non-select tables.", nullptr},
    {"unisex_blend", get_blend, put_blend, "Male weight of a blended unisex table, or None.", nullptr},
    {"modified", get_modified, nullptr, "True once a modification changed the rates.", nullptr},
    {"modifications_applied", get_modifications, nullptr, "A new list of the modifications applied, in order.",
     nullptr},
    {"metadata_pending", get_pending, nullptr, "True while sex, cohort or duration is still missing.", nullptr},
    {"is_select", get_is_select, nullptr, "True for a select-ultimate table.", nullptr},
    {"decimals", get_decimals, nullptr, "The decimals settings (a view of the global configuration).", nullptr},
    {"_decimals_for_decrement", get_decimals_for_decrement, nullptr, "Decimals of this table's rate type.",
     nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyMethodDef lifecycle_methods[] = {
    {"_ensure_ready", FASTCALL_KW(Table_ensure_ready), METH_FASTCALL | METH_KEYWORDS,
     "_ensure_ready($self, /, method_name='')\n--\n\n"
     "Refuse a table whose sex, cohort or duration is missing; warn about chained rebuilds."},
    {"_check_metadata_complete", Table_check_metadata_complete, METH_NOARGS,
     "_check_metadata_complete($self, /)\n--\n\nTrue when the table has every key it needs."},
    {"_apply_and_rebuild", FASTCALL_KW(Table_apply_and_rebuild), METH_FASTCALL | METH_KEYWORDS,
     "_apply_and_rebuild($self, /, **keys)\n--\n\n"
     "Assign the given keys (sex, cohort, duration_internal, unisex_blend; each keyword-only),\n"
     "then rebuild once if the table is complete. DecrementTable._apply_and_rebuild wraps it."},
    {"_invalidate_caches", Table_invalidate_caches, METH_NOARGS,
     "_invalidate_caches($self, /)\n--\n\nDrop the derived caches (lx, px, qx, decimals)."},
    {"reset_modifications", Table_reset_modifications, METH_NOARGS,
     "reset_modifications($self, /)\n--\n\nDiscard every modification and return to the base rates."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
