// Valuation of many policies in one pass each: the rates along each policy's select diagonal
// (or its table's single column), its unisex mix and its rating, the survival, the discount
// factors and the cash flows of its product, accumulated into present values at the valuation
// date and at issue, with optional per-year reserves and per-year cash-flow sums.
//
// Timing (years from the valuation date, a policy anniversary; k = 0, 1, ...): premiums at k
// while in force and k < premium term; death benefits at k + 1 for a death in year k < term;
// survival benefits of 1/m of the yearly amount at k + l/m (l = 0 .. m - 1, in advance) or
// k + (l + 1)/m (in arrears) while alive and deferral <= k < term; the endowment at the term.
// Benefit amounts grow by (1 + escalation) each year: year k pays (1 + g)^k times the amount
// (the endowment the amount of the last year). Survival within a year follows the table's
// interpolation, linear in a year that ends without survivors.
//
// Determinism: every policy is computed by one thread, in one order; the per-year sums are
// accumulated per chunk of kChunk consecutive policies, in policy order, so that they are the
// same bits whatever the number of threads or the blocks the caller cuts (on chunk borders).
#pragma once

#include "kernels/survival.hpp"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace veltrane::kernels::valuation {

// Policies per chunk of the per-year sums.
inline constexpr std::size_t kChunk = 1024;

// The attributes of a policy's table group (a table, sex, cohort and whether it blends): a
// row of kGroupFields values per group.
enum GroupField : std::size_t {
    kRow,      // bank row of the table at its first select duration (or its only row)
    kPeriod,   // select columns of the table before the ultimate one (0: not select)
    kFemale,   // rows from its male to its female rows (blended policies)
    kDecimals, // decimals to which mixed or rated rates are rounded
    kGroupFields
};
// The per-policy integer attributes.
enum IntField : std::size_t {
    kGroup,        // the policy's group
    kAge,          // attained age at the valuation date
    kOffset,       // select duration at the valuation date less the table's first one
    kElapsed,      // years since issue (0 for a policy valued as new business)
    kShift,        // rating: age shift (>= 0)
    kBasis,        // first discount basis of the policy (scenarios follow it)
    kTerm,         // years of cover from the valuation date; -1 to the end of the table
    kDeferral,     // years before survival benefits start
    kPremiumTerm,  // years of premiums; -1 as long as the cover
    kIntFields
};
// The per-policy real attributes.
enum RealField : std::size_t {
    kBlend,        // male weight of a blended policy, NaN otherwise
    kMultiplier,   // rating: decrement multiplier (1: none)
    kAggravation,  // rating: aggravated risk factor (1: none)
    kDeath,        // death benefit
    kSurvival,     // survival benefit a year
    kEndowment,    // endowment at the term
    kPremium,      // level annual premium; NaN for the net premium
    kEscalation,   // yearly growth of the benefits
    kRealFields
};

// One attribute of every policy of a block: a value per policy, or one value for all (step 0).
template <class T>
struct Column {
    const T* data = nullptr;
    std::size_t step = 1;
    T operator[](std::size_t i) const noexcept { return data[i * step]; }
};

// The quantities of the per-year sums, in this order.
enum Flow : std::size_t { kInForce, kDeaths, kDeathBenefits, kSurvivalBenefits, kEndowments, kPremiums, kFlows };
// The per-policy results, in this order.
enum Result : std::size_t { kPvBenefits, kPvPremiums, kNetPremium, kReserve, kResults };

struct Bank {
    const double* rates;  // rows x width, 1.0 from each table's last age on
    std::size_t rows, width;
};

// Discount factors v(j / m) at steps j = 0 .. steps - 1 of 1/m year, one row per basis.
struct Discount {
    const double* factors;
    std::size_t bases, steps;
};

struct Settings {
    int m = 1;
    bool due = true;
    Interpolation interpolation = Interpolation::linear;
    std::size_t scenarios = 1;   // bases per policy: kBasis, kBasis + 1, ...
    std::size_t years = 0;       // columns of the reserves and of the per-year sums
    bool reserves = false;
    bool flows = false;
    // The factors of every basis are those of one rate, v(j) = v(e) v(j - e): the years after
    // the valuation date are then worth at issue their value at the valuation date times v(e).
    bool flat = false;
};

struct Block {
    std::size_t n;
    const std::int64_t* groups;  // groups x kGroupFields
    std::size_t group_count;
    std::array<Column<std::int64_t>, kIntFields> ints;
    std::array<Column<double>, kRealFields> reals;
};

// Outputs: results (kResults x scenarios x n: result r of policy i under scenario s at
// results[r * result_stride + s * scenario_stride + i], possibly columns of a larger array);
// reserves (scenarios x n x years) when asked; flows (chunks x scenarios x kFlows x years,
// chunks = ceil(n / kChunk)) when asked, each chunk's sums over its policies (to be added in
// chunk order).
struct Outputs {
    double* results;
    std::size_t result_stride, scenario_stride;
    double* reserves;
    double* flows;
};

// The largest discount step any policy of the block reads, plus one (what `steps` must reach).
std::size_t steps_needed(const Bank& bank, const Block& block, const Settings& settings) noexcept;

// Values the block on `threads` threads (at least 1). Callers validate the indices (rows,
// bases, ages >= 0) and the discount steps (steps_needed).
void value_block(const Bank& bank, const Discount& discount, const Settings& settings, const Block& block,
                 const Outputs& out, unsigned threads);

}  // namespace veltrane::kernels::valuation
