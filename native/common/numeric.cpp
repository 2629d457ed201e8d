// Numeric argument validation: one pass per argument, no Python-level calls on the
// fast paths (float, int, list, tuple, float64 array).
#include "common/numeric.hpp"

#include "kernels/scan.hpp"

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

// What one argument must be, and how its vector will be used.
struct Rules {
    std::string_view method;
    std::string_view attr;
    bool allow_sequence = true;
    bool check_finite = true;
    bool read_only = false;  // the caller only reads the vector: no copy of a usable float64 array
};

// ---- masked arrays ----------------------------------------------------------------------
// A masked value has no number to compute with, and the data under the mask is arbitrary:
// it is refused, as NaN is. Without masked values the data is used as it is.

// Whether `obj` is a numpy.ma.MaskedArray. numpy.ma is imported on demand, so while it is
// not in sys.modules no such array can exist and nothing needs importing here.
bool is_masked_array(PyObject* obj) {
    if (!PyArray_Check(obj) || PyArray_CheckExact(obj)) return false;
    py::ref name = py::check(PyUnicode_FromString("numpy.ma"));
    py::ref ma = py::ref::steal(PyImport_GetModule(name.get()));
    if (!ma) {
        if (PyErr_Occurred()) py::throw_error_set();
        return false;
    }
    py::ref type = py::check(PyObject_GetAttrString(ma.get(), "MaskedArray"));
    return py::require(PyObject_IsInstance(obj, type.get())) == 1;
}

// The position of the first masked value of a masked array (0 for a 0-d one), if any.
std::optional<Py_ssize_t> first_masked(PyObject* obj) {
    py::ref mask = py::check(PyObject_GetAttrString(obj, "mask"));
    if (!PyArray_Check(mask.get())) {  // `nomask`, a single False for "nothing masked"
        if (py::require(PyObject_IsTrue(mask.get())) == 1) return 0;
        return std::nullopt;
    }
    py::ref flags = py::check(PyArray_FROM_OTF(mask.get(), NPY_BOOL, NPY_ARRAY_IN_ARRAY | NPY_ARRAY_FORCECAST));
    const auto* bits = static_cast<const npy_bool*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(flags.get())));
    const npy_intp n = PyArray_SIZE(reinterpret_cast<PyArrayObject*>(flags.get()));
    for (npy_intp i = 0; i < n; ++i) {
        if (bits[i]) return static_cast<Py_ssize_t>(i);
    }
    return std::nullopt;
}

[[noreturn]] void raise_masked(const Rules& r, Py_ssize_t index) {
    std::string where = std::string(r.attr);
    if (index >= 0) where += "[" + std::to_string(index) + "]";
    py::raise_str(PyExc_ValueError, prefix(r.method) + where +
                                        " is masked: fill or drop the masked values first "
                                        "(.filled(value) or .compressed())");
}

// A plain-array view of a masked array's data when nothing in it is masked; ValueError
// naming the first masked value otherwise. Other arrays are returned as they are.
py::ref unmasked(PyObject* obj, const Rules& r) {
    if (!is_masked_array(obj)) return py::ref::borrow(obj);
    // A record dtype has a record mask; such an array is refused for its dtype anyway.
    if (PyArray_DESCR(reinterpret_cast<PyArrayObject*>(obj))->kind != 'V') {
        if (std::optional<Py_ssize_t> at = first_masked(obj)) {
            raise_masked(r, PyArray_NDIM(reinterpret_cast<PyArrayObject*>(obj)) == 0 ? -1 : *at);
        }
    }
    return py::check(PyArray_View(reinterpret_cast<PyArrayObject*>(obj), nullptr, &PyArray_Type));
}

// ---- conversion ---------------------------------------------------------------------------

// A list whose size changed while it was read (by the Python code of its elements) is refused.
void check_size(PyObject* seq, Py_ssize_t n, const Rules& r) {
    const Py_ssize_t now = PySequence_Fast_GET_SIZE(seq);
    if (now == n) return;
    py::raise_str(PyExc_RuntimeError, prefix(r.method) + std::string(r.attr) +
                                          " changed size while it was read (from " + std::to_string(n) + " to " +
                                          std::to_string(now) + " elements)");
}

