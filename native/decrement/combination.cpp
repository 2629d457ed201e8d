// Competing decrements from other tables merged into a host table's rates: the checks on
// the other tables, their alignment by calendar age, the independent and UDD merges, and
// the module-level helpers that expose each step on float64 vectors.
// Nothing here writes into a table: the host's working vector is a local copy until
// modify_qx commits it, and the other tables are only read.
#include "decrement/combination.hpp"

#include "decrement/arguments.hpp"
#include "kernels/modify.hpp"
#include "pyutil/module_functions.hpp"

#include <memory>

namespace veltrane::decrement {

// ---- text ------------------------------------------------------------------------------------

std::string str_of(PyObject* obj) {
    py::ref text = py::check(PyObject_Str(obj));
    return utf8(text.get());
}

std::string format_of(PyObject* obj) {
    py::ref empty = py::check(PyUnicode_FromStringAndSize(nullptr, 0));
    py::ref text = py::check(PyObject_Format(obj, empty.get()));
    return utf8(text.get());
}

std::string float_text(double v, char code, int precision) {
    struct Free {
        void operator()(char* p) const noexcept { PyMem_Free(p); }
    };
    std::unique_ptr<char, Free> text(
        PyOS_double_to_string(v, code, code == 'r' ? 0 : precision, code == 'r' ? Py_DTSF_ADD_DOT_0 : 0, nullptr));
    if (!text) py::throw_error_set();
    return text.get();
}

std::string where_age(std::size_t i, std::size_t offset) {
    if (offset == 0) return "age " + std::to_string(i);
    return "index " + std::to_string(i) + " (calendar age " + std::to_string(offset + i) +
           " after age_shift=" + std::to_string(offset) + ")";
}

std::string where_index(std::size_t i, std::size_t offset) {
    if (offset == 0) return "index " + std::to_string(i) + " (age " + std::to_string(i) + ")";
    return where_age(i, offset);
}

// ---- truncation at certainty ----------------------------------------------------------------

std::optional<CertaintyCut> truncate_at_certainty(std::vector<double>& q, long long w, std::size_t offset) {
    kernels::cap_at_one(q);
    const std::optional<std::size_t> cut = kernels::certainty_cut(q, kQCertaintyTol);
    if (!cut || static_cast<long long>(*cut) >= w) return std::nullopt;
    q.resize(*cut + 1);
    CertaintyCut out;
    out.old_w = w;
    out.new_w = static_cast<long long>(*cut);
    out.where = where_age(*cut, offset);
    out.detail = std::to_string(w) + "->" + std::to_string(*cut) + " at " + out.where;
    return out;
}

// ---- combination mode -------------------------------------------------------------------------

CombinationMode parse_combination_mode(PyObject* modifications) {
    CombinationMode out;
    py::ref key = py::check(PyUnicode_FromString("combination_mode"));
    if (py::require(PySequence_Contains(modifications, key.get())) == 0) {
        out.mode = py::check(PyUnicode_FromString("independent"));
        return out;
    }
    py::ref mode = py::check(PyObject_GetItem(modifications, key.get()));
    if (!PyUnicode_Check(mode.get())) {
        py::raise(PyExc_ValueError, "combination_mode must be the string 'independent' or 'udd'");
    }
    const bool udd = str_equals(mode.get(), "udd");
    if (!udd && !str_equals(mode.get(), "independent")) {
        py::raise_str(PyExc_ValueError, "Unknown combination_mode " + utf8(py::check(PyObject_Repr(mode.get())).get()) +
                                            "; allowed values are 'independent' and 'udd'");
    }
    py::ref combination = py::check(PyUnicode_FromString("table_combination"));
    if (py::require(PySequence_Contains(modifications, combination.get())) == 0) {
        py::raise(PyExc_ValueError, "combination_mode requires table_combination in the same modification dict");
    }
    out.mode = std::move(mode);
    out.explicit_mode = true;
    out.udd = udd;
    return out;
}

namespace {

// ---- checks ----------------------------------------------------------------------------------

constexpr double kTol = kQCertaintyTol;

[[noreturn]] void raise_text(const std::string& message) { py::raise_str(PyExc_ValueError, message); }

void check_rates_in_range(std::span<const double> q, const std::string& label, std::size_t offset) {
    if (std::optional<std::size_t> i = kernels::first_outside(q, -kTol, 1.0 + kTol)) {
        raise_text("table_combination: " + label + " decrement rate outside [0, 1] at " + where_index(*i, offset) +
                   " (q=" + float_text(q[*i], 'g', 6) + ").");
    }
}

[[noreturn]] void raise_udd_causes(std::size_t k) {
    raise_text("combination_mode='udd' is limited to 2 or 3 causes (host plus 1 or 2 other tables); got " +
               std::to_string(k + 1) + " causes with " + std::to_string(k) + " other table(s).");
}

// The merge of the host's rates with the others' (each indexed by age from 0) into `out`.
void merge(std::span<const double> host, std::span<const std::span<const double>> others, std::size_t offset,
           bool udd, std::span<double> out) {
    if (!udd) {
        kernels::combine_independent(host, others, offset, out);
    } else if (others.size() == 1) {
        kernels::combine_udd2(host, others[0], offset, out);
    } else if (others.size() == 2) {
        kernels::combine_udd3(host, others[0], others[1], offset, out);
    } else {
        raise_udd_causes(others.size());
    }
}

py::ref attr(PyObject* obj, const char* name) { return py::check(PyObject_GetAttrString(obj, name)); }

bool differ(PyObject* a, PyObject* b) { return py::require(PyObject_RichCompareBool(a, b, Py_NE)) == 1; }

long long as_long_long(PyObject* value) {
    py::ref index = py::check(PyNumber_Index(value));
    const long long v = PyLong_AsLongLong(index.get());
    if (v == -1 && PyErr_Occurred()) py::throw_error_set();
    return v;
}

// The source's start age (ages below it hold no decrement); 0 when the source gives none.
long long start_age_of(TableObject* t) {
    py::ref start = source_attr(t, py::check(PyUnicode_InternFromString("start_age")).get());
    return start.is_none() ? 0 : as_long_long(start.get());
}

bool is_table(PyObject* obj, ModuleState* st) { return PyObject_TypeCheck(obj, st->core_type) != 0; }

// Step 2: what may be combined with what, checked for one other table.
void check_pairing(PyObject* self, PyObject* other, PyObject* valid, PyObject* host_type,
                   std::vector<long long>& seen) {
    TableObject* host = as_table(self);
    if (!is_table(other, host->st)) {
        raise_text("table_combination: expected DecrementTable, got " + utf8(type_name_of(other).get()));
    }
    if (other == self) raise_text("table_combination: cannot combine a table with itself.");
    TableObject* o = as_table(other);
    for (long long id : seen) {
        if (id == o->instance_id) raise_text("table_combination: duplicate table instance in the others list.");
    }
    seen.push_back(o->instance_id);
    py::ref other_type = attr(other, "table_type");
    if (valid == nullptr || py::require(PySequence_Contains(valid, other_type.get())) == 0) {
        raise_text("Cannot combine '" + str_of(host_type) + "' with '" + str_of(other_type.get()) + "'");
    }
    // Held: a comparison may run Python code that replaces the fields.
    py::ref s_host = py::ref::borrow(host->sex.or_none()), s_other = py::ref::borrow(o->sex.or_none());
    if (differ(s_host.get(), s_other.get())) {
        raise_text("Cannot combine tables with different sexes: self.sex=" + str_of(s_host.get()) +
                   ", other.sex=" + str_of(s_other.get()));
    }
    py::ref c_host = py::ref::borrow(host->cohort.or_none()), c_other = py::ref::borrow(o->cohort.or_none());
    if (!c_host.is_none() && !c_other.is_none() && differ(c_host.get(), c_other.get())) {
        raise_text("Cannot combine tables with different cohorts: self.cohort=" + str_of(c_host.get()) +
                   ", other.cohort=" + str_of(c_other.get()));
    }
    py::ref d_host = attr(self, "duration");
    py::ref d_other = attr(other, "duration");
    if (!d_host.is_none() && !d_other.is_none() && !str_equals(d_host.get(), "ult") &&
        !str_equals(d_other.get(), "ult") && differ(d_host.get(), d_other.get())) {
        raise_text("Cannot combine tables with different durations: self.duration=" + str_of(d_host.get()) +
                   ", other.duration=" + str_of(d_other.get()));
    }
    const Names& n = host->st->names;
    if (source_flag(host, n.generational.get()) && source_flag(o, n.generational.get())) {
        py::ref y_host = source_attr(host, n.base_year.get());
        py::ref y_other = source_attr(o, n.base_year.get());
        if (differ(y_host.or_none(), y_other.or_none())) {
            py::warn(PyExc_UserWarning,
                     "table_combination: combining generational tables with different base_year (host=" +
                         str_of(y_host.or_none()) + ", other=" + str_of(y_other.or_none()) +
                         "). Each table applies its own cohort projection before the merge.",
                     1);
        }
    }
    // A copy keeps the instance id of its table. Merging it is allowed (doubling a decrement on
    // purpose is a valid stress), but it is more often a slip: say so.
    if (o->instance_id == host->instance_id) {
        py::warn(PyExc_UserWarning,
                 "table_combination: the " + utf8(type_name_of(other).get()) +
                     " combined is a copy of the table being modified; the same decrement counts twice.",
                 1);
    }
}

// Step 4: the other table's own state must allow alignment by age index. Returns its rates,
// held, so that Python code run meanwhile (source properties) cannot free them under us.
py::ref check_other_rates(TableObject* o, const std::string& name) {
    if (!o->modifications_applied.is_none() && PyList_Check(o->modifications_applied.get())) {
        py::ref applied = py::check(PySequence_Tuple(o->modifications_applied.get()));
        for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(applied.get()); ++k) {
            PyObject* d = PyTuple_GET_ITEM(applied.get(), k);
            if (PyUnicode_Check(d) && utf8(d).starts_with("age_shift=")) {
                raise_text("table_combination: " + name +
                           " was shortened by a prior age_shift modification. Apply age_shift on the table you "
                           "are modifying (e.g. LifeTable.modify_qx), not on the other table. To align by "
                           "calendar age, use {'age_shift': n, 'table_combination': other} on the table you are "
                           "modifying.");
            }
        }
    }
    py::ref rates = o->decrement.dup();
    py::ref base = o->decrement_base.dup();
    if (rates.is_none() || base.is_none()) {
        raise_text("table_combination: " + name + " has no decrement rates yet (its metadata is pending). "
                   "Complete it with configure() before combining.");
    }
    const npy_intp len_decrement = py::f64_size(rates.get());
    const npy_intp len_base = py::f64_size(base.get());
    if (len_decrement != len_base) {
        raise_text("table_combination: " + name + " decrement array length (" + std::to_string(len_decrement) +
                   ") does not match its base length (" + std::to_string(len_base) +
                   "). Truncated or corrupt tables cannot be combined.");
    }
    const long long start = start_age_of(o);
    if (start > 0 && kernels::first_above(py::f64_cspan(rates.get()), kTol, static_cast<std::size_t>(start))) {
        raise_text("table_combination: " + name + " has positive decrement below start_age=" +
                   std::to_string(start) + ". Cannot align by age index.");
    }
    return rates;
}

}  // namespace

