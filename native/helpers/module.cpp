// veltrane.helpers: the numeric validators and converters, for Python callers.
// The decrement module links the same C++ functions and calls them directly.
#include "common/numeric.hpp"
#include "pyutil/module_slots.hpp"

namespace {

using namespace veltrane;

// Fetches the i-th positional-or-keyword argument of a FASTCALL call, or null.
PyObject* arg_at(PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames, Py_ssize_t index, const char* name) {
    if (index < nargs) return args[index];
    if (kwnames == nullptr) return nullptr;
    const Py_ssize_t nkw = PyTuple_GET_SIZE(kwnames);
    for (Py_ssize_t k = 0; k < nkw; ++k) {
        if (PyUnicode_CompareWithASCIIString(PyTuple_GET_ITEM(kwnames, k), name) == 0) return args[nargs + k];
    }
    return nullptr;
}

// Rejects unknown keywords and too many positionals for a FASTCALL|KEYWORDS function.
void check_signature(const char* fname, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames,
                     std::initializer_list<const char*> names) {
    (void)args;
    if (nargs > static_cast<Py_ssize_t>(names.size())) {
        py::raise(PyExc_TypeError, "%s() takes at most %zd arguments (%zd given)", fname,
                  static_cast<Py_ssize_t>(names.size()), nargs);
    }
    if (kwnames == nullptr) return;
    for (Py_ssize_t k = 0; k < PyTuple_GET_SIZE(kwnames); ++k) {
        PyObject* key = PyTuple_GET_ITEM(kwnames, k);
        Py_ssize_t pos = 0;
        bool found = false;
        for (const char* n : names) {
            if (PyUnicode_CompareWithASCIIString(key, n) == 0) {
                found = true;
                if (pos < nargs) py::raise(PyExc_TypeError, "%s() got multiple values for argument '%s'", fname, n);
            }
            ++pos;
        }
        if (!found) py::raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", fname, key);
    }
}

std::string_view text_arg(PyObject* obj, const char* what) {
    if (obj == nullptr || obj == Py_None) return {};
    if (!PyUnicode_Check(obj)) py::raise(PyExc_TypeError, "%s must be a str", what);
    Py_ssize_t size = 0;
    const char* data = PyUnicode_AsUTF8AndSize(obj, &size);
    if (data == nullptr) py::throw_error_set();
    return {data, static_cast<std::size_t>(size)};
}

bool flag_arg(PyObject* obj, bool fallback) {
    if (obj == nullptr) return fallback;
    return py::require(PyObject_IsTrue(obj)) == 1;
}

PyObject* validate_numeric_input(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        check_signature("_validate_numeric_input", args, nargs, kwnames,
                        {"value", "allow_none", "allow_sequence", "method_name", "attr_name"});
        PyObject* value = arg_at(args, nargs, kwnames, 0, "value");
        if (value == nullptr) py::raise(PyExc_TypeError, "_validate_numeric_input() missing argument 'value'");
        const bool allow_none = flag_arg(arg_at(args, nargs, kwnames, 1, "allow_none"), false);
        numeric::InputOptions options;
        options.allow_sequence = flag_arg(arg_at(args, nargs, kwnames, 2, "allow_sequence"), true);
        options.method = text_arg(arg_at(args, nargs, kwnames, 3, "method_name"), "method_name");
        PyObject* attr = arg_at(args, nargs, kwnames, 4, "attr_name");
        options.attr = attr ? text_arg(attr, "attr_name") : std::string_view("x");
        options.materialise_scalar = true;
        if (value == Py_None && allow_none) return Py_BuildValue("(OO)", Py_None, Py_True);
        numeric::Input input = numeric::validate_input(value, options);
        return Py_BuildValue("(OO)", input.array.get(), input.scalar ? Py_True : Py_False);
    });
}

PyObject* validate_scalar_numeric(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        check_signature("_validate_scalar_numeric", args, nargs, kwnames, {"value", "name", "method_name"});
        PyObject* value = arg_at(args, nargs, kwnames, 0, "value");
        if (value == nullptr) py::raise(PyExc_TypeError, "_validate_scalar_numeric() missing argument 'value'");
        PyObject* name = arg_at(args, nargs, kwnames, 1, "name");
        const std::string_view label = name ? text_arg(name, "name") : std::string_view("value");
        const std::string_view method = text_arg(arg_at(args, nargs, kwnames, 2, "method_name"), "method_name");
        return PyFloat_FromDouble(numeric::validate_scalar(value, label, method));
    });
}

PyObject* as_f64_safe(PyObject*, PyObject* value) {
    return py::guard([&] { return numeric::as_f64(value).release(); });
}

PyObject* assert_probs_in_unit_interval(PyObject*, PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    return py::guard([&] {
        check_signature("_assert_probs_in_unit_interval", args, nargs, kwnames, {"p", "caller"});
        PyObject* p = arg_at(args, nargs, kwnames, 0, "p");
        if (p == nullptr) py::raise(PyExc_TypeError, "_assert_probs_in_unit_interval() missing argument 'p'");
        PyObject* caller = arg_at(args, nargs, kwnames, 1, "caller");
        const std::string_view label = caller ? text_arg(caller, "caller") : std::string_view("probability");
        py::ref values = py::is_f64_vector(p) && PyArray_ISWRITEABLE(reinterpret_cast<PyArrayObject*>(p))
                             ? py::ref::borrow(p)
                             : numeric::as_f64(p);
        numeric::check_unit_interval(py::f64_span(values.get()), label);
        return values.release();
    });
}

