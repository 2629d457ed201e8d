// Survivorship from rates. Operation order mirrors radix * cumprod(1 - q), so results
// agree with the NumPy formulation bit for bit.
#include "kernels/survival.hpp"

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

}  // namespace veltrane::kernels