void combine_tables(PyObject* self, PyObject* value, std::vector<double>& q, long long& w, std::size_t offset,
                    const CombinationMode& mode, PyObject* descriptors, CauseInputs* causes) {
    TableObject* host = as_table(self);
    ModuleState* st = host->st;
    // 1. One table or a non-empty list or tuple of them, held for the whole step.
    py::ref others;
    if (is_table(value, st)) {
        others = py::check(PyTuple_Pack(1, value));
    } else if (PyList_Check(value) || PyTuple_Check(value)) {
        others = py::check(PySequence_Tuple(value));
        if (PyTuple_GET_SIZE(others.get()) == 0) raise_text("table_combination: sequence must not be empty");
    } else {
        raise_text("table_combination must be a DecrementTable, list, or tuple; got " +
                   utf8(type_name_of(value).get()));
    }
    const Py_ssize_t count = PyTuple_GET_SIZE(others.get());

    // 2. Pairing rules, table by table.
    py::ref host_type = attr(self, "table_type");
    py::ref combinations = attr(self, "_VALID_TABLE_COMBINATIONS");
    py::ref valid = py::ref::steal(PyObject_GetItem(combinations.get(), host_type.get()));
    if (!valid) {
        if (!PyErr_ExceptionMatches(PyExc_KeyError)) py::throw_error_set();
        PyErr_Clear();  // a kind that accepts nothing
    }
    std::vector<long long> seen;
    for (Py_ssize_t k = 0; k < count; ++k) {
        check_pairing(self, PyTuple_GET_ITEM(others.get(), k), valid.get(), host_type.get(), seen);
    }

    // 3. The host's working vector.
    if (q.empty()) raise_text("table_combination: host decrement array is empty; cannot combine.");
    const long long host_start = start_age_of(host);
    if (host_start > static_cast<long long>(offset)) {
        const auto below = static_cast<std::size_t>(host_start - static_cast<long long>(offset));
        if (std::optional<std::size_t> i = kernels::first_above(q, kTol, below)) {
            raise_text("table_combination: host has positive decrement below start_age=" +
                       std::to_string(host_start) + " at " + where_age(*i, offset) +
                       ". Cannot align by age index.");
        }
    }

    // 4. The other tables' own rates; their vectors are held until the merge is done.
    std::vector<std::string> names;
    std::vector<py::ref> held;
    std::vector<std::span<const double>> rates;
    for (Py_ssize_t k = 0; k < count; ++k) {
        PyObject* other = PyTuple_GET_ITEM(others.get(), k);
        names.push_back(utf8(type_name_of(other).get()));
        held.push_back(check_other_rates(as_table(other), names.back()));
    }

    // 5. Every rate must be a probability (within the tolerance).
    check_rates_in_range(q, "host", offset);
    for (const py::ref& r : held) rates.push_back(py::f64_cspan(r.get()));
    for (std::size_t k = 0; k < rates.size(); ++k) check_rates_in_range(rates[k], names[k], 0);

    if (causes != nullptr) {
        causes->udd = mode.udd;
        causes->labels.push_back(table_name(host));
        causes->rates.emplace_back(q.begin(), q.end());
        for (Py_ssize_t k = 0; k < count; ++k) {
            causes->labels.push_back(table_name(as_table(PyTuple_GET_ITEM(others.get(), k))));
            std::vector<double> aligned(q.size());
            kernels::align_by_age(rates[static_cast<std::size_t>(k)], offset, aligned);
            causes->rates.push_back(std::move(aligned));
        }
    }

    // 6-7. Merge, then the total must still be a probability.
    merge(q, rates, offset, mode.udd, q);
    if (std::optional<std::size_t> i = kernels::first_above(q, 1.0 + kTol, q.size())) {
        raise_text("table_combination: combined decrement probability exceeds 1.0 at " + where_age(*i, offset) +
                   " (q_combined=" + float_text(q[*i], 'g', 6) + "). Check that competing risks are valid at each age.");
    }

    // 8. Certainty reached by the combined rate ends the table there.
    std::optional<CertaintyCut> cut = truncate_at_certainty(q, w, offset);

    // 9. Descriptors.
    std::string joined;
    for (std::size_t k = 0; k < names.size(); ++k) joined += (k ? ", " : "") + names[k];
    py::ref text = py::check(PyUnicode_FromString(("table_combination=(" + joined + ")").c_str()));
    py::require(PyList_Append(descriptors, text.get()));
    if (mode.explicit_mode) {
        text = py::check(PyUnicode_FromFormat("combination_mode=%U", mode.mode.get()));
        py::require(PyList_Append(descriptors, text.get()));
    }
    if (cut) {
        text = py::check(PyUnicode_FromString(("omega_truncated_by_combination: " + cut->detail).c_str()));
        py::require(PyList_Append(descriptors, text.get()));
        py::warn(PyExc_UserWarning,
                 "table_combination reduced omega from " + std::to_string(cut->old_w) + " to " +
                     std::to_string(cut->new_w) + " (combined decrement reaches 1 at " + cut->where +
                     "). Call summary() for details; see user guide 'Truncation at certainty' "
                     "(modifying_decrements).",
                 1);
        w = cut->new_w;
    }
}

