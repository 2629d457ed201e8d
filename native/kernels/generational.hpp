// Cohort rates of generational tables: base-year rates projected to the calendar year in
// which each age is reached (cohort + age), by a one-dimensional trend or by a
// two-dimensional (age by calendar year) improvement scale.
// Each routine repeats the NumPy formulation of the formula functions in
// veltrane/tables/base.py operation by operation, calling the same libm functions (exp,
// pow, atan, log1p) and summing as NumPy's pairwise summation does, so results agree bit
// for bit wherever NumPy itself calls libm for those functions.
// Inputs the Python functions refuse (non-finite values, an improvement of 100 % or more,
// grid years out of order) are reported as `false`; the caller then lets the Python
// function raise its own message. Outputs may not alias inputs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace veltrane::kernels {

enum class Trend {
    exponential,         // q * exp(-lambda * t)
    compound,            // q * (1 - lambda) ** t
    exponential_damped,  // q * exp(-lambda * D * atan(t / D)), D = 100 years
};

// Years, counted from the base year, over which the arctangent damping levels off.
inline constexpr double kTrendDampingHorizon = 100.0;

// q(x) projected by `trend` over t = offset + x years (offset = cohort - base year, x the
// index), clipped to [0, 1]; zero rates stay zero. All spans have one entry per age.
bool project_trend(Trend trend, std::span<const double> q, std::span<const double> improvement,
                   std::int64_t offset, std::span<double> out) noexcept;

// q(x) projected over a two-dimensional scale: `mi` holds one row per age and one column per
// grid year (row-major, q.size() * grid.size() values); the improvement of calendar year y
// is read from the column of the first grid year not earlier than y (the first column
// before the grid, the last one after it). Forward projections multiply by the products of
// (1 - MI), backward ones divide by them.
bool project_scale(std::span<const double> q, std::span<const double> mi, std::span<const std::int64_t> grid,
                   std::int64_t cohort, std::int64_t base_year, std::span<double> out);

// NumPy's pairwise summation of a contiguous row, as np.sum along the row computes it.
double pairwise_sum(const double* a, std::size_t n) noexcept;

}  // namespace veltrane::kernels
