// Owner of the NumPy C API table of the extension module that links this file.
#define VELTRANE_NUMPY_API_OWNER
#include "pyutil/numpy.hpp"

#include <algorithm>

namespace veltrane::py {

void import_numpy() {
    if (_import_array() < 0) throw_error_set();
}

ref new_f64(npy_intp n) {
    npy_intp dims[1] = {n};
    return check(PyArray_SimpleNew(1, dims, NPY_FLOAT64));
}

ref new_f64_2d(npy_intp rows, npy_intp cols) {
    npy_intp dims[2] = {rows, cols};
    return check(PyArray_SimpleNew(2, dims, NPY_FLOAT64));
}

ref f64_from(std::span<const double> values) {
    ref out = new_f64(static_cast<npy_intp>(values.size()));
    std::copy(values.begin(), values.end(), f64_data(out.get()));
    return out;
}

ref copy_as_f64(PyObject* obj) {
    return check(PyArray_FROM_OTF(obj, NPY_FLOAT64, NPY_ARRAY_IN_ARRAY | NPY_ARRAY_ENSURECOPY));
}

bool is_f64_vector(PyObject* obj) {
    if (!PyArray_Check(obj)) return false;
    auto* a = reinterpret_cast<PyArrayObject*>(obj);
    return PyArray_NDIM(a) == 1 && PyArray_TYPE(a) == NPY_FLOAT64 && PyArray_ISCARRAY_RO(a) &&
           PyArray_ISNOTSWAPPED(a);
}

}  // namespace veltrane::py