// ---- module helpers ----------------------------------------------------------------------------

namespace {

// A non-negative integer argument (an int or a NumPy integer, never a bool).
std::size_t count_arg(PyObject* value, const char* name) {
    if (value == nullptr) return 0;
    if (PyBool_Check(value) || !(PyLong_Check(value) || PyArray_IsScalar(value, Integer))) {
        py::raise(PyExc_TypeError, "%s must be an integer, got %U", name, type_name_of(value).get());
    }
    py::ref index = py::check(PyNumber_Index(value));
    const Py_ssize_t n = PyLong_AsSsize_t(index.get());
    if (n == -1 && PyErr_Occurred()) py::throw_error_set();
    if (n < 0) py::raise(PyExc_ValueError, "%s must be a non-negative integer, got %R", name, value);
    return static_cast<std::size_t>(n);
}

std::vector<double> vector_arg(PyObject* value) {
    py::ref array = numeric::as_f64(value);
    std::span<const double> s = py::f64_cspan(array.get());
    return {s.begin(), s.end()};
}

// The vectors of a sequence of vectors, held by `held`.
std::vector<std::span<const double>> vectors_arg(PyObject* value, std::vector<py::ref>& held) {
    // A private tuple: converting one vector may run Python code that changes a caller's list.
    py::ref items = py::check(PySequence_Tuple(value));
    std::vector<std::span<const double>> out;
    for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(items.get()); ++k) {
        held.push_back(numeric::as_f64(PyTuple_GET_ITEM(items.get(), k)));
        out.push_back(py::f64_cspan(held.back().get()));
    }
    return out;
}

