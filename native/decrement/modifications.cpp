// Modifications of a table's working decrement vector: modify_qx and its engine.
// Every call starts again from the base rates and applies the keys of its dictionary in
// order to a local copy; the table's fields are written only in the final commit, so a
// failed call leaves the table exactly as it was.
#include "decrement/arguments.hpp"
#include "decrement/combination.hpp"
#include "kernels/modify.hpp"
#include "kernels/rounding.hpp"

#include <cmath>
#include <limits>

namespace veltrane::decrement {
namespace {

// Rates above this after a multiplier are taken for a mistake, not for a heavy loading.
constexpr double kLargestMultipliedRate = 1e6;
constexpr double kLargestAggravation = 100.0;
constexpr double kLargestGeometricGrowth = 1e12;

[[noreturn]] void refuse(const std::string& message) { py::raise_str(PyExc_ValueError, message); }

// An int or a NumPy integer (never a bool), saturated to the long long range so that a huge
// value fails the caller's range check; nothing for any other object.
std::optional<long long> integer_value(PyObject* value) {
    if (!is_integer_object(value)) return std::nullopt;
    py::ref index = py::check(PyNumber_Index(value));
    int overflow = 0;
    const long long v = PyLong_AsLongLongAndOverflow(index.get(), &overflow);
    if (overflow != 0) return overflow > 0 ? std::numeric_limits<long long>::max() : std::numeric_limits<long long>::min();
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    return v;
}

// A single real number (never a bool); an int too large for a double counts as infinite.
std::optional<double> real_value(PyObject* value) {
    try {
        return numeric::scalar_value(value);
    } catch (const py::PyErrSet&) {
        if (!PyErr_ExceptionMatches(PyExc_OverflowError)) throw;
        PyErr_Clear();
        py::ref zero = py::check(PyLong_FromLong(0));
        const bool negative = py::require(PyObject_RichCompareBool(value, zero.get(), Py_LT)) == 1;
        return negative ? -HUGE_VAL : HUGE_VAL;
    }
}

// The working state of one modify_qx call.
struct Pass {
    std::vector<double> q;
    long long w = 0;
    std::size_t offset = 0;  // the sum of the age shifts so far: index 0 holds this age
    py::ref descriptors;     // a new list, committed at the end
    py::ref record;          // (key, value) pairs as applied, to rebuild the call elsewhere

