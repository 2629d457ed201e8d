// Validation and conversion of numeric arguments (ages, durations, weights), shared by
// the helpers module and the decrement module, which calls these directly.
// Scalars, lists, tuples and NumPy arrays take fast paths; any other array-like (pandas
// or Polars Series) goes through numpy.asarray. Results are 1-D float64 arrays.
#pragma once

#include "pyutil/numpy.hpp"

#include <optional>
#include <string>
#include <string_view>

namespace veltrane::numeric {

// Tolerance within which a real number counts as an integer.
inline constexpr double kEpsInt = 1e-9;

// The value of a single real number: int, float, NumPy integer or floating scalar, or an
// object with __float__ / __index__. Returns nullopt when `obj` is not a single number
// (sequences, strings, None, bools, complex...). Errors raised by __float__ propagate.
std::optional<double> scalar_value(PyObject* obj);

struct Input {
    // 1-D C-contiguous float64 (null when scalar and not materialised). With `read_only` it
    // may be the caller's own array (or a view of it): read it, never write to it or return it.
    py::ref array;
    double value = 0.0;  // the number when `scalar`
    bool scalar = false;
};

struct InputOptions {
    std::string_view method;  // shown as "[method]" in messages; may be empty
    std::string_view attr;    // the argument's name, e.g. "x"
    bool allow_sequence = true;
    bool materialise_scalar = false;  // also build a one-element array for a scalar
    // The caller only reads the vector: an aligned, contiguous, native float64 array is then
    // used in place instead of copied (a long duration vector is not held twice).
    bool read_only = false;
};

// Validates an age or time argument: a finite real number, or a flat sequence of them.
Input validate_input(PyObject* value, const InputOptions& options);

// Validates one finite real number under the name `name`; TypeError/ValueError otherwise.
double validate_scalar(PyObject* value, std::string_view name, std::string_view method = {});

// A new 1-D float64 array from a number or a flat sequence of numbers (no finiteness check);
// messages call the argument `name`.
py::ref as_f64(PyObject* value, std::string_view name = "value");
// The same values for reading only: a float64 vector that can be read in place is returned
// itself (or as a plain-array view), anything else is converted into a new array.
py::ref as_f64_read_only(PyObject* value);

// Raises ValueError "{caller}: value {v:.6g} outside [0,1]" for the first element outside
// [-eps, 1 + eps] (or NaN); otherwise clamps every element into [0, 1] in place.
void check_unit_interval(std::span<double> p, std::string_view caller);
[[noreturn]] void raise_outside_unit_interval(double p, std::string_view caller);

// A number as messages show it: a whole number without a decimal point, anything else as
// Python's repr of the float.
std::string number_text(double v);

// The payment frequency m per year: one of 1, 2, 3, 4, 6, 12 (the choices of
// `PaymentFrequencyLiteral` in veltrane.base; a test keeps the two lists in step). Raises
// ValueError "[method] m must be one of 1, 2, 3, 4, 6, 12, got {m}" otherwise.
int payment_frequency(PyObject* m, std::string_view method);

bool all_finite(std::span<const double> values) noexcept;
bool all_integer_valued(std::span<const double> values) noexcept;
inline bool is_integer_valued(double v) noexcept;

}  // namespace veltrane::numeric

#include <cmath>

inline bool veltrane::numeric::is_integer_valued(double v) noexcept {
    return std::fabs(v - std::nearbyint(v)) <= kEpsInt;
}
