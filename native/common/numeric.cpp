// Numeric argument validation: one pass per argument, no Python-level calls on the
// fast paths (float, int, list, tuple, float64 array).
#include "common/numeric.hpp"

#include <cmath>
#include <cstdio>
#include <string>

namespace veltrane::numeric {
namespace {

std::string prefix(std::string_view method) {
    if (method.empty()) return {};
    return "[" + std::string(method) + "] ";
}

py::ref type_name(PyObject* obj) { return py::check(PyType_GetName(Py_TYPE(obj))); }

bool is_bool(PyObject* obj) { return PyBool_Check(obj) || PyArray_IsScalar(obj, Bool); }

std::string describe_number(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
    return buf;
}

[[noreturn]] void raise_not_finite(std::string_view method, std::string_view attr, Py_ssize_t index,
                                   double v) {
    std::string where = std::string(attr);
    if (index >= 0) where += "[" + std::to_string(index) + "]";
    py::raise_str(PyExc_ValueError, prefix(method) + where + " must be finite, got " + describe_number(v));
}

// What a whole argument must be, as messages say it: a scalar-only one (m, a blend weight)
// is not told that a sequence would do.
const char* expected_kind(bool allow_sequence) {
    return allow_sequence ? "a number or a sequence of numbers" : "a single number";
}

[[noreturn]] void raise_not_numeric(std::string_view method, std::string_view attr, Py_ssize_t index,
                                    PyObject* obj, bool allow_sequence = true) {
    std::string head = prefix(method) + std::string(attr);
    if (index >= 0) head += "[" + std::to_string(index) + "]";
    if (is_bool(obj)) py::raise_str(PyExc_TypeError, head + " must be numeric, not bool");
    py::ref name = type_name(obj);
    if (index >= 0) {
        py::raise(PyExc_TypeError, "%s must be numeric, got %U", head.c_str(), name.get());
    }
    py::raise(PyExc_TypeError, "%s must be %s, got %U", head.c_str(), expected_kind(allow_sequence), name.get());
}

bool looks_like_array(PyObject* obj) {
    if (PyArray_Check(obj) || PyList_Check(obj) || PyTuple_Check(obj)) return true;
    if (PyUnicode_Check(obj) || PyBytes_Check(obj) || PyByteArray_Check(obj)) return false;
    if (PySequence_Check(obj)) return true;
    int has = PyObject_HasAttrString(obj, "__array__");
    return has == 1;
}

// Reads the elements of a list or tuple into a new float64 vector.
py::ref vector_from_sequence(PyObject* seq, std::string_view method, std::string_view attr, bool check_finite) {
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(seq);
    PyObject** items = PySequence_Fast_ITEMS(seq);
    py::ref out = py::new_f64(n);
    double* data = py::f64_data(out.get());
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* item = items[i];
        double v;
        if (PyFloat_CheckExact(item)) {
            v = PyFloat_AS_DOUBLE(item);
        } else {
            if (is_bool(item)) raise_not_numeric(method, attr, i, item);
            std::optional<double> value = scalar_value(item);
            if (!value) {
                if (PyList_Check(item) || PyTuple_Check(item) || PyArray_Check(item)) {
                    py::raise_str(PyExc_TypeError, prefix(method) + std::string(attr) +
                                                       " must be one-dimensional, got a nested sequence");
                }
                raise_not_numeric(method, attr, i, item);
            }
            v = *value;
        }
        if (check_finite && !std::isfinite(v)) raise_not_finite(method, attr, i, v);
        data[i] = v;
    }
    return out;
}

// Converts an ndarray of any numeric dtype into a new 1-D float64 vector (or a scalar).
Input input_from_array(PyObject* obj, std::string_view method, std::string_view attr, bool check_finite) {
    auto* arr = reinterpret_cast<PyArrayObject*>(obj);
    const int ndim = PyArray_NDIM(arr);
    const char kind = PyArray_DESCR(arr)->kind;
    if (kind == 'b') {
        py::raise_str(PyExc_TypeError, prefix(method) + std::string(attr) + " must be numeric, not a bool array");
    }
    if (ndim > 1) {
        py::ref shape = py::check(PyObject_GetAttrString(obj, "shape"));
        py::raise(PyExc_TypeError, "%s%s must be one-dimensional, got an array of shape %R",
                  prefix(method).c_str(), std::string(attr).c_str(), shape.get());
    }
    Input result;
    if (kind == 'O') {
        py::ref list = py::check(PyArray_ToList(arr));
        if (ndim == 0) {
            std::optional<double> v = is_bool(list.get()) ? std::nullopt : scalar_value(list.get());
            if (!v) raise_not_numeric(method, attr, -1, list.get());
            if (check_finite && !std::isfinite(*v)) raise_not_finite(method, attr, -1, *v);
            result.scalar = true;
            result.value = *v;
            return result;
        }
        py::ref fast = py::check(PySequence_Fast(list.get(), "expected a sequence"));
        result.array = vector_from_sequence(fast.get(), method, attr, check_finite);
        return result;
    }
    if (kind != 'i' && kind != 'u' && kind != 'f') {
        py::ref descr = py::check(PyObject_Str(reinterpret_cast<PyObject*>(PyArray_DESCR(arr))));
        py::raise(PyExc_TypeError, "%s%s must be numeric, got an array of dtype %U", prefix(method).c_str(),
                  std::string(attr).c_str(), descr.get());
    }
    // The kind is numeric here, so a cast that NumPy calls unsafe (long double) is wanted.
    py::ref converted = py::check(
        PyArray_FROM_OTF(obj, NPY_FLOAT64, NPY_ARRAY_IN_ARRAY | NPY_ARRAY_ENSURECOPY | NPY_ARRAY_FORCECAST));
    if (ndim == 0) {
        const double v = *py::f64_data(converted.get());
        if (check_finite && !std::isfinite(v)) raise_not_finite(method, attr, -1, v);
        result.scalar = true;
        result.value = v;
        return result;
    }
    if (check_finite) {
        std::span<const double> values = py::f64_cspan(converted.get());
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (!std::isfinite(values[i])) raise_not_finite(method, attr, static_cast<Py_ssize_t>(i), values[i]);
        }
    }
    result.array = std::move(converted);
    return result;
}