    void describe(const std::string& text) {
        py::ref item = py::check(PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
        py::require(PyList_Append(descriptors.get(), item.get()));
    }
    long long last_index() const { return static_cast<long long>(q.size()) - 1; }
    // Values are kept as applied: vectors as private float64 copies, pairs as tuples, so a
    // caller's later change of what it passed cannot alter the record.
    void keep(const char* key, py::ref value) {
        py::ref pair = py::check(Py_BuildValue("(sO)", key, value.get()));
        py::require(PyList_Append(record.get(), pair.get()));
    }
};

// A step that reads the rates as probabilities (aggravated_risk, table_combination) takes a
// rate that an earlier step pushed above 1 as a certain decrement: 1 - (1 - q) ** f means
// nothing for it and a merge would refuse it. Only the value is capped here; the table keeps
// its length until the end of the pass, so later keys (an age_shift) see every age.
void cap_above_certainty(Pass& p) {
    if (kernels::max_value(p.q) > 1.0) kernels::cap_at_one(p.q);
}

// A multiplier per age: a list, a tuple or any array-like (NumPy array, pandas or Polars
// Series), converted as ages are; never a string or a NumPy scalar.
bool is_vector_argument(PyObject* value) {
    if (PyList_Check(value) || PyTuple_Check(value) || PyArray_Check(value)) return true;
    if (PyUnicode_Check(value) || PyBytes_Check(value) || PyByteArray_Check(value) || PyArray_IsAnyScalar(value)) {
        return false;
    }
    return PySequence_Check(value) || py::require(PyObject_HasAttrString(value, "__array__")) == 1;
}

void apply_age_shift(Pass& p, PyObject* value) {
    const std::optional<long long> n = integer_value(value);
    if (!n || *n < 0 || *n > p.last_index()) {
        refuse("age_shift must be an integer in [0, " + std::to_string(p.last_index()) + "]");
    }
    p.q.erase(p.q.begin(), p.q.begin() + static_cast<std::ptrdiff_t>(*n));
    p.w = p.last_index();
    p.offset += static_cast<std::size_t>(*n);
    p.describe("age_shift=" + std::to_string(*n));
    p.keep("age_shift", py::check(PyLong_FromLongLong(*n)));
}

void apply_multiplier(Pass& p, PyObject* value) {
    std::string descriptor;
    py::ref kept;
    if (is_vector_argument(value)) {
        py::ref m = numeric::as_f64(value, "decrement_multiplier");
        const std::span<const double> factors = py::f64_cspan(m.get());
        if (factors.size() != p.q.size()) {
            refuse("decrement_multiplier array length (" + std::to_string(factors.size()) +
                   ") must match rate array length (" + std::to_string(p.q.size()) + ")");
        }
        if (!kernels::all_finite(factors)) refuse("All decrement_multiplier values must be finite (no NaN/Inf)");
        if (!kernels::all_positive(factors)) refuse("All decrement_multiplier values must be positive");
        kernels::scale(p.q, factors);
        descriptor = "decrement_multiplier=<array[" + std::to_string(factors.size()) + "]>";
        kept = py::f64_from(factors);
    } else {
        const std::optional<double> m = real_value(value);
        // Infinity is a number greater than 0: the product reports it as non-finite below.
        if (!m || !(*m > 0.0)) refuse("decrement_multiplier must be a positive number or array");
        kernels::scale(p.q, *m);
        descriptor = "decrement_multiplier=" + format_of(value);
        kept = py::ref::borrow(value);
    }
    if (!kernels::all_finite(p.q)) refuse("decrement_multiplier produced non-finite values (NaN/Inf)");
    const double largest = kernels::max_value(p.q);
    if (largest > kLargestMultipliedRate) {
        refuse("decrement_multiplier produced unrealistically large rates (max=" + float_text(largest, 'e', 3) + ")");
    }
    p.describe(descriptor);
    p.keep("decrement_multiplier", std::move(kept));
}

void apply_geometric_increase(Pass& p, PyObject* value) {
    if (!(PyTuple_Check(value) || PyList_Check(value)) || PySequence_Fast_GET_SIZE(value) != 2) {
        refuse("decrement_geometric_increase must be a pair (c, start)");
    }
    // Held: a list could be changed by the conversions' Python code.
    py::ref c_obj = py::ref::borrow(PySequence_Fast_GET_ITEM(value, 0));
    py::ref start_obj = py::ref::borrow(PySequence_Fast_GET_ITEM(value, 1));
    const std::optional<double> c = real_value(c_obj.get());
    if (!c || !(*c >= -1.0 && *c <= 1.0)) refuse("decrement_geometric_increase first value must be a number in [-1.0, 1.0]");
    const std::optional<long long> start = integer_value(start_obj.get());
    if (!start || *start < 0 || *start > p.last_index()) {
        refuse("decrement_geometric_increase second value must be int in [0, " + std::to_string(p.last_index()) + "]");
    }
    // 1 + c keeps the kind of c: an integer c gives an integer base and an exact growth.
    const bool integral = is_integer_object(c_obj.get());
    const double base = 1.0 + *c;
    const std::string base_text = integral ? std::to_string(static_cast<long long>(base)) : float_text(base, 'r', 0);
    if (base <= 0.0) refuse("decrement_geometric_increase: invalid base (1+c)=" + base_text);
    const long long tail_len = p.last_index() - *start;
    bool too_large = false;
    std::string growth_text;
    if (integral) {
        py::ref b = py::check(PyLong_FromLongLong(static_cast<long long>(base)));
        py::ref e = py::check(PyLong_FromLongLong(tail_len));
        py::ref growth = py::check(PyNumber_Power(b.get(), e.get(), Py_None));
        py::ref limit = py::check(PyFloat_FromDouble(kLargestGeometricGrowth));
        too_large = py::require(PyObject_RichCompareBool(growth.get(), limit.get(), Py_GT)) == 1;
        if (too_large) growth_text = str_of(growth.get());
    } else {
        const double growth = std::pow(base, static_cast<double>(tail_len));
        too_large = !std::isfinite(growth) || growth > kLargestGeometricGrowth;
        if (too_large) growth_text = float_text(growth, 'r', 0);
    }
    if (too_large) {
        refuse("decrement_geometric_increase: geometric growth too large (base=" + base_text +
               ", tail_len=" + std::to_string(tail_len) + ", approx_growth=" + growth_text + ")");
    }
    kernels::geometric_increase(p.q, base, static_cast<std::size_t>(*start));
    p.describe("decrement_geometric_increase=(" + format_of(c_obj.get()) + ", " + format_of(start_obj.get()) + ")");
    p.keep("decrement_geometric_increase", py::check(PyTuple_Pack(2, c_obj.get(), start_obj.get())));
}

void apply_aggravated_risk(Pass& p, PyObject* value) {
    const std::optional<double> f = real_value(value);
    if (!f || !(*f > 0.0)) refuse("aggravated_risk must be a positive number");
    if (*f > kLargestAggravation) refuse("aggravated_risk factor is unrealistically large");
    kernels::aggravate(p.q, *f);
    p.describe("aggravated_risk=" + format_of(value));
    p.keep("aggravated_risk", py::ref::borrow(value));
}

// A private dict of the modifications: iteration then cannot be disturbed by Python code
// that the conversions run.
py::ref modification_dict(PyObject* modifications) {
    if (PyDict_Check(modifications)) return py::check(PyDict_Copy(modifications));
    if (!PyList_Check(modifications) && !PyTuple_Check(modifications) &&
        py::require(PyObject_HasAttrString(modifications, "keys")) == 1) {
        py::ref copy = py::check(PyDict_New());
        py::require(PyDict_Merge(copy.get(), modifications, 1));
        return copy;
    }
    py::raise(PyExc_TypeError, "modifications must be a dict, got %U", type_name_of(modifications).get());
}

void modify_decrement(PyObject* self, PyObject* modifications) {
    TableObject* t = as_table(self);
    ensure_ready(t, "");
    if (t->decrement_base.is_none()) {
        py::ref name = table_name(t);
        py::raise(PyExc_ValueError, "Table '%S' has no decrement rates.", name.get());
    }
    Pass p;
    const std::span<const double> base = py::f64_cspan(t->decrement_base.get());
    p.q.assign(base.begin(), base.end());
    p.w = source_w(t);
    p.descriptors = py::check(PyList_New(0));
    p.record = py::check(PyList_New(0));

    py::ref mods = modification_dict(modifications);
    const CombinationMode mode = parse_combination_mode(mods.get());
    py::ref items = py::check(PyDict_Items(mods.get()));
    // What a combination merged; a later step changes the total, and then the split is dropped.
    std::optional<CauseInputs> causes;
    for (Py_ssize_t k = 0; k < PyList_GET_SIZE(items.get()); ++k) {
        PyObject* item = PyList_GET_ITEM(items.get(), k);
        PyObject* key = PyTuple_GET_ITEM(item, 0);
        PyObject* value = PyTuple_GET_ITEM(item, 1);
        if (str_equals(key, "combination_mode")) {
            p.keep("combination_mode", py::ref::borrow(value));
            continue;
        }
        causes.reset();
        if (str_equals(key, "age_shift")) {
            apply_age_shift(p, value);
        } else if (str_equals(key, "decrement_multiplier")) {
            apply_multiplier(p, value);
        } else if (str_equals(key, "decrement_geometric_increase")) {
            apply_geometric_increase(p, value);
        } else if (str_equals(key, "aggravated_risk")) {
            cap_above_certainty(p);
            apply_aggravated_risk(p, value);
        } else if (str_equals(key, "table_combination")) {
            cap_above_certainty(p);
            causes.emplace();
            combine_tables(self, value, p.q, p.w, p.offset, mode, p.descriptors.get(), &*causes);
            // The other tables as they are now: a later change of them does not reach these rates.
            p.keep("table_combination", call_pickling("_combination_record", value));
            continue;
        } else {
            refuse("Unknown modification key: '" + str_of(key) + "'");
        }
    }

    if (!kernels::all_finite(p.q)) refuse("_modify_decrement: non-finite values (NaN/Inf) in final decrement array");
    // Multipliers may leave rates above 1 (up to the sanity limit): they are certain decrements.
    kernels::clip_unit(p.q);
    if (std::optional<CertaintyCut> cut = truncate_at_certainty(p.q, p.w, p.offset)) {
        p.describe("omega_truncated_by_certainty: " + cut->detail);
        p.w = cut->new_w;
        py::warn(PyExc_UserWarning,
                 "modify_* truncated omega from " + std::to_string(cut->old_w) + " to " + std::to_string(cut->new_w) +
                     " (decrement reaches 1 at " + cut->where +
                     "). Call summary() for details; see user guide 'Truncation at certainty' (modifying_decrements).",
                 1);
    }

    // Everything that can fail is done before the first field is written.
    const int decimals = decimals_for_decrement(t);
    py::ref rounded = py::f64_from(p.q);
    kernels::round_in_place(py::f64_span(rounded.get()), decimals);
    py::ref w_obj = py::check(PyLong_FromLongLong(p.w));
    py::ref split = causes ? cause_split_of(rounded.get(), *causes) : py::ref();
    py::ref applied = py::check(PyList_AsTuple(p.record.get()));
    py::ref record = py::check(Py_BuildValue("(OOi)", rounded.get(), applied.get(), decimals));

    t->modifications_applied = std::move(p.descriptors);
    t->cause_split = std::move(split);
    t->modification_record = std::move(record);
    t->decrement = std::move(rounded);
    t->modified = true;
    invalidate_caches(t);
    t->w_mod = std::move(w_obj);
}

PyObject* Table_modify_qx(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        auto a = parse_arguments<1>("modify_qx", {"modifications"}, 1, args, nargs, kwnames);
        modify_decrement(self, a.values[0]);
        Py_RETURN_NONE;
    });
}

PyObject* Table_modify_decrement(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        auto a = parse_arguments<1>("_modify_decrement", {"modifications"}, 1, args, nargs, kwnames);
        modify_decrement(self, a.values[0]);
        Py_RETURN_NONE;
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyMethodDef modification_methods[] = {
    {"modify_qx", FASTCALL_KW(Table_modify_qx), METH_FASTCALL | METH_KEYWORDS,
     "modify_qx($self, /, modifications)\n--\n\n"
     "Adjust the rates in use, starting again from the base rates.\n\n"
     "Parameters\n----------\n"
     "modifications : dict\n"
     "    Keys applied in their order: ``age_shift``, ``decrement_multiplier``,\n"
     "    ``decrement_geometric_increase``, ``aggravated_risk``, ``table_combination`` (with\n"
     "    ``combination_mode``); see ``ModifyDecrement``. A second call replaces the first.\n\n"
     "A vector multiplier may be a list, a tuple, an array or a pandas or Polars Series of the\n"
     "rates' length.\n\n"
     "Rates are clipped to [0, 1] at the end; where a rate reaches 1 before live rates, the\n"
     "table ends there (``w`` is lowered, a UserWarning reports it and the descriptor\n"
     "``omega_truncated_by_certainty`` comes last). Rates that a step pushed above 1 (a\n"
     "multiplier, a geometric increase) are capped at 1 before ``aggravated_risk`` or\n"
     "``table_combination`` reads them as probabilities; the table keeps its length until the\n"
     "end. A combination that cuts the table warns on its own. ``reset_modifications()`` undoes\n"
     "it all."},
    {"_modify_decrement", FASTCALL_KW(Table_modify_decrement), METH_FASTCALL | METH_KEYWORDS,
     "_modify_decrement($self, /, modifications)\n--\n\nApply a modification dict to the base rates (see modify_qx)."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
