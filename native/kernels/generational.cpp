// Generational projections (see generational.hpp). The order of every operation follows
// the NumPy functions: a rate is multiplied by its factor only where it is not zero (so that
// 0 * inf never makes a NaN), then clipped to [0, 1] as np.clip does.
#include "kernels/generational.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

namespace veltrane::kernels {
namespace {

bool all_finite(std::span<const double> v) noexcept {
    bool ok = true;
    for (double x : v) ok &= std::isfinite(x);
    return ok;
}

// np.clip(x, 0.0, 1.0): the maximum with 0, then the minimum with 1; NaN stays NaN.
inline double clip_unit(double x) noexcept {
    if (std::isnan(x)) return x;
    const double low = x > 0.0 ? x : 0.0;
    return low < 1.0 ? low : 1.0;
}

inline double apply_factor(double q, double factor) noexcept { return clip_unit(q != 0.0 ? q * factor : 0.0); }

// NumPy's block size for pairwise summation; below it, eight running sums.
constexpr std::size_t kPairwiseBlock = 128;

}  // namespace

double pairwise_sum(const double* a, std::size_t n) noexcept {
    if (n < 8) {
        double res = -0.0;
        for (std::size_t i = 0; i < n; ++i) res += a[i];
        return res;
    }
    if (n <= kPairwiseBlock) {
        double r[8];
        for (std::size_t j = 0; j < 8; ++j) r[j] = a[j];
        std::size_t i = 8;
        for (; i < n - (n % 8); i += 8) {
            for (std::size_t j = 0; j < 8; ++j) r[j] += a[i + j];
        }
        double res = ((r[0] + r[1]) + (r[2] + r[3])) + ((r[4] + r[5]) + (r[6] + r[7]));
        for (; i < n; ++i) res += a[i];
        return res;
    }
    std::size_t n2 = n / 2;
    n2 -= n2 % 8;
    return pairwise_sum(a, n2) + pairwise_sum(a + n2, n - n2);
}

bool project_trend(Trend trend, std::span<const double> q, std::span<const double> improvement,
                   std::int64_t offset, std::span<double> out) noexcept {
    const std::size_t n = q.size();
    if (improvement.size() != n || out.size() != n || !all_finite(q) || !all_finite(improvement)) return false;
    const double base = static_cast<double>(offset);
    switch (trend) {
        case Trend::exponential:
            for (std::size_t i = 0; i < n; ++i) {
                const double t = base + static_cast<double>(i);
                // The factor is not needed where the rate is zero: exp is the costly step.
                out[i] = q[i] != 0.0 ? apply_factor(q[i], std::exp(-improvement[i] * t)) : 0.0;
            }
            return true;
        case Trend::compound:
            for (std::size_t i = 0; i < n; ++i) {
                const double t = base + static_cast<double>(i);
                if (t != 0.0 && improvement[i] >= 1.0) return false;
            }
            for (std::size_t i = 0; i < n; ++i) {
                const double t = base + static_cast<double>(i);
                // At the base year itself the factor is 1 whatever lambda.
                const double keep = t != 0.0 ? 1.0 - improvement[i] : 1.0;
                out[i] = q[i] != 0.0 ? apply_factor(q[i], std::pow(keep, t)) : 0.0;
            }
            return true;
        case Trend::exponential_damped:
            for (std::size_t i = 0; i < n; ++i) {
                const double t = base + static_cast<double>(i);
                if (q[i] == 0.0) {
                    out[i] = 0.0;
                    continue;
                }
                const double damped = kTrendDampingHorizon * std::atan(t / kTrendDampingHorizon);
                out[i] = apply_factor(q[i], std::exp(-improvement[i] * damped));
            }
            return true;
    }
    return false;
}

bool project_scale(std::span<const double> q, std::span<const double> mi, std::span<const std::int64_t> grid,
                   std::int64_t cohort, std::int64_t base_year, std::span<double> out) {
    const std::size_t n = q.size();
    const std::size_t g = grid.size();
    if (g == 0 || mi.size() != n * g || out.size() != n || !all_finite(q)) return false;
    for (std::size_t j = 1; j < g; ++j) {
        if (grid[j] <= grid[j - 1]) return false;
    }
    if (n == 0) return true;
    // The calendar years that can enter some age's product: (earliest, latest].
    const std::int64_t first = std::min(base_year, cohort) + 1;
    const std::int64_t last = std::max(base_year, cohort + static_cast<std::int64_t>(n - 1));
    const std::size_t span = last >= first ? static_cast<std::size_t>(last - first + 1) : 0;
    std::vector<std::size_t> column(span);
    for (std::size_t s = 0; s < span; ++s) {
        const std::int64_t year = first + static_cast<std::int64_t>(s);
        const auto j = static_cast<std::size_t>(std::lower_bound(grid.begin(), grid.end(), year) - grid.begin());
        column[s] = std::min(j, g - 1);
    }
    // One row of log(1 - MI): unused years hold log1p(-0.0) = -0.0, as the NumPy row does;
    // they take their places in the pairwise sum.
    std::vector<double> row(span, -0.0);
    for (std::size_t i = 0; i < n; ++i) {
        const std::int64_t target = cohort + static_cast<std::int64_t>(i);
        const std::int64_t low = std::min(target, base_year);
        const std::int64_t high = std::max(target, base_year);
        // Used years: low < year <= high, i.e. positions [low + 1 - first, high - first].
        const auto begin = static_cast<std::size_t>(low + 1 - first);
        const auto end = static_cast<std::size_t>(high - first + 1);
        const double* rates = mi.data() + i * g;
        std::size_t cached_column = g;
        double cached = 0.0;
        for (std::size_t s = begin; s < end; ++s) {
            if (column[s] != cached_column) {
                const double r = rates[column[s]];
                if (!(std::isfinite(r) && r < 1.0)) return false;
                cached_column = column[s];
                cached = std::log1p(-r);
            }
            row[s] = cached;
        }
        const double log_keep = 0.0 + pairwise_sum(row.data(), span);
        std::fill(row.begin() + static_cast<std::ptrdiff_t>(begin), row.begin() + static_cast<std::ptrdiff_t>(end),
                  -0.0);
        const double direction = target > base_year ? 1.0 : (target < base_year ? -1.0 : 0.0);
        out[i] = apply_factor(q[i], std::exp(direction * log_keep));
    }
    return true;
}

}  // namespace veltrane::kernels
