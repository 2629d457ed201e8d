// Survivorship from one-year decrement rates, and interpolation between integer ages
// (linear, exponential, hyperbolic). Vectors are indexed by integer age from 0. NaN rates
// propagate into the result.
#pragma once

#include <cmath>
#include <span>

namespace veltrane::kernels {

// l[0] = radix, l[i] = radix * (1 - q[0]) * ... * (1 - q[i-1]); the last rate does not
// enter. `l` must have the length of `q`.
void survivorship(std::span<const double> q, double radix, std::span<double> l) noexcept;

enum class Interpolation { linear, exponential, hyperbolic };

// Linear (uniform distribution of decrements): l(x + f) = l(x) + (l(x + 1) - l(x)) * f.
inline double interpolate_linear(double lo, double hi, double frac) noexcept { return lo + (hi - lo) * frac; }

// Exponential (constant force): l(x + f) = l(x) * (l(x + 1) / l(x)) ** f; 0 when l(x) = 0.
inline double interpolate_exponential(double lo, double hi, double frac) noexcept {
    return lo == 0.0 ? 0.0 : lo * std::pow(hi / lo, frac);
}

// Hyperbolic (Balducci): 1 / l(x + f) = (1 - f) / l(x) + f / l(x + 1), computed as
// l(x) l(x + 1) / (l(x + 1) + f (l(x) - l(x + 1))): one division, and no reciprocal of a
// vanishing l. 0 when l(x) = 0; when l(x + 1) = 0 every f > 0 gives 0.
inline double interpolate_hyperbolic(double lo, double hi, double frac) noexcept {
    return lo == 0.0 ? 0.0 : lo * hi / (hi + frac * (lo - hi));
}

}  // namespace veltrane::kernels
