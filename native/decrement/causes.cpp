// The rates of each cause of a table whose rates merge competing decrements: what the merge
// read is kept beside the merged vector, and cause_rates() splits the total into dependent
// rates under the merge's own assumption (constant forces for independent risks, uniform
// distribution of each single decrement for UDD). The split is trusted only while the vector
// it was made for is the one in force.
#include "decrement/combination.hpp"
#include "decrement/table.hpp"

#include "kernels/causes.hpp"
#include "kernels/rounding.hpp"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace veltrane::decrement {

py::ref cause_split_of(PyObject* decrement, const CauseInputs& causes) {
    const auto k = static_cast<npy_intp>(causes.rates.size());
    const auto n = static_cast<npy_intp>(causes.rates.empty() ? 0 : causes.rates[0].size());
    py::ref labels = py::check(PyTuple_New(k));
    for (npy_intp c = 0; c < k; ++c) {
        PyTuple_SET_ITEM(labels.get(), c, causes.labels[static_cast<std::size_t>(c)].dup().release());
    }
    py::ref matrix = py::new_f64_2d(k, n);
    double* m = py::f64_data(matrix.get());
    for (npy_intp c = 0; c < k; ++c) {
        const std::vector<double>& r = causes.rates[static_cast<std::size_t>(c)];
        std::copy(r.begin(), r.end(), m + c * n);
    }
    return py::check(PyTuple_Pack(4, decrement, labels.get(), causes.udd ? Py_True : Py_False, matrix.get()));
}

namespace {

struct Split {
    py::ref labels;   // tuple of str
    bool udd = false;
    py::ref matrix;   // causes x ages
    npy_intp causes = 0, ages = 0;
};

// The split in force, checked field by field (the field can be written by hand).
Split split_in_force(TableObject* t) {
    py::ref name = table_name(t);
    PyObject* s = t->cause_split.get();
    if (s == nullptr || !PyTuple_Check(s) || PyTuple_GET_SIZE(s) != 4 || PyTuple_GET_ITEM(s, 0) != t->decrement.get()) {
        py::raise(PyExc_ValueError,
                  "Table '%S' has no competing decrements in force: cause_rates() reads the causes merged by the "
                  "last modify_qx({'table_combination': ...}) call, when no later step of that call changed the "
                  "total.",
                  name.get());
    }
    Split out;
    out.labels = py::ref::borrow(PyTuple_GET_ITEM(s, 1));
    out.udd = PyTuple_GET_ITEM(s, 2) == Py_True;
    out.matrix = py::ref::borrow(PyTuple_GET_ITEM(s, 3));
    PyObject* m = out.matrix.get();
    const bool matrix_ok = PyArray_Check(m) && PyArray_NDIM(reinterpret_cast<PyArrayObject*>(m)) == 2 &&
                           PyArray_TYPE(reinterpret_cast<PyArrayObject*>(m)) == NPY_FLOAT64 &&
                           PyArray_IS_C_CONTIGUOUS(reinterpret_cast<PyArrayObject*>(m));
    bool labels_ok = PyTuple_Check(out.labels.get());
    for (Py_ssize_t i = 0; labels_ok && i < PyTuple_GET_SIZE(out.labels.get()); ++i) {
        labels_ok = PyUnicode_Check(PyTuple_GET_ITEM(out.labels.get(), i));
    }
    if (matrix_ok && labels_ok) {
        out.causes = PyArray_DIM(reinterpret_cast<PyArrayObject*>(m), 0);
        out.ages = PyArray_DIM(reinterpret_cast<PyArrayObject*>(m), 1);
    }
    if (!matrix_ok || !labels_ok || out.causes != PyTuple_GET_SIZE(out.labels.get()) || out.causes < 2 ||
        out.ages < static_cast<npy_intp>(py::f64_size(t->decrement.get()))) {
        py::raise(PyExc_ValueError, "Table '%S': _cause_split is malformed", name.get());
    }
    return out;
}

// Column names: the table names, a repeated one numbered from its second appearance.
std::vector<py::ref> column_names(PyObject* labels) {
    std::vector<py::ref> out;
    for (Py_ssize_t i = 0; i < PyTuple_GET_SIZE(labels); ++i) {
        PyObject* label = PyTuple_GET_ITEM(labels, i);
        long seen = 1;
        for (Py_ssize_t j = 0; j < i; ++j) {
            seen += py::require(PyObject_RichCompareBool(PyTuple_GET_ITEM(labels, j), label, Py_EQ));
        }
        out.push_back(seen == 1 ? py::ref::borrow(label) : py::check(PyUnicode_FromFormat("%U (%ld)", label, seen)));
    }
    return out;
}

PyObject* Table_cause_rates(PyObject* self, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&]() -> PyObject* {
        static constexpr std::array<const char*, 1> names = {"service_table"};
        // parse: one optional boolean, positional or keyword.
        PyObject* service_arg = nargs > 0 ? args[0] : nullptr;
        if (nargs > 1) py::raise(PyExc_TypeError, "cause_rates() takes at most 1 argument (%zd given)", nargs);
        if (kwnames != nullptr) {
            for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(kwnames); ++k) {
                PyObject* key = PyTuple_GET_ITEM(kwnames, k);
                if (!str_equals(key, names[0]) || service_arg != nullptr) {
                    py::raise(PyExc_TypeError, "cause_rates() got an unexpected keyword argument '%U'", key);
                }
                service_arg = args[nargs + k];
            }
        }
        if (service_arg != nullptr && !PyBool_Check(service_arg)) {
            py::ref type = type_name_of(service_arg);
            py::raise(PyExc_TypeError, "cause_rates(): service_table must be bool, got %U", type.get());
        }
        const bool service = service_arg == Py_True;
        TableObject* t = as_table(self);
        ensure_ready(t, "cause_rates");
        Split split = split_in_force(t);
        const auto n = static_cast<std::size_t>(py::f64_size(t->decrement.get()));
        const auto k = static_cast<std::size_t>(split.causes);
        const double* m = py::f64_data(split.matrix.get());

