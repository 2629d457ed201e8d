// Round-half-to-even at a number of decimals, bit for bit as NumPy's round():
// multiply by 10**d, round to the nearest integer (ties to even), divide by 10**d.
// NaN stays NaN; infinities stay infinite.
#pragma once

#include <cmath>
#include <span>

namespace veltrane::kernels {

// Decimals beyond this many give an infinite power of ten whatever their number, so they are
// limited to it: the result is NumPy's, and a wild count neither loops long nor overflows.
inline constexpr int kDecimalsLimit = 400;
inline int limited_decimals(int decimals) noexcept {
    return decimals > kDecimalsLimit ? kDecimalsLimit : (decimals < -kDecimalsLimit ? -kDecimalsLimit : decimals);
}

// 10**n for 0 <= n <= kDecimalsLimit, computed as NumPy does (exact for n <= 22).
inline double power_of_ten(int n) noexcept {
    static constexpr double small[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8};
    if (n < 9) return small[n < 0 ? 0 : n];
    double r = 1e9;
    while (n-- > 9) r *= 10.0;
    return r;
}

inline double round_to(double x, int decimals) noexcept {
    decimals = limited_decimals(decimals);
    if (decimals >= 0) {
        const double f = power_of_ten(decimals);
        return std::nearbyint(x * f) / f;
    }
    const double f = power_of_ten(-decimals);
    return std::nearbyint(x / f) * f;
}

inline void round_in_place(std::span<double> values, int decimals) noexcept {
    decimals = limited_decimals(decimals);
    if (decimals >= 0) {
        const double f = power_of_ten(decimals);
        for (double& v : values) v = std::nearbyint(v * f) / f;
    } else {
        for (double& v : values) v = round_to(v, decimals);
    }
}

// nearbyint(y) in the default rounding mode, without a library call: adding 2**52 to |y| < 2**52
// leaves no fractional bits, and that addition rounds half to even. Larger |y|, infinities and
// NaN are returned unchanged, as nearbyint returns them.
inline double round_half_even(double y) noexcept {
    const double a = std::fabs(y);
    if (!(a < 0x1p52)) return y;
    return std::copysign((a + 0x1p52) - 0x1p52, y);
}

// round_to with the power of ten found once, for loops over many values: the same results,
// bit for bit, at a fraction of the cost.
class Rounder {
public:
    explicit Rounder(int decimals) noexcept
        : scale_(power_of_ten(decimals < 0 ? -limited_decimals(decimals) : limited_decimals(decimals))),
          negative_(decimals < 0) {}
    double operator()(double x) const noexcept {
        return negative_ ? round_half_even(x / scale_) * scale_ : round_half_even(x * scale_) / scale_;
    }

private:
    double scale_;
    bool negative_;
};

}  // namespace veltrane::kernels
