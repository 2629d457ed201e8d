// Integer ages: a function of the age is evaluated once per integer age of the table into a
// lookup vector, and every age then reads its value (a branch-free gather). The lookup's
// entries are made by the scalar kernels themselves, so results are those of the general
// path bit for bit. Only ages that are exactly integral and not negative qualify (NaN does
// not); the last lookup entry stands for every larger age, so a lookup must extend past both
// the table's last age w and the last index of its vectors (lookup_size).
#pragma once

#include <cstddef>
#include <span>

namespace veltrane::kernels {

// True when every x is an integer >= 0 (exactly: x == floor(x)); one pass, no early exit.
bool all_whole_ages(std::span<const double> x) noexcept;

// Entries a lookup needs: integer ages 0 .. max(last index, floor(w)) + 1.
std::size_t lookup_size(std::size_t vector_size, double w) noexcept;

// out[k] = lookup[min(x[k], lookup.size() - 1)] while every age is whole; false (with `out`
// partly written) as soon as a chunk holds an age that is not, or NaN.
bool gather_whole(std::span<const double> lookup, std::span<const double> x, std::span<double> out) noexcept;

// row[j] = lookup[min(xi + t[j], lookup.size() - 1)] for a whole age xi and whole durations t.
void gather_shifted(std::span<const double> lookup, double xi, std::span<const double> t, double* row) noexcept;

}  // namespace veltrane::kernels
