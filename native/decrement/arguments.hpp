// Positional-or-keyword arguments of METH_FASTCALL | METH_KEYWORDS methods, matched without
// building a tuple or a dictionary (the actuarial functions are called millions of times).
#pragma once

#include "decrement/state.hpp"

#include <array>
#include <cstddef>

namespace veltrane::decrement {

template <std::size_t N>
struct Arguments {
    std::array<PyObject*, N> values{};  // borrowed; null when not given
    PyObject* get(std::size_t i, PyObject* fallback) const { return values[i] != nullptr ? values[i] : fallback; }
    bool given(std::size_t i) const { return values[i] != nullptr; }
};

// Matches `args`/`kwnames` against `names` (in signature order); the first `required` are
// mandatory. Raises the interpreter's usual TypeErrors for surplus, unknown, repeated or
// missing arguments.
template <std::size_t N>
Arguments<N> parse_arguments(const char* function, const std::array<const char*, N>& names, std::size_t required,
                             PyObject* const* args, Py_ssize_t nargs, PyObject* kwnames) {
    Arguments<N> out;
    if (nargs > static_cast<Py_ssize_t>(N)) {
        py::raise(PyExc_TypeError, "%s() takes at most %zd arguments (%zd given)", function,
                  static_cast<Py_ssize_t>(N), nargs);
    }
    for (Py_ssize_t i = 0; i < nargs; ++i) out.values[static_cast<std::size_t>(i)] = args[i];
    if (kwnames != nullptr) {
        const Py_ssize_t nkw = PyTuple_GET_SIZE(kwnames);
        for (Py_ssize_t k = 0; k < nkw; ++k) {
            PyObject* key = PyTuple_GET_ITEM(kwnames, k);
            std::size_t slot = N;
            for (std::size_t i = 0; i < N; ++i) {
                if (str_equals(key, names[i])) {
                    slot = i;
                    break;
                }
            }
            if (slot == N) py::raise(PyExc_TypeError, "%s() got an unexpected keyword argument '%U'", function, key);
            if (out.values[slot] != nullptr) {
                py::raise(PyExc_TypeError, "%s() got multiple values for argument '%s'", function, names[slot]);
            }
            out.values[slot] = args[nargs + k];
        }
    }
    for (std::size_t i = 0; i < required; ++i) {
        if (out.values[i] == nullptr) {
            py::raise(PyExc_TypeError, "%s() missing required argument '%s'", function, names[i]);
        }
    }
    return out;
}

}  // namespace veltrane::decrement
