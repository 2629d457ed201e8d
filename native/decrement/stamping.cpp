// Further cohorts of a many-table call, stamped from an instance that __init__ built: the
// instance's fields and Python-level slots are copied, the cohort is validated and set, and
// the rates are built for it. This is what __init__ would do with the same arguments and
// another cohort, without its per-instance checks of the table file, which have all passed
// for the prototype. Used only while every __init__ of the class is the one it was defined
// with, in a class that declares it builds the table from its arguments alone
// (`_INIT_BUILDS_FROM_ARGUMENTS` in the class that defines it).
#include "decrement/stamping.hpp"

#include "decrement/projection.hpp"
#include "decrement/table.hpp"

#include <structmember.h>

namespace veltrane::decrement {
namespace {

#if PY_VERSION_HEX >= 0x030C0000
constexpr int kObjectSlot = Py_T_OBJECT_EX;
#else
constexpr int kObjectSlot = T_OBJECT_EX;
#endif

// True while every __init__ that constructing `type` runs above the C base is the function
// its class was defined with, in a class that declares it builds the table from its
// arguments alone. A replaced __init__ (a patch, a decorator applied later) is not marked,
// and runs for every instance, as does the __init__ of a class that declares nothing.
bool init_is_stampable(PyTypeObject* type, ModuleState* st) {
    PyObject* mro = type->tp_mro;
    if (mro == nullptr) return false;
    py::ref init_name = py::check(PyUnicode_InternFromString("__init__"));
    py::ref marker = py::check(PyUnicode_InternFromString(kInitMarker));
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro); ++i) {
        auto* cls = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro, i));
        if (cls == st->core_type) return true;
        PyObject* dict = cls->tp_dict;
        if (dict == nullptr) continue;
        PyObject* init = PyDict_GetItemWithError(dict, init_name.get());
        if (init == nullptr) {
            if (PyErr_Occurred()) py::throw_error_set();
            continue;
        }
        if (PyDict_GetItemString(dict, "_INIT_BUILDS_FROM_ARGUMENTS") != Py_True || !PyFunction_Check(init)) return false;
        py::ref held = py::ref::borrow(init);
        py::ref attributes = py::check(PyObject_GenericGetDict(init, nullptr));
        PyObject* original = PyDict_GetItemWithError(attributes.get(), marker.get());
        if (original == nullptr && PyErr_Occurred()) py::throw_error_set();
        if (original != init) return false;
    }
    return false;
}

// Offsets of the object slots that Python classes of the MRO add after the table's fields.
std::vector<Py_ssize_t> python_slots(PyTypeObject* type, ModuleState* st) {
    std::vector<Py_ssize_t> offsets;
    PyObject* mro = type->tp_mro;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(mro); ++i) {
        auto* cls = reinterpret_cast<PyTypeObject*>(PyTuple_GET_ITEM(mro, i));
        if (cls == st->core_type || !(cls->tp_flags & Py_TPFLAGS_HEAPTYPE) || cls->tp_dict == nullptr) continue;
        Py_ssize_t pos = 0;
        PyObject* key = nullptr;
        PyObject* value = nullptr;
        while (PyDict_Next(cls->tp_dict, &pos, &key, &value)) {
            if (Py_TYPE(value) != &PyMemberDescr_Type) continue;
            const PyMemberDef* member = reinterpret_cast<PyMemberDescrObject*>(value)->d_member;
            if (member->type == kObjectSlot && member->offset >= static_cast<Py_ssize_t>(sizeof(TableObject))) {
                offsets.push_back(member->offset);
            }
        }
    }
    return offsets;
}

PyObject*& slot_at(PyObject* o, Py_ssize_t offset) {
    return *reinterpret_cast<PyObject**>(reinterpret_cast<char*>(o) + offset);
}

}  // namespace

std::optional<CohortStamper> CohortStamper::from(PyTypeObject* type, PyObject* prototype) {
    TableObject* p = as_table(prototype);
    ModuleState* st = p->st;
    if (!st->fast_paths || !p->initialized || !p->table || p->metadata_pending || p->modified ||
        p->table_is_private_copy || !p->unisex_blend.is_none() || p->cohort.is_none() || !init_is_stampable(type, st)) {
        return std::nullopt;
    }
    // Anything in an instance dict was put there by code this copy would not repeat.
    if (type->tp_dictoffset != 0) {
        py::ref dict = py::check(PyObject_GenericGetDict(prototype, nullptr));
        if (PyDict_GET_SIZE(dict.get()) != 0) return std::nullopt;
    }
    CohortStamper s;
    s.type_ = type;
    s.prototype_ = py::ref::borrow(prototype);
    s.slots_ = python_slots(type, st);
    s.recipe_ = std::make_unique<TrendRecipe>(trend_recipe(p));
    s.years_ = py::check(PyDict_New());
    s.rates_ = py::check(PyDict_New());
    return s;
}

py::ref CohortStamper::stamp(PyObject* cohort) {
    TableObject* p = as_table(prototype_.get());
    ModuleState* st = p->st;
    // A cohort repeated within the call is validated once.
    py::ref year = py::ref::borrow(PyDict_GetItemWithError(years_.get(), cohort));
    if (!year) {
        if (PyErr_Occurred()) py::throw_error_set();
        year = validate_cohort_year(p, cohort, &current_year_);
        py::require(PyDict_SetItem(years_.get(), cohort, year.get()));
    }
    py::ref instance = py::ref::steal(table_alloc(type_, st));
    TableObject* t = as_table(instance.get());
    py::ref id = py::check(PyIter_Next(st->instance_counter));
    t->instance_id = PyLong_AsLongLong(id.get());
    if (t->instance_id == -1 && PyErr_Occurred()) py::throw_error_set();
    t->table = p->table.dup();
    t->sex = p->sex.dup();
    t->cohort = std::move(year);
    t->duration = p->duration.dup();
    t->select_duration_set = p->select_duration_set;
    t->modifications_applied = py::check(PyList_New(0));
    t->decimals_config = p->decimals_config.dup();
    t->rebuilds_since_calc = p->rebuilds_since_calc;
    for (Py_ssize_t offset : slots_) slot_at(instance.get(), offset) = Py_XNewRef(slot_at(prototype_.get(), offset));

    // Rates depend on nothing else that differs between stamped instances: a cohort that
    // comes again in the call copies the rates made for it the first time.
    py::ref base;
    if (PyObject* known = PyDict_GetItemWithError(rates_.get(), t->cohort.get())) {
        base = py::f64_from(py::f64_cspan(known));
    } else {
        if (PyErr_Occurred()) py::throw_error_set();
        if (recipe_->usable) {
            const long long c = PyLong_AsLongLong(t->cohort.get());
            if (c == -1 && PyErr_Occurred()) py::throw_error_set();
            base = project_recipe(*recipe_, c);
        }
        if (!base) base = compute_decrement(t);  // other structures, and inputs the formula refuses
        py::require(PyDict_SetItem(rates_.get(), t->cohort.get(), base.get()));
    }
    t->decrement = py::f64_from(py::f64_cspan(base.get()));
    t->decrement_base = std::move(base);
    t->w_mod = p->w_mod.dup();
    t->initialized = true;
    return instance;
}

CohortStamper::CohortStamper() = default;
CohortStamper::CohortStamper(CohortStamper&&) noexcept = default;
CohortStamper& CohortStamper::operator=(CohortStamper&&) noexcept = default;
CohortStamper::~CohortStamper() = default;

}  // namespace veltrane::decrement
