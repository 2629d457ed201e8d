// The dependent (multiple-decrement) rate of each cause, from the causes' own single-decrement
// rates aligned by age: rates[k][i] is cause k at age i, and out[k][i] receives its dependent
// rate, the probability of leaving by cause k within the year in the presence of the others.
// The dependent rates of an age add up to the total of the matching merge.
// NaN rules: a NaN rate makes every dependent rate of its age NaN (callers check ranges first).
#pragma once

#include <cstddef>
#include <span>

namespace veltrane::kernels {

// Each cause at a constant force within the year (the assumption under which independent
// risks multiply): q_k' = q_tot * ln(1 - q_k) / sum_j ln(1 - q_j), q_tot = 1 - prod_j (1 - q_j).
// Causes certain within the year (q_k >= 1) share the whole decrement equally; an age where no
// cause acts gives 0 for each.
void dependent_rates_constant_force(std::span<const std::span<const double>> rates,
                                    std::span<const std::span<double>> out) noexcept;

// Each cause uniformly distributed over the year in its single-decrement table: for two causes
// q1' = q1 (1 - q2/2); for three, q1' = q1 (1 - q2/2 - q3/2 + q2 q3/3); likewise for the others.
// Returns false (writing nothing) for any other number of causes.
bool dependent_rates_udd(std::span<const std::span<const double>> rates, std::span<const std::span<double>> out) noexcept;

}  // namespace veltrane::kernels
