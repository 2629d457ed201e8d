// Survivorship from one-year decrement rates, and survivorship at real ages.
// Vectors are indexed by integer age from 0. NaN rates propagate into the result.
#pragma once

#include <span>

namespace veltrane::kernels {

// l[0] = radix, l[i] = radix * (1 - q[0]) * ... * (1 - q[i-1]); the last rate does not
// enter. `l` must have the length of `q`.
void survivorship(std::span<const double> q, double radix, std::span<double> l) noexcept;

enum class Interpolation { linear, exponential };

// Linear (uniform distribution of decrements): l(x + f) = l(x) + (l(x + 1) - l(x)) * f.
double interpolate_linear(double lo, double hi, double frac) noexcept;
// Exponential (constant force): l(x + f) = l(x) * (l(x + 1) / l(x)) ** f; 0 when l(x) = 0.
double interpolate_exponential(double lo, double hi, double frac) noexcept;

// l at a real age x >= 0 (negative ages count as 0): exact at integers (within eps),
// interpolated between them, 0 beyond the last age w = size - 1.
double lx_at(std::span<const double> l, double x, double eps, Interpolation method) noexcept;

// Element-wise lx_at over `x` into `out` (same length).
void lx_at(std::span<const double> l, std::span<const double> x, double eps, Interpolation method,
           std::span<double> out) noexcept;

}  // namespace veltrane::kernels
