// The period view of a table: the rates of one calendar year, age x read from the cohort born
// in year - x on a generational table, the table's own rates on any other. Cohorts are set one
// after another on the table itself inside a key change that is never committed, so the table
// ends exactly as it began, whatever happens.
#include "decrement/table.hpp"
#include "decrement/transaction.hpp"

#include "kernels/rounding.hpp"

#include <vector>

namespace veltrane::decrement {
namespace {

// Base rates of `sex` for calendar year `year`, unrounded: row x from cohort year - x.
std::vector<double> period_vector(TableObject* t, PyObject* sex, long long year) {
    KeyChange scratch(t);  // restores the cohort and everything else on the way out
    const long w = source_w(t);
    std::vector<double> out(static_cast<std::size_t>(w) + 1);
    for (long x = 0; x <= w; ++x) {
        t->cohort = py::check(PyLong_FromLongLong(year - x));
        py::ref rates = compute_decrement(t, sex);
        const std::span<const double> q = py::f64_cspan(rates.get());
        if (q.size() != out.size()) py::raise(PyExc_ValueError, "rates of cohort %lld have the wrong length", year - x);
        out[static_cast<std::size_t>(x)] = q[static_cast<std::size_t>(x)];
    }
    return out;
}

PyObject* Table_period_decrement(PyObject* self, PyObject* arg) {
    return py::guard([&]() -> PyObject* {
        TableObject* t = as_table(self);
        const Names& n = t->st->names;
        if (PyBool_Check(arg) || !is_integer_object(arg)) {
            py::ref type = type_name_of(arg);
            py::raise(PyExc_TypeError, "year must be int, got %U", type.get());
        }
        int overflow = 0;
        const long long year = PyLong_AsLongLongAndOverflow(py::check(PyNumber_Index(arg)).get(), &overflow);
        if (overflow != 0 || year < 1000 || year > 3000) {
            py::raise(PyExc_ValueError, "year must be between 1000 and 3000, got %R", arg);
        }
        ensure_ready(t, "period_rates");
        if (!source_flag(t, n.generational.get())) {
            // The same rates in every year: the table's own.
            if (t->decrement_base.is_none()) {
                py::ref name = table_name(t);
                py::raise(PyExc_ValueError, "Table '%S' has no base rates.", name.get());
            }
            const py::ref base = t->decrement_base.dup();
            py::ref out = py::copy_as_f64(base.get());
            kernels::round_in_place(py::f64_span(out.get()), decimals_for_decrement(t));
            return out.release();
        }
        const int d = decimals_for_decrement(t);
        std::vector<double> q;
        if (str_equals(t->sex.get(), "u") && !t->unisex_blend.is_none()) {
            // Each sex is projected first, then blended, as a blended table does for one cohort.
            const double w = PyFloat_AsDouble(t->unisex_blend.get());
            if (w == -1.0 && PyErr_Occurred()) py::throw_error_set();
            std::vector<double> qm = period_vector(t, n.m.get(), year);
            std::vector<double> qf = period_vector(t, n.f.get(), year);
            kernels::round_in_place(qm, d);
            kernels::round_in_place(qf, d);
            q.resize(qm.size());
            for (std::size_t i = 0; i < q.size(); ++i) {
                const double v = w * qm[i] + (1.0 - w) * qf[i];
                q[i] = v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v);
            }
        } else {
            q = period_vector(t, t->sex.get(), year);
        }
        kernels::round_in_place(q, d);
        py::ref out = py::new_f64(static_cast<npy_intp>(q.size()));
        std::copy(q.begin(), q.end(), py::f64_data(out.get()));
        return out.release();
    });
}

}  // namespace

PyMethodDef period_methods[] = {
    {"_period_decrement", Table_period_decrement, METH_O,
     "_period_decrement($self, year, /)\n--\n\n"
     "The rates of calendar year ``year`` by age (age x from the cohort born in year - x; a table "
     "that is not generational has its base rates in every year), rounded as rates are; the table "
     "is left as it was."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
