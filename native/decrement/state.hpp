// Shared declarations of the decrement module: module state (collaborators, interned
// names, the configuration snapshot) and the table object with its fields.
// Invariant: every array field is null or a 1-D C-contiguous float64 array it owns.
#pragma once

#include "common/numeric.hpp"
#include "decrement/constants.hpp"
#include "kernels/survival.hpp"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace veltrane::decrement {

// The settings read at every calculation, refreshed when the configuration changes.
struct ConfigSnapshot {
    int qx = 12, ix = 12, ox = 12, px = 12, tpx = 12, tqx = 12, lx = 9, dx = 9;
    kernels::Interpolation interpolation = kernels::Interpolation::linear;
    bool warn_chained = true;
};

struct Names {
    py::ref table_type, data, columns, valid_sexes, w, generational, select, mi_structure, grid_years,
        generational_formula_type, base_year, select_period, start_duration, mi_by_duration, table_name,
        get_column, to_numpy, u, m, f,
        ult, slots, file_name, data_field, valid_sexes_field, with_columns, f64_columns, interest_rate, interest_rate_slot;
};

struct ModuleState {
    PyTypeObject* core_type = nullptr;  // the C type carrying state and behaviour
    PyObject* public_class = nullptr;   // DecrementTable, made abstract with abc.ABCMeta
    PyTypeObject* batch_type = nullptr;  // _BatchUpdateContext
    // Collaborators.
    PyObject* table_source = nullptr;   // TableSource
    PyObject* config = nullptr;         // Config
    PyObject* formula_map = nullptr;    // _GENERATIONAL_FORMULA_TYPE_MAP
    PyObject* projected = nullptr;      // _gen_projected_improvement
    // The built-in one-dimensional formulas, by kernels::Trend: while the map still holds one
    // of these, its kernel runs instead of the Python function.
    PyObject* builtin_formulas[3] = {nullptr, nullptr, nullptr};
    // A test switch: false sends integer ages and formulas down the general paths.
    bool fast_paths = true;
    PyObject* current_year = nullptr;   // _current_calendar_year
    PyObject* decimals_config = nullptr;  // _DecimalsConfig
    PyObject* deepcopy = nullptr;       // copy.deepcopy
    PyObject* shallow_copy = nullptr;   // copy.copy
    PyObject* sentinel = nullptr;       // _CONFIGURE_UNSET
    PyObject* prefix_map = nullptr;     // DecrementTable._DECREMENT_PREFIX_MAP
    PyObject* instance_counter = nullptr;  // _table_instance_counter
    PyObject* unisex_cache = nullptr;   // _COHORT_ADJUSTED_QX_CACHE_UNISEX
    PyObject* select_diagonals = nullptr;  // contingencies.cpp: recent tables' duration columns
    PyObject* polars_series = nullptr;  // polars.Series
    // LifeTable, whose interest_rate property reads its _interest_rate slot (read directly by the
    // cached scalar contingencies); imported at their first use.
    PyObject* life_table = nullptr;
    double lx_radix = 1'000'000.0;
    Names names;
    // Configuration snapshot: `version` moves on every change of settings.
    std::uint64_t config_version = 1;
    std::uint64_t config_seen = 0;
    ConfigSnapshot config_cache;
};

struct ScalarColumns;  // contingency_cache.hpp
struct ScalarColumnsDelete {
    void operator()(ScalarColumns* columns) const noexcept;
};
using ScalarColumnsPtr = std::unique_ptr<ScalarColumns, ScalarColumnsDelete>;

struct TableObject {
    PyObject_HEAD
    ModuleState* st;
    PyObject* weakrefs;
    long long instance_id;
    py::ref table;
    py::ref sex;
    py::ref cohort;
    py::ref duration;
    bool select_duration_set;
    py::ref decrement_base;
    py::ref decrement;
    bool modified;
    py::ref lx;
    py::ref lx_raw;
    py::ref w_mod;
    py::ref modifications_applied;
    py::ref px;
    py::ref qx;
    py::ref unisex_blend;
    py::ref decimals_config;
    py::ref decimals_decrement_cache;
    // The inputs of the competing decrements merged by the last modification, or null: a tuple
    // (the _decrement they produced, cause labels, UDD flag, causes x ages rates). Valid only
    // while that very vector is the one in force.
    py::ref cause_split;
    // What the last modification was made of, to rebuild it elsewhere (pickling), or null: a
    // tuple (the _decrement it produced, ((key, value), ...), decimals of the rounding). Valid
    // only while that very vector is the one in force.
    py::ref modification_record;
    bool table_is_private_copy;
    bool metadata_pending;
    bool suspend_rebuild;
    long rebuilds_since_calc;
    bool initialized;
    // The settings version under which the derived caches were built; a change of settings
    // (decimals, interpolation) drops them at the next calculation.
    std::uint64_t caches_config_version;
    // Scalar contingency values by basis at every whole age, a derived cache like lx and px.
    ScalarColumnsPtr scalar_columns;
};

inline TableObject* as_table(PyObject* o) { return reinterpret_cast<TableObject*>(o); }

// --- module.cpp -------------------------------------------------------------------
ModuleState* state_of(PyObject* module);
// The configuration settings, re-read only after a change.
const ConfigSnapshot& config(ModuleState* st);
// Interned string compare helper: true when `obj` is a str equal to `text`.
bool str_equals(PyObject* obj, std::string_view text);
std::string utf8(PyObject* str);
py::ref type_name_of(PyObject* obj);

// --- table.cpp --------------------------------------------------------------------

PyObject* table_alloc(PyTypeObject* type, ModuleState* st);
// An instance that __init__ never completed (allocated by __new__ alone): it has no table.
bool is_uninitialised(TableObject* t);
[[noreturn]] void raise_uninitialised(TableObject* t);
void ensure_ready(TableObject* t, std::string_view method_name);
void invalidate_caches(TableObject* t);
py::ref source_attr(TableObject* t, PyObject* name);
bool source_flag(TableObject* t, PyObject* name);
py::ref table_name(TableObject* t);
std::string_view prefix_for(TableObject* t);
long source_w(TableObject* t);

// --- rates.cpp --------------------------------------------------------------------
py::ref compute_decrement(TableObject* t);
// The base rates of one sex under the table's other keys (a blend reads them per sex).
py::ref compute_decrement(TableObject* t, PyObject* sex);
py::ref validate_cohort_year(TableObject* t, PyObject* value);
// The same against a calendar year read once for a whole many-table call: `*current` is
// read from the clock when 0, and kept for the next cohorts of the call.
py::ref validate_cohort_year(TableObject* t, PyObject* value, long long* current);
py::ref get_mi_col(TableObject* t, PyObject* sex, PyObject* dur);
py::ref compute_lx(TableObject* t);
// The duration setter's validation: an int >= the start duration, or null for 'ult'.
py::ref normalise_duration(TableObject* t, PyObject* value);
extern PyMethodDef rates_methods[];

}  // namespace veltrane::decrement

namespace veltrane::decrement {
extern PyModuleDef module_def;
// The module state reached from the table type or any subclass of it.
ModuleState* state_from_type(PyTypeObject* type);
}  // namespace veltrane::decrement