PyObject* align_other(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        auto a = parse_arguments<3>("_align_other_by_calendar_age", {"other_q", "n", "age_offset"}, 2, args, nargs,
                                    kwnames);
        py::ref other = numeric::as_f64(a.values[0]);
        const std::size_t n = count_arg(a.values[1], "n");
        const std::size_t offset = count_arg(a.values[2], "age_offset");
        py::ref out = py::new_f64(static_cast<npy_intp>(n));
        kernels::align_by_age(py::f64_cspan(other.get()), offset, py::f64_span(out.get()));
        return out.release();
    });
}

PyObject* raise_out_of_range(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        auto a = parse_arguments<3>("_raise_table_combination_rate_out_of_range", {"q", "label", "age_offset"}, 2,
                                    args, nargs, kwnames);
        py::ref q = numeric::as_f64(a.values[0]);
        const std::string label = str_of(a.values[1]);
        check_rates_in_range(py::f64_cspan(q.get()), label, count_arg(a.values[2], "age_offset"));
        Py_RETURN_NONE;
    });
}

PyObject* truncate(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        auto a = parse_arguments<3>("_truncate_decrement_at_certainty", {"q", "w", "age_offset"}, 2, args, nargs,
                                    kwnames);
        std::vector<double> q = vector_arg(a.values[0]);
        PyObject* w = a.values[1];
        if (PyBool_Check(w)) py::raise(PyExc_TypeError, "w must be an integer, got bool");
        const long long w_value = as_long_long(w);
        const std::size_t offset = count_arg(a.values[2], "age_offset");
        std::optional<CertaintyCut> cut = truncate_at_certainty(q, w_value, offset);
        py::ref vector = py::f64_from(q);
        if (!cut) return py::check(PyTuple_Pack(4, vector.get(), w, Py_None, Py_None)).release();
        py::ref new_w = py::check(PyLong_FromLongLong(cut->new_w));
        py::ref detail = py::check(PyUnicode_FromString(cut->detail.c_str()));
        return py::check(PyTuple_Pack(4, vector.get(), new_w.get(), w, detail.get())).release();
    });
}

