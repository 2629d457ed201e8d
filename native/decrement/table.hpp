// Pieces of DecrementTable's type that live in separate files, gathered by table.cpp.
#pragma once

#include "decrement/state.hpp"

#include <vector>

namespace veltrane::decrement {

PyType_Spec* table_type_spec();

// An int or a NumPy integer, never a bool.
inline bool is_integer_object(PyObject* o) {
    return (PyLong_Check(o) && !PyBool_Check(o)) || PyArray_IsScalar(o, Integer);
}
// None and 'ult' both mean the ultimate column (construction stores the string, setters None).
inline bool is_ultimate(PyObject* duration) {
    return duration == nullptr || duration == Py_None || str_equals(duration, "ult");
}
inline bool has_column(PyObject* columns, PyObject* name) {
    return py::require(PySequence_Contains(columns, name)) == 1;
}
// The table's first select duration; 1 when the table gives none.
long start_duration(TableObject* t);
// The first duration that reads the ultimate column (start + period, saturated).
long long first_ultimate_duration(TableObject* t);
// True when a duration (an int of any size, None or 'ult') reads the ultimate column.
bool past_select_period(TableObject* t, PyObject* duration);

// construct.cpp
PyObject* Table_new(PyTypeObject* type, PyObject* args, PyObject* kwargs);
int Table_init(PyObject* self, PyObject* args, PyObject* kwargs);

// lifecycle.cpp
extern PyGetSetDef table_properties[];
extern PyMethodDef lifecycle_methods[];
// The common tail of every key change: base rates, working copy, flags, caches.
void rebuild_rates(TableObject* t);
bool metadata_complete(TableObject* t);
// Setter bodies, shared with construction.
void set_sex(TableObject* t, PyObject* value);
void set_cohort(TableObject* t, PyObject* value);
void set_duration(TableObject* t, PyObject* value);
void apply_and_rebuild(TableObject* t, PyObject* sex, PyObject* cohort, PyObject* duration, PyObject* blend);

// rates.cpp
py::ref select_column(TableObject* t, PyObject* sex, PyObject* dur, std::string_view prefix);

// functions.cpp: lx, px, qx, tpx, tqx, dx and their engines.
extern PyMethodDef function_methods[];
// Adds class-level entries (e.g. the interpolation routines and their map) to the
// namespace from which DecrementTable is made.
void add_function_class_entries(ModuleState* st, PyObject* ns);

// presentation.cpp: decimals, data views.
extern PyMethodDef presentation_methods[];

// configure.cpp: configure, batch_update and their snapshot; configure_all.
extern PyMethodDef configure_methods[];
PyTypeObject* make_batch_type(PyObject* module);
PyObject* configure_all(PyObject* module, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames);

// summary.cpp: summary(), str() and repr().
extern PyMethodDef summary_methods[];
PyObject* Table_str(PyObject* self);
PyObject* Table_repr(PyObject* self);

// modifications.cpp / combination.cpp: modify_qx and the competing-decrement helpers.
extern PyMethodDef modification_methods[];
void bind_combination_helpers(PyObject* module);

// vectorial.cpp: many tables from one constructor call, and the module helpers it rests on.
// The constructor's arguments once the checks shared with single construction passed; each
// axis is a list (a scalar argument is a list of one).
struct VectorialCall {
    std::vector<py::ref> table_names;  // str, at least one
    std::vector<py::ref> sexes;        // lower-cased str (maybe none); a lone None for pending shells without sex
    std::vector<py::ref> cohorts;      // int or None (maybe none)
    std::vector<py::ref> durations;    // int, str or None (maybe none)
    PyObject* blend = Py_None;         // borrowed: None, a number, or a list/tuple of them
    bool sex_sequence = false;
    bool blend_sequence = false;
    bool cartesian = false;
    bool return_dict = false;
    bool pending = false;
    PyObject* kwargs = nullptr;        // borrowed; the keywords that are not the constructor's own are forwarded
};
// construct.cpp: __init__ as a method (its parameters for inspect).
extern PyMethodDef construct_methods[];
// A scalar blend against a single sex ("m" and "f" take none), then its value in [0, 1].
void check_scalar_blend(PyObject* blend, PyObject* sex);
// The table names of a constructor call as a list; refuses an empty sequence and non-strings.
std::vector<py::ref> resolve_table_names(PyObject* table_name);
// Builds every requested instance: a tuple, or a dict keyed by TableKey.
PyObject* construct_many(PyTypeObject* type, VectorialCall& call);
void bind_vectorial_helpers(PyObject* module);

// timestep.cpp: snapshot, advance and restore of the actuarial state.
extern PyMethodDef timestep_methods[];

// period.cpp: the rates of one calendar year of a generational table.
extern PyMethodDef period_methods[];

// causes.cpp: the dependent rates of each merged cause.
extern PyMethodDef cause_methods[];

// pickling.cpp: __reduce__ of tables and registries, through veltrane.tables._pickling.
extern PyMethodDef pickling_methods[];
// Calls a function of veltrane.tables._pickling with one argument.
py::ref call_pickling(const char* function, PyObject* arg);

// registry.cpp: _validate_table_class and TableRegistry.
void bind_registry(PyObject* module);

// unisex.cpp
void generate_unisex(TableObject* t, PyObject* blend);
int decimals_for_decrement(TableObject* t);
extern PyMethodDef unisex_methods[];
// _forget_cohort_unisex_name(name): drops the cohort cache's entries of one table name; run by
// the table sources for a name whose data changed.
extern PyMethodDef forget_unisex_name_def;

}  // namespace veltrane::decrement