// Reads the elements of a list or tuple into a new float64 vector. Converting an element
// that is not a float or an int may run Python code (__float__, __index__, __array__),
// which can resize the caller's list and free its items: such an element is held while it
// is converted, and the size is read again before each element, so nothing read is ever
// freed; a list that changes size meanwhile is refused.
py::ref vector_from_sequence(PyObject* seq, const Rules& r) {
    const Py_ssize_t n = PySequence_Fast_GET_SIZE(seq);
    py::ref out = py::new_f64(n);
    double* data = py::f64_data(out.get());
    for (Py_ssize_t i = 0; i < n; ++i) {
        check_size(seq, n, r);
        PyObject* item = PySequence_Fast_GET_ITEM(seq, i);  // borrowed: read at once or held below
        double v;
        if (PyFloat_Check(item)) {
            v = PyFloat_AS_DOUBLE(item);
        } else if (PyLong_Check(item) && !PyBool_Check(item)) {
            v = PyLong_AsDouble(item);  // reads the digits; runs no Python code
            if (v == -1.0 && PyErr_Occurred()) py::throw_error_set();
        } else {
            const py::ref held = py::ref::borrow(item);
            if (is_bool(item)) raise_not_numeric(r.method, r.attr, i, item);
            std::optional<double> value = scalar_value(item);
            if (!value) {
                if (is_masked_array(item) && first_masked(item)) raise_masked(r, i);
                if (PyList_Check(item) || PyTuple_Check(item) || PyArray_Check(item)) {
                    py::raise_str(PyExc_TypeError, prefix(r.method) + std::string(r.attr) +
                                                       " must be one-dimensional, got a nested sequence");
                }
                raise_not_numeric(r.method, r.attr, i, item);
            }
            v = *value;
        }
        if (r.check_finite && !std::isfinite(v)) raise_not_finite(r.method, r.attr, i, v);
        data[i] = v;
    }
    check_size(seq, n, r);
    return out;
}

// Converts an ndarray of any numeric dtype into a 1-D float64 vector (or a scalar): a new
// one, or with `read_only` the array itself when it is already an aligned, contiguous,
// native float64 vector.
Input input_from_array(PyObject* given, const Rules& r) {
    const py::ref plain = unmasked(given, r);
    PyObject* obj = plain.get();
    auto* arr = reinterpret_cast<PyArrayObject*>(obj);
    const int ndim = PyArray_NDIM(arr);
    const char kind = PyArray_DESCR(arr)->kind;
    if (kind == 'b') {
        py::raise_str(PyExc_TypeError, prefix(r.method) + std::string(r.attr) + " must be numeric, not a bool array");
    }
    if (ndim > 1) {
        py::ref shape = py::check(PyObject_GetAttrString(obj, "shape"));
        py::raise(PyExc_TypeError, "%s%s must be one-dimensional, got an array of shape %R",
                  prefix(r.method).c_str(), std::string(r.attr).c_str(), shape.get());
    }
    Input result;
    if (kind == 'O') {
        py::ref list = py::check(PyArray_ToList(arr));
        if (ndim == 0) {
            std::optional<double> v = is_bool(list.get()) ? std::nullopt : scalar_value(list.get());
            if (!v) raise_not_numeric(r.method, r.attr, -1, list.get());
            if (r.check_finite && !std::isfinite(*v)) raise_not_finite(r.method, r.attr, -1, *v);
            result.scalar = true;
            result.value = *v;
            return result;
        }
        py::ref fast = py::check(PySequence_Fast(list.get(), "expected a sequence"));
        result.array = vector_from_sequence(fast.get(), r);
        return result;
    }
    if (kind != 'i' && kind != 'u' && kind != 'f') {
        py::ref descr = py::check(PyObject_Str(reinterpret_cast<PyObject*>(PyArray_DESCR(arr))));
        py::raise(PyExc_TypeError, "%s%s must be numeric, got an array of dtype %U", prefix(r.method).c_str(),
                  std::string(r.attr).c_str(), descr.get());
    }
    // The kind is numeric here, so a cast that NumPy calls unsafe (long double) is wanted.
    // A copy is made only when needed: for another dtype or byte order, a strided or
    // misaligned array, or a caller that will write to the result.
    int flags = NPY_ARRAY_IN_ARRAY | NPY_ARRAY_FORCECAST | NPY_ARRAY_ENSUREARRAY;
    if (!r.read_only) flags |= NPY_ARRAY_ENSURECOPY;
    py::ref converted = py::check(PyArray_FROM_OTF(obj, NPY_FLOAT64, flags));
    if (ndim == 0) {
        const double v = *py::f64_data(converted.get());
        if (r.check_finite && !std::isfinite(v)) raise_not_finite(r.method, r.attr, -1, v);
        result.scalar = true;
        result.value = v;
        return result;
    }
    if (r.check_finite) {
        std::span<const double> values = py::f64_cspan(converted.get());
        const std::size_t i = kernels::find_first(values, kernels::not_finite);
        if (i < values.size()) raise_not_finite(r.method, r.attr, static_cast<Py_ssize_t>(i), values[i]);
    }
    result.array = std::move(converted);
    return result;
}