PyObject* combine_independent(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        auto a = parse_arguments<3>("_combine_decrements_independent", {"q_host", "others", "age_offset"}, 2, args,
                                    nargs, kwnames);
        py::ref host = numeric::as_f64(a.values[0]);
        std::vector<py::ref> held;
        std::vector<std::span<const double>> others = vectors_arg(a.values[1], held);
        const std::size_t offset = count_arg(a.values[2], "age_offset");
        py::ref out = py::new_f64(py::f64_size(host.get()));
        kernels::combine_independent(py::f64_cspan(host.get()), others, offset, py::f64_span(out.get()));
        return out.release();
    });
}

PyObject* combine_udd2(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        auto a = parse_arguments<3>("_combine_decrements_udd2", {"q1", "other", "age_offset"}, 2, args, nargs,
                                    kwnames);
        py::ref q1 = numeric::as_f64(a.values[0]);
        py::ref other = numeric::as_f64(a.values[1]);
        const std::size_t offset = count_arg(a.values[2], "age_offset");
        py::ref out = py::new_f64(py::f64_size(q1.get()));
        kernels::combine_udd2(py::f64_cspan(q1.get()), py::f64_cspan(other.get()), offset, py::f64_span(out.get()));
        return out.release();
    });
}

PyObject* combine_udd3(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        auto a = parse_arguments<4>("_combine_decrements_udd3", {"q1", "other_a", "other_b", "age_offset"}, 3, args,
                                    nargs, kwnames);
        py::ref q1 = numeric::as_f64(a.values[0]);
        py::ref other_a = numeric::as_f64(a.values[1]);
        py::ref other_b = numeric::as_f64(a.values[2]);
        const std::size_t offset = count_arg(a.values[3], "age_offset");
        py::ref out = py::new_f64(py::f64_size(q1.get()));
        kernels::combine_udd3(py::f64_cspan(q1.get()), py::f64_cspan(other_a.get()), py::f64_cspan(other_b.get()),
                              offset, py::f64_span(out.get()));
        return out.release();
    });
}

