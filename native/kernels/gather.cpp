// Lookups by integer age (see gather.hpp).
#include "kernels/gather.hpp"

#include <cmath>
#include <cstdint>

namespace veltrane::kernels {
namespace {

// The lookup index of a whole age: through a signed conversion, a single instruction.
inline std::size_t index(double age, double last) noexcept {
    return static_cast<std::size_t>(static_cast<std::int64_t>(age < last ? age : last));
}

}  // namespace

bool all_whole_ages(std::span<const double> x) noexcept {
    // Below 2**52, adding 2**52 drops every fraction (no library call for floor): a value
    // comes back unchanged exactly when it is whole. NaN fails the first comparison.
    bool whole = true;
    for (double v : x) whole &= (v >= 0.0) & (v < 0x1p52) & ((v + 0x1p52) - 0x1p52 == v);
    return whole;
}

std::size_t lookup_size(std::size_t vector_size, double w) noexcept {
    const std::size_t last = vector_size == 0 ? 0 : vector_size - 1;
    const double top = w > static_cast<double>(last) ? std::floor(w) : static_cast<double>(last);
    return static_cast<std::size_t>(top) + 2;
}

bool gather_whole(std::span<const double> lookup, std::span<const double> x, std::span<double> out) noexcept {
    // The test of each age rides along with its read of the lookup: one pass over the ages.
    constexpr std::size_t kChunk = 4096;
    const auto last = static_cast<double>(lookup.size() - 1);
    const double* l = lookup.data();
    for (std::size_t begin = 0; begin < x.size(); begin += kChunk) {
        const std::size_t end = x.size() - begin > kChunk ? begin + kChunk : x.size();
        bool whole = true;
        for (std::size_t k = begin; k < end; ++k) {
            const double v = x[k];
            whole &= (v >= 0.0) & (v < 0x1p52) & ((v + 0x1p52) - 0x1p52 == v);
            // A rejected age may index anywhere: clamp into the lookup before reading.
            out[k] = l[index(v >= 0.0 ? v : 0.0, last)];
        }
        if (!whole) return false;
    }
    return true;
}

void gather_shifted(std::span<const double> lookup, double xi, std::span<const double> t, double* row) noexcept {
    const auto last = static_cast<double>(lookup.size() - 1);
    const double* l = lookup.data();
    for (std::size_t j = 0; j < t.size(); ++j) {
        row[j] = l[index(xi + t[j], last)];
    }
}

}  // namespace veltrane::kernels
