// Dependent rates of competing decrements; see causes.hpp for the assumptions.
#include "kernels/causes.hpp"

#include <cmath>

namespace veltrane::kernels {

void dependent_rates_constant_force(std::span<const std::span<const double>> rates,
                                    std::span<const std::span<double>> out) noexcept {
    if (rates.empty()) return;
    const std::size_t n = rates[0].size();
    for (std::size_t i = 0; i < n; ++i) {
        double survive = 1.0, log_sum = 0.0;
        std::size_t certain = 0;
        bool any_nan = false;
        for (std::span<const double> r : rates) {
            const double q = r[i];
            any_nan = any_nan || std::isnan(q);
            survive *= 1.0 - q;
            if (q >= 1.0) {
                ++certain;
            } else {
                log_sum += std::log1p(-q);
            }
        }
        const double total = 1.0 - survive;
        for (std::size_t k = 0; k < rates.size(); ++k) {
            const double q = rates[k][i];
            double v;
            if (any_nan) {
                v = std::nan("");
            } else if (certain > 0) {
                v = q >= 1.0 ? 1.0 / static_cast<double>(certain) : 0.0;
            } else if (log_sum == 0.0) {
                v = 0.0;
            } else {
                v = total * (std::log1p(-q) / log_sum);
            }
            out[k][i] = v;
        }
    }
}

bool dependent_rates_udd(std::span<const std::span<const double>> rates, std::span<const std::span<double>> out) noexcept {
    if (rates.size() == 2) {
        for (std::size_t i = 0; i < rates[0].size(); ++i) {
            const double a = rates[0][i], b = rates[1][i];
            out[0][i] = a * (1.0 - b / 2.0);
            out[1][i] = b * (1.0 - a / 2.0);
        }
        return true;
    }
    if (rates.size() == 3) {
        for (std::size_t i = 0; i < rates[0].size(); ++i) {
            const double a = rates[0][i], b = rates[1][i], c = rates[2][i];
            out[0][i] = a * (1.0 - b / 2.0 - c / 2.0 + b * c / 3.0);
            out[1][i] = b * (1.0 - a / 2.0 - c / 2.0 + a * c / 3.0);
            out[2][i] = c * (1.0 - a / 2.0 - b / 2.0 + a * b / 3.0);
        }
        return true;
    }
    return false;
}

}  // namespace veltrane::kernels