Input convert(PyObject* value, std::string_view method, std::string_view attr, bool allow_sequence,
              bool check_finite) {
    Input result;
    if (value == Py_None) {
        py::raise_str(PyExc_TypeError, prefix(method) + std::string(attr) + " must be " +
                                           expected_kind(allow_sequence) + ", got None");
    }
    if (PyFloat_CheckExact(value)) {
        result.value = PyFloat_AS_DOUBLE(value);
        result.scalar = true;
    } else if (is_bool(value)) {
        raise_not_numeric(method, attr, -1, value);
    } else if (std::optional<double> v = scalar_value(value)) {
        result.value = *v;
        result.scalar = true;
    }
    if (result.scalar) {
        if (check_finite && !std::isfinite(result.value)) raise_not_finite(method, attr, -1, result.value);
        return result;
    }
    if (!looks_like_array(value)) raise_not_numeric(method, attr, -1, value, allow_sequence);
    if (PyArray_Check(value) && PyArray_NDIM(reinterpret_cast<PyArrayObject*>(value)) == 0) {
        return input_from_array(value, method, attr, check_finite);
    }
    if (!allow_sequence) {
        py::ref name = type_name(value);
        py::raise(PyExc_TypeError, "%s%s must be a single number, got %U", prefix(method).c_str(),
                  std::string(attr).c_str(), name.get());
    }
    if (PyList_Check(value) || PyTuple_Check(value)) {
        result.array = vector_from_sequence(value, method, attr, check_finite);
        return result;
    }
    if (PyArray_Check(value)) return input_from_array(value, method, attr, check_finite);
    py::ref arr = py::check(PyArray_FROM_O(value));
    return input_from_array(arr.get(), method, attr, check_finite);
}

}  // namespace

std::optional<double> scalar_value(PyObject* obj) {
    if (PyFloat_Check(obj)) return PyFloat_AS_DOUBLE(obj);
    if (PyBool_Check(obj)) return std::nullopt;
    if (PyLong_Check(obj)) {
        const double v = PyLong_AsDouble(obj);
        if (v == -1.0 && PyErr_Occurred()) py::throw_error_set();
        return v;
    }
    if (PyArray_IsScalar(obj, Bool) || PyArray_IsScalar(obj, ComplexFloating)) return std::nullopt;
    if (PyArray_IsScalar(obj, Integer) || PyArray_IsScalar(obj, Floating)) {
        py::ref f = py::check(PyNumber_Float(obj));
        return PyFloat_AS_DOUBLE(f.get());
    }
    if (PyArray_Check(obj) || PyUnicode_Check(obj) || PyBytes_Check(obj) || PyComplex_Check(obj)) {
        return std::nullopt;
    }
    PyNumberMethods* nb = Py_TYPE(obj)->tp_as_number;
    if (nb == nullptr || (nb->nb_float == nullptr && nb->nb_index == nullptr)) return std::nullopt;
    if (PySequence_Check(obj) || PyObject_HasAttrString(obj, "__array__") == 1) return std::nullopt;
    py::ref f = py::check(PyNumber_Float(obj));
    return PyFloat_AS_DOUBLE(f.get());
}

Input validate_input(PyObject* value, const InputOptions& options) {
    Input result = convert(value, options.method, options.attr, options.allow_sequence, true);
    if (result.scalar && options.materialise_scalar) {
        result.array = py::new_f64(1);
        *py::f64_data(result.array.get()) = result.value;
    }
    return result;
}

double validate_scalar(PyObject* value, std::string_view name, std::string_view method) {
    Input result = convert(value, method, name, false, true);
    return result.value;
}

py::ref as_f64(PyObject* value) {
    Input result = convert(value, {}, "value", true, false);
    if (result.scalar) {
        py::ref out = py::new_f64(1);
        *py::f64_data(out.get()) = result.value;
        return out;
    }
    return std::move(result.array);
}

void raise_outside_unit_interval(double p, std::string_view caller) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", p);
    std::string text = buf;
    if (std::isnan(p)) text = "nan";
    py::raise_str(PyExc_ValueError, std::string(caller) + ": value " + text + " outside [0,1]");
}

void check_unit_interval(std::span<double> p, std::string_view caller) {
    for (double& v : p) {
        if (!(v >= -kEpsInt && v <= 1.0 + kEpsInt)) raise_outside_unit_interval(v, caller);
        v = v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v);
    }
}

bool all_finite(std::span<const double> values) noexcept {
    for (double v : values) {
        if (!std::isfinite(v)) return false;
    }
    return true;
}

bool all_integer_valued(std::span<const double> values) noexcept {
    for (double v : values) {
        if (!is_integer_valued(v)) return false;
    }
    return true;
}

}  // namespace veltrane::numeric