PyObject* finalize_scalar_or_array(PyObject*, PyObject* const* args, Py_ssize_t nargs) {
    return py::guard([&]() -> PyObject* {
        if (nargs != 2) py::raise(PyExc_TypeError, "_finalize_scalar_or_array() takes 2 arguments (array, is_scalar)");
        if (py::require(PyObject_IsTrue(args[1])) == 1) {
            py::ref values = numeric::as_f64_read_only(args[0]);
            if (py::f64_size(values.get()) != 1) {
                py::raise(PyExc_ValueError, "_finalize_scalar_or_array: a scalar result needs exactly one value");
            }
            return PyFloat_FromDouble(*py::f64_data(values.get()));
        }
        return Py_NewRef(args[0]);
    });
}

PyObject* is_finite_f64_array(PyObject*, PyObject* value) {
    return py::guard([&] {
        py::ref values = numeric::as_f64_read_only(value);
        return PyBool_FromLong(numeric::all_finite(py::f64_cspan(values.get())));
    });
}

PyObject* is_finite_scalar(PyObject*, PyObject* value) {
    return py::guard([&] {
        if (PyBool_Check(value)) Py_RETURN_FALSE;
        std::optional<double> v = numeric::scalar_value(value);
        return PyBool_FromLong(v.has_value() && std::isfinite(*v));
    });
}

PyObject* is_integer_valued(PyObject*, PyObject* value) {
    return py::guard([&] {
        py::ref values = numeric::as_f64_read_only(value);
        return PyBool_FromLong(numeric::all_integer_valued(py::f64_cspan(values.get())));
    });
}

#define FASTCALL_KW(f) reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)(void)>(f))

PyMethodDef methods[] = {
    {"_validate_numeric_input", FASTCALL_KW(validate_numeric_input), METH_FASTCALL | METH_KEYWORDS,
     "_validate_numeric_input(value, allow_none=False, allow_sequence=True, method_name='', attr_name='x')\n--\n\n"
     "Validate an age or time argument: a finite real number or a flat sequence of them.\n\n"
     "Returns ``(values, is_scalar)``: a new 1-D float64 array (one element for a scalar)\n"
     "and whether the input was a single number; ``(None, True)`` for an allowed None.\n"
     "Raises TypeError for non-numeric input, bools, nested sequences or (when\n"
     "``allow_sequence`` is false) sequences, and ValueError for NaN or infinities."},
    {"_validate_scalar_numeric", FASTCALL_KW(validate_scalar_numeric), METH_FASTCALL | METH_KEYWORDS,
     "_validate_scalar_numeric(value, name, method_name='')\n--\n\n"
     "Return ``value`` as a float after checking it is one finite real number (not a bool).\n"
     "The messages name the parameter ``name``."},
    {"_as_f64_safe", as_f64_safe, METH_O,
     "_as_f64_safe(value)\n--\n\n"
     "Convert a number or a flat sequence of numbers into a new 1-D float64 array."},
    {"_assert_probs_in_unit_interval", FASTCALL_KW(assert_probs_in_unit_interval), METH_FASTCALL | METH_KEYWORDS,
     "_assert_probs_in_unit_interval(p, caller='probability')\n--\n\n"
     "Raise ValueError if a probability lies outside [0, 1] by more than ``_EPS_INT``;\n"
     "otherwise clamp into [0, 1] (in place for a writable float64 vector) and return it."},
    {"_finalize_scalar_or_array", FASTCALL_KW(finalize_scalar_or_array), METH_FASTCALL,
     "_finalize_scalar_or_array(values, is_scalar)\n--\n\n"
     "Return a Python float for scalar input (its single value), else ``values`` unchanged."},
    {"_is_finite_f64_array", is_finite_f64_array, METH_O,
     "_is_finite_f64_array(values)\n--\n\nTrue when every value is finite."},
    {"_is_finite_scalar", is_finite_scalar, METH_O,
     "_is_finite_scalar(value)\n--\n\nTrue for a single finite real number (bools excluded)."},
    {"_is_integer_valued", is_integer_valued, METH_O,
     "_is_integer_valued(value)\n--\n\n"
     "True when the number (or every number of a sequence) is within ``_EPS_INT`` of an integer."},
    {nullptr, nullptr, 0, nullptr},
};

int helpers_exec(PyObject* module) {
    return py::guard_int([&] {
        py::import_numpy();
        py::require(PyModule_AddObject(module, "_EPS_INT", PyFloat_FromDouble(numeric::kEpsInt)));
        return 0;
    });
}

PyModuleDef_Slot slots[] = {
    {Py_mod_exec, reinterpret_cast<void*>(helpers_exec)},
    VELTRANE_SUPPORT_SLOTS
    {0, nullptr},
};

PyModuleDef module_def = {
    PyModuleDef_HEAD_INIT,
    "veltrane.helpers",
    "Numeric validation helpers: validated float64 vectors from numbers, sequences and Series.",
    0,
    methods,
    slots,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_helpers() { return PyModuleDef_Init(&module_def); }
