// The NumPy C API for every translation unit: include this header, never numpy's own.
// numpy_api.cpp owns the API table (one per extension module, which each link it);
// everything else sees it through NO_IMPORT_ARRAY.
#pragma once

#include "pyutil/errors.hpp"

#define NPY_NO_DEPRECATED_API NPY_2_0_API_VERSION
#define PY_ARRAY_UNIQUE_SYMBOL veltrane_ARRAY_API
#ifndef VELTRANE_NUMPY_API_OWNER
#define NO_IMPORT_ARRAY
#endif
#include <numpy/arrayobject.h>

#include <cstddef>
#include <span>

namespace veltrane::py {

// Loads the NumPy C API table; called from each module's exec slot.
void import_numpy();

// A new, uninitialised, C-contiguous 1-D float64 array of n elements.
ref new_f64(npy_intp n);
// A new C-contiguous float64 array of the given shape.
ref new_f64_2d(npy_intp rows, npy_intp cols);
// A new float64 array holding a copy of `values`.
ref f64_from(std::span<const double> values);
// A fresh C-contiguous float64 copy of any array-like (no dtype checks beyond casting).
ref copy_as_f64(PyObject* obj);

inline double* f64_data(PyObject* array) {
    return static_cast<double*>(PyArray_DATA(reinterpret_cast<PyArrayObject*>(array)));
}
inline npy_intp f64_size(PyObject* array) { return PyArray_SIZE(reinterpret_cast<PyArrayObject*>(array)); }
inline std::span<double> f64_span(PyObject* array) {
    return {f64_data(array), static_cast<std::size_t>(f64_size(array))};
}
inline std::span<const double> f64_cspan(PyObject* array) {
    return {f64_data(array), static_cast<std::size_t>(f64_size(array))};
}
// True for a 1-D, C-contiguous, aligned, native float64 array that we may read as a span.
bool is_f64_vector(PyObject* obj);

// Releases the GIL for the lifetime of the guard; touch no Python object meanwhile.
class gil_released {
public:
    gil_released() noexcept : state_(PyEval_SaveThread()) {}
    ~gil_released() { PyEval_RestoreThread(state_); }
    gil_released(const gil_released&) = delete;
    gil_released& operator=(const gil_released&) = delete;

private:
    PyThreadState* state_;
};

}  // namespace veltrane::py
