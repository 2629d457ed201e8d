// Decrement modifications and competing-decrement merges, element by element in NumPy's
// operation order (no contraction into fused multiply-adds; see CMakeLists).
#include "kernels/modify.hpp"

#include <cmath>
#include <limits>

namespace veltrane::kernels {
namespace {

// x ** f as ndarray ** scalar computes it: NumPy squares for 2, takes the square root for 0.5
// and copies for 1 instead of calling pow, and those results can differ from pow's by an ulp.
double array_power(double x, double f) noexcept {
    if (f == 2.0) return x * x;
    if (f == 0.5) return std::sqrt(x);
    if (f == 1.0) return x;
    return std::pow(x, f);
}

}  // namespace

void scale(std::span<double> q, double m) noexcept {
    for (double& v : q) v *= m;
}

void scale(std::span<double> q, std::span<const double> m) noexcept {
    for (std::size_t i = 0; i < q.size(); ++i) q[i] *= m[i];
}

void geometric_increase(std::span<double> q, double base, std::size_t start) noexcept {
    for (std::size_t i = start + 1; i < q.size(); ++i) q[i] *= std::pow(base, static_cast<double>(i - start));
}

void aggravate(std::span<double> q, double f) noexcept {
    for (double& v : q) v = 1.0 - array_power(1.0 - v, f);
}

void cap_at_one(std::span<double> q) noexcept {
    for (double& v : q) v = v > 1.0 ? 1.0 : v;
}

void clip_unit(std::span<double> q) noexcept {
    // np.maximum keeps its second operand unless the first is greater: -0.0 becomes 0.0.
    for (double& v : q) {
        if (std::isnan(v)) continue;
        v = v > 1.0 ? 1.0 : (v > 0.0 ? v : 0.0);
    }
}

double max_value(std::span<const double> q) noexcept {
    double m = -std::numeric_limits<double>::infinity();
    for (double v : q) m = v > m ? v : m;
    return m;
}

bool all_finite(std::span<const double> q) noexcept {
    for (double v : q) {
        if (!std::isfinite(v)) return false;
    }
    return true;
}

bool all_positive(std::span<const double> q) noexcept {
    for (double v : q) {
        if (!(v > 0.0)) return false;
    }
    return true;
}

std::optional<std::size_t> first_outside(std::span<const double> q, double lo, double hi) noexcept {
    for (std::size_t i = 0; i < q.size(); ++i) {
        if (q[i] < lo || q[i] > hi) return i;
    }
    return std::nullopt;
}

std::optional<std::size_t> first_above(std::span<const double> q, double limit, std::size_t end) noexcept {
    const std::size_t n = end < q.size() ? end : q.size();
    for (std::size_t i = 0; i < n; ++i) {
        if (q[i] > limit) return i;
    }
    return std::nullopt;
}

std::optional<std::size_t> certainty_cut(std::span<const double> q, double tol) noexcept {
    const double certain = 1.0 - tol;
    std::size_t i = 0;
    while (i < q.size() && !(q[i] >= certain)) ++i;
    if (i == q.size()) return std::nullopt;
    for (std::size_t j = i + 1; j < q.size(); ++j) {
        if (q[j] > tol && q[j] < certain) return i;
    }
    return std::nullopt;
}

void align_by_age(std::span<const double> other, std::size_t offset, std::span<double> out) noexcept {
    for (std::size_t i = 0; i < out.size(); ++i) out[i] = aligned_rate(other, offset, i);
}

void combine_independent(std::span<const double> host, std::span<const std::span<const double>> others,
                         std::size_t offset, std::span<double> out) noexcept {
    for (std::size_t i = 0; i < host.size(); ++i) {
        double s = 1.0 - host[i];
        for (std::span<const double> o : others) s *= 1.0 - aligned_rate(o, offset, i);
        out[i] = 1.0 - s;
    }
}

void combine_udd2(std::span<const double> q1, std::span<const double> other, std::size_t offset,
                  std::span<double> out) noexcept {
    for (std::size_t i = 0; i < q1.size(); ++i) {
        const double a = q1[i];
        const double b = aligned_rate(other, offset, i);
        out[i] = a * (1.0 - b / 2.0) + b * (1.0 - a / 2.0);
    }
}

void combine_udd3(std::span<const double> q1, std::span<const double> other_a, std::span<const double> other_b,
                  std::size_t offset, std::span<double> out) noexcept {
    for (std::size_t i = 0; i < q1.size(); ++i) {
        const double a = q1[i];
        const double b = aligned_rate(other_a, offset, i);
        const double c = aligned_rate(other_b, offset, i);
        const double ta = a * (1.0 - b / 2.0 - c / 2.0 + b * c / 3.0);
        const double tb = b * (1.0 - a / 2.0 - c / 2.0 + a * c / 3.0);
        const double tc = c * (1.0 - a / 2.0 - b / 2.0 + a * b / 3.0);
        out[i] = ta + tb + tc;
    }
}

}  // namespace veltrane::kernels