        // Dependent rates over the ages of the vector in force.
        std::vector<std::span<const double>> in;
        std::vector<py::ref> columns;
        std::vector<std::span<double>> out;
        for (std::size_t c = 0; c < k; ++c) {
            in.emplace_back(m + c * static_cast<std::size_t>(split.ages), n);
            columns.push_back(py::new_f64(static_cast<npy_intp>(n)));
            out.push_back(py::f64_span(columns.back().get()));
        }
        if (split.udd) {
            if (!kernels::dependent_rates_udd(in, out)) {
                py::raise(PyExc_ValueError, "combination_mode='udd' is limited to 2 or 3 causes; got %zu", k);
            }
        } else {
            kernels::dependent_rates_constant_force(in, out);
        }

        py::ref frame_columns = py::check(PyDict_New());
        npy_intp dims[1] = {static_cast<npy_intp>(n)};
        py::ref ages = py::check(PyArray_SimpleNew(1, dims, NPY_INT32));
        auto* a = static_cast<std::int32_t*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(ages.get())));
        for (std::size_t i = 0; i < n; ++i) a[i] = static_cast<std::int32_t>(i);
        py::require(PyDict_SetItemString(frame_columns.get(), "age", ages.get()));
        py::ref total = py::copy_as_f64(t->decrement.get());
        py::require(PyDict_SetItemString(frame_columns.get(), "total", total.get()));
        const std::vector<py::ref> labels = column_names(split.labels.get());
        for (std::size_t c = 0; c < k; ++c) {
            if (str_equals(labels[c].get(), "age") || str_equals(labels[c].get(), "total")) {
                py::raise(PyExc_ValueError, "a table named '%U' cannot name a cause column", labels[c].get());
            }
            py::require(PyDict_SetItem(frame_columns.get(), labels[c].get(), columns[c].get()));
        }
        std::vector<py::ref> decrements;  // d_<cause>, from the unrounded rates
        if (service) {
            // The service table: survivors from the radix, and the decrements of each cause.
            py::ref lx = py::check(PyObject_CallMethod(self, "lx", nullptr));
            py::ref lx_vec = py::copy_as_f64(lx.get());
            const std::span<const double> l = py::f64_cspan(lx_vec.get());
            py::require(PyDict_SetItemString(frame_columns.get(), "lx", lx_vec.get()));
            const int dx_decimals = config(t->st).dx;
            for (std::size_t c = 0; c < k; ++c) {
                py::ref d = py::new_f64(static_cast<npy_intp>(n));
                std::span<double> dv = py::f64_span(d.get());
                for (std::size_t i = 0; i < n; ++i) dv[i] = i < l.size() ? l[i] * out[c][i] : 0.0;
                kernels::round_in_place(dv, dx_decimals);
                decrements.push_back(std::move(d));
            }
        }
        const int decimals = decimals_for_decrement(t);
        for (std::span<double> col : out) kernels::round_in_place(col, decimals);
        for (std::size_t c = 0; c < decrements.size(); ++c) {
            py::ref name = py::check(PyUnicode_FromFormat("d_%U", labels[c].get()));
            py::require(PyDict_SetItem(frame_columns.get(), name.get(), decrements[c].get()));
        }
        py::ref polars = py::check(PyImport_ImportModule("polars"));
        return py::require(PyObject_CallMethod(polars.get(), "DataFrame", "O", frame_columns.get()));
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

}  // namespace

PyMethodDef cause_methods[] = {
    {"cause_rates", FASTCALL_KW(Table_cause_rates), METH_FASTCALL | METH_KEYWORDS,
     "cause_rates($self, /, service_table=False)\n--\n\n"
     "The rates of each cause of a table that merges competing decrements.\n\n"
     "After ``modify_qx({'table_combination': other})`` the table keeps the total rate; this\n"
     "splits it into the dependent rate of each cause (the probability of leaving by that cause\n"
     "within the year in the presence of the others), under the merge's own assumption:\n"
     "a constant force of each decrement within the year for ``combination_mode='independent'``,\n"
     "a uniform distribution of each single decrement for ``'udd'``. Returns a Polars frame with\n"
     "the columns age, total and one per cause, named by table name (the host first). With\n"
     "``service_table=True`` it adds the survivors ``lx`` and the decrements ``d_<cause>``\n"
     "out of the radix: a multiple-decrement service table."},
    {nullptr, nullptr, 0, nullptr},
};

}  // namespace veltrane::decrement
