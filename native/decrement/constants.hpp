// Constants of the decrement module: table kinds, tolerances and limits.
#pragma once

#include <cstddef>
#include <string_view>

namespace veltrane::decrement {

// Tolerance under which a one-year rate counts as certain (equal to 1) or as zero.
inline constexpr double kQCertaintyTol = 1e-12;
// Capacity of the process-wide cache of cohort-projected single-sex rates.
inline constexpr long kCohortCacheMax = 256;
// Instances above which a vectorial construction warns about memory.
inline constexpr long kVectorialWarningThreshold = 100;
// Cells of an age-by-duration grid evaluated in one piece.
inline constexpr std::size_t kGridBlockCells = 2'000'000;
// Most decimals any quantity is rounded to (veltrane.config.MAX_DECIMALS; a test keeps the
// two in step).
inline constexpr int kMaxDecimals = 15;

struct TableKind {
    std::string_view type;    // "life", "disability", "exit"
    std::string_view prefix;  // column prefix and rate symbol
};

inline constexpr TableKind kTableKinds[] = {
    {"life", "qx"},
    {"disability", "ix"},
    {"exit", "ox"},
};

}  // namespace veltrane::decrement