Input convert(PyObject* value, const Rules& r) {
    Input result;
    if (value == Py_None) {
        py::raise_str(PyExc_TypeError, prefix(r.method) + std::string(r.attr) + " must be " +
                                           expected_kind(r.allow_sequence) + ", got None");
    }
    if (PyFloat_CheckExact(value)) {
        result.value = PyFloat_AS_DOUBLE(value);
        result.scalar = true;
    } else if (is_bool(value)) {
        raise_not_numeric(r.method, r.attr, -1, value);
    } else if (std::optional<double> v = scalar_value(value)) {
        result.value = *v;
        result.scalar = true;
    }
    if (result.scalar) {
        if (r.check_finite && !std::isfinite(result.value)) raise_not_finite(r.method, r.attr, -1, result.value);
        return result;
    }
    if (!looks_like_array(value)) raise_not_numeric(r.method, r.attr, -1, value, r.allow_sequence);
    if (PyArray_Check(value) && PyArray_NDIM(reinterpret_cast<PyArrayObject*>(value)) == 0) {
        return input_from_array(value, r);
    }
    if (!r.allow_sequence) {
        py::ref name = type_name(value);
        py::raise(PyExc_TypeError, "%s%s must be a single number, got %U", prefix(r.method).c_str(),
                  std::string(r.attr).c_str(), name.get());
    }
    if (PyList_Check(value) || PyTuple_Check(value)) {
        result.array = vector_from_sequence(value, r);
        return result;
    }
    if (PyArray_Check(value)) return input_from_array(value, r);
    py::ref arr = py::check(PyArray_FROM_O(value));
    return input_from_array(arr.get(), r);
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
    Input result = convert(value, {.method = options.method,
                                   .attr = options.attr,
                                   .allow_sequence = options.allow_sequence,
                                   .read_only = options.read_only});
    if (result.scalar && options.materialise_scalar) {
        result.array = py::new_f64(1);
        *py::f64_data(result.array.get()) = result.value;
    }
    return result;
}

double validate_scalar(PyObject* value, std::string_view name, std::string_view method) {
    Input result = convert(value, {.method = method, .attr = name, .allow_sequence = false});
    return result.value;
}

namespace {

py::ref vector_of(PyObject* value, std::string_view name, bool read_only) {
    const Rules rules{
        .method = {}, .attr = name, .allow_sequence = true, .check_finite = false, .read_only = read_only};
    Input result = convert(value, rules);
    if (result.scalar) {
        py::ref out = py::new_f64(1);
        *py::f64_data(out.get()) = result.value;
        return out;
    }
    return std::move(result.array);
}

}  // namespace

py::ref as_f64(PyObject* value, std::string_view name) { return vector_of(value, name, false); }

py::ref as_f64_read_only(PyObject* value) { return vector_of(value, "value", true); }

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

std::string number_text(double v) {
    if (std::isfinite(v) && v == std::floor(v) && std::fabs(v) < 1e15) {
        return std::to_string(static_cast<long long>(v));
    }
    py::ref f = py::check(PyFloat_FromDouble(v));
    py::ref r = py::check(PyObject_Repr(f.get()));
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(r.get(), &size);
    if (text == nullptr) py::throw_error_set();
    return std::string(text, static_cast<std::size_t>(size));
}

int payment_frequency(PyObject* m, std::string_view method) {
    static constexpr int kFrequencies[] = {1, 2, 3, 4, 6, 12};
    const double v = validate_scalar(m, "m", method);
    for (int f : kFrequencies) {
        if (v == f) return f;
    }
    py::raise_str(PyExc_ValueError,
                  "[" + std::string(method) + "] m must be one of 1, 2, 3, 4, 6, 12, got " + number_text(v));
}

}  // namespace veltrane::numeric
