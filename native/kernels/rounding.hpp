// Round-half-to-even at a number of decimals, bit for bit as NumPy's round():
// multiply by 10**d, round to the nearest integer (ties to even), divide by 10**d.
// NaN stays NaN; infinities stay infinite.
#pragma once

#include <cmath>
#include <span>

namespace veltrane::kernels {

// 10**n computed as NumPy does (exact for n <= 22).
inline double power_of_ten(int n) noexcept {
    static constexpr double small[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8};
    if (n < 9) return small[n];
    double r = 1e9;
    while (n-- > 9) r *= 10.0;
    return r;
}

inline double round_to(double x, int decimals) noexcept {
    if (decimals >= 0) {
        const double f = power_of_ten(decimals);
        return std::nearbyint(x * f) / f;
    }
    const double f = power_of_ten(-decimals);
    return std::nearbyint(x / f) * f;
}

inline void round_in_place(std::span<double> values, int decimals) noexcept {
    if (decimals >= 0) {
        const double f = power_of_ten(decimals);
        for (double& v : values) v = std::nearbyint(v * f) / f;
    } else {
        for (double& v : values) v = round_to(v, decimals);
    }
}

}  // namespace veltrane::kernels
