// Survivorship kernels. Operation order mirrors the NumPy reference formulas, so that
// results agree bit for bit: l = radix * cumprod(1 - q), interpolation as written.
#include "kernels/survival.hpp"

#include <cmath>
#include <cstddef>

namespace veltrane::kernels {

void survivorship(std::span<const double> q, double radix, std::span<double> l) noexcept {
    const std::size_t n = q.size();
    if (n == 0) return;
    l[0] = radix * 1.0;
    double product = 1.0;
    for (std::size_t i = 1; i < n; ++i) {
        product *= (1.0 - q[i - 1]);
        l[i] = radix * product;
    }
}

double interpolate_linear(double lo, double hi, double frac) noexcept { return lo + (hi - lo) * frac; }

double interpolate_exponential(double lo, double hi, double frac) noexcept {
    if (lo == 0.0) return 0.0;
    return lo * std::pow(hi / lo, frac);
}

double lx_at(std::span<const double> l, double x, double eps, Interpolation method) noexcept {
    const std::size_t n = l.size();
    if (n == 0) return 0.0;
    const std::size_t last = n - 1;
    const double w = static_cast<double>(last);
    if (x > w) return 0.0;
    if (x < 0.0) x = 0.0;
    const double whole = std::floor(x);
    const auto i = static_cast<std::size_t>(whole);
    const double frac = x - whole;
    const std::size_t i0 = i < last ? i : last;
    const std::size_t i1 = i + 1 < last ? i + 1 : last;
    if (frac <= eps) return l[i0];
    if (frac >= 1.0 - eps) return l[i1];
    return method == Interpolation::linear ? interpolate_linear(l[i0], l[i1], frac)
                                           : interpolate_exponential(l[i0], l[i1], frac);
}

void lx_at(std::span<const double> l, std::span<const double> x, double eps, Interpolation method,
           std::span<double> out) noexcept {
    for (std::size_t k = 0; k < x.size(); ++k) out[k] = lx_at(l, x[k], eps, method);
}

}  // namespace veltrane::kernels