PyObject* combine_udd(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        auto a = parse_arguments<3>("_combine_decrements_udd", {"q_host", "others", "age_offset"}, 2, args, nargs,
                                    kwnames);
        py::ref host = numeric::as_f64(a.values[0]);
        std::vector<py::ref> held;
        std::vector<std::span<const double>> others = vectors_arg(a.values[1], held);
        const std::size_t offset = count_arg(a.values[2], "age_offset");
        py::ref out = py::new_f64(py::f64_size(host.get()));
        merge(py::f64_cspan(host.get()), others, offset, true, py::f64_span(out.get()));
        return out.release();
    });
}

PyObject* parse_mode(PyObject*, PyObject* modifications) {
    return py::guard([&] {
        CombinationMode mode = parse_combination_mode(modifications);
        return py::check(PyTuple_Pack(2, mode.mode.get(), mode.explicit_mode ? Py_True : Py_False)).release();
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef helper_defs[] = {
    {"_align_other_by_calendar_age", FASTCALL_KW(align_other), METH_FASTCALL | METH_KEYWORDS,
     "_align_other_by_calendar_age(other_q, n, age_offset=0)\n--\n\n"
     "A float64 vector of length n whose element i is other_q[age_offset + i], or 0 beyond other_q's end."},
    {"_raise_table_combination_rate_out_of_range", FASTCALL_KW(raise_out_of_range), METH_FASTCALL | METH_KEYWORDS,
     "_raise_table_combination_rate_out_of_range(q, label, age_offset=0)\n--\n\n"
     "Raise ValueError naming the first rate of q outside [0, 1] (within the certainty tolerance)."},
    {"_truncate_decrement_at_certainty", FASTCALL_KW(truncate), METH_FASTCALL | METH_KEYWORDS,
     "_truncate_decrement_at_certainty(q, w, age_offset=0)\n--\n\n"
     "(q, w, old_w, detail): q capped at 1 and cut after the first certain rate when live rates follow;\n"
     "old_w and detail are None when nothing was cut."},
    {"_combine_decrements_independent", FASTCALL_KW(combine_independent), METH_FASTCALL | METH_KEYWORDS,
     "_combine_decrements_independent(q_host, others, age_offset=0)\n--\n\n"
     "1 - (1 - q_host) * prod(1 - other), each other aligned by calendar age."},
    {"_combine_decrements_udd2", FASTCALL_KW(combine_udd2), METH_FASTCALL | METH_KEYWORDS,
     "_combine_decrements_udd2(q1, other, age_offset=0)\n--\n\n"
     "Total of two dependent rates under a uniform distribution of each single decrement."},
    {"_combine_decrements_udd3", FASTCALL_KW(combine_udd3), METH_FASTCALL | METH_KEYWORDS,
     "_combine_decrements_udd3(q1, other_a, other_b, age_offset=0)\n--\n\n"
     "Total of three dependent rates under a uniform distribution of each single decrement."},
    {"_combine_decrements_udd", FASTCALL_KW(combine_udd), METH_FASTCALL | METH_KEYWORDS,
     "_combine_decrements_udd(q_host, others, age_offset=0)\n--\n\n"
     "The UDD total for the host and one or two other rate vectors."},
    {"_parse_combination_mode", parse_mode, METH_O,
     "_parse_combination_mode(modifications)\n--\n\n"
     "(mode, explicit): the validated combination_mode of a modification dict, 'independent' by default."},
};

}  // namespace

void bind_combination_helpers(PyObject* module) { py::add_functions(module, helper_defs); }

}  // namespace veltrane::decrement
