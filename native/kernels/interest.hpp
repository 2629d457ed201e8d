// Interest at an annual effective rate i > -1: discount factors, nominal rates, the UDD factors of
// m-thly payments and annuities-certain. One set of functions serves the life contingencies and
// veltrane.interest. Every function takes the force delta = ln(1 + i) and is written in forms
// (expm1, log1p, sinh, series) that keep full precision as i tends to 0 from either side and
// at large rates. m = kContinuous (0) stands for payments made continuously (the limit m -> inf).
#pragma once

#include <cmath>

namespace veltrane::kernels {

inline constexpr int kContinuous = 0;

struct Interest {
    explicit Interest(double rate) noexcept : i(rate), v(1.0 / (1.0 + rate)), delta(std::log1p(rate)) {}
    double i, v, delta;
    double discount(double t) const noexcept { return std::pow(v, t); }
};

// (1 - e^-z) / z, and its limit 1 at z = 0.
inline double phi(double z) noexcept { return z == 0.0 ? 1.0 : -std::expm1(-z) / z; }
// (1 - e^-z (1 + z)) / z^2, the integral of u e^(-zu) over 0 <= u <= 1, and its limit 1/2 at 0.
double psi(double z) noexcept;

// i^(m) = m (e^(delta/m) - 1) and d^(m) = m (1 - e^(-delta/m)); delta itself for kContinuous.
double nominal_rate(double delta, int m) noexcept;
double nominal_discount_rate(double delta, int m) noexcept;

// UDD factors of m-thly annuities, alpha(m) = i d / (i^(m) d^(m)) and
// beta(m) = (i - i^(m)) / (i^(m) d^(m)), with their limits 1 and (m - 1) / 2m at i = 0.
double udd_alpha(double delta, int m) noexcept;
double udd_beta(double delta, int m) noexcept;
// alpha(m) - beta(m), accurate at every rate (both grow without bound with i, their difference
// tends to 1/m).
double udd_alpha_less_beta(double delta, int m) noexcept;
// i / i^(m) (m-thly death benefits under UDD; i / delta for kContinuous) and i / delta.
double i_over_im(double delta, int m) noexcept;
double i_over_delta(double delta) noexcept;

// The present value of 1 a year for n years (n >= 0, infinite for a perpetuity) paid m times a
// year in instalments of 1/m, at the start of each period (due) or at its end; continuous for
// kContinuous. n itself at i = 0; infinite for a perpetuity at i <= 0.
double annuity_certain(double delta, double n, int m, bool due) noexcept;
// The same payments accumulated to time n: (1 + i)^n times the present value.
double accumulated_annuity_certain(double delta, double n, int m, bool due) noexcept;

}  // namespace veltrane::kernels
