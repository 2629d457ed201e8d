// Modifications of a one-year decrement vector (multipliers, geometric growth, aggravated
// risk, clipping, truncation at certainty) and the merge of competing decrements from other
// tables (independent risks, uniform distribution of decrements).
// Each routine repeats the NumPy formulation operation by operation, so results agree bit for
// bit. NaN rules: arithmetic propagates NaN; searches written as comparisons (`q > limit`,
// `q >= 1 - tol`) never select a NaN, exactly as the NumPy masks do not.
#pragma once

#include <cstddef>
#include <optional>
#include <span>

namespace veltrane::kernels {

// q[i] *= m.
void scale(std::span<double> q, double m) noexcept;
// q[i] *= m[i]; the spans have equal length.
void scale(std::span<double> q, std::span<const double> m) noexcept;

// q[start + k] *= base ** k for k = 1 .. q.size() - start - 1; indices 0 .. start stay.
void geometric_increase(std::span<double> q, double base, std::size_t start) noexcept;

// q = 1 - (1 - q) ** f, i.e. p' = p ** f.
void aggravate(std::span<double> q, double f) noexcept;

// np.minimum(q, 1.0) in place (NaN stays NaN).
void cap_at_one(std::span<double> q) noexcept;
// np.maximum(np.minimum(q, 1.0), 0.0) in place (NaN stays NaN).
void clip_unit(std::span<double> q) noexcept;

// The largest element (NaN ignored); -inf for an empty span.
double max_value(std::span<const double> q) noexcept;
bool all_finite(std::span<const double> q) noexcept;
bool all_positive(std::span<const double> q) noexcept;  // every element > 0 (NaN fails)

// The first index i with q[i] < lo or q[i] > hi.
std::optional<std::size_t> first_outside(std::span<const double> q, double lo, double hi) noexcept;
// The first index i below `end` (limited to the span) with q[i] > limit.
std::optional<std::size_t> first_above(std::span<const double> q, double limit, std::size_t end) noexcept;

// Where a vector is cut at certainty: the first index i with q[i] >= 1 - tol, provided a live
// rate (tol < q < 1 - tol) follows it; otherwise nothing (a vector that reaches 1 only at its
// end, or is followed only by zeros and ones, keeps its length).
std::optional<std::size_t> certainty_cut(std::span<const double> q, double tol) noexcept;

// The other table's rate for host index i, whose age is offset + i: 0 beyond its last age.
inline double aligned_rate(std::span<const double> other, std::size_t offset, std::size_t i) noexcept {
    const std::size_t age = offset + i;
    return age < other.size() ? other[age] : 0.0;
}

// out[i] = aligned_rate(other, offset, i) for i < out.size().
void align_by_age(std::span<const double> other, std::size_t offset, std::span<double> out) noexcept;

// Independent competing risks: out = 1 - (1 - host) * prod_j (1 - other_j aligned).
// `out` has the host's length and may alias it.
void combine_independent(std::span<const double> host, std::span<const std::span<const double>> others,
                         std::size_t offset, std::span<double> out) noexcept;

// Two causes, each uniformly distributed over the year of age in its single-decrement table:
// out = q1 * (1 - q2 / 2) + q2 * (1 - q1 / 2), with q2 the aligned other. `out` may alias q1.
void combine_udd2(std::span<const double> q1, std::span<const double> other, std::size_t offset,
                  std::span<double> out) noexcept;

// Three causes under the same assumption:
// out = q1 (1 - q2/2 - q3/2 + q2 q3/3) + q2 (1 - q1/2 - q3/2 + q1 q3/3) + q3 (1 - q1/2 - q2/2 + q1 q2/3).
void combine_udd3(std::span<const double> q1, std::span<const double> other_a, std::span<const double> other_b,
                  std::size_t offset, std::span<double> out) noexcept;

}  // namespace veltrane::kernels
